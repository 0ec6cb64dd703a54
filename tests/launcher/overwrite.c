/* Writes behind one block and in front of another, and ends well all the same. */
#include <stdlib.h>
#include <string.h>

int main(void) {
    char* volatile behind = malloc(10);
    behind[10] = 1;
    free(behind);
    char* volatile before = aligned_alloc(64, 640);
    memset(before - 4, 0, 4);
    free(before);
    before = malloc(20);
    before[-1] = 1;
    free(realloc(before, 40));
    return 0;
}
