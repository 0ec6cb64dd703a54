/* A program that brings an allocator of its own, and never gives back. */
#include <stddef.h>

static char pool[1 << 20];
static size_t used;

void* malloc(size_t size) {
    void* const block = pool + used;
    used += (size + 15) / 16 * 16;
    return block;
}

void free(void* block) {
    (void)block;
}

void* calloc(size_t count, size_t size) {
    return malloc(count * size);
}

void* realloc(void* block, size_t size) {
    (void)block;
    return malloc(size);
}

int main(void) {
    return malloc(3) == NULL;
}
