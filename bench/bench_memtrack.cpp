// What reading a recording costs: memtrack report by the event, on recordings with few and with many blocks
// held, on all processors and on one, with its peak of memory; beside heaptrack_print and ms_print on what those
// tools wrote of a program with as many events as it bears.
//
// "bench_memtrack EVENTS [LIVE]" reads one recording of that many events (40 bytes each are written to the
// folder for temporary files, and removed): 100000000 is the long run of docs/memtrack.md.
// "bench_memtrack run PAIRS" is the program that the others record.
#include "measure.h"
#include "recording_writer.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int window = 1000; // blocks alive at a time in the recorded program

int run(std::size_t count) {
    static std::array<void*, window> blocks{};
    for (std::size_t i = 0; i < count; ++i) {
        void*& block = blocks[i * 7 % window];
        std::free(block);
        block = std::malloc(16 + i % 500);
        bench::escape(block);
    }
    for (void* const block : blocks) {
        std::free(block);
    }
    return 0;
}

struct Cost {
    double clock = -1, processor = 0; // seconds; negative: it failed
    double mib = 0;                   // resident at most
};

// Runs a command of the shell, its output thrown away.
Cost cost_of(const std::string& command) {
    Cost cost;
    rusage usage{};
    const double ns = bench::nanoseconds(
        [&](std::size_t) {
            const pid_t child = fork();
            if (child == 0) {
                const std::string quiet = "exec " + command + " >/dev/null 2>&1";
                execl("/bin/sh", "sh", "-c", quiet.c_str(), static_cast<char*>(nullptr));
                _exit(127);
            }
            int status = -1;
            if (wait4(child, &status, 0, &usage) != child || status != 0) {
                cost.mib = -1;
            }
        },
        1);
    if (cost.mib < 0) {
        return {};
    }
    const auto seconds = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) + 1e-6 * static_cast<double>(time.tv_usec);
    };
    cost.clock = ns / 1e9;
    cost.processor = seconds(usage.ru_utime) + seconds(usage.ru_stime);
    cost.mib = static_cast<double>(usage.ru_maxrss) / 1024;
    return cost;
}

void row(const std::string& name, const std::string& command, std::size_t events, int repetitions) {
    std::vector<double> clock, processor;
    double mib = 0;
    for (int i = 0; i < repetitions; ++i) {
        const Cost cost = cost_of(command);
        if (cost.clock < 0) {
            std::printf("%-46s  not installed or failed\n", name.c_str());
            return;
        }
        clock.push_back(cost.clock);
        processor.push_back(cost.processor);
        mib = std::max(mib, cost.mib);
    }
    const auto count = static_cast<double>(events);
    const double seconds = bench::median(clock);
    std::printf("%-46s %9.1f %10.2f %12.1f %12.1f %9.1f\n", name.c_str(), count / 1e6, seconds,
                1e9 * seconds / count, 1e9 * bench::median(processor) / count, mib);
    std::fflush(stdout);
}

void heading() {
    std::puts(
        "Reading a recording (medians)                   million    seconds  ns an event   of "
        "processor  MiB at\n"
        "                                                 events                           "
        "    time     most");
}

int long_run(const std::string& base, std::size_t events, std::size_t live) {
    bench::RecordingWriter(base, live).write(events);
    heading();
    row("memtrack report", std::string(KXM_MEMTRACK) + " report " + base, events, 3);
    return 0;
}

int compare(const std::string& self, const std::string& folder) {
    heading();
    constexpr std::size_t events = 10'000'000;
    struct Live {
        const char* name;
        std::size_t blocks;
    };
    for (const Live& live :
         {Live{"50 thousand held", 100'000}, Live{"1 million held", 2'000'000}}) {
        const std::string base = folder + "/run";
        bench::RecordingWriter(base, live.blocks).write(events);
        const std::string report = std::string(KXM_MEMTRACK) + " report " + base;
        row(std::string("memtrack report, ") + live.name, report, events, 5);
        row(std::string("memtrack report, ") + live.name + ", one processor",
            "taskset -c 0 " + report, events, 5);
    }
    constexpr std::size_t few = 500'000;
    const std::string program = self + " run " + std::to_string(few);
    const std::string heaptrack = folder + "/heaptrack", massif = folder + "/massif";
    cost_of("heaptrack -o " + heaptrack + " " + program);
    cost_of("valgrind --tool=massif --massif-out-file=" + massif + " " + program);
    row("heaptrack_print", "heaptrack_print " + heaptrack + ".*", 2 * few, 5);
    row("ms_print, of some hundred snapshots", "ms_print " + massif, 2 * few, 5);
    return 0;
}

} // namespace

int main(int argc, char** argv) {
    if (argc == 3 && std::strcmp(argv[1], "run") == 0) {
        return run(std::strtoull(argv[2], nullptr, 10));
    }
    const std::filesystem::path folder =
        std::filesystem::temp_directory_path() / "kxm_bench_memtrack";
    std::filesystem::remove_all(folder);
    std::filesystem::create_directories(folder);
    int result = 1;
    try {
        result = argc > 1 ? long_run((folder / "run").string(), std::strtoull(argv[1], nullptr, 10),
                                     argc > 2 ? std::strtoull(argv[2], nullptr, 10) : 1'000'000)
                          : compare(std::filesystem::canonical(argv[0]).string(), folder.string());
    } catch (const std::exception& error) {
        std::fprintf(stderr, "bench_memtrack: %s\n", error.what());
    }
    std::filesystem::remove_all(folder);
    return result;
}
