// Asks for memory before the library has started, from a static object that is built before the
// library's own (this program holds the library's objects, and its own come first), and shows what
// the bootstrap bound.
#include "KXMBasMem.h"

#include "frame/mem_Backends.h"
#include "frame/mem_Binding.h"
#include "heap/dlmalloc.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

struct EarlyRequest {
    bool was_unbound = mem_tableUnbound();
    bool others_null = mem_free == nullptr && mem_calloc == nullptr && mem_dlmallinfo == nullptr;
    void* block = mem_malloc(100);
};
EarlyRequest early;

const char* bound() {
    const bool aligned = mem_malloc == mem_malign && mem_realloc == mem_realign &&
                         mem_free == mem_free_aligned &&
                         mem_calloc == std::calloc; // deliberately not an aligned one
    return mem_malloc == dlmalloc                            ? "heap"
           : mem_malloc == myMalloc                          ? "guarded"
           : aligned                                         ? "aligned"
           : mem_tableUnbound() || mem_calloc != std::calloc ? "nothing"
                                                             : "crt";
}

} // namespace

int main() {
    int status = 0;
    KXMBasAlloc_initialize(status); // no-op where loading has done it
    const bool guarded = mem_malloc == myMalloc &&
                         std::memcmp(static_cast<char*>(early.block) - 16, "DEADBEEF", 8) == 0;
    std::printf("unbound=%d null=%d bound=%s first=%s usingDL=%d\n", early.was_unbound,
                early.others_null, bound(), guarded ? "guarded" : "plain", mem_usingDL());
    // On the aligned back end the first block is plain malloc's, not for mem_Free.
    if (guarded) {
        mem_Free(early.block);
    } else {
        std::free(early.block);
    }
    return 0;
}
