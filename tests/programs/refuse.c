/* A witness for runs that are refused: the C runtime's allocator with a limit of KXM_REFUSE bytes held at the same
   time. A program that ends by a signal under it does so of its own accord. Built and preloaded by run_programs.py. */
#define _GNU_SOURCE
#include <errno.h>
#include <malloc.h>
#include <stdatomic.h>
#include <stdint.h>
#include <stdlib.h>

void* __libc_malloc(size_t);
void* __libc_calloc(size_t, size_t);
void* __libc_realloc(void*, size_t);
void* __libc_memalign(size_t, size_t);
void __libc_free(void*);

static atomic_llong held;
static atomic_llong limit = INT64_MAX;

__attribute__((constructor)) static void begin(void) {
    const char* text = getenv("KXM_REFUSE");
    limit = text != NULL ? atoll(text) : INT64_MAX;
}

static int refused(size_t size) {
    if (size < INT64_MAX / 2 && held + (long long)size <= limit) {
        return 0;
    }
    errno = ENOMEM;
    return 1;
}

static void* taken(void* p) {
    held += (long long)malloc_usable_size(p);
    return p;
}

void* malloc(size_t size) {
    return refused(size) ? NULL : taken(__libc_malloc(size));
}

void* calloc(size_t count, size_t size) {
    size_t bytes;
    return __builtin_mul_overflow(count, size, &bytes) || refused(bytes)
               ? NULL
               : taken(__libc_calloc(count, size));
}

void* realloc(void* old, size_t size) {
    const size_t before = malloc_usable_size(old);
    if (size > before && refused(size - before)) {
        return NULL;
    }
    void* p = __libc_realloc(old, size);
    if (p != NULL || size == 0) {
        held -= (long long)before;
        taken(p);
    }
    return p;
}

void* memalign(size_t alignment, size_t size) {
    return refused(size) ? NULL : taken(__libc_memalign(alignment, size));
}

void* aligned_alloc(size_t alignment, size_t size) {
    return memalign(alignment, size);
}

int posix_memalign(void** result, size_t alignment, size_t size) {
    const int before = errno;
    void* p = memalign(alignment, size);
    errno = before;
    if (p == NULL) {
        return ENOMEM;
    }
    *result = p;
    return 0;
}

void free(void* p) {
    held -= (long long)malloc_usable_size(p);
    __libc_free(p);
}
