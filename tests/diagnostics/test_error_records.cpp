// Strings, stacks and error records.
#include "KXMBasMem.h"

#include "platform/os.h"

#include <cstring>
#include <gtest/gtest.h>
#include <optional>
#include <stdexcept>
#include <string>

namespace {

using Text = std::optional<std::string>;

Text contents(const mem_String& string) {
    char const* const text = string;
    return text != nullptr ? Text(text) : Text();
}

TEST(String, ComparesByContentsAndNoValueWithItselfAlone) {
    const mem_String none(nullptr), empty(""), a("a"), again(std::string("a").c_str()), b("b");
    EXPECT_TRUE(none == mem_String() && none != empty && empty != none && none != a);
    EXPECT_TRUE(a == again && a != b && a == "a" && "a" == a && "b" != a && a != "b");
    EXPECT_FALSE(none.IsValid());
    EXPECT_TRUE(empty.IsValid());
    EXPECT_EQ(empty.length(), 0);
    EXPECT_EQ(mem_String("twelve chars").length(), 12);
}

TEST(String, SumsTakeWhatIsNotEmpty) {
    const mem_String none, empty(""), a("left"), b("right");
    EXPECT_EQ(contents(a + b), "leftright");
    for (const mem_String& nothing : {none, empty}) {
        EXPECT_EQ(contents(a + nothing), "left");
        EXPECT_EQ(contents(nothing + b), "right");
        EXPECT_EQ(contents(nothing + none), Text());
        EXPECT_EQ(contents(nothing + ""), Text());
    }
    EXPECT_EQ(contents("l" + b + "!"), "lright!");
}

TEST(String, IsAValueButLosesItsTextToItself) {
    mem_String string("first");
    const mem_String copy(string);
    string = mem_String("second, and longer");
    EXPECT_EQ(contents(copy), "first");
    EXPECT_EQ(contents(string), "second, and longer");
    static_cast<char*>(string)[0] = 'S';
    EXPECT_TRUE(string == "Second, and longer");
    mem_String& itself = string;
    string = itself;
    EXPECT_EQ(contents(string), Text());
    EXPECT_TRUE(string.IsValid());
    string = mem_String();
    EXPECT_FALSE(string.IsValid());

    alignas(mem_String) unsigned char place[sizeof(mem_String)];
    auto* const ended = new (place) mem_String("gone");
    ended->~mem_String();
    const unsigned char zeroes[9] = {};
    EXPECT_EQ(std::memcmp(place, zeroes, 9), 0) << "no address is left behind";
}

// Counts those alive, and how often one is destroyed; fails to be assigned on demand.
struct Fragile {
    static int alive, destroyed, assignments_left;
    int value = -1;
    bool valid = false;
    Fragile() { ++alive; }
    explicit Fragile(int number) : value(number), valid(true) { ++alive; }
    Fragile(const Fragile& other) : value(other.value), valid(other.valid) { ++alive; }
    Fragile& operator=(const Fragile& other) {
        if (assignments_left-- == 0) {
            throw std::runtime_error("refused");
        }
        value = other.value;
        valid = other.valid;
        return *this;
    }
    ~Fragile() {
        --alive;
        ++destroyed;
    }
};
int Fragile::alive = 0, Fragile::destroyed = 0, Fragile::assignments_left = -1;

TEST(Stack, ReturnsInReverseAndEndsWithAnInvalidElement) {
    {
        mem_Stack<Fragile> stack;
        EXPECT_FALSE(stack.pop().valid);
        for (int i = 0; i < 50; ++i) {
            stack.push(Fragile(i));
        }
        mem_Stack<Fragile> copy(stack), assigned;
        assigned.push(Fragile(1000));
        assigned = copy;
        copy.push(Fragile(50));
        for (int i = 50; i >= 0; --i) {
            EXPECT_EQ(copy.pop().value, i);
            if (i < 50) {
                EXPECT_EQ(stack.pop().value, i);
                EXPECT_EQ(assigned.pop().value, i);
            }
        }
        for (mem_Stack<Fragile>* const emptied : {&copy, &stack, &assigned}) {
            EXPECT_FALSE(emptied->pop().valid);
            EXPECT_FALSE(emptied->pop().valid);
        }
        copy.push(Fragile(7)); // in use again
        EXPECT_EQ(copy.pop().value, 7);
        stack.push(Fragile(8)); // and one that holds something at its end
    }
    EXPECT_EQ(Fragile::alive, 0);
}

TEST(Stack, IsUnchangedByARefusal) {
    mem_Stack<Fragile> stack;
    for (int i = 0; i < 5; ++i) {
        stack.push(Fragile(i));
    }
    for (int refused_at = 0; refused_at < 6; ++refused_at) { // five old elements, then the new one
        Fragile::assignments_left = refused_at;
        EXPECT_THROW(stack.push(Fragile(5)), std::runtime_error);
    }
    Fragile::assignments_left = 2;
    EXPECT_THROW(stack.pop(), std::runtime_error);
    Fragile::assignments_left = -1;
    for (int i = 4; i >= 0; --i) {
        EXPECT_EQ(stack.pop().value, i);
    }
    EXPECT_FALSE(stack.pop().valid);
    EXPECT_EQ(Fragile::alive, 0);
}

TEST(Stack, ClearedKeepsItsCountAndDestroysTwice) {
    mem_Stack<Fragile> stack;
    stack.push(Fragile(1));
    stack.push(Fragile(2));
    Fragile::destroyed = 0;
    stack.ClearStack();
    EXPECT_EQ(Fragile::destroyed, 4);
    EXPECT_EQ(Fragile::alive, 0);
    stack.ClearStack();
    std::int32_t count = 0;
    std::memcpy(&count, reinterpret_cast<const unsigned char*>(&stack) + sizeof(void*),
                sizeof count);
    EXPECT_EQ(count, 2);
    stack.push(Fragile(3)); // on two that nobody stored
    EXPECT_EQ(stack.pop().value, 3);
    EXPECT_FALSE(stack.pop().valid);
}

TEST(ErrorRecord, ReplacesTypesThatThereAreNot) {
    char const* const names[] = {"Error", "Warning", "Info", "Debug"};
    for (int type = 0; type < 4; ++type) {
        EXPECT_EQ(contents(mem_ErrorBase(type, "text").GetErrorTypeText()), names[type]);
    }
    for (const int type : {-1, 4, 7, INT32_MIN, INT32_MAX}) {
        testing::internal::CaptureStderr();
        mem_ErrorBase record(type, "text");
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Invalid use of function mem_ErrorBase(). Invalid errorType. Will default "
                  "errorType to mem_Error.\n");
        EXPECT_TRUE(record.IsValid());
        EXPECT_EQ(record.GetErrorType(), 0);

        std::memcpy(reinterpret_cast<unsigned char*>(&record), &type, sizeof type);
        testing::internal::CaptureStderr();
        EXPECT_EQ(contents(record.GetErrorTypeText()), "Error");
        EXPECT_EQ(testing::internal::GetCapturedStderr(),
                  "Internal error with mem_ErrorBase::GetErrorTypeText(). Unknown error type " +
                      std::to_string(type) + ". Defaulting error type to 'Error'.\n");
    }
    EXPECT_FALSE(mem_ErrorBase().IsValid());
    EXPECT_TRUE(mem_ErrorBase() == mem_ErrorBase(0, mem_String())) << "validity plays no part";
    EXPECT_TRUE(mem_ErrorBase(1, "a") != mem_ErrorBase(1, "b"));
    EXPECT_TRUE(mem_ErrorBase(1, "a") != mem_ErrorBase(2, "a"));
}

