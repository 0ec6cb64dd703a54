// Every deliberate fault, each in a child process: plainly, under memcheck, and in a program with
// AddressSanitizer. What came of it is compared with the table of docs/faults.md, so that neither a
// compiler can remove a fault nor the table grow old unnoticed.
#include "child.h"
#include "faults.h"
#include "violations.h"

#include <algorithm>
#include <atomic>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <thread>

namespace {

using test::ChildResult;

using Row = std::map<std::string, std::string>; ///< cells by the head of their column

std::vector<std::string> cells_of(const std::string& line) {
    std::vector<std::string> cells;
    std::stringstream text(line.substr(1));
    for (std::string cell; std::getline(text, cell, '|');) {
        const std::size_t first = cell.find_first_not_of(" `"), last = cell.find_last_not_of(" `");
        cells.push_back(first == std::string::npos ? "" : cell.substr(first, last - first + 1));
    }
    return cells;
}

/// The rows of the table by function.
const std::map<std::string, Row>& table() {
    static const std::map<std::string, Row> rows = [] {
        std::map<std::string, Row> result;
        std::vector<std::string> head;
        std::ifstream file(FAULTS_TABLE);
        for (std::string line; std::getline(file, line);) {
            if (line.rfind("| Function", 0) == 0) {
                head = cells_of(line);
            } else if (!head.empty() && line.rfind("| `mem_", 0) == 0) {
                const std::vector<std::string> cells = cells_of(line);
                for (std::size_t i = 1; i < head.size() && i < cells.size(); ++i) {
                    result[cells[0]][head[i]] = cells[i];
                }
            }
        }
        return result;
    }();
    return rows;
}

TEST(Table, ListsEveryFault) {
    std::set<std::string> listed, known;
    for (const auto& [name, row] : table()) {
        listed.insert(name);
    }
    for (const kxmdiag::Violation& violation : kxmdiag::violations()) {
        known.insert(violation.name);
        if (listed.count(violation.name) != 0) {
            EXPECT_EQ(table().at(violation.name).at("Fault"), violation.what);
        }
    }
    EXPECT_EQ(listed, known);
}

ChildResult run(const std::string& program, std::vector<std::string> arguments) {
    test::ChildRequest request{program, std::move(arguments), {}};
    for (const char* const name : {"KXA_DEADBEEF", "KXQ_DLALLOCATOR", "KXQ_USE_ALIGNED_MEMORY",
                                   "KXA_CALLSTACK_DEPTH", "MALLOC_CHECK_", "GLIBC_TUNABLES"}) {
        request.environment.emplace_back(name, std::nullopt);
    }
    request.environment.emplace_back("ASAN_OPTIONS", "allocator_may_return_null=1");
    return test::run_child(request);
}

ChildResult probe(const std::string& what) {
    return run(test::sibling_program("fault_probe"), {what});
}

std::string end_of(const ChildResult& result) {
    if (!result.crashed) {
        return result.exit_code == 0 ? "goes on" : "exit " + std::to_string(result.exit_code);
    }
    switch (static_cast<unsigned>(result.exit_code)) {
    case 3: // on Windows
    case 6: // on Linux
        return "abort";
    case 11:
    case 0xC0000005:
        return "access fault";
    case 0xC00000FD:
        return "stack overflow";
    default:
        return "ends with " + std::to_string(result.exit_code);
    }
}

/// A cell may name two outcomes, "abort or access fault", where what lies in memory decides.
bool admits(const std::string& cell, const std::string& outcome) {
    const std::size_t between_them = cell.find(" or ");
    return cell == outcome ||
           (between_them != std::string::npos &&
            (cell.substr(0, between_them) == outcome || cell.substr(between_them + 4) == outcome));
}

/// Runs every fault that needs no ground of its own, a few at a time, and compares a column.
void expect_column(const std::string& column,
                   const std::function<std::string(const std::string& name)>& outcome) {
    std::vector<std::string> names;
    for (const kxmdiag::Violation& violation : kxmdiag::violations()) {
        if (std::string(violation.name).find("corruption0") == std::string::npos) {
            names.emplace_back(violation.name);
        }
    }
    std::vector<std::string> outcomes(names.size());
    std::atomic<std::size_t> next{0};
    const auto work = [&] {
        for (std::size_t i; (i = next++) < names.size();) {
            outcomes[i] = outcome(names[i]);
        }
    };
    std::vector<std::thread> workers(std::clamp(std::thread::hardware_concurrency(), 1U, 8U));
    for (std::thread& worker : workers) {
        worker = std::thread(work);
    }
    for (std::thread& worker : workers) {
        worker.join();
    }
    for (std::size_t i = 0; i < names.size(); ++i) {
        const auto row = table().find(names[i]);
        ASSERT_TRUE(row != table().end()) << "docs/faults.md has no " << names[i];
        EXPECT_TRUE(admits(row->second.at(column), outcomes[i]))
            << "docs/faults.md, " << names[i] << ", " << column << ": " << row->second.at(column)
            << ", and it was: " << outcomes[i];
    }
}

TEST(Runs, PlainlyAsTheTableSays) {
    if (faults::checked_build) {
        GTEST_SKIP() << "a checked build is no plain run";
    }
    expect_column(faults::system, [](const std::string& name) { return end_of(probe(name)); });
}

std::vector<std::string> between(const std::string& text, const std::string& open,
                                 const std::string& close) {
    std::vector<std::string> found;
    for (std::size_t at = 0; (at = text.find(open, at)) != std::string::npos;) {
        at += open.size();
        found.push_back(text.substr(at, text.find(close, at) - at));
    }
    return found;
}

/// The kinds of errors with this function on their stack.
std::string kinds_reported(const std::string& xml, const std::string& function) {
    std::set<std::string> kinds;
    for (const std::string& error : between(xml, "<error>", "</error>")) {
        if (error.find("<fn>" + function + "</fn>") != std::string::npos) {
            kinds.insert(between(error, "<kind>", "</kind>").at(0));
        }
    }
    std::string result;
    for (const std::string& kind : kinds) {
        result += (result.empty() ? "" : ", ") + kind;
    }
    return result.empty() ? "-" : result;
}

std::string file_text(const std::string& name) {
    std::ifstream file(name);
    return {std::istreambuf_iterator<char>(file), {}};
}

std::string memcheck(const std::string& program, const std::string& argument,
                     const std::string& folder) {
    const std::string xml = folder + argument + ".xml";
    run(faults::memcheck, {"--tool=memcheck", "--read-inline-info=no", "--leak-check=full",
                           "--xml=yes", "--xml-file=" + xml, program, argument});
    return file_text(xml);
}

TEST(Runs, UnderMemcheckAsTheTableSays) {
    if (faults::checked_build || std::string(faults::memcheck).empty()) {
        GTEST_SKIP() << "no plain Linux build, or no valgrind on this machine";
    }
    const std::string folder = test::scratch_folder("memcheck");
    expect_column("memcheck", [&folder](const std::string& name) {
        const std::string xml = memcheck(test::sibling_program("fault_probe"), name, folder);
        EXPECT_NE(xml.find("</valgrindoutput>"), std::string::npos) << name;
        return kinds_reported(xml, name);
    });
    // The entries that make a value count as used: once for each, of two values.
    const std::string xml = memcheck(test::sibling_program("data_checks_probe"), "use", folder);
    for (const char* const name : {"KXMBasMemoryCheckVarDP", "KXMBasMemoryCheckVarSP",
                                   "KXMBasMemoryCheckVarINT", "KXMBasMemoryCheckVarINT64"}) {
        EXPECT_EQ(kinds_reported(xml, name), "UninitCondition") << name;
    }
    for (const std::string& error : between(xml, "<error>", "</error>")) { // and nobody else
        EXPECT_NE(error.find("<fn>KXMBasMemoryCheckVar"), std::string::npos) << error;
    }
    EXPECT_EQ(xml.find("<count>2</count>"), std::string::npos);
}

TEST(Runs, WithAddressSanitizerAsTheTableSays) {
    if (std::string(faults::address_sanitizer).empty()) {
        GTEST_SKIP() << "no AddressSanitizer on this system";
    }
    expect_column("AddressSanitizer", [](const std::string& name) -> std::string {
        const ChildResult result = run(test::sibling_program(faults::address_sanitizer), {name});
        std::smatch found;
        const std::regex summary("SUMMARY: AddressSanitizer: (\\S+)( byte\\(s\\) leaked)?");
        if (!std::regex_search(result.err, found, summary)) {
            return "-";
        }
        return found[2].matched ? "leak" : found[1].str();
    });
}

TEST(Texts, AreThoseOfTheSystem) {
    const std::string number = "-?[0-9]+", address = "0x[0-9a-f]{8}\n";
    const std::string chain_end = "    In function C\nCausing a deliberate abort \\.\\.\\.\n";
    const std::string aggregates =
        "( accessCount = [01]\n accessFlags = [0-3]\n accessState = [0-7]\n)";
    const std::map<std::string, std::string> texts{
        {"mem_stack_overwrite1", "       a\\[0\\]   is at address " + address +
                                     "       a\\[80\\]  is at address " + address +
                                     "       a\\[90\\]  is at address " + address +
                                     "       a\\[100\\] is at address " + address},
        {"mem_stack_overwrite2",
         "   i\\[0\\]  is at address " + address + "   i\\[1\\]  is at address " + address +
             "   arg a is at address " + address + "   arg d is at address " + address +
             "   1\\) args   before: 1 2 3 4\n   1\\) values before: 11 22\n( .*\n){4}"
             "   2\\) values after : (11 22|255 255)\n   1\\) args   after : " +
             number + " " + number + " " + number + " " + number + "\n"},
        {"mem_resize_to_zero", " Testing resize\\(0\\) operation\n(   Array's address before: " +
                                   number + "\n   Array's address after : 0\n){2}"},
        {"mem_partial_union", " integerMember = " + number +
                                  "\n pointerMember = [0-9a-f]{1,8}\n"
                                  " integerMember = 1\n pointerMember = 1\n"},
        {"mem_partial_struct", aggregates + "\\1"},
        {"mem_division_by_zero", " Performing division by zero\n Result: inf\n"},
        {"mem_fpe01", "Performing sqrt\\(-2\\) \\.\\.\\.\nsqrt\\(-2\\) = -?nan\n"},
        {"mem_assert", "Trying to trigger an assert \\.\\.\\.\n"},
        {"mem_deliberateAbort",
         "Testing crash via abort\\.\\.\\.\n    In function A\n    In function B\n" + chain_end},
        {"mem_function_C", chain_end},
        {"mem_stack_info", "           Stack top: 0x       0     Stack depth:        0 "
                           "\\(     0\\.0 MB\\)\n"},
        {"mem_abort", "Causing a deliberate abort \\.\\.\\.\n"},
        {"right-parameters", "# argument a text\n"},
        {"mem_leak1", ""}};
    for (const auto& [name, text] : texts) {
        const ChildResult result = probe(name);
        EXPECT_TRUE(std::regex_match(result.out, std::regex(text))) << name << ":\n"
                                                                    << result.out << result.err;
    }
    EXPECT_NE(probe("mem_assert")
                  .err.find("\"Assert has been triggered\" == 0, file "
                            "mem_violations, line 560"),
              std::string::npos);
}

TEST(Chain, IsWhatACrashHandlerSees) {
    const ChildResult result = probe("chain");
    std::size_t at = 0;
    for (const char* const function : {"mem_abort", "mem_function_C", "mem_function_B",
                                       "mem_function_A", "mem_deliberateAbort"}) {
        at = result.err.find(function, at);
        ASSERT_NE(at, std::string::npos) << function << " is missing or not in order:\n"
                                         << result.err;
    }
}

// Where a thread's stack can be put above the block, the recursion runs into it; and a second test in
// the process goes down a single level.
TEST(Corruption, RunsIntoTheBlockBelowTheStack) {
    if (faults::checked_build && std::string(faults::address_sanitizer).empty()) {
        GTEST_SKIP() << "this checker keeps several bytes for each of the two gigabytes";
    }
    const std::string letter = faults::stack_above_block ? "S " : "A ";
    const auto thirty = [](const std::string& text) {
        std::string result;
        for (int i = 0; i < 30; ++i) {
            result += text;
        }
        return result + "\n";
    };
    const std::string info = "           Stack top: 0x       0     Stack depth:        0 "
                             "(     0.0 MB)\n";
    const std::string recursion = "\n   Recursion count 1200 reached.\n" + info;
    const auto values = [&](const std::string& after) {
        return "VALUES BEFORE RECURSION: " + thirty("A ") + recursion +
               "VALUES  AFTER RECURSION: " + thirty(after);
    };
    const auto from_title = [](const std::string& text) {
        const std::string shown =
            std::regex_replace(text.substr(std::min(text.size(), text.find(" Test mem_stack"))),
                               std::regex("0x[0-9a-f]{8}"), "ADDRESS");
        return shown;
    };

    const std::string first = " Test mem_stack_corruption01\n"
                              "    Allocated 2 GB. start: ADDRESS end: ADDRESS\n" +
                              info;
    EXPECT_EQ(from_title(probe("corruption01").out), first + values(letter) + first + values("A "));

    std::string second = " Test mem_stack_corruption02\n";
    for (int i = 0; i < 97; ++i) {
        second += "    Attempt to allocate 2 GB failed. Reducing the request\n";
    }
    second += " Allocated 60 MB (62914560 bytes)\n   start: ADDRESS\n     end: ADDRESS\n" + info;
    std::string with_page = values(letter);
    with_page.insert(with_page.find(recursion),
                     "Creating a protection page at address ADDRESS, size 1048576\n");
    EXPECT_EQ(from_title(probe("corruption02").out),
              second + with_page +
                  "DESTROYING a PROTECTION PAGE ...\n"
                  "Destroying a protection page at address ADDRESS, size 0\n");

    EXPECT_EQ(from_title(probe("corruption01-refused").out),
              " Test mem_stack_corruption01\n"
              "    Attempt to allocate 2 GB failed. Memory is not available!\n");
}

} // namespace
