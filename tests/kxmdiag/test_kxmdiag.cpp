// kxmdiag as it is called: what it says of settings, the back end and the machine, and its faults.
#include "child.h"
#include "violations.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>

namespace {

using test::ChildResult;
using Environment = std::vector<std::pair<std::string, std::string>>;

ChildResult run(std::vector<std::string> arguments, const Environment& environment = {}) {
    test::ChildRequest request{KXMDIAG_PROGRAM, std::move(arguments), {}};
    for (const char* const name :
         {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_CRTMALLOC", "KXQ_USE_ALIGNED_MEMORY",
          "KXQ_TBMALLOC", "KXQ_DEBUG_MEMSIZE", "KXM_SINGLETON_REGISTRY", "KXA_CALLSTACK_DEPTH",
          "KXA_MEM_TRACK", "KXA_MEM_OUTPUTDIR", "KXA_MEM_DBTRANS", "MC_RESULT"}) {
        request.environment.emplace_back(name, std::nullopt);
    }
    request.environment.emplace_back("ASAN_OPTIONS", "detect_leaks=0");
    for (const auto& [name, value] : environment) {
        request.environment.emplace_back(name, value);
    }
    return test::run_child(request);
}

bool has(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

/// The object of one variable in the JSON of the settings.
std::string entry(const std::string& json, const std::string& name) {
    const std::size_t start = json.find("{\"name\": \"" + name + "\"");
    return start == std::string::npos ? "" : json.substr(start, json.find('}', start) - start);
}

TEST(Settings, AreThoseOfTheDocument) {
    const ChildResult shown = run({"settings", "--json"});
    EXPECT_EQ(shown.exit_code, 0) << shown.err;
    std::ifstream document(SETTINGS_DOCUMENT);
    int variables = 0;
    const std::regex row("\\| `([A-Z_]+)` \\|.*");
    for (std::string line; std::getline(document, line);) {
        std::smatch found;
        if (std::regex_match(line, found, row)) {
            EXPECT_NE(entry(shown.out, found[1]), "") << found[1];
            ++variables;
        }
    }
    EXPECT_GT(variables, 10);
    EXPECT_TRUE(has(entry(shown.out, "KXA_DEADBEEF"),
                    "\"value\": null, \"valid\": true, \"remark\": \"\",\n     \"default\": "
                    "\"unset\", \"effect\": \"Guarded back end, above all others\", \"read\": "
                    "\"when the table is bound\""))
        << shown.out;
}

TEST(Settings, AreJudged) {
    struct Case {
        const char *name, *value;
        bool valid;
        const char* remark; ///< part of it; empty for none
    };
    const Case cases[] = {{"KXA_CALLSTACK_DEPTH", "-3", true, ""},
                          {"KXA_CALLSTACK_DEPTH", "12x", false, "no number"},
                          {"KXA_CALLSTACK_DEPTH", "", false, "no number"},
                          {"KXM_SINGLETON_REGISTRY", "99999999999", false, "no number"},
                          {"KXA_UMR_PRINT", "yes", false, "no number"},
                          {"KXQ_DLALLOCATOR", "1", true, ""},
                          {"KXQ_DLALLOCATOR", "off", true, "by its presence"},
                          {"KXQ_CRTMALLOC", "1", true, "without KXQ_DLALLOCATOR"},
                          {"KXA_MEM_OUTPUTDIR", "no/such/folder", false, "no such folder"},
                          {"KXA_MEM_OUTPUTDIR", ".", true, ""},
                          {"KXA_MEM_DBTRANS", "1,5,70", true, ""},
                          {"KXA_MEM_DBTRANS", "1,5,5", false, "do not grow"},
                          {"KXA_MEM_DBTRANS", "1;5", false, "no list"},
                          {"KXQ_TBMALLOC", "1", true, "changes nothing"},
                          {"KXQ_DEBUG_MEMSIZE", "off", true, "changes nothing"}};
    for (const Case& each : cases) {
        const ChildResult shown = run({"settings", "--json"}, {{each.name, each.value}});
        const std::string text = entry(shown.out, each.name);
        EXPECT_EQ(shown.exit_code, each.valid ? 0 : 1) << each.name << " = " << each.value;
        EXPECT_TRUE(has(text, each.valid ? "\"valid\": true" : "\"valid\": false")) << text;
        EXPECT_TRUE(has(text, each.remark) &&
                    has(text, "\"remark\": \"\"") == (*each.remark == '\0'))
            << text;
    }
    const ChildResult cut =
        run({"settings", "--json"}, {{"KXA_MEM_DBTRANS", "1,x"}, {"KXA_MEM_TRACK", "1"}});
    EXPECT_TRUE(has(entry(cut.out, "KXA_MEM_DBTRANS"), "before the first comma")) << cut.out;
    if (std::filesystem::path::preferred_separator == '/') { // Windows translates what it is given
        const ChildResult odd =
            run({"settings", "--json"}, {{"MC_RESULT", "\xc3\xa9\xe9\xc0\xaf\t\""}});
        EXPECT_TRUE(has(odd.out, "\"value\": \"\xc3\xa9\\u00e9\\u00c0\\u00af\\u0009\\\"\""))
            << "JSON is UTF-8, whatever a variable holds: " << odd.out;
    }
    const ChildResult shown = run(
        {"settings"}, {{"KXQ_DLALLOCATOR", "1"}, {"KXA_DEADBEEF", "1"}, {"KXQ_DLALOCATOR", "1"}});
    EXPECT_TRUE(has(shown.out, "overruled by KXA_DEADBEEF")) << shown.out;
    EXPECT_TRUE(has(shown.out, "KXQ_DLALOCATOR             is set, and means nothing"))
        << shown.out;
}

TEST(BackEnd, IsTheOneThatTheSettingsBind) {
    const std::pair<Environment, const char*> choices[] = {
        {{}, "C runtime"},
        {{{"KXQ_DLALLOCATOR", "1"}}, "heap"},
        {{{"KXQ_USE_ALIGNED_MEMORY", "1"}}, "aligned"},
        {{{"KXA_DEADBEEF", "1"}, {"KXQ_DLALLOCATOR", "1"}}, "guarded"}};
    for (const auto& [environment, name] : choices) {
        const ChildResult shown = run({"backend", "--json"}, environment);
        EXPECT_TRUE(has(shown.out, std::string("\"bound\": \"") + name + "\"")) << shown.out;
    }
}

TEST(Reports, TellOfTheMachineAndTheInstallation) {
    const ChildResult report = run({"report", "--json"});
    EXPECT_TRUE(std::regex_search(report.out, std::regex("\"physical_memory_MB\": [1-9]")));
    EXPECT_TRUE(std::regex_search(report.out, std::regex("\"library\": \"[^\"]*KXMBasMem[.]")))
        << report.out;
    const ChildResult all = run({});
    for (const char* const part : {"Versions\n", "Back end\n", "Settings\n  none is set",
                                   "Machine\n", "\nMEMORY USE SUMMARY\n   Free Memory      = "}) {
        EXPECT_TRUE(has(all.out, part)) << part << " is not in\n" << all.out;
    }
    EXPECT_TRUE(has(run({"space", "--level", "detailed", "--limit", "1"}).out, "Address  End"));
}

TEST(Faults, AreCommittedByTheirNamesAlone) {
    const ChildResult list = run({"faults"});
    const ChildResult unknown = run({"fault", "mem_no_such"});
    EXPECT_EQ(unknown.exit_code, 2);
    EXPECT_EQ(unknown.out, "");
    for (const kxmdiag::Violation& violation : kxmdiag::violations()) {
        EXPECT_TRUE(has(list.out, violation.name) && has(unknown.err, violation.name));
    }
    const ChildResult survived = run({"fault", "mem_division_by_zero"});
    EXPECT_EQ(survived.out, " Performing division by zero\n Result: inf\n");
    EXPECT_TRUE(has(survived.err, "the process goes on"));
    const ChildResult died = run({"fault", "mem_abort"});
    EXPECT_TRUE(died.crashed);
    EXPECT_EQ(died.out, "Causing a deliberate abort ...\n");
}

TEST(Usage, IsTold) {
    const ChildResult help = run({"--help"});
    EXPECT_EQ(help.exit_code, 0);
    for (const char* const command :
         {"memory", "space", "settings", "backend", "versions", "report", "faults", "fault "}) {
        EXPECT_TRUE(has(help.out, std::string("\n  ") + command)) << command;
    }
    for (const std::vector<std::string>& wrong :
         std::vector<std::vector<std::string>>{{"nonsense"},
                                               {"fault"},
                                               {"space", "--level", "all"},
                                               {"space", "--limit", "-1"},
                                               {"--json", "space"},
                                               {"memory", "--jason"}}) {
        EXPECT_EQ(run(wrong).exit_code, 2) << wrong[0];
    }
    EXPECT_EQ(run({"--json", "faults"}).out, run({"faults", "--json"}).out);
    EXPECT_TRUE(has(run({"--json"}).out, "\"library_version\": \"" KXMDIAG_VERSION "\""));
}

} // namespace