std::string printed(const mem_Error& errors, int level) {
    testing::internal::CaptureStdout();
    errors.PrintErrors(level);
    return testing::internal::GetCapturedStdout();
}

TEST(ErrorList, SelectsByLevelAndPrintsOldestFirst) {
    mem_Error errors;
    EXPECT_EQ(printed(errors, 3), "");
    errors.AddError(0, "no memory");
    errors.AddError(1, "little memory");
    errors.AddError(2, "memory");
    errors.AddError(0, mem_String());
    EXPECT_EQ(printed(errors, -1), "");
    EXPECT_EQ(printed(errors, 0), "Error: no memory\nError: (null)\n");
    const mem_Error copy(errors);
    for (int again = 0; again < 2; ++again) {
        EXPECT_EQ(printed(copy, 1), "Error: no memory\nWarning: little memory\nError: (null)\n");
    }
    errors.AddError(3, "detail");
    EXPECT_EQ(printed(errors, 2), "Error: no memory\nWarning: little memory\nInfo: memory\n"
                                  "Error: (null)\n");
    EXPECT_EQ(contents(errors.GetErrors(2).pop().GetErrorString()), "no memory");
    errors.ClearErrors();
    EXPECT_EQ(printed(errors, 3), "");
    EXPECT_EQ(printed(copy, 0), "Error: no memory\nError: (null)\n") << "the copy is its own";
}

TEST(ErrorText, HasNoLineEndAndNoValueForUnknownCodes) {
    for (int code = 1; code < 200; ++code) {
        const mem_String text = mem_GetWindowsErrorText(code);
        char raw[4096];
        const std::size_t length =
            os::error_text(static_cast<std::uint32_t>(code), raw, sizeof raw);
        ASSERT_EQ(text.IsValid(), length != 0) << code;
        EXPECT_TRUE(!text.IsValid() || contents(text)->find_first_of("\r\n") == std::string::npos);
        if (text.IsValid() && os::properties().directory_separator == '/') {
            EXPECT_EQ(contents(text), std::strerror(code));
        }
    }
    for (const int unknown : {-1, 0x1fffff01, INT32_MIN}) {
        EXPECT_FALSE(mem_GetWindowsErrorText(unknown).IsValid());
    }
    os::set_last_error(2);
    const mem_String last = mem_GetWindowsLastErrorText();
    EXPECT_TRUE(last.IsValid() && last == mem_GetWindowsErrorText(2));
}

} // namespace
