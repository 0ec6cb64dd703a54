// kxmrun: runs an unmodified, dynamically linked program with its memory served by the library, and tells at the
// end what was refused and where the recordings are.
#include "options.h"
#include "run.h"
#include "target.h"
#include "words.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

namespace {

using namespace kxmrun;

int refuse(const std::string& why) {
    std::fprintf(stderr, "kxmrun: %s\n", why.c_str());
    return usage_status;
}

// Folder and name of the recordings, unexpanded. Whole, because a program may change its working folder before
// the first file is written. False with the reason in `record`.
bool name_record(const Options& options, const std::string& program, std::string& record) {
    std::string folder = options.track_dir;
    if (folder.empty()) {
        const char* const usual = std::getenv("KXA_MEM_OUTPUTDIR");
        folder = usual != nullptr && *usual != '\0' ? usual : ".";
    }
    if (mkdir(folder.c_str(), 0777) != 0 && errno != EEXIST) {
        record = folder + ": " + std::strerror(errno);
        return false;
    }
    char* const whole = realpath((folder + "/.").c_str(), nullptr); // "/.": a folder and no file
    if (whole == nullptr || access(whole, W_OK | X_OK) != 0) {
        record = folder + ": " + std::strerror(errno);
        std::free(whole);
        return false;
    }
    record = whole;
    std::free(whole);
    std::string name = options.track_name;
    if (name.empty()) {
        for (const char c : program.substr(program.rfind('/') + 1)) {
            name += c == '%' ? std::string("%%") : std::string(1, c);
        }
        name += ".%p";
    }
    record += "/" + name;
    if (record.size() > 900) {
        record = "the folder's and the recording's names are too long";
        return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    Options options;
    if (const std::optional<int> status = read_options(argc, argv, options)) {
        return *status;
    }
    options.track = options.track || std::getenv("KXA_MEM_TRACK") != nullptr;
    const Target target = find_target(options.command[0]);
    if (target.path.empty()) {
        return refuse(target.reason);
    }
    std::string record;
    if (options.track && !name_record(options, target.path, record)) {
        return refuse(record);
    }
    std::string figures_path;
    const Figures* const figures = make_figures(figures_path);
    const Outcome outcome = run(options, target.path, figures_path, record);
    if (!outcome.error.empty()) {
        return refuse(outcome.error);
    }
    if (!say(options, figures, outcome)) {
        std::fprintf(stderr, "kxmrun: the summary cannot be written to %s: %s\n",
                     options.summary_file.c_str(), std::strerror(errno));
        options.summary_file.clear();
        options.quiet = true; // the rest is told already
        say(options, figures, outcome);
    }
    return outcome.status;
}
