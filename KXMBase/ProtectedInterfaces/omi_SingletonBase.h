// First-use singletons, and the registry that keeps their account when KXM_SINGLETON_REGISTRY is
// set. A singleton class derives from omi_Singleton of itself, beside its own base:
//
//   class Table : public Base, public omi_Singleton<Table> { ... };
//   Table::Instance() ... omi_SingletonBase<Table>::Finalize();
//
// The account's last line counts types that were created and, beside them, deletions: a type that
// was created and deleted twice adds one to the first and two to the second.
//
// Nothing here takes a lock: the first use of a type, and its end, belong to one thread.
//
// A class that several libraries share needs one instance in all: the library that owns it exports
// an explicit instantiation of omi_Singleton and omi_SingletonBase with it.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <typeinfo>

#include "KXMBasMemExport.h"
#include "mem_AllocationOperators.h"

#if defined(__GNUC__)
#define KXM_SINGLETON_UNDER_CONSTRUCTION __attribute__((no_sanitize("undefined")))
#else
#define KXM_SINGLETON_UNDER_CONSTRUCTION
#endif

/// The account of singletons: how often each type was created and deleted. A debugging aid without a
/// path for memory running out. It prints on standard output: each event when the variable's number
/// is 2, and a balance sheet when the library stops.
class KXMBASMEM_API omi_SingletonRegistry : public mem_AllocationOperators {
public:
    /// Created on first call. Null when KXM_SINGLETON_REGISTRY was not set at load.
    static omi_SingletonRegistry* Instance();

    /// Counts one creation or deletion. `typeName` is the text of the type's record, "class Name":
    /// its first six characters are skipped without a look. It is copied.
    int Add(const char* typeName, void* instance); ///< number of types known
    int Remove(const char* typeName);              ///< 1, or 0 when the type is not known

    /// Prints the balance sheet and deletes the registry. The library calls it last of all; a later
    /// Instance() makes a fresh one that nobody deletes.
    static void Finalize();

private:
    omi_SingletonRegistry();
    ~omi_SingletonRegistry();
    omi_SingletonRegistry(const omi_SingletonRegistry&);
    omi_SingletonRegistry& operator=(const omi_SingletonRegistry&);
    void Grow();

    std::int32_t level;
    std::int32_t capacity; // entries that the four arrays can hold
    std::int32_t count;
    std::int32_t deletedTotal;
    std::int32_t* created; // by entry, as the next three
    std::int32_t* deleted;
    char** names;
    void** instances; // as they were at the first creation

    static omi_SingletonRegistry* s_registry;
};

namespace kxm {

/// "class " and the name of a type, the same on every system and compiler; cut to 1023 characters.
class KXMBASMEM_API SingletonTypeText {
public:
    explicit SingletonTypeText(const std::type_info& type);
    operator const char*() const { return text_; }

private:
    char text_[1024];
};

/// Reports a second object of a singleton class as the C runtime's own assertion does, and ends the
/// process.
[[noreturn]] KXMBASMEM_API void second_singleton();

} // namespace kxm

template <class T> class KXMBASMEM_TEMPLATE omi_SingletonBase {
public:
    /// Destroys and deletes the object, if there is one. The next use creates it again.
    static void Finalize() {
        if (omi_SingletonRegistry* const registry = omi_SingletonRegistry::Instance()) {
            registry->Remove(kxm::SingletonTypeText(typeid(T)));
        }
        if (instance != nullptr) {
            delete instance;
        }
        instance = nullptr;
    }

protected:
    // The T around this part is not built yet, and only its address is taken.
    KXM_SINGLETON_UNDER_CONSTRUCTION omi_SingletonBase() {
        if (instance != nullptr) {
            kxm::second_singleton();
        }
        instance = static_cast<T*>(this);
        if (omi_SingletonRegistry* const registry = omi_SingletonRegistry::Instance()) {
            registry->Add(kxm::SingletonTypeText(typeid(T)), instance);
        }
    }

    static T* Instance() { return instance; }

private:
    static T* instance;
};

template <class T> T* omi_SingletonBase<T>::instance = nullptr;

template <class T> class KXMBASMEM_TEMPLATE omi_Singleton : public omi_SingletonBase<T> {
public:
    /// The one object, created on first use.
    static T& Instance() {
        if (T* const present = omi_SingletonBase<T>::Instance()) {
            return *present;
        }
        T* const created = new T;
        if (created != omi_SingletonBase<T>::Instance()) {
            std::abort();
        }
        return *created;
    }
};

#undef KXM_SINGLETON_UNDER_CONSTRUCTION
