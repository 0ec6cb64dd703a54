// The environment variables of the library: what docs/settings.md says of each, which is built in, what
// they are set to here, and what is wrong with that.
#pragma once

#include <string>
#include <vector>

namespace kxmdiag {

struct Setting {
    std::string name;
    std::string standard; ///< what counts when it is not set
    std::string effect;
    std::string read; ///< when the library reads it
    bool set = false;
    std::string value = {};
    bool valid = true;
    std::string remark = {}; ///< why not, or what may surprise
};

/// All documented ones, in the document's order, with this process's values.
std::vector<Setting> settings();

/// Variables of this process that are named as the library's are and mean nothing to it.
std::vector<std::string> unknown_variables(const std::vector<Setting>& known);

} // namespace kxmdiag
