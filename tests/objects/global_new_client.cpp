// A program whose global operators are the library's: every form of new and delete, containers, and
// refusals, on the back end that the environment chose or on one of its own (argument "odd") whose
// blocks lie where a shift is hardest. The exit status is 0, or the number of the line that failed.
//
// Without the test framework: on Windows the operators of a program are not those of a C++ runtime
// in a DLL, whose compiled code the framework uses to make strings.
#include "KXMBasMem.h"

#include <atomic>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <memory_resource>
#include <new>
#include <string>
#include <thread>
#include <vector>

#define REQUIRE(condition)                                                                         \
    do {                                                                                           \
        if (!(condition))                                                                          \
            return __LINE__;                                                                       \
    } while (false)

// Some compilers leave these undeclared and do not call them by themselves.
void operator delete(void* ptr, std::size_t size) noexcept;
void operator delete[](void* ptr, std::size_t size) noexcept;
void operator delete(void* ptr, std::size_t size, std::align_val_t align) noexcept;
void operator delete[](void* ptr, std::size_t size, std::align_val_t align) noexcept;

namespace {

// Between the operators and the back end: what is live, in blocks.
std::atomic<long> live = 0;
void* (*back_malloc)(std::size_t) = nullptr;
void (*back_free)(void*) = nullptr;

void* counting_malloc(std::size_t size) {
    void* const ptr = back_malloc(size);
    live += ptr != nullptr;
    return ptr;
}

void counting_free(void* ptr) {
    live -= ptr != nullptr;
    back_free(ptr);
}

// Blocks 8 bytes off, the first of which would be shifted to the start of a page.
void* odd_malloc(std::size_t size) {
    if (size > 1 << 20) {
        return nullptr;
    }
    char* const block = static_cast<char*>(mem_alignedAlloc(size + 8192, 4096));
    std::memset(block, 0xdb, size + 8192);
    std::memcpy(block + 4080, &block, sizeof block);
    return block + 4096 - 8;
}

void odd_free(void* ptr) {
    if (ptr != nullptr) {
        void* block = nullptr;
        std::memcpy(&block, static_cast<char*>(ptr) - 8, sizeof block);
        mem_free_aligned(block);
    }
}

bool aligned(const void* block, std::size_t alignment) {
    return reinterpret_cast<std::uintptr_t>(block) % alignment == 0;
}

// A compiler may leave out a pair of new and delete that it sees through.
template <typename T> T* hidden(T* ptr) {
    T* volatile kept = ptr;
    return kept;
}

int plain_forms(std::size_t size) {
    void* const blocks[] = {operator new(size),
                            operator new[](size),
                            operator new(size, std::nothrow),
                            operator new[](size, std::nothrow),
                            operator new(size),
                            operator new[](size)};
    for (void* const block : blocks) {
        REQUIRE(block != nullptr && aligned(block, 16));
        std::memset(block, 0xa5, size);
    }
    REQUIRE(live == 6);
    operator delete(blocks[0]);
    operator delete[](blocks[1]);
    operator delete(blocks[2], std::nothrow);
    operator delete[](blocks[3], std::nothrow);
    operator delete(blocks[4], size);
    operator delete[](blocks[5], size);
    return 0;
}

int aligned_forms(std::size_t size, std::align_val_t align) {
    void* const blocks[] = {operator new(size, align),
                            operator new[](size, align),
                            operator new(size, align, std::nothrow),
                            operator new[](size, align, std::nothrow),
                            operator new(size, align),
                            operator new[](size, align)};
    for (void* const block : blocks) {
        REQUIRE(block != nullptr && aligned(block, static_cast<std::size_t>(align)));
        REQUIRE(aligned(block, 16));
        std::memset(block, 0x5a, size);
    }
    REQUIRE(live == 6);
    operator delete(blocks[0], align);
    operator delete[](blocks[1], align);
    operator delete(blocks[2], align, std::nothrow);
    operator delete[](blocks[3], align, std::nothrow);
    operator delete(blocks[4], size, align);
    operator delete[](blocks[5], size, align);
    return 0;
}

int forms() {
    operator delete(nullptr);
    operator delete (nullptr, std::align_val_t{8192});
    for (const std::size_t size : {0U, 1U, 8U, 9U, 24U, 100U, 128U, 129U, 5000U}) {
        int line = plain_forms(size);
        for (std::size_t align = 1; line == 0 && align <= 1 << 16; align *= 2) {
            REQUIRE(live == 0);
            line = aligned_forms(size, std::align_val_t{align});
        }
        if (line != 0) {
            return line;
        }
    }
    return 0;
}

// Its runtime's own resource lies in a DLL on Windows; this one draws on the program's operators.
class Program_resource : public std::pmr::memory_resource {
    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        return ::operator new (bytes, std::align_val_t{alignment});
    }
    void do_deallocate(void* ptr, std::size_t bytes, std::size_t alignment) override {
        ::operator delete (ptr, bytes, std::align_val_t{alignment});
    }
    bool do_is_equal(const memory_resource& other) const noexcept override {
        return this == &other;
    }
};

