// What kxmdiag tells of the machine, the back end and the versions: sections of named facts, written as
// text for people or as JSON for scripts.
#pragma once

#include <cstdint>
#include <string>
#include <variant>
#include <vector>

namespace kxmdiag {

struct Fact {
    std::string name; ///< with blanks, as the text shows it; underscores stand for them in JSON
    std::variant<std::string, std::uint64_t> value;
    std::string unit = {}; ///< appended to the JSON name too
};

struct Section {
    std::string title;
    std::vector<Fact> facts;
};

Section machine();  ///< memory of the machine and of this process, the drive of the working folder
Section back_end(); ///< which one is bound, and its figures
Section versions();

std::string quoted(const std::string& text); ///< a JSON string, in UTF-8
std::string json_name(std::string text);     ///< without commas, with underscores for blanks
void print(const Section& section);          ///< as text
void print_json_members(const Section& section, int indent); ///< the members of one JSON object

} // namespace kxmdiag
