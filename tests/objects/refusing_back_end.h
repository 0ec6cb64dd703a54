// A back end that stands between the library's entries and the bound one while it lives, counts, and
// refuses as often as it is told.
#pragma once

#include "KXMBasMem.h"

#include <utility>

namespace test {

class Refusing_back_end {
public:
    Refusing_back_end() {
        self = this;
        std::swap(malloc_, mem_malloc);
        std::swap(calloc_, mem_calloc);
        std::swap(realloc_, mem_realloc);
        std::swap(free_, mem_free);
    }
    ~Refusing_back_end() {
        std::swap(malloc_, mem_malloc);
        std::swap(calloc_, mem_calloc);
        std::swap(realloc_, mem_realloc);
        std::swap(free_, mem_free);
    }
    Refusing_back_end(const Refusing_back_end&) = delete;
    Refusing_back_end& operator=(const Refusing_back_end&) = delete;

    /// Refuses the next `count` requests, and starts the count of requests at zero.
    void refuse(int count) {
        refusals_ = count;
        requests_ = 0;
    }
    void refuse_until_released() { refuse(1 << 30); }

    int requests() const { return requests_; }
    std::size_t last_size() const { return last_size_; }
    int live() const { return live_; } ///< blocks handed out and not released

private:
    static bool refused(std::size_t size) {
        ++self->requests_;
        self->last_size_ = size;
        return self->refusals_ > 0 && self->refusals_-- > 0;
    }
    static void* counted(void* block) {
        self->live_ += block != nullptr;
        return block;
    }

    static inline Refusing_back_end* self = nullptr;
    int refusals_ = 0, requests_ = 0, live_ = 0;
    std::size_t last_size_ = 0;

    void* (*malloc_)(std::size_t) = [](std::size_t size) -> void* {
        return refused(size) ? nullptr : counted(self->malloc_(size));
    };
    void* (*calloc_)(std::size_t, std::size_t) = [](std::size_t count, std::size_t size) -> void* {
        return refused(size) ? nullptr : counted(self->calloc_(count, size));
    };
    void* (*realloc_)(void*, std::size_t) = [](void* block, std::size_t size) -> void* {
        return refused(size) ? nullptr : self->realloc_(block, size);
    };
    void (*free_)(void*) = [](void* block) {
        self->live_ -= block != nullptr;
        self->refusals_ = 0;
        self->free_(block);
    };
};

} // namespace test
