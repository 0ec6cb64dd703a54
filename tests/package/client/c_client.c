#include <KXMBasMem.h>
#include <stdio.h>

int main(void) {
    int* value = mem_Malloc(sizeof *value);
    *value = 42;
    printf("%d\n", *value);
    mem_Free(value);
    return 0;
}