struct alignas(64) Line {
    double values[8];
};

int containers() {
    Program_resource resource;
    {
        std::map<int, std::vector<std::string>> names;
        for (int i = 0; i < 200; ++i) {
            names[i % 50].push_back(std::string(static_cast<std::size_t>(i), 'n'));
        }
        std::vector<Line> lines;
        for (int i = 0; i < 100; ++i) {
            lines.push_back({{static_cast<double>(i)}});
            REQUIRE(aligned(lines.data(), 64));
        }
        std::pmr::vector<Line> pooled(&resource);
        pooled.assign(lines.begin(), lines.end());
        auto* const shared = hidden(new std::shared_ptr<Line>(std::make_shared<Line>(lines[7])));
        REQUIRE(live > 150);
        REQUIRE(names[49][3] == std::string(199, 'n') && pooled[42].values[0] == 42);
        REQUIRE((*shared)->values[0] == 7);
        delete shared;
    }
    REQUIRE(live == 0);
    return 0;
}

int threads() {
    std::vector<std::thread> all;
    std::atomic<int> wrong = 0;
    for (int i = 0; i < 4; ++i) {
        all.emplace_back([&wrong] {
            for (std::size_t count = 1; count < 500; ++count) {
                auto* const ints = hidden(new int[count]);
                auto* const line = hidden(new Line);
                wrong += !aligned(ints, 16) + !aligned(line, 64);
                delete line;
                delete[] ints;
            }
        });
    }
    for (std::thread& thread : all) {
        thread.join();
    }
    REQUIRE(wrong == 0);
    return 0;
}

int handled = 0;

int refusals() {
    volatile std::size_t too_much = SIZE_MAX / 2, wraps = SIZE_MAX - 16;
    REQUIRE(operator new(too_much, std::nothrow) == nullptr);
    REQUIRE(operator new[](too_much, std::nothrow) == nullptr);
    REQUIRE(operator new (too_much, std::align_val_t{64}, std::nothrow) == nullptr);
    REQUIRE(operator new[](wraps, std::align_val_t{64}, std::nothrow) == nullptr);
    const auto throws = [](auto request) {
        try {
            request();
        } catch (const std::bad_alloc&) {
            return true;
        }
        return false;
    };
    REQUIRE(throws([&] { return operator new(too_much); }));
    REQUIRE(throws([&] { return operator new[](wraps); }));
    REQUIRE(throws([&] { return operator new (too_much, std::align_val_t{4096}); }));
    // The handler is called again and again until it gives up, in the no-throw form too.
    std::set_new_handler([] {
        if (++handled == 3) {
            throw std::bad_alloc();
        }
    });
    REQUIRE(operator new(too_much, std::nothrow) == nullptr&& handled == 3);
    std::set_new_handler(nullptr);
    if (mem_usingDL() != 0) { // what has a wide alignment counts against the limit as well
        mem_Mallopt(-5, mem_footprint() + (1 << 20));
        REQUIRE(operator new (4 << 20, std::align_val_t{64}, std::nothrow) == nullptr);
        mem_Mallopt(-5, 0);
    }
    REQUIRE(live == 0);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    const std::string what = argc > 1 ? argv[1] : "";
    back_malloc = what == "odd" ? odd_malloc : mem_malloc;
    back_free = what == "odd" ? odd_free : mem_free;
    mem_malloc = counting_malloc;
    mem_free = counting_free;
    live = 0;
    for (int (*const part)() : {forms, containers, threads}) {
        if (const int line = part()) {
            return line;
        }
        REQUIRE(live == 0);
    }
    // The guarded back end has no test of a refusal.
    return what == "guarded" ? 0 : refusals();
}
