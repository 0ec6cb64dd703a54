// See runner.h.
#include "runner.h"

#include "output.h"
#include "plan.h"
#include "platform/process.h"
#include "ranges.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <map>

namespace memtrack::replay {
namespace {

// Variables by which the library chooses, or records: a process has the candidate's alone.
constexpr const char* choosing[] = {"KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXQ_USE_ALIGNED_MEMORY",
                                    "KXA_DEADBEEF",    "KXQ_TBMALLOC",  "KXA_MEM_TRACK",
                                    "LD_PRELOAD"};

Candidate clean(const std::string& name) {
    Candidate candidate;
    candidate.name = name;
    for (const char* const variable : choosing) {
        candidate.environment.emplace_back(variable, std::nullopt);
    }
    return candidate;
}

void set(Candidate& candidate, const char* variable, const std::string& value) {
    for (auto& [name, content] : candidate.environment) {
        if (name == variable) {
            content = value;
        }
    }
}

// "never" is what no request reaches.
std::uint64_t size_in(std::string_view text) {
    return text == "never" ? std::numeric_limits<std::uint64_t>::max()
                           : parse_number(std::string(text));
}

void add_heap_option(Candidate& candidate, std::string_view option) {
    if (option == "tiny") {
        candidate.arguments.emplace_back("tiny");
        return;
    }
    const std::size_t equals = std::min(option.find('='), option.size());
    const std::string_view name = option.substr(0, equals);
    constexpr std::string_view known[] = {"granularity", "trim", "map", "limit"};
    if (equals == option.size() ||
        std::find(std::begin(known), std::end(known), name) == std::end(known)) {
        throw UsageError("'" + std::string(option) + "' in '" + candidate.name +
                         "' is no option of the heap: there are tiny, granularity=SIZE, trim=SIZE, "
                         "map=SIZE and limit=SIZE");
    }
    candidate.arguments.push_back(std::string(name) + "=" +
                                  std::to_string(size_in(option.substr(equals + 1))));
}

} // namespace

Candidate back_end(const std::string& text) {
    Candidate candidate = clean(text);
    const std::size_t colon = std::min(text.find(':'), text.size());
    const std::string kind = text.substr(0, colon);
    candidate.is_heap = kind == "heap";
    if (kind == "heap") {
        set(candidate, "KXQ_DLALLOCATOR", "1");
    } else if (kind == "guarded") {
        set(candidate, "KXA_DEADBEEF", "1");
    } else if (kind == "aligned") {
        set(candidate, "KXQ_USE_ALIGNED_MEMORY", "1");
        candidate.arguments.emplace_back("aligned");
    } else if (kind != "crt") {
        throw UsageError("'" + text +
                         "' is no back end: there are crt, guarded, aligned, and heap with "
                         "options behind a colon");
    }
    if (colon < text.size() && !candidate.is_heap) {
        throw UsageError("'" + text + "': the heap alone has options");
    }
    for (std::size_t at = colon; at < text.size();) {
        const std::size_t end = std::min(text.find(',', at + 1), text.size());
        add_heap_option(candidate, std::string_view(text).substr(at + 1, end - at - 1));
        at = end;
    }
    return candidate;
}

Candidate preloaded(const std::string& library) {
    if (!platform::can_preload) {
        throw UsageError("--with: this system cannot put another allocator before the C runtime's");
    }
    Candidate candidate = clean(library);
    candidate.preload = library;
    set(candidate, "LD_PRELOAD", library);
    return candidate;
}

Recording survey(const std::string& base, Problems& problems, ByteCounter* counter) {
    Recording recording;
    recording.base = base;
    const auto count = [&](const Op&) { ++recording.ops; };
    Plan plan(count, std::numeric_limits<std::uint64_t>::max());
    EventReader reader(base, problems, counter);
    History history;
    history.replay(reader, plan);
    history.tell(reader, problems);
    recording.events = history.events();
    recording.slots = plan.slots();
    recording.threads = history.threads().size();
    recording.refused = history.refused();
    recording.unknown = history.unknown_releases();
    recording.lost = history.lost_releases();
    recording.peak = history.peak();
    return recording;
}

// ---------------------------------------------------------------------------------------------

namespace {

// Gives a process its operations, as many at a time as it takes, when it asks.
class Feeder {
public:
    explicit Feeder(platform::Process& process) : process_(process) { ops_.reserve(most_ops); }

