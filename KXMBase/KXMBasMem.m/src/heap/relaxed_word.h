// A word that some thread may read while the heap's owner writes it: figures that are read without
// the lock, and options that are written without it. Every access is a plain move; no order is
// implied. Arithmetic is not atomic: only the holder of the heap's lock does it.
#pragma once

#include <atomic>

namespace heap {

template <typename T> class relaxed_word {
public:
    constexpr relaxed_word(T value = T{}) : word_(value) {}
    relaxed_word(const relaxed_word&) = delete;

    operator T() const { return word_.load(std::memory_order_relaxed); }

    relaxed_word& operator=(T value) {
        word_.store(value, std::memory_order_relaxed);
        return *this;
    }
    relaxed_word& operator=(const relaxed_word& other) { return *this = static_cast<T>(other); }
    relaxed_word& operator+=(T more) { return *this = static_cast<T>(*this) + more; }
    relaxed_word& operator-=(T less) { return *this = static_cast<T>(*this) - less; }

private:
    std::atomic<T> word_;
    static_assert(std::atomic<T>::is_always_lock_free && sizeof(std::atomic<T>) == sizeof(T));
};

} // namespace heap
