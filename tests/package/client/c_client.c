#include <KXMBasMem.h>
#include <stdio.h>
#include <string.h>

int main(void) {
    int* value = mem_Malloc(sizeof *value);
    *value = strcmp(KXMBasMemVersion(), EXPECTED_VERSION) == 0 ? 42 : 0;
    printf("%d\n", *value);
    mem_Free(value);
    return 0;
}
