// A set of blocks, for recordings that must not tell of what they do not know: a release whose block they never
// saw. In memory mapped for it, open addressing, at most half full, the deleted closed up behind.
//
// Whoever finds it in use waits for a moment and no longer: a signal handler may have interrupted its own
// thread in here. What is then not noted is a release too many in a recording.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sched.h>
#include <sys/mman.h>

namespace kxmrun {

class AddressSet {
public:
    void insert(const void* block) {
        const Use use(*this);
        if (!use.held() || block == nullptr || (2 * (count_ + 1) > capacity_ && !grow())) {
            return;
        }
        std::size_t i = home(block);
        while (slots_[i] != nullptr) {
            i = (i + 1) & (capacity_ - 1);
        }
        slots_[i] = block;
        ++count_;
    }

    /// Whether it was there.
    bool remove(const void* block) {
        const Use use(*this);
        if (!use.held() || count_ == 0) {
            return false;
        }
        std::size_t i = home(block);
        while (slots_[i] != block) {
            if (slots_[i] == nullptr) {
                return false;
            }
            i = (i + 1) & (capacity_ - 1);
        }
        close_up(i);
        --count_;
        return true;
    }

    /// Forgets all, also where a thread was in here that is no more.
    void clear() {
        if (slots_ != nullptr) {
            munmap(slots_, capacity_ * sizeof *slots_);
        }
        slots_ = nullptr;
        capacity_ = count_ = 0;
        used_.clear();
    }

private:
    class Use {
    public:
        explicit Use(AddressSet& set) : set_(set) {
            for (int attempt = 0; !held_ && attempt < 10000; ++attempt) {
                held_ = !set.used_.test_and_set(std::memory_order_acquire);
                if (!held_ && attempt > 100) {
                    sched_yield();
                }
            }
        }
        ~Use() {
            if (held_) {
                set_.used_.clear(std::memory_order_release);
            }
        }
        Use(const Use&) = delete;
        Use& operator=(const Use&) = delete;
        bool held() const { return held_; }

    private:
        AddressSet& set_;
        bool held_ = false;
    };

    std::size_t home(const void* block) const {
        const std::uint64_t mixed =
            (reinterpret_cast<std::uintptr_t>(block) >> 4) * 0x9e3779b97f4a7c15U;
        return (mixed >> 32) & (capacity_ - 1);
    }

    // The hole moves on to where no block behind it would rather be in its place.
    void close_up(std::size_t hole) {
        for (std::size_t i = hole;;) {
            i = (i + 1) & (capacity_ - 1);
            if (slots_[i] == nullptr) {
                break;
            }
            const std::size_t wanted = home(slots_[i]);
            if (((i - wanted) & (capacity_ - 1)) >= ((i - hole) & (capacity_ - 1))) {
                slots_[hole] = slots_[i];
                hole = i;
            }
        }
        slots_[hole] = nullptr;
    }

    bool grow() {
        const std::size_t capacity = capacity_ != 0 ? 2 * capacity_ : 8192;
        void* const memory = mmap(nullptr, capacity * sizeof *slots_, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED) {
            return false;
        }
        const void** const old = slots_;
        const std::size_t old_capacity = capacity_;
        slots_ = static_cast<const void**>(memory);
        capacity_ = capacity;
        for (std::size_t k = 0; k < old_capacity; ++k) {
            if (old[k] != nullptr) {
                std::size_t i = home(old[k]);
                while (slots_[i] != nullptr) {
                    i = (i + 1) & (capacity_ - 1);
                }
                slots_[i] = old[k];
            }
        }
        if (old != nullptr) {
            munmap(old, old_capacity * sizeof *old);
        }
        return true;
    }

    const void** slots_ = nullptr;
    std::size_t capacity_ = 0, count_ = 0;
    std::atomic_flag used_{};
};

} // namespace kxmrun
