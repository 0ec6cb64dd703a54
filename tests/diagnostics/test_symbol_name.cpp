// From what a linker and a demangler say to the name that a programmer wrote.
#include "platform/os.h"
#include "platform/symbol_name.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace {

std::string cut(std::string demangled) {
    os::cut_to_name(demangled.data());
    return demangled.c_str();
}

TEST(SymbolName, LosesReturnTypeParametersAndWhatFollows) {
    EXPECT_EQ(cut("ns::f(int, char const*)"), "ns::f");
    EXPECT_EQ(cut("std::vector<int, std::allocator<int> > ns::make<int>(std::pair<int, int>)"),
              "ns::make<int>");
    EXPECT_EQ(cut("A::get() const &"), "A::get");
    EXPECT_EQ(cut("ns::f(int) [clone .part.0]"), "ns::f");
    EXPECT_EQ(cut("void (anonymous namespace)::g<int>(int)"), "(anonymous namespace)::g<int>");
    EXPECT_EQ(cut("decltype (a->b) h<A>(A)"), "h<A>");
    EXPECT_EQ(cut("f(int)::{lambda(char)#1}::operator()(char) const"),
              "f(int)::{lambda(char)#1}::operator()");
    EXPECT_EQ(cut("operator new(unsigned long)"), "operator new");
    EXPECT_EQ(cut("A::operator unsigned long() const"), "A::operator unsigned long");
    EXPECT_EQ(cut("bool operator< <int>(X<int> const&, X<int> const&)"), "operator< <int>");
    EXPECT_EQ(cut("A& A::operator<<(int)"), "A::operator<<");
    EXPECT_EQ(cut("A::operator()(int) const"), "A::operator()");
    EXPECT_EQ(cut("A::operator(Q)"), "A::operator") << "as no demangler says";
    for (const char* const name : {"my_operator::f", "Qoperator", "operatorZ::f", "operator9"}) {
        EXPECT_EQ(cut(name + std::string("(int)")), name);
    }
    EXPECT_EQ(cut("A::operator->*"), "A::operator->*");
    EXPECT_EQ(cut("f(int)(char)"), "f");
    EXPECT_EQ(cut(">"), ">");
    EXPECT_EQ(cut("operator{"), "operator{");
    EXPECT_EQ(cut("operators::operator_like(int)"), "operators::operator_like");
    EXPECT_EQ(cut("plain"), "plain");
}

TEST(SymbolName, IsMadeReadableInPlaceOnlyWhenMangled) {
    char name[64] = "_ZN15KXMBasException5ThrowEi";
    os::make_readable(name, sizeof name);
    EXPECT_STREQ(name, "KXMBasException::Throw");
    for (const char* const same : {"_Zebra", "dgemm_", "", "_"}) {
        std::strcpy(name, same);
        os::make_readable(name, sizeof name);
        EXPECT_STREQ(name, same);
    }
}

// More places than the table of what was looked up has room for; the first are looked up anew then.
TEST(SymbolOfAnAddress, IsTheSameAfterThousandsOfOthers) {
    if (os::properties().directory_separator != '/') {
        GTEST_SKIP() << "the system's own debug help keeps no table of ours";
    }
    const auto look_up = reinterpret_cast<int (*)(void*, std::uint64_t, std::uint64_t*, void*)>(
        os::module_symbol(os::module_load("dbghelp.dll"), "SymGetSymFromAddr64"));
    EXPECT_EQ(os::module_load("other.dll"), nullptr);
    EXPECT_EQ(os::module_symbol(nullptr, "SymGetSymFromAddr64"), nullptr);
    EXPECT_EQ(os::module_symbol(os::module_load("dbghelp.dll"), "SymNothing"), nullptr);
    const auto name_of = [&](std::uint64_t address) -> std::string {
        alignas(os::SymbolRecord) char record[sizeof(os::SymbolRecord) + 480];
        auto* const head = new (record) os::SymbolRecord{32, 0, 0, 0, 480, {}};
        std::uint64_t displacement = 0;
        return look_up(nullptr, address, &displacement, head) != 0
                   ? record + offsetof(os::SymbolRecord, name)
                   : "";
    };
    const auto first = reinterpret_cast<std::uint64_t>(&os::cut_to_name);
    std::vector<std::string> names;
    for (std::uint64_t i = 0; i < 3000; ++i) {
        names.push_back(name_of(first + i));
    }
    EXPECT_EQ(names[0], "os::cut_to_name");
    for (std::uint64_t i = 0; i < 3000; i += 100) {
        EXPECT_EQ(name_of(first + i), names[i]) << i;
    }
    EXPECT_EQ(name_of(8), "") << "in no module";
}

TEST(WideTexts, ComeBackAsTheyWere) {
    unsigned short wide[32];
    char back[32];
    const char plain[] = "caf\x65 \"x\"";
    EXPECT_EQ(os::widen(plain, wide, 32), sizeof plain - 1);
    ASSERT_TRUE(os::narrow(wide, back, sizeof back));
    EXPECT_STREQ(back, plain);
    EXPECT_EQ(os::widen("abcdef", wide, 4), 3U) << "cut";
    EXPECT_FALSE(os::narrow(wide, back, 3)) << "has no place for the end";
    EXPECT_STREQ(back, "");
}

} // namespace
