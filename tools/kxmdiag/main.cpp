// kxmdiag: shows what an installation of the library finds on a machine, and commits a deliberate fault on
// request, so that tools and crash handlers can be tried there.
#include "facts.h"
#include "mem_ScanMemory.h"
#include "settings.h"
#include "violations.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <iostream>
#include <map>
#include <memory>
#include <string>

namespace {

using namespace kxmdiag;

constexpr int done = 0, problem_found = 1, wrong_usage = 2;

/// What the chosen command does; returns the exit status.
using Run = std::function<int()>;

/// Of --json, which may stand before the command and behind it.
bool json = false;

void add_json(CLI::App& command) {
    command.add_flag("--json", json, "Write JSON");
}

/// For commands whose output is text alone.
void refuse_json(const CLI::App& command) {
    if (json) {
        throw CLI::ValidationError("--json", "There is no JSON of " + command.get_name());
    }
}

/// One object of the sections' members, or of each section under its title when there are several.
void print_json(const std::vector<Section>& sections) {
    std::printf("{");
    if (sections.size() == 1) {
        print_json_members(sections[0], 2);
    } else {
        for (std::size_t i = 0; i < sections.size(); ++i) {
            std::printf("%s\n  %s: {", i == 0 ? "" : ",",
                        quoted(json_name(sections[i].title)).c_str());
            print_json_members(sections[i], 4);
            std::printf("\n  }");
        }
    }
    std::printf("\n}\n");
}

int output_lost() {
    std::fprintf(stderr, "kxmdiag: cannot write the output\n");
    return problem_found;
}

int settings_status(const std::vector<Setting>& all) {
    return std::all_of(all.begin(), all.end(), [](const Setting& setting) { return setting.valid; })
               ? done
               : problem_found;
}

/// The variables that are set, as facts.
Section settings_in_force() {
    Section section{"Settings", {}};
    for (const Setting& setting : settings()) {
        if (setting.set && setting.name != "PATH") {
            section.facts.push_back(
                {setting.name,
                 setting.value + (setting.valid ? "" : "  NOT VALID: " + setting.remark)});
        }
    }
    return section;
}

void add_facts(
    CLI::App& app, Run& run, const char* name, const char* help,
    const std::function<std::vector<Section>()>& sections,
    const std::function<int()>& status = [] { return done; }) {
    CLI::App* const command = app.add_subcommand(name, help);
    add_json(*command);
    command->callback([&run, sections, status] {
        run = [sections, status] {
            if (json) {
                print_json(sections());
            } else {
                for (const Section& section : sections()) {
                    print(section);
                }
            }
            return status();
        };
    });
}

void print_setting(const Setting& setting, bool with_effect) {
    if (setting.set) {
        std::printf("  %-26s \"%s\"%s\n", setting.name.c_str(), setting.value.c_str(),
                    setting.valid ? "" : "  NOT VALID");
    } else {
        std::printf("  %-26s not set\n", setting.name.c_str());
    }
    if (!setting.remark.empty()) {
        std::printf("      > %s\n", setting.remark.c_str());
    }
    if (with_effect) {
        std::printf("      %s.%s%s Read %s.\n", setting.effect.c_str(),
                    setting.standard.empty() ? "" : " Default: ",
                    setting.standard.empty() ? "" : (setting.standard + ".").c_str(),
                    setting.read.c_str());
    }
}

void print_settings_json(const std::vector<Setting>& all, const std::vector<std::string>& unknown) {
    std::printf("{\n  \"settings\": [");
    const char* comma = "";
    for (const Setting& setting : all) {
        std::printf("%s\n    {\"name\": %s, \"value\": %s, \"valid\": %s, \"remark\": %s,\n"
                    "     \"default\": %s, \"effect\": %s, \"read\": %s}",
                    comma, quoted(setting.name).c_str(),
                    setting.set ? quoted(setting.value).c_str() : "null",
                    setting.valid ? "true" : "false", quoted(setting.remark).c_str(),
                    quoted(setting.standard).c_str(), quoted(setting.effect).c_str(),
                    quoted(setting.read).c_str());
        comma = ",";
    }
    std::printf("\n  ],\n  \"unknown\": [");
    comma = "";
    for (const std::string& name : unknown) {
        std::printf("%s%s", comma, quoted(name).c_str());
        comma = ", ";
    }
    std::printf("]\n}\n");
}

/// With `all`, every variable with its effect; otherwise those that are set. 1 when a value is not valid.
int show_settings(bool all) {
    const std::vector<Setting> known = settings();
    const std::vector<std::string> unknown = unknown_variables(known);
    const int status = settings_status(known);
    if (all && json) {
        print_settings_json(known, unknown);
        return status;
    }
    std::printf("Settings\n");
    std::size_t shown = 0;
    for (const Setting& setting : known) {
        if (all || (setting.set && setting.name != "PATH")) {
            print_setting(setting, all);
            ++shown;
        }
    }
    if (shown == 0) {
        std::printf("  none is set; kxmdiag settings lists them all\n");
    }
    for (const std::string& name : unknown) {
        std::printf("  %-26s is set, and means nothing to the library\n", name.c_str());
    }
    return status;
}

void add_settings(CLI::App& app, Run& run) {
    CLI::App* const command = app.add_subcommand(
        "settings", "Every environment variable: its value, whether that is valid, what it does");
    add_json(*command);
    command->callback([&run] { run = [] { return show_settings(true); }; });
}

void add_space(CLI::App& app, Run& run) {
    struct Options {
        std::string level = "summary";
        std::uint64_t limit = 2147483647;
    };
    const std::map<std::string, MEM_SCAN_LEVEL_ENM> levels{{"detailed", MEM_SCAN_DETAILED},
                                                           {"free", MEM_SCAN_FREE_ONLY},
                                                           {"summary", MEM_SCAN_SUMMARY_ONLY}};
    CLI::App* const command = app.add_subcommand(
        "space", "The library's reports of the first 2 GiB of the address space");
    const auto options = std::make_shared<Options>();
    command->add_option("--level", options->level, "detailed, free or summary")
        ->check(CLI::IsMember(levels))
        ->capture_default_str();
    command->add_option("--limit", options->limit, "The address to stop at")
        ->check(CLI::NonNegativeNumber) // or -1 would be the highest there is
        ->capture_default_str();
    command->callback([&run, command, options, levels] {
        refuse_json(*command);
        run = [options, levels] {
            mem_ScanMemory(levels.at(options->level), options->limit);
            return done;
        };
    });
}

void list_faults(std::FILE* file) {
    for (const Violation& violation : violations()) {
        std::fprintf(file, "  %-24s %s\n", violation.name, violation.what);
    }
}

void add_faults(CLI::App& app, Run& run) {
    CLI::App* const command = app.add_subcommand("faults", "The deliberate faults, by name");
    add_json(*command);
    command->callback([&run] {
        run = [] {
            if (json) {
                const char* comma = "";
                std::printf("{");
                for (const Violation& violation : violations()) {
                    std::printf("%s\n  %s: %s", comma, quoted(violation.name).c_str(),
                                quoted(violation.what).c_str());
                    comma = ",";
                }
                std::printf("\n}\n");
            } else {
                list_faults(stdout);
            }
            return done;
        };
    });
}

int commit(const std::string& name) {
    const Violation* const violation = find_violation(name);
    if (violation == nullptr) {
        if (!name.empty()) {
            std::fprintf(stderr, "kxmdiag: there is no fault \"%s\".\n", name.c_str());
        }
        std::fprintf(stderr, "The deliberate faults:\n");
        list_faults(stderr);
        return wrong_usage;
    }
    std::fprintf(stderr, "kxmdiag: %s: %s\n", violation->name, violation->what);
    violation->commit();
    std::fflush(stdout);
    std::fprintf(stderr, "kxmdiag: the process goes on\n");
    return done;
}

void add_fault(CLI::App& app, Run& run) {
    CLI::App* const command = app.add_subcommand(
        "fault", "Commits one of them in this process, which may not survive it");
    const auto name = std::make_shared<std::string>();
    command->add_option("NAME", *name, "As kxmdiag faults lists it");
    command->callback([&run, command, name] {
        refuse_json(*command);
        run = [name] { return commit(*name); };
    });
}

std::vector<Section> report() {
    return {versions(), back_end(), settings_in_force(), machine()};
}

/// What there is without a command; as JSON, what a report has.
int show_all() {
    if (json) {
        print_json(report());
        return settings_status(settings());
    }
    print(versions());
    std::printf("\n");
    print(back_end());
    std::printf("\n");
    const int status = show_settings(false);
    std::printf("\n");
    print(machine());
    std::printf("\nAddress space, first 2 GiB, in bytes\n");
    std::fflush(stdout);
    mem_ScanMemory(MEM_SCAN_SUMMARY_ONLY, 2147483647);
    return status;
}

} // namespace

