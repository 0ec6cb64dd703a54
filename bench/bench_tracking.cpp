// What tracking costs an event: a pair of mem_Malloc and mem_Free, with tracking off and on, files
// written, with one thread and with two, beside heaptrack and massif on the same program with tracking
// off. Each figure is taken in processes of their own, in turns, because tracking is decided at load;
// the gate's own price against the bare table of functions in one process.
//
// Called with "run PAIRS THREADS OUTPUT" it is the measured program, and prints nanoseconds.
#include "KXMBasMem.h"
#include "kxm_utf8_names.h"
#include "measure.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>

namespace {

constexpr std::size_t block_bytes = 200;
constexpr int window = 64; // blocks alive at a time, by thread

void pairs(std::size_t count) {
    void* blocks[window] = {};
    for (std::size_t i = 0; i < count; ++i) {
        void*& block = blocks[i % window];
        mem_Free(block);
        block = mem_Malloc(block_bytes);
        bench::escape(block);
    }
    for (void* const block : blocks) {
        mem_Free(block);
    }
}

// Nanoseconds an event, by the clock and of processor time, for `count` pairs of each thread; the end of
// tracking left out. On a machine that others use the processor time is the steadier figure.
int run(std::size_t count, int threads, const char* output) {
    mem_Tracker_Interface::SetOutputName(output);
    pairs(1000);
    const std::clock_t before = std::clock();
    const double ns = bench::nanoseconds(
        [threads](std::size_t each) {
            std::vector<std::thread> others;
            for (int i = 1; i < threads; ++i) {
                others.emplace_back(pairs, each);
            }
            pairs(each);
            for (std::thread& other : others) {
                other.join();
            }
        },
        count);
    const double processor = 1e9 * static_cast<double>(std::clock() - before) / CLOCKS_PER_SEC;
    const double events = 2.0 * threads * static_cast<double>(count);
    std::printf("%.3f %.3f\n", ns * static_cast<double>(count) / events, processor / events);
    std::fflush(stdout);
    if (mem_Tracker_Interface::IsTrackingActive()) {
        kxm::register_utf8_names();
        mem_ThreadId::Finalize();
        mem_Tracker::Finalize();
    }
    return 0;
}

struct Times {
    double clock = -1, processor = -1; // negative: it failed
};

// What a command prints in its last line of two numbers.
Times times_from(const std::string& command) {
    std::FILE* const pipe = popen(command.c_str(), "r");
    Times found;
    char line[300];
    while (pipe != nullptr && std::fgets(line, sizeof line, pipe) != nullptr) {
        Times times;
        if (std::sscanf(line, "%lf %lf", &times.clock, &times.processor) == 2) {
            found = times;
        }
    }
    return pipe != nullptr && pclose(pipe) == 0 ? found : Times{};
}

struct Way {
    const char* name;
    std::string before; // the program's name
    std::size_t count;  // of pairs
    int threads;
    std::vector<double> ns{}, processor{};
};

void gate_price() {
    const auto through_entry = [](std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            mem_Acquire(nullptr); // nothing but its gate
        }
    };
    const std::vector<double> ns = bench::measure({{"gate", through_entry}});
    std::printf("The gate with tracking off: %.2f ns an entry, the call of it included\n", ns[0]);
}

int compare(const std::string& self, const std::string& folder) {
    const std::string tail = " run ";
    const std::string on = "env KXA_MEM_TRACK=1 ";
    std::vector<Way> ways = {
        {"tracking off", "", 2'000'000, 1},
        {"tracking on", on, 2'000'000, 1},
        {"tracking off", "", 1'000'000, 2},
        {"tracking on", on, 1'000'000, 2},
        {"heaptrack", "heaptrack -o " + folder + "/heaptrack ", 200'000, 1},
        {"massif", "valgrind --tool=massif --massif-out-file=" + folder + "/massif ", 100'000, 1}};
    for (int repetition = 0; repetition < 7; ++repetition) {
        for (Way& way : ways) {
            const bool slow = way.count < 1'000'000;
            if (slow && repetition > 2) {
                continue;
            }
            const Times times = times_from(way.before + self + tail + std::to_string(way.count) +
                                           " " + std::to_string(way.threads) + " " + folder +
                                           "/run 2>" + folder + "/err");
            if (times.clock >= 0) {
                way.ns.push_back(times.clock);
                way.processor.push_back(times.processor);
            }
        }
    }
    std::puts("\nA pair of allocate and free of 200 bytes, files written: ns an event (medians)");
    std::puts("                          by the clock             of processor time");
    std::puts("              threads      all     added            all     added");
    std::vector<double> added_by;
    for (std::size_t i = 0; i < ways.size(); ++i) {
        const Way& way = ways[i];
        if (way.ns.empty()) {
            std::printf("%-13s  not installed or failed\n", way.name);
            continue;
        }
        const Way& off = ways[i == 2 || i == 3 ? 2 : 0];
        const double ns = bench::median(way.ns), processor = bench::median(way.processor);
        added_by.push_back(ns - bench::median(off.ns));
        std::printf("%-13s %7d %8.1f %9.1f %14.1f %9.1f", way.name, way.threads, ns,
                    added_by.back(), processor, processor - bench::median(off.processor));
        if (i >= 4) {
            std::printf("   adds %.1f times as much as tracking", added_by.back() / added_by[1]);
        }
        std::puts("");
    }
    std::printf("\n%zu bytes of file an event\n", sizeof(mem_Transaction));
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 5 && std::strcmp(argv[1], "run") == 0) {
        return run(std::strtoull(argv[2], nullptr, 10), std::atoi(argv[3]), argv[4]);
    }
    if (mem_Tracker_Interface::IsTrackingActive()) {
        std::fputs("bench_tracking: unset KXA_MEM_TRACK\n", stderr);
        return 2;
    }
    gate_price();
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / "kxm_bench_tracking";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    const int result = compare(std::filesystem::canonical(argv[0]).string(), folder.string());
    std::filesystem::remove_all(folder);
    return result;
}
