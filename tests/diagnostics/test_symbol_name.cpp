// From what a linker and a demangler say to the name that a programmer wrote.
#include "platform/os.h"
#include "platform/symbol_name.h"

#include <cstring>
#include <gtest/gtest.h>
#include <string>

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