// NOLINTNEXTLINE(bugprone-exception-escape): what is thrown ends the process, as the faults here are to do
int main(int argc, char** argv) {
    CLI::App app("Shows what the memory library KXMBasMem finds on this machine.", "kxmdiag");
    app.set_version_flag("-V,--version", "kxmdiag " KXMDIAG_VERSION);
    app.add_flag("--json", json, "Write JSON; before the command or behind it");
    app.require_subcommand(0, 1);
    app.set_help_all_flag("--help-all", "Help of all commands");
    app.footer("Without a command: versions, back end, settings, machine, address space.\n"
               "Exit status: 0 done; 1 a setting is not valid, where settings are shown, or the "
               "output is lost;\n"
               "2 usage. A fault may end the process.");
    app.failure_message(CLI::FailureMessage::help); // an unknown word gets the list of commands
    Run run = show_all;
    add_facts(app, run, "memory", "Memory of the machine and of this process, in mebibytes",
              [] { return std::vector{machine()}; });
    add_space(app, run);
    add_settings(app, run);
    add_facts(app, run, "backend", "The back end that the settings bind",
              [] { return std::vector{back_end()}; });
    add_facts(app, run, "versions", "Of this command, the library, the system",
              [] { return std::vector{versions()}; });
    add_facts(app, run, "report",
              "Versions, back end, settings and machine together, for a problem report", report,
              [] { return settings_status(settings()); });
    add_faults(app, run);
    add_fault(app, run);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        const int status = app.exit(error); // prints help, version or what is wrong
        if (!std::cout.flush()) {
            return output_lost();
        }
        return status == 0 ? done : wrong_usage;
    }
    const int status = run();
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0) { // the reports flush by themselves
        return output_lost();
    }
    return status;
}
