// See heap_fixture.h.
#include "heap_fixture.h"

#include <memory>
#include <vector>

#include "heap/malloc_segment.h"
#include "heap/system_memory_gate.h"
#include "heap/test_seam.h"

namespace test {
namespace {

SystemWatch* watch = nullptr;

struct Range {
    void* base;
    std::size_t size;
};
std::vector<Range> refused_releases; // some of it the heap has lost, if it was a direct mapping

void* on_request(std::size_t size, os::Placement placement) {
    const std::size_t number = watch->requests++;
    if (number >= watch->refuse_from && number - watch->refuse_from < watch->refuse_count) {
        return nullptr;
    }
    if (void* const given = watch->supply) {
        watch->supply = nullptr;
        return given;
    }
    return os::vm_allocate(size, placement);
}

bool on_release(void* base, std::size_t size) {
    ++watch->releases;
    if (watch->refuse_releases) {
        ++watch->releases_refused;
        refused_releases.push_back({base, size});
    }
    return !watch->refuse_releases;
}

void release_segments() {
    heap::malloc_segment segment = heap::state.seg; // the records lie in what goes away
    for (;;) {
        heap::malloc_segment next{};
        if (segment.next != nullptr) {
            next = *segment.next;
        }
        EXPECT_EQ(heap::win32munmap(segment.base, segment.size), 0);
        if (segment.next == nullptr) {
            return;
        }
        segment = next;
    }
}

} // namespace

void reset_heap() {
    if (heap::is_initialized()) {
        release_segments();
    }
    for (const Range& range : refused_releases) { // only what is lost is still there
        heap::win32munmap(range.base, range.size);
    }
    refused_releases.clear();
    if (const os::Event event = heap::state.mutex.event.load()) {
        os::event_close(event);
    }
    heap::forget_hidden_starts();
    std::destroy_at(&heap::state);
    std::construct_at(&heap::state);
    std::destroy_at(&heap::params);
    std::construct_at(&heap::params);
    heap::check_memory_limit(0, 0, 0); // clears the error word
}

std::string heap_fault() {
    const heap::Census census = heap::take_census();
    return census.fault != nullptr ? census.fault : "";
}

std::size_t direct_bytes() {
    return heap::state.footprint - heap::take_census().segment_bytes;
}

bool is_direct(const void* mem) {
    return heap::is_mmapped(heap::mem2chunk(mem));
}

std::size_t mapping_bytes(const void* mem) {
    const heap::malloc_chunk* const chunk = heap::mem2chunk(mem);
    return heap::chunk_size(chunk) + (chunk->prev_foot & ~heap::IS_MMAPPED_BIT) +
           heap::MMAP_FOOT_PAD;
}

bool is_aligned(const void* mem, std::size_t alignment) {
    return heap::address_of(mem) % alignment == 0;
}

SystemWatch::SystemWatch() {
    watch = this;
    heap::test_seam::supply_hook = on_request;
    heap::test_seam::release_hook = on_release;
}

SystemWatch::~SystemWatch() {
    heap::test_seam::supply_hook = nullptr;
    heap::test_seam::release_hook = nullptr;
    watch = nullptr;
}

} // namespace test
