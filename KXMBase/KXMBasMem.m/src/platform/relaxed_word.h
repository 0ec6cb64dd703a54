// A word that several threads read and write without a lock, where a stale or lost value does no
// harm: cached decisions, and figures that are approximate by nature. Every access is a plain move,
// and arithmetic is not atomic. No order is implied but by publish and seen, which a word uses that
// tells others that something else is ready.
#pragma once

#include <atomic>
#include <type_traits>

namespace os {

/// The same for a variable whose type a public header gives away.
template <typename T> T relaxed_read(T& variable) {
    return std::atomic_ref(variable).load(std::memory_order_relaxed);
}

template <typename T> void relaxed_write(T& variable, std::type_identity_t<T> value) {
    std::atomic_ref(variable).store(value, std::memory_order_relaxed);
}

template <typename T> class relaxed_word {
public:
    constexpr relaxed_word(T value = T{}) noexcept : word_(value) {}
    relaxed_word(const relaxed_word&) = delete;

    operator T() const noexcept { return word_.load(std::memory_order_relaxed); }

    relaxed_word& operator=(T value) noexcept {
        word_.store(value, std::memory_order_relaxed);
        return *this;
    }
    relaxed_word& operator=(const relaxed_word& other) { return *this = static_cast<T>(other); }
    relaxed_word& operator+=(T more) {
        // cppcheck-suppress arithOperationsOnVoidPointer ; nobody adds to a word that is a void pointer
        return *this = static_cast<T>(*this) + more;
    }
    relaxed_word& operator-=(T less) { return *this = static_cast<T>(*this) - less; }

    void publish(T value) { word_.store(value, std::memory_order_release); }
    T seen() const { return word_.load(std::memory_order_acquire); }

private:
    std::atomic<T> word_;
    static_assert(std::atomic<T>::is_always_lock_free && sizeof(std::atomic<T>) == sizeof(T));
};

} // namespace os
