// See mem_ScanMemory.h. One walk serves the three reports, which differ in what they print for a region
// and in the units of their summaries.
#include "mem_ScanMemory.h"

#include <cinttypes>

#include "diagnostics/test_seam.h"

namespace {

using diagnostics::test_seam::provider;

constexpr std::uint64_t walk_end = 2147483647; // whatever limit is asked for
constexpr std::uint64_t mebibyte = 1048576;
constexpr std::uint64_t kibibyte = 1024;

constexpr char blanks[] = "                              \n"; // thirty

std::uint32_t low(std::uint64_t value) {
    return static_cast<std::uint32_t>(value);
}

// Regions of one state.
struct Total {
    std::uint64_t bytes = 0;
    std::uint64_t largest = 0, largest_at = 0; // the first of several

    void add(std::uint64_t address, std::uint64_t size) {
        bytes += size;
        if (size > largest) {
            largest = size;
            largest_at = address;
        }
    }
};

struct Totals {
    Total free, reserved, committed;
};

// Calls print(address, region) for every region from 0 to where the walk ends.
template <class Print> Totals walk(std::uint64_t scan_limit, Print print) {
    Totals totals;
    os::UpwardQueries queries;
    os::Region region{};
    std::uint64_t address = 0;
    while (address < scan_limit) {
        // Not tested: after a failure the record still holds the region before.
        provider.vm_query(queries, reinterpret_cast<const void*>(address), region);
        print(address, region);
        if (region.state == os::state_free) {
            totals.free.add(address, region.size);
        } else if (region.state == os::state_reserve) {
            totals.reserved.add(address, region.size);
        } else if (region.state == os::state_commit) {
            totals.committed.add(address, region.size);
        }
        if (walk_end - address < region.size || region.size == 0) { // 0: nothing ever answered
            break;
        }
        address += region.size;
    }
    return totals;
}

struct Name {
    std::uint32_t value;
    const char* text;
};

const char* name_of(int value, const Name (&names)[3], const char* other) {
    for (const Name& name : names) {
        if (static_cast<std::uint32_t>(value) == name.value) {
            return name.text;
        }
    }
    return other;
}

void print_state(const os::Region& region) {
    mem_MemState state(static_cast<int>(region.state));
    writemem_MemState(stdout, state);
}

void print_type(const os::Region& region) {
    mem_MemType type(static_cast<int>(region.type));
    writemem_MemType(stdout, type);
}

// The whole number on both systems; the reference's own "%lu" has 32 bits.
void print_amount(const char* label, int width, std::uint64_t amount, const char* unit) {
    std::printf("%s%*" PRIu64 "%s", label, width, amount, unit);
}

void print_amounts(const Totals& totals, std::uint64_t free_unit, std::uint64_t other_unit,
                   const char* unit) {
    std::fputs("\nMEMORY USE SUMMARY\n", stdout);
    print_amount("   Free Memory      = ", 16, totals.free.bytes / free_unit, unit);
    print_amount("   Committed Memory = ", 16, totals.committed.bytes / other_unit, unit);
    print_amount("   Reserved Memory  = ", 16, totals.reserved.bytes / other_unit, unit);
}

} // namespace

void mem_ScanMemory(MEM_SCAN_LEVEL_ENM level, std::uint64_t scanLimit) {
    switch (static_cast<int>(level)) {
    case MEM_SCAN_DETAILED:
        mem_Scan_Detailed(scanLimit);
        break;
    case MEM_SCAN_FREE_ONLY:
        mem_Scan_FreeOnly(scanLimit);
        break;
    default:
        mem_Scan_SummaryOnly(scanLimit);
        break;
    }
}

void mem_scanmemory_ifc() {
    mem_Scan_Detailed(walk_end);
}

void mem_Scan_Detailed(std::uint64_t scanLimit) {
    constexpr const char* columns = "%-8s %-8s %-12s %-10s %16s\n";
    std::printf(columns, "Address", "End", "State", "Type", " Size ");
    std::printf(columns, "--------", "--------", "-----", "----", "------");
    const Totals totals = walk(scanLimit, [](std::uint64_t address, const os::Region& region) {
        std::printf("%08x", low(address));
        std::printf(" %08x", low(address + region.size));
        std::fputs(" ", stdout);
        print_state(region);
        std::fputs(" ", stdout);
        print_type(region);
        std::fputs(" ", stdout);
        std::printf("%16d", static_cast<std::int32_t>(low(region.size)));
        std::fputs("\n", stdout);
        std::fflush(stdout);
    });
    print_amounts(totals, mebibyte, mebibyte, " MB\n");
    std::fputs(blanks, stdout);
    print_amount("   Max Free Block Size     = ", 9, totals.free.largest / mebibyte, " MB");
    std::printf("   PTR = %08x", low(totals.free.largest_at));
    std::fputs(blanks, stdout);
    print_amount("   Max Reserved Block Size = ", 9, totals.reserved.largest / mebibyte, " MB");
    std::printf("   PTR = %08x\n", low(totals.reserved.largest_at));
    std::fputs("\n", stdout);
    std::fflush(stdout);
}

void mem_Scan_FreeOnly(std::uint64_t scanLimit) {
    const Totals totals = walk(scanLimit, [](std::uint64_t address, const os::Region& region) {
        if (region.state != os::state_free) {
            return;
        }
        std::printf("%x", low(address));
        std::fputs("  --  State = ", stdout);
        print_state(region);
        std::fputs("  --  Type = ", stdout);
        print_type(region);
        std::printf("  --  RegionSize = %" PRId64 "\n", static_cast<std::int64_t>(region.size));
        std::fflush(stdout);
    });
    print_amounts(totals, mebibyte, kibibyte, " MB\n"); // two of the three are kibibytes: kept so
    print_amount("\n   Max Free Block Size = ", 16, totals.free.largest / mebibyte, " MB\n");
    std::printf("    PTR = %x\n", low(totals.free.largest_at));
    print_amount("   Max Reserved Block Size = ", 16, totals.reserved.largest / mebibyte, " MB\n");
    std::printf("   PTR = %x\n", low(totals.reserved.largest_at));
    std::fputs("\n", stdout);
    std::fflush(stdout);
}

void mem_Scan_SummaryOnly(std::uint64_t scanLimit) {
    const Totals totals = walk(scanLimit, [](std::uint64_t, const os::Region&) {});
    print_amounts(totals, 1, 1, "\n");
    print_amount("\n   Max Free Block Size = ", 9, totals.free.largest, "\n");
    std::printf("    PTR = %08x\n", low(totals.free.largest_at));
    print_amount("   Max Reserved Block Size = ", 9, totals.reserved.largest, "\n");
    std::printf("   PTR = %08x\n", low(totals.reserved.largest_at));
    std::fputs("\n", stdout);
    std::fflush(stdout);
}

void writemem_MemState(FILE* file, mem_MemState& state) {
    constexpr Name names[] = {{os::state_commit, "MEM_COMMIT"},
                              {os::state_reserve, "MEM_RESERVE"},
                              {os::state_free, "MEM_FREE"}};
    std::fprintf(file, "%-12s", name_of(state.getState(), names, "UNKN MEM STA"));
}

void writemem_MemType(FILE* file, mem_MemType& type) {
    constexpr Name names[] = {{os::type_private, "MEM_PRIVATE"},
                              {os::type_mapped, "MEM_MAPPED"},
                              {os::type_image, "MEM_IMAGE"}};
    std::fprintf(file, "%-11s", name_of(type.getType(), names, "NONE"));
}
