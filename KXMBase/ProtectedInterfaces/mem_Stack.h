// A stack of values in an array that is exactly as long as the stack: each push and pop makes a new
// array, in time linear in its length. Meant for a handful of records.
//
// T has a default constructor, which makes an invalid element, and can be assigned. Memory comes from
// the language's global operator new; when that throws, the stack is as before. Not thread-safe, and no
// support for a stack that is assigned to itself.
#pragma once

#include <cstdint>
#include <memory>
#include <new>

#include "KXMBasMemExport.h"

template <class T> class KXMBASMEM_TEMPLATE mem_Stack {
public:
    mem_Stack();
    mem_Stack(mem_Stack const& other);
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): see its body
    mem_Stack& operator=(mem_Stack const& other);
    ~mem_Stack();

    void push(T const& value);
    T pop(); ///< the top element, taken off; a default element when there is none

    /// Gives the elements up but keeps their number: for a stack that one is finished with. A pop is
    /// a fault from now on. To a push or a copy the elements are default ones.
    void ClearStack();

private:
    T* copy(std::int32_t length) const;
    static void destroy(T& element);

    T* data; // new T[count]; the top is the last
    std::int32_t count;
};

template <class T> mem_Stack<T>::mem_Stack() : data(nullptr), count(0) {}

template <class T>
mem_Stack<T>::mem_Stack(mem_Stack const& other)
    : data(other.copy(other.count)), count(other.count) {}

// Assigned to itself it loses its elements: meant.
// cppcheck-suppress operatorEqToSelf
// NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
template <class T> mem_Stack<T>& mem_Stack<T>::operator=(mem_Stack const& other) {
    delete[] data;
    data = nullptr; // should the copy throw
    count = 0;
    data = other.copy(other.count);
    count = other.count;
    return *this;
}

template <class T> mem_Stack<T>::~mem_Stack() {
    if (data != nullptr) {
        ClearStack();
    }
}

// A new array of that many elements, the lower ones being the stack's own.
template <class T> T* mem_Stack<T>::copy(std::int32_t length) const {
    std::unique_ptr<T[]> array(new T[static_cast<std::size_t>(length)]);
    for (std::int32_t i = 0; data != nullptr && i < length && i < count; ++i) {
        array[static_cast<std::size_t>(i)] = data[i];
    }
    return array.release();
}

// An element is destroyed once by itself and once more with its array. In between it is a default
// element, since a destroyed object has no contents that a destructor could go by.
template <class T> void mem_Stack<T>::destroy(T& element) {
    element.~T();
    new (static_cast<void*>(&element)) T();
}

template <class T> void mem_Stack<T>::push(T const& value) {
    std::unique_ptr<T[]> array(copy(count + 1));
    array[static_cast<std::size_t>(count)] = T(value);
    delete[] data; // after the copy, as the value may be one of the elements
    data = array.release();
    ++count;
}

template <class T> T mem_Stack<T>::pop() {
    if (count < 1) {
        return T();
    }
    std::unique_ptr<T[]> lower(count == 1 ? nullptr : copy(count - 1));
    T top(data[count - 1]);
    destroy(data[count - 1]);
    delete[] data;
    data = lower.release();
    --count;
    return top;
}

template <class T> void mem_Stack<T>::ClearStack() {
    if (data == nullptr) {
        return;
    }
    for (std::int32_t i = 0; i < count; ++i) {
        destroy(data[i]);
    }
    delete[] data;
    data = nullptr; // and the count stays: meant
}
