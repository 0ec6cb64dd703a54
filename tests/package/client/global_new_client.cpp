#include <KXMBasMem.h>
#include <cstdio>
#include <vector>

static void* (*bound)(std::size_t) = nullptr;
static int requests = 0;

static void* counted(std::size_t size) {
    ++requests;
    return bound(size);
}

int main() {
    bound = mem_malloc;
    mem_malloc = counted;
    {
        std::vector<std::vector<int>> numbers(1);
        numbers[0].resize(42, 1);
    }
    mem_malloc = bound;
    std::printf("%d\n", requests == 2 ? 42 : requests);
}
