// A back end that stands in for the bound one while it lives. In front of each block it has the size
// word of a heap's chunk, which pools read; its blocks lie 8 bytes beside a multiple of 16, hold what
// nobody wrote, are counted, and are refused on demand.
#pragma once

#include "KXMBasMem.h"

#include <cstdlib>
#include <cstring>
#include <set>
#include <utility>

namespace test {

class Sized_back_end {
public:
    Sized_back_end() {
        self = this;
        swap_slots();
    }
    ~Sized_back_end() {
        swap_slots();
        for (void* const block : live_) {
            release(block); // what was lost on purpose
        }
    }
    Sized_back_end(const Sized_back_end&) = delete;
    Sized_back_end& operator=(const Sized_back_end&) = delete;

    /// Lets `granted` requests pass and refuses the `refused` after them.
    void refuse(int refused, int granted = 0) {
        refusals_ = refused;
        granted_ = granted;
        requests_ = 0;
    }

    int requests() const { return requests_; } ///< since the last refuse()
    std::size_t last_size() const { return last_size_; }
    std::size_t live() const { return live_.size(); } ///< blocks handed out and not released

    /// The size word of a block of `size` bytes.
    static std::size_t chunk(std::size_t size) { return (size + 71) / 64 * 64; }

private:
    static void* give(std::size_t size, int contents) {
        ++self->requests_;
        self->last_size_ = size;
        if (self->granted_ > 0) {
            --self->granted_;
        } else if (self->refusals_ > 0) {
            --self->refusals_;
            return nullptr;
        }
        auto* const start = static_cast<char*>(std::malloc(size + 8));
        const std::size_t word = chunk(size) | 3;
        std::memcpy(start, &word, sizeof word);
        std::memset(start + 8, contents, size);
        self->live_.insert(start + 8);
        return start + 8;
    }
    static void release(void* block) { std::free(static_cast<char*>(block) - 8); }

    void swap_slots() {
        std::swap(malloc_, mem_malloc);
        std::swap(calloc_, mem_calloc);
        std::swap(free_, mem_free);
    }

    static inline Sized_back_end* self = nullptr;
    int refusals_ = 0, granted_ = 0, requests_ = 0;
    std::size_t last_size_ = 0;
    std::set<void*> live_;

    void* (*malloc_)(std::size_t) = [](std::size_t size) { return give(size, 0xA5); };
    void* (*calloc_)(std::size_t, std::size_t) = [](std::size_t count, std::size_t size) {
        return give(count * size, 0);
    };
    void (*free_)(void*) = [](void* block) {
        if (block == nullptr) {
            return;
        }
        if (self->live_.erase(block) != 0) {
            release(block);
        } else {
            self->free_(block); // from before
        }
    };
};

} // namespace test
