/* A client in C: the header is plain C, and the entries work from it. */
#include "KXMBasMem.h"

#include <stdio.h>
#include <string.h>

int main(void) {
    mem_DLMallinfoType info = mem_DLMallinfo();
    char* block = mem_Malloc(10);
    if (block == NULL || info.arena != 0 || mem_dlmallinfo().arena != 0 ||
        memcheck_debug_printf("") != 1) {
        return 1;
    }
    strcpy(block, "from C");
    block = mem_Realloc(block, 1000);
    puts(block);
    mem_Free(block);
    return mem_Footprint() > 0 ? 0 : 1;
}
