// Started by the tests: one request through one of the operator new entries, with an environment
// that is read once per process, and what became of it.
#include "KXMBasMem.h"

#include <cstdio>
#include <cstdlib>
#include <map>
#include <new>
#include <string>

namespace {

struct Small : mem_AllocationOperators {
    char bytes[100];
};

const std::map<std::string, void* (*)(std::size_t)> entries{
    {"throw", mem_OperatorNewThrow},
    {"nothrow", [](std::size_t size) { return mem_OperatorNewNoThrow(size, std::nothrow); }},
    {"tiny-throw", mem_OperatorNewTinyThrow},
    {"tiny-nothrow",
     [](std::size_t size) { return mem_OperatorNewTinyNoThrow(size, std::nothrow); }},
    {"builtin-throw", mem_OperatorNewThrowBuiltin},
    {"builtin-nothrow", mem_OperatorNewNoThrowBuiltin},
    {"class", [](std::size_t) -> void* { return new Small; }}};

} // namespace

// new_probe ENTRY SIZE...
int main(int argc, char** argv) {
    for (int i = 2; i < argc; ++i) {
        try {
            void* const block = entries.at(argv[1])(std::strtoull(argv[i], nullptr, 10));
            std::puts(block != nullptr ? "allocated" : "null");
            mem_Free(block);
        } catch (const std::bad_alloc&) {
            std::puts("bad_alloc");
        }
        std::fflush(stdout);
    }
    return 0;
}
