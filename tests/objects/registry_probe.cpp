// Started by the tests with a KXM_SINGLETON_REGISTRY of their choice: does to singletons what its
// argument says, and ends.
#include "KXMBasMem.h"

#include <cstdio>
#include <string>
#include <utility>

namespace {

// With a virtual table and a base in front, so that the singleton's part lies off its start.
struct Named {
    virtual ~Named() = default;
    int value = 42;
};

class Clean : public Named, public omi_Singleton<Clean> {};
class Kept : public Named, public omi_Singleton<Kept> {};
class Twice : public Named, public omi_Singleton<Twice> {};
class Absent : public omi_Singleton<Absent> {};
template <int number> class Numbered : public omi_Singleton<Numbered<number>> {};

// Ends itself while it is built, so that its maker finds another address than its own.
class Unsettled : public omi_Singleton<Unsettled> {
public:
    Unsettled() { omi_SingletonBase<Unsettled>::Finalize(); }
    static void* operator new(std::size_t) { return place; }
    static void operator delete(void*) {}

private:
    alignas(16) static inline char place[16];
};

int accounts() {
    const bool right = Clean::Instance().value == 42 && &Clean::Instance() == &Clean::Instance();
    omi_SingletonBase<Clean>::Finalize();
    Kept::Instance();
    for (int i = 0; i < 2; ++i) {
        Twice::Instance();
        omi_SingletonBase<Twice>::Finalize();
    }
    Twice::Instance();
    omi_SingletonBase<Absent>::Finalize();
    omi_SingletonBase<Clean>::Finalize(); // once too often
    return right ? 0 : 1;
}

template <int... number> int many(std::integer_sequence<int, number...>) {
    (Numbered<number>::Instance(), ...);
    return 0;
}

int directly() {
    omi_SingletonRegistry* const registry = omi_SingletonRegistry::Instance();
    if (registry == nullptr) {
        std::puts("no registry");
        return 0;
    }
    int object = 0;
    const int first = registry->Add("class A", &object);
    const int second = registry->Add("classyA", &object); // six characters, whatever they are
    const int third = registry->Add("class B", &object);
    std::printf("%d %d %d %d %d\n", first, second, third, registry->Remove("class A"),
                registry->Remove("class C"));
    omi_SingletonRegistry::Finalize();
    omi_SingletonRegistry::Instance()->Remove("class A"); // a fresh one
    return 0;
}

} // namespace

int main(int, char** argv) {
    const std::string what = argv[1];
    if (what == "accounts") {
        return accounts();
    }
    if (what == "many") {
        return many(std::make_integer_sequence<int, 51>());
    }
    if (what == "directly") {
        return directly();
    }
    if (what == "second") {
        Clean::Instance();
        Clean another;
    } else if (what == "unsettled") {
        Unsettled::Instance();
    }
    return 2;
}
