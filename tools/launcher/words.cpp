// See words.h. Of many processes those come first that have most to tell, and only so many come at all.
#include "words.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>
#include <vector>

namespace kxmrun {
namespace {

using Processes = std::vector<const ProcessFigures*>;
constexpr std::size_t shown = 10;

std::uint64_t value(const std::atomic<std::uint64_t>& word) {
    return word.load(std::memory_order_relaxed);
}

bool has(const ProcessFigures& process, std::uint32_t events) {
    return (process.events.load(std::memory_order_relaxed) & events) != 0;
}

// The program's own part of the heap.
std::uint64_t peak_of(const ProcessFigures& process) {
    const std::uint64_t peak = value(process.peak);
    return peak > process.own ? peak - process.own : 0;
}

std::uint64_t refused_by(const ProcessFigures& process) {
    return value(process.refused_by_limit) + value(process.refused_by_system);
}

Processes all_of(const Figures* figures) {
    Processes all;
    const std::uint32_t count =
        figures != nullptr ? std::min(figures->count.load(), Figures::most) : 0;
    for (std::uint32_t i = 0; i < count; ++i) {
        if (figures->processes[i].taken.load() != 0) {
            all.push_back(&figures->processes[i]);
        }
    }
    return all;
}

// Those that have a value, the highest first.
template <typename Value> Processes ranked(Processes all, Value value_of) {
    std::erase_if(all, [&](const ProcessFigures* process) { return value_of(*process) == 0; });
    std::stable_sort(all.begin(), all.end(), [&](const ProcessFigures* a, const ProcessFigures* b) {
        return value_of(*a) > value_of(*b);
    });
    return all;
}

std::string bytes(std::uint64_t count) {
    char text[64];
    std::snprintf(text, sizeof text, "%llu bytes (%.1f MiB)",
                  static_cast<unsigned long long>(count), static_cast<double>(count) / 1048576);
    return text;
}

std::string name_of(const ProcessFigures& process) {
    return std::string(process.program) + ", process " + std::to_string(process.pid);
}

void tell_rest(std::size_t count, const char* what) {
    if (count > shown) {
        std::fprintf(stderr, "kxmrun: and %zu more %s\n", count - shown, what);
    }
}

void tell_refusals(const Options& options, const Processes& all) {
    const Processes refused = ranked(all, refused_by);
    for (std::size_t i = 0; i < refused.size() && i < shown; ++i) {
        const ProcessFigures& process = *refused[i];
        const std::uint64_t by_limit = value(process.refused_by_limit);
        const std::uint64_t by_system = value(process.refused_by_system);
        const std::uint64_t requests = by_limit + by_system;
        std::string by;
        if (by_limit != 0) {
            by = "by the limit of " + bytes(options.limit.value_or(0));
        }
        if (by_system != 0) {
            by += by.empty() ? "by the system"
                             : ", " + std::to_string(by_system) + " of them by the system";
        }
        const bool heap = peak_of(process) != 0;
        std::fprintf(
            stderr, "kxmrun: %s: %llu request%s refused %s; the largest was %s, the peak %s%s\n",
            name_of(process).c_str(), static_cast<unsigned long long>(requests),
            requests == 1 ? "" : "s", by.c_str(), bytes(value(process.largest_refused)).c_str(),
            bytes(heap ? peak_of(process) : value(process.resident)).c_str(),
            heap ? "" : " resident");
    }
    tell_rest(refused.size(), "processes were refused memory");
}

// memtrack lies beside kxmrun, and is named as a shell here would find it.
std::string memtrack() {
    const char* const places = std::getenv("PATH");
    std::string rest = places != nullptr ? places : "";
    while (!rest.empty()) {
        const std::size_t colon = rest.find(':');
        if (access((rest.substr(0, colon) + "/memtrack").c_str(), X_OK) == 0) {
            return "memtrack";
        }
        rest.erase(0, colon == std::string::npos ? colon : colon + 1);
    }
    char self[4096];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string path(self, length > 0 ? static_cast<std::size_t>(length) : 0);
    path.erase(path.rfind('/') + 1);
    path += "memtrack";
    return access(path.c_str(), X_OK) == 0 ? path : "memtrack";
}

// As a shell takes it.
std::string quoted(const std::string& text) {
    const char* const plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789/._-+,:@%=";
    if (text.find_first_not_of(plain) == std::string::npos) {
        return text;
    }
    std::string result = "'";
    for (const char c : text) {
        result += c == '\'' ? std::string("'\\''") : std::string(1, c);
    }
    return result + "'";
}

// A process that was killed has told no count, and has left whole files alone.
std::uint64_t recorded_by(const ProcessFigures& process) {
    if (!has(process, recording) || (has(process, saved) && value(process.recorded) == 0)) {
        return 0; // a child that did nothing but become another program leaves no files
    }
    return value(process.recorded) + 1;
}

void tell_recordings(const Processes& all) {
    const Processes recorded = ranked(all, recorded_by);
    if (recorded.empty()) {
        return;
    }
    const std::string reader = memtrack();
    for (std::size_t i = 0; i < recorded.size() && i < shown; ++i) {
        const ProcessFigures& process = *recorded[i];
        if (has(process, ended_by_itself)) {
            std::fprintf(stderr,
                         "kxmrun: %s: ended its recording by itself, under a name of its own\n",
                         name_of(process).c_str());
        } else if (has(process, saved)) {
            std::fprintf(stderr, "kxmrun: %s: %llu events recorded. Next:\n    %s report %s\n",
                         name_of(process).c_str(),
                         static_cast<unsigned long long>(value(process.recorded)),
                         quoted(reader).c_str(), quoted(process.record).c_str());
        } else {
            std::fprintf(stderr, "kxmrun: %s: %s: %s\n", name_of(process).c_str(),
                         has(process, not_saved)
                             ? "its recording could not be written; what there is of it"
                             : "ended by a signal, or still runs; what there is of its recording, "
                               "but for the last 131072 events at most",
                         quoted(process.record).c_str());
        }
    }
    tell_rest(recorded.size(), "recordings");
}

void tell_strangers(const Figures* figures, const Processes& all) {
    if (figures != nullptr && all.empty()) {
        std::fprintf(stderr, "kxmrun: the library was not loaded into the program\n");
    }
    const Processes strangers = ranked(
        all, [](const ProcessFigures& process) { return has(process, other_malloc) ? 1 : 0; });
    if (!strangers.empty()) {
        std::fprintf(stderr,
                     "kxmrun: %s: it brings a malloc of its own, so the library did not serve it\n",
                     name_of(*strangers[0]).c_str());
    }
}

bool print_summary(const Options& options, const Figures* figures, const Processes& all,
                   const Outcome& outcome) {
    std::FILE* const file =
        options.summary_file.empty() ? stderr : std::fopen(options.summary_file.c_str(), "w");
    if (file == nullptr) {
        return false;
    }
    std::string command;
    for (const std::string& word : options.command) {
        command += (command.empty() ? "" : " ") + quoted(word);
    }
    std::fprintf(file, "kxmrun summary: %s\n", command.c_str());
    std::fprintf(file, "  back end        %s%s\n", options.backend.c_str(),
                 options.tiny ? ", with the tiny block pool" : "");
    if (options.limit) {
        std::fprintf(file, "  limit           %s\n", bytes(*options.limit).c_str());
    }
    if (outcome.signal != 0) {
        std::fprintf(file, "  ended by        signal %d (%s)\n", outcome.signal,
                     strsignal(outcome.signal));
    } else {
        std::fprintf(file, "  exit status     %d\n", outcome.status);
    }
    std::fprintf(file, "  time            %.3f s, %.3f s user, %.3f s system\n", outcome.seconds,
                 outcome.user, outcome.system);
    std::fprintf(file, "  resident at most %s\n", bytes(outcome.resident).c_str());
    const std::uint32_t count = figures != nullptr ? figures->count.load() : 0;
    std::fprintf(file, "  processes       %u\n", count);
    Processes ordered = all;
    std::stable_sort(ordered.begin(), ordered.end(),
                     [](const ProcessFigures* a, const ProcessFigures* b) {
                         return std::max(value(a->peak), value(a->resident)) >
                                std::max(value(b->peak), value(b->resident));
                     });
    if (!ordered.empty()) {
        std::fprintf(file, "  %8s  %-16s %14s %14s %9s %12s\n", "process", "program", "heap peak",
                     "resident peak", "refused", "recorded");
    }
    for (std::size_t i = 0; i < ordered.size() && i < shown; ++i) {
        const ProcessFigures& process = *ordered[i];
        std::fprintf(file, "  %8d  %-16.40s %14llu %14llu %9llu %12llu\n", process.pid,
                     process.program, static_cast<unsigned long long>(peak_of(process)),
                     static_cast<unsigned long long>(value(process.resident)),
                     static_cast<unsigned long long>(refused_by(process)),
                     static_cast<unsigned long long>(value(process.recorded)));
    }
    if (count > shown) {
        std::fprintf(file, "  and %zu more\n", static_cast<std::size_t>(count) - shown);
    }
    const bool written = std::fflush(file) == 0 && std::ferror(file) == 0;
    return (file == stderr || std::fclose(file) == 0) && written;
}

} // namespace

bool say(const Options& options, const Figures* figures, const Outcome& outcome) {
    const Processes all = all_of(figures);
    if (!options.quiet) {
        tell_strangers(figures, all);
        tell_refusals(options, all);
        tell_recordings(all);
    }
    return !options.summary || print_summary(options, figures, all, outcome);
}

} // namespace kxmrun
