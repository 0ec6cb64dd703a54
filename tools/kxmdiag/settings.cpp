// See settings.h. The text of each row is the document's; only what makes a value wrong is said here.
#include "settings.h"

#include "platform/system.h"
#include "settings_document.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>

namespace kxmdiag {
namespace {

std::vector<std::string> pieces(const std::string& text, char separator) {
    std::vector<std::string> found;
    std::stringstream stream(text);
    for (std::string piece; std::getline(stream, piece, separator);) {
        found.push_back(piece);
    }
    return found;
}

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? ""
                                      : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

std::string without_ticks(std::string text) {
    text.erase(std::remove(text.begin(), text.end(), '`'), text.end());
    return text;
}

/// Every second piece is between ticks.
std::vector<std::string> names_in(const std::string& cell) {
    std::vector<std::string> names;
    const std::vector<std::string> parts = pieces(cell, '`');
    for (std::size_t i = 1; i < parts.size(); i += 2) {
        names.push_back(parts[i]);
    }
    return names;
}

bool is_number(const std::string& text) {
    char* end = nullptr;
    const long long value = std::strtoll(text.c_str(), &end, 10);
    return !text.empty() && *end == '\0' && value >= -2147483647 && value <= 2147483647;
}

bool is_set(const char* name) {
    return std::getenv(name) != nullptr;
}

struct Verdict {
    bool valid = true;
    std::string remark = {};
};

using Rule = Verdict (*)(const std::string& value);

Verdict wrong(const std::string& why) {
    return {false, why};
}

Verdict by_presence(const std::string& value) {
    const bool looks_off = value.empty() || value == "0" || value == "off" || value == "OFF" ||
                           value == "no" || value == "NO" || value == "false" || value == "FALSE";
    return {true, looks_off ? "counts by its presence, whatever its value" : ""};
}

Verdict number(const std::string& value) {
    return is_number(value) ? Verdict{}
                            : wrong("no number: counts as 0, or as what it begins with");
}

Verdict heap(const std::string& value) {
    if (is_set("KXA_DEADBEEF") || is_set("KXQ_CRTMALLOC")) {
        return {true, is_set("KXA_DEADBEEF") ? "overruled by KXA_DEADBEEF"
                                             : "overruled by KXQ_CRTMALLOC"};
    }
    return by_presence(value);
}

Verdict c_runtime(const std::string& value) {
    return is_set("KXQ_DLALLOCATOR") ? by_presence(value)
                                     : Verdict{true, "without KXQ_DLALLOCATOR it changes nothing"};
}

Verdict aligned(const std::string& value) {
    if (is_set("KXA_DEADBEEF")) {
        return {true, "overruled by KXA_DEADBEEF"};
    }
    return is_set("KXQ_DLALLOCATOR") && !is_set("KXQ_CRTMALLOC")
               ? Verdict{true, "overruled by KXQ_DLALLOCATOR"}
               : by_presence(value);
}

Verdict folder(const std::string& value) {
    std::error_code ignored;
    if (value.size() >= 1024) {
        return wrong("1024 characters or more");
    }
    return std::filesystem::is_directory(value, ignored) ? Verdict{} : wrong("no such folder");
}

Verdict transactions(const std::string& value) {
    const std::vector<std::string> ids = pieces(value, ',');
    long before = -1;
    for (const std::string& id : ids) {
        const long next = std::strtol(id.c_str(), nullptr, 10);
        if (!is_number(id) || next <= before) {
            return wrong(is_number(id) ? "ids do not grow: those behind are blocked"
                                       : "no list of numbers with commas between");
        }
        before = next;
    }
    if (is_set("KXA_MEM_TRACK")) {
        return {true, "at most what stood before the first comma: the tracker cuts the list up"};
    }
    return ids.size() <= 50 ? Verdict{} : wrong("more than 50 ids");
}

Verdict begins_with(const std::string& value, const std::string& beginning) {
    return value.rfind(beginning, 0) == 0
               ? Verdict{}
               : Verdict{true, "does not begin with " + beginning + ": changes nothing"};
}

/// A variable without a rule takes any value.
// NOLINTNEXTLINE(cert-err58-cpp): without memory for it the command ends
const std::map<std::string, Rule> rules{
    {"KXA_DEADBEEF", by_presence},
    {"KXQ_DLALLOCATOR", heap},
    {"KXQ_CRTMALLOC", c_runtime},
    {"KXQ_USE_ALIGNED_MEMORY", aligned},
    {"KXA_MEM_TRACK", by_presence},
    {"MC_RESULT", by_presence},
    {"KXA_CALLSTACK_DEPTH", number},
    {"KXM_SINGLETON_REGISTRY", number},
    {"KXA_UMR_PRINT", number},
    {"KXA_UMR_WATCH_ALLOC_ID", number},
    {"KXA_UMR_PRINT_ALLOC_SIZE", number},
    {"KXA_MEM_OUTPUTDIR", folder},
    {"KXA_MEM_DBTRANS", transactions},
    {"KXQ_TBMALLOC", [](const std::string& value) { return begins_with(value, "0"); }},
    {"KXQ_DEBUG_MEMSIZE", [](const std::string& value) { return begins_with(value, "ON"); }}};

void look_at_value(Setting& setting) {
    const char* const value = std::getenv(setting.name.c_str());
    const auto rule = rules.find(setting.name);
    if (value == nullptr) {
        return;
    }
    setting.set = true;
    setting.value = value;
    if (rule != rules.end()) {
        const Verdict verdict = rule->second(setting.value);
        setting.valid = verdict.valid;
        setting.remark = verdict.remark;
    }
}

} // namespace

std::vector<Setting> settings() {
    std::vector<Setting> all;
    for (const std::string& line : pieces(settings_document, '\n')) {
        if (line.rfind("| `", 0) != 0) {
            continue;
        }
        const std::vector<std::string> cells = pieces(line.substr(1), '|');
        for (const std::string& name : names_in(cells.at(0))) {
            Setting setting{name, without_ticks(trimmed(cells.at(1))),
                            without_ticks(trimmed(cells.at(2))),
                            without_ticks(trimmed(cells.at(3)))};
            look_at_value(setting);
            all.push_back(setting);
        }
    }
    return all;
}

std::vector<std::string> unknown_variables(const std::vector<Setting>& known) {
    std::set<std::string> names;
    for (const std::string& name : environment_names()) {
        for (const char* const prefix : {"KXA_", "KXQ_", "KXM_"}) {
            if (name.rfind(prefix, 0) == 0) {
                names.insert(name);
            }
        }
    }
    for (const Setting& setting : known) {
        names.erase(setting.name);
    }
    return {names.begin(), names.end()};
}

} // namespace kxmdiag
