// The account of singletons, and the balance sheet at the library's stop.
//
// A class of fewer than 129 bytes on the operators for larger ones: meant, and so a registry under
// KXQ_DEBUG_MEMSIZE ends the process.
#include "omi_SingletonBase.h"

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "KXMBasAlloc.h"
#include "frame/seam_shutdown.h"
#include "mem_Interface.h"
#include "platform/os.h"

omi_SingletonRegistry* omi_SingletonRegistry::s_registry = nullptr;

namespace {

constexpr std::size_t prefix = 6; // "class "

template <typename T> T* allocate(std::int32_t count) {
    return static_cast<T*>(mem_Malloc(static_cast<std::size_t>(count) * sizeof(T)));
}

template <typename T> T* larger(const T* array, std::int32_t count, std::int32_t capacity) {
    T* const copy = allocate<T>(capacity);
    std::copy_n(array, count, copy);
    return copy;
}

// What is printed while the library unloads comes after the program's own last flush.
#if defined(__GNUC__)
__attribute__((format(printf, 1, 2)))
#endif
void say(const char* format, ...) {
    std::va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): it is, in the line above
    std::vprintf(format, arguments);
    va_end(arguments);
    std::fflush(stdout);
}

const char* remark(std::int32_t created, std::int32_t deleted) {
    return created == deleted  ? ""
           : deleted == 0      ? "   !!NOT deleted!!"
           : created > deleted ? "   !!Left over!!"
                               : "   !!Over deleted!!";
}

} // namespace

void registry_seam::finalize() {
    omi_SingletonRegistry::Finalize();
}

kxm::SingletonTypeText::SingletonTypeText(const std::type_info& type) {
    os::type_text(type, text_, sizeof text_);
}

void kxm::second_singleton() {
    os::assertion_failed("instance == 0", "omi_SingletonBase", 22);
}

omi_SingletonRegistry* omi_SingletonRegistry::Instance() {
    if (m_registEnv != nullptr && s_registry == nullptr) {
        s_registry = new omi_SingletonRegistry;
    }
    return s_registry;
}

void omi_SingletonRegistry::Finalize() {
    delete s_registry;
    s_registry = nullptr;
}

omi_SingletonRegistry::omi_SingletonRegistry()
    : level(0), capacity(0), count(0), deletedTotal(0), created(nullptr), deleted(nullptr),
      names(nullptr), instances(nullptr) {
    static_assert(sizeof(omi_SingletonRegistry) == 48);
    level = std::atoi(m_registEnv);
}

void omi_SingletonRegistry::Grow() {
    constexpr std::int32_t step = 50;
    // The old ones go last of all.
    void* const old[] = {created, deleted, names, instances};
    capacity += step;
    created = larger(created, count, capacity);
    deleted = larger(deleted, count, capacity);
    names = larger(names, count, capacity);
    instances = larger(instances, count, capacity);
    for (void* const array : old) {
        mem_Free(array);
    }
}

int omi_SingletonRegistry::Add(const char* typeName, void* instance) {
    const char* const text = typeName + prefix;
    const std::size_t bytes = std::strlen(text) + 1;
    auto* const name = static_cast<char*>(mem_Malloc(bytes));
    std::memcpy(name, text, bytes);
    if (count >= capacity) {
        Grow();
    }
    for (std::int32_t id = 0; id < count; ++id) {
        if (std::strcmp(names[id], name) == 0) {
            ++created[id];
            if (level == 2) {
                say("Singleton %s created, %d occurence, ID: %d%s", name, created[id], id, "\n");
            }
            return count; // the copy made above is not released: a small leak, kept
        }
    }
    created[count] = 1;
    deleted[count] = 0;
    names[count] = name;
    instances[count] = instance;
    if (level == 2) {
        say("Singleton %s created, 1 occurence, ID: %d%s", name, count, "\n");
    }
    return ++count;
}

int omi_SingletonRegistry::Remove(const char* typeName) {
    const char* const name = typeName + prefix;
    for (std::int32_t id = 0; id < count; ++id) {
        if (names[id] != nullptr && std::strcmp(names[id], name) == 0) {
            ++deleted[id];
            if (level == 2) {
                say("Singleton %s deleted, %d occurence, ID: %d\n", name, deleted[id], id);
            }
            ++deletedTotal;
            return 1;
        }
    }
    say("Deleting singleton %s, but it's not created\n", name);
    return 0;
}

omi_SingletonRegistry::~omi_SingletonRegistry() {
    // Types and deletions: the two figures differ on a clean run that created a type twice. Meant.
    say("-----%d singletons created, %d singletons deleted------\n", count, deletedTotal);
    for (std::int32_t id = 0; id < count; ++id) {
        say("Singleton %-40s: created occurences %d, deleted occurences %d%s\n", names[id],
            created[id], deleted[id], remark(created[id], deleted[id]));
        instances[id] = nullptr;
        mem_Free(names[id]);
    }
    mem_Free(created);
    mem_Free(deleted);
    mem_Free(names);
    mem_Free(instances);
    created = nullptr;
    deleted = nullptr;
    names = nullptr;
    instances = nullptr;
}
