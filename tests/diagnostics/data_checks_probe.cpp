// Started by the tests: fills, which ask a variable at load, lines for unit 7, and the use of a value,
// which only a checker of undefined values tells from nothing.
#include "KXMBasMem.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

namespace {

void fill() {
    std::string text = "................ .............. ..........";
    std::uint64_t wide;
    int narrow;
    std::memcpy(&wide, "abcdefgh", sizeof wide);
    std::memcpy(&narrow, "ABCD", sizeof narrow);
    KXMBasMemoryInit(text.data(), wide, 16);
    KXMBasMemoryInit(&text[17], narrow, 14);
    KXMBasMemoryInit(&text[32], wide, 7);
    KXMBasMemoryInit(&text[32], narrow, 0);
    std::puts(text.c_str());
}

// Read back while the file is open, because every line is flushed.
void message(const char* folder) {
    std::filesystem::current_path(folder);
    for (const auto& [text, length] :
         {std::pair{"one line", 6}, {"", 0}, {"negative", -3}, {"the end", 7}}) {
        const std::int64_t characters = length;
        KXMBasWriteMsg(text, &characters, 99);
    }
    std::ifstream file("fort.7");
    for (std::string line; std::getline(file, line);) {
        std::printf("%s|\n", line.c_str());
    }
}

// Each checks a value that was set and one that was not.
template <typename Value> void use(void (*check)(const Value*)) {
    auto* const values = static_cast<Value*>(std::malloc(2 * sizeof(Value)));
    values[1] = 1;
    check(&values[0]);
    check(&values[1]);
    std::free(values);
}

} // namespace

int main(int, char** arguments) {
    const std::string mode = arguments[1];
    if (mode == "fill") {
        fill();
    } else if (mode == "message") {
        message(arguments[2]);
    } else if (mode == "use") {
        use(KXMBasMemoryCheckVarDP);
        use(KXMBasMemoryCheckVarSP);
        use(KXMBasMemoryCheckVarINT);
        use(KXMBasMemoryCheckVarINT64);
    }
    return 0;
}
