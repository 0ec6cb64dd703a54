/* What the allocation functions answer, as lines that do not depend on where blocks lie: a run on any back end
   must print what a run without the launcher prints. */
#include <errno.h>
#include <malloc.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

static volatile size_t huge = SIZE_MAX; /* no compiler knows these sizes */
static volatile size_t half = (size_t)PTRDIFF_MAX + 1;
static volatile size_t zero = 0;

static void tell(const char* what, const void* result) {
    printf("%s: %s, errno %d\n", what, result != NULL ? "a block" : "null", errno);
    errno = 0;
}

static void tell_memalign(const char* what, size_t alignment, size_t size) {
    void* block = &block;
    errno = 7;
    const int result = posix_memalign(&block, alignment, size);
    /* The C runtime sets errno where memory is short; POSIX does not want it. */
    printf("%s: %d, %s, errno %d\n", what, result, block == &block ? "untouched" : "written",
           result == ENOMEM ? 0 : errno);
    if (block != &block) {
        printf("  aligned %d\n", (uintptr_t)block % alignment == 0);
        free(block);
    }
    errno = 0;
}

static void tell_aligned(const char* what, void* block, size_t alignment) {
    printf("%s: %s, errno %d, aligned %d\n", what, block != NULL ? "a block" : "null", errno,
           (uintptr_t)block % alignment == 0);
    free(block);
    errno = 0;
}

static unsigned long long state = 1;
static size_t random_below(size_t bound) {
    state = state * 6364136223846793005ULL + 1442695040888963407ULL;
    return (size_t)(state >> 33) % bound;
}

static size_t random_size(void) {
    const size_t kind = random_below(100);
    return kind < 70 ? random_below(300) : kind < 97 ? random_below(20000) : random_below(600000);
}

enum { slots = 600, steps = 60000 };
static struct {
    unsigned char* block;
    size_t size;
    unsigned char fill;
} held[slots];

/* Every byte that it may use, as malloc_usable_size tells, is written and found again. */
static int histories(void) {
    for (int step = 0; step < steps; ++step) {
        const size_t i = random_below(slots);
        unsigned char* const old = held[i].block;
        for (size_t k = 0; old != NULL && k < held[i].size; k += 1 + held[i].size / 16) {
            if (old[k] != held[i].fill) {
                return printf("byte %zu of %zu is lost\n", k, held[i].size);
            }
        }
        const size_t size = random_size();
        unsigned char* block = NULL;
        size_t kept = 0, alignment = 16;
        switch (random_below(6)) {
        case 0:
            block = calloc(size / 8 + 1, 8);
            for (size_t k = 0; k < size; ++k) {
                if (block[k] != 0) {
                    return printf("calloc is not zero at %zu of %zu\n", k, size);
                }
            }
            free(old);
            break;
        case 1:
            alignment = (size_t)16 << random_below(9);
            block = aligned_alloc(alignment, size);
            free(old);
            break;
        case 2:
        case 3:
            kept = size < held[i].size ? size : held[i].size;
            block = realloc(old, size + 1);
            break;
        case 4:
            free(old);
            break;
        default:
            block = malloc(size);
            free(old);
        }
        for (size_t k = 0; old != NULL && k < kept; k += 1 + kept / 16) {
            if (block[k] != held[i].fill) {
                return printf("realloc lost byte %zu of %zu\n", k, kept);
            }
        }
        if ((uintptr_t)block % alignment != 0) {
            return printf("%p is not aligned to %zu\n", (void*)block, alignment);
        }
        held[i].block = block;
        if (block != NULL) {
            const size_t usable = malloc_usable_size(block);
            if (usable < size) {
                return printf("%zu usable of %zu\n", usable, size);
            }
            held[i].size = usable;
            held[i].fill = (unsigned char)step;
            memset(block, held[i].fill, usable);
        }
    }
    for (int i = 0; i < slots; ++i) {
        free(held[i].block);
    }
    return 0;
}

int main(void) {
    errno = 0;
    void* const first = malloc(zero);
    void* const second = malloc(zero);
    printf("two of size 0 differ: %d\n", first != second && first != NULL && second != NULL);
    free(first);
    free(second);
    tell("malloc of everything", malloc(huge));
    tell("malloc of half", malloc(half));
    tell("calloc that overflows", calloc(half, 2));
    tell("calloc of half", calloc(half, 1));
    tell("calloc of nothing", calloc(zero, 8));
    void* block = malloc(100);
    memset(block, 5, 100);
    void* volatile stays = block; /* no compiler takes it for released */
    tell("realloc to everything", realloc(block, huge));
    tell("reallocarray that overflows", reallocarray(block, half, 2));
    printf("and the block stands: %d\n", ((char*)stays)[99]);
    block = reallocarray(stays, 50, 10);
    printf("reallocarray keeps: %d\n", ((char*)block)[99]);
    tell("realloc to 0", realloc(block, zero));
    tell("realloc of null", block = realloc(NULL, 10));
    errno = 42;
    free(block);
    free(NULL);
    block = malloc(1 << 20);
    free(block);
    block = malloc((size_t)80 << 20);
    free(block);
    tell("errno after releases", NULL);
    tell_memalign("posix_memalign 4", 4, 10);
    tell_memalign("posix_memalign 24", 24, 10);
    tell_memalign("posix_memalign 0", 0, 10);
    tell_memalign("posix_memalign of everything", 64, huge);
    tell_memalign("posix_memalign 8", 8, 10);
    tell_memalign("posix_memalign 2M", (size_t)2 << 20, 10);
    tell_aligned("memalign 24", memalign(24, 100), 32);
    tell_aligned("memalign 0", memalign(zero, 100), 16);
    tell_aligned("memalign of everything", memalign(64, huge), 1);
    tell_aligned("memalign beyond all alignments", memalign(huge, 1), 1);
    tell_aligned("aligned_alloc 3", aligned_alloc(3 + zero, 9), 4);
    tell_aligned("aligned_alloc 4096, 0 bytes", aligned_alloc(4096, zero), 4096);
    tell_aligned("valloc", valloc(3), 4096);
    tell_aligned("pvalloc of everything", pvalloc(huge), 4096);
    block = pvalloc(5000);
    printf("pvalloc: whole pages %d\n", malloc_usable_size(block) >= 8192);
    tell_aligned("pvalloc", block, 4096);
    printf("usable of null: %zu\n", malloc_usable_size(NULL));
    errno = 0;
    if (histories() != 0) {
        return 1;
    }
    printf("errno after the histories: %d\n", errno);
    malloc_trim(0);
    block = malloc(10 << 20);
    const struct mallinfo2 info = mallinfo2();
    printf("mallinfo2 sees it: %d\n", info.uordblks + info.hblkhd >= (size_t)10 << 20);
    free(block);
    return 0;
}
