// A fuzzer makes histories of a cache pool, with refusals of its memory; each runs against the shadow.
#include <cstdio>
#include <cstdlib>

#include "history_reader.h"
#include "pool_history.h"
#include "recording_KX0CORE.h"

namespace {

void expect(bool holds, const char* what) {
    if (!holds) {
        std::fprintf(stderr, "cache pool: %s\n", what);
        std::abort();
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    test::HistoryReader reader(data, size);
    test::OwnPool own;
    const std::size_t refuse = reader.byte();
    own.allocator.refuse_every = refuse < 128 ? 0 : static_cast<int>(refuse - 127);
    const int reports = recorded_fatal_errors();
    test::PoolHistory history(
        *own.pool, [&] { return reader.word(); }, 1 + 2 * reader.byte());
    while (!reader.done()) {
        history.step();
        const char* const fault = history.differs();
        expect(fault == nullptr, fault);
    }
    history.release_all();
    expect(history.damaged == 0, "contents did not hold");
    expect(history.misplaced == 0, "an address off its boundary");
    expect(history.forgotten == 0, "a cluster was released too early");
    if (refuse < 128) { // one may raise a report of its own
        expect(history.nulls == 0, "a refusal without a reason");
        expect(recorded_fatal_errors() - reports == history.expected_reports,
               recorded_fatal_text());
    }
    own.end();
    expect(own.allocator.sizes.empty() && own.allocator.unknown == 0, "memory was not given back");
    return 0;
}
