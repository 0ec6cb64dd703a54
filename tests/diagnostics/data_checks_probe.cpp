// Started by the tests: fills, which ask a variable at load, lines for unit 7, and the use of a value,
// which only a checker of undefined values tells from nothing.
#include "KXMBasMem.h"

#include <cstdio>
#include <cstdlib>
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

// More than caches hold: 256 MiB and a word, from an odd address on, by bytes around its ends.
void fill_large() {
    if (MC_RESULT == nullptr) {
        return;
    }
    constexpr std::size_t bytes = (std::size_t{256} << 20) + 8;
    auto* const memory = static_cast<unsigned char*>(std::calloc(bytes + 16, 1)) + 3;
    KXMBasMemoryInit(memory, 0x01020304, bytes + 3);
    // Every byte near the ends, and some between.
    const auto step = [](std::size_t i) -> std::size_t {
        return i < 4096 || i + 8192 > bytes ? 1 : 4099;
    };
    std::uint64_t wrong = memory[-1];
    for (std::size_t i = 0; i < bytes; i += step(i)) {
        wrong += memory[i] != 4 - i % 4;
    }
    wrong += memory[bytes];
    KXMBasMemoryInit(memory, std::uint64_t{0x0807060504030201}, bytes + 7);
    for (std::size_t i = 0; i < bytes; i += step(i)) {
        wrong += memory[i] != 1 + i % 8;
    }
    wrong += memory[bytes];
    std::printf("%d\n", static_cast<int>(wrong));
    std::free(memory - 3);
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
        fill_large();
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