    void operator()(const Op& op) {
        ops_.push_back(op);
        if (ops_.size() == most_ops) {
            give();
        }
    }
    bool alive() const { return alive_; }
    // What is left, and the end.
    void finish() {
        if (!ops_.empty()) {
            give();
        }
        give();
    }

private:
    void give() {
        const auto count = static_cast<std::uint32_t>(ops_.size());
        char request = 0;
        alive_ = alive_ && process_.read(&request, 1) == 1 && request == more &&
                 process_.write(&count, sizeof count) &&
                 process_.write(ops_.data(), ops_.size() * sizeof(Op));
        ops_.clear();
    }

    platform::Process& process_;
    std::vector<Op> ops_;
    bool alive_ = true;
};

std::uint64_t above(std::uint64_t value, std::uint64_t floor) {
    return value - std::min(value, floor);
}

} // namespace

struct Runner::Told {
    std::map<std::string, std::string> lines;
    std::string failure;

    std::uint64_t operator[](const std::string& name) const {
        return std::strtoull(text(name).c_str(), nullptr, 10);
    }
    std::string text(const std::string& name) const {
        const auto found = lines.find(name);
        return found != lines.end() ? found->second : "";
    }
};

Runner::Told Runner::start(const Recording& recording, const Candidate& candidate,
                           ByteCounter* counter) const {
    platform::ProcessRequest request{
        program_, {std::to_string(recording.slots)}, candidate.environment};
    request.arguments.insert(request.arguments.end(), candidate.arguments.begin(),
                             candidate.arguments.end());
    if (recording.threads > 1) {
        request.arguments.emplace_back("lock");
    }
    if (!touch_) {
        request.arguments.emplace_back("untouched");
    }
    platform::Process process(request);
    Feeder feeder(process);
    if (recording.ops != 0) {
        Problems told_before;
        EventReader reader(recording.base, told_before, counter);
        History history;
        Plan plan(feeder, recording.peak.number);
        for (Batch batch; feeder.alive() && reader.next(batch);) {
            history.replay(batch, plan);
        }
    }
    feeder.finish();

    std::string text;
    char buffer[1024];
    for (std::size_t got = 0; (got = process.read(buffer, sizeof buffer)) != 0;) {
        text.append(buffer, got);
    }
    const platform::ProcessEnd end = process.wait();
    Told told;
    for (std::size_t at = 0, line = 0; (line = text.find('\n', at)) != std::string::npos;
         at = line + 1) {
        const std::size_t blank = std::min(text.find(' ', at), line);
        told.lines[text.substr(at, blank - at)] =
            text.substr(std::min(blank + 1, line), line - std::min(blank + 1, line));
    }
    if (end.crashed) {
        told.failure = "ended by a fault or signal, number " + std::to_string(end.status);
    } else if (end.status == not_possible) {
        told.failure = "cannot be had with these options";
    } else if (end.status != 0 || !feeder.alive()) {
        told.failure = "ended with status " + std::to_string(end.status);
    }
    return told;
}

Runner::Runner(bool touch)
    : program_(platform::program_folder() + "memtrack-replay" + platform::program_suffix),
      touch_(touch) {
    const Told empty = start({}, back_end("crt"), nullptr);
    if (!empty.failure.empty()) {
        throw std::runtime_error(program_ + ": " + empty.failure);
    }
    private_floor_ = above(empty["peak_private"], empty["own"]);
    resident_floor_ = above(empty["peak_resident"], empty["own"]);
    runtime_ = empty.text("malloc");
}

Runner::Result Runner::repeat(const Recording& recording, const Candidate& candidate,
                              ByteCounter* counter) {
    const Told told = start(recording, candidate, counter);
    Result result;
    result.failure = told.failure;
    if (result.failure.empty() && !candidate.preload.empty() && told.text("malloc") == runtime_) {
        result.failure = "did not take the place of the C runtime's allocator";
    }
    const std::uint64_t private_floor = private_floor_ + told["own"];
    const std::uint64_t resident_floor = resident_floor_ + told["own"];
    Run& run = result.run;
    run.nanoseconds = told["nanoseconds"];
    run.refused = told["refused"];
    run.live = told["peak_live"];
    run.footprint = above(told["peak_private"], private_floor);
    run.resident = above(told["peak_resident"], resident_floor);
    run.live_then = told["live_then"];
    run.footprint_then = above(told["private_then"], private_floor);
    run.resident_then = above(told["resident_then"], resident_floor);
    run.heap_high_water = told["heap_high_water"];
    return result;
}

} // namespace memtrack::replay
