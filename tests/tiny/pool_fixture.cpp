// See pool_fixture.h.
#include "pool_fixture.h"

#include "KXMBasMem.h"
#include "frame/mem_Binding.h"
#include "frame/mem_TinySwitches.h"
#include "tiny/pool_walk.h"
#include "tiny/test_seam.h"

namespace test {
namespace {

PageWatch* watch = nullptr;

} // namespace

HeapBound::HeapBound() {
    mem_Mallinfo::useDL = true;
    mem_bindFunctions(false);
}

HeapBound::~HeapBound() {
    mem_Mallinfo::useDL = false;
    mem_bindFunctions(false);
}

void reset_pool() {
    mem_TBPool::ThreadLock(false);
    mem_tinyBlocksOn = false;
    mem_tinyBlocksUsed = false;
    tiny::TestAccess::end();
}

std::string pool_fault() {
    const tiny::Census census = tiny::take_census();
    return census.fault != nullptr ? census.fault : "";
}

PageWatch::PageWatch() {
    watch = this;
    tiny::test_seam::page_hook = [] {
        ++watch->asked;
        return watch->refuse_every == 0 || watch->asked % watch->refuse_every != 0;
    };
}

PageWatch::~PageWatch() {
    tiny::test_seam::page_hook = nullptr;
    watch = nullptr;
}

} // namespace test
