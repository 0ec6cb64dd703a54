// Writes recordings from lists of events, whole or as damaged as a test wants them.
#pragma once

#include "child.h"
#include "tracking_files.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace test {

using memtrack::Transaction;
using memtrack::Type;
using Events = std::vector<Transaction>;

inline void write_bytes(const std::string& name, const std::string& bytes) {
    std::ofstream(name, std::ios::binary) << bytes;
}

inline std::string word(std::int32_t value) {
    std::string bytes(4, '\0');
    std::memcpy(bytes.data(), &value, 4);
    return bytes;
}

/// A .memT file that claims `count` records and holds these.
inline void write_transactions(const std::string& name, std::int32_t count, const Events& events,
                               const std::string& behind = "") {
    std::string bytes = word(count);
    bytes.append(reinterpret_cast<const char*>(events.data()), events.size() * sizeof(Transaction));
    write_bytes(name, bytes + behind);
}

inline void write_phases(const std::string& base, const std::vector<std::string>& paths) {
    std::string bytes = word(static_cast<std::int32_t>(paths.size()));
    for (std::size_t i = paths.size(); i-- > 0;) { // in no order
        std::string path = paths[i] + '\0';
        path.resize(131072, '#');
        bytes += word(static_cast<std::int32_t>(i)) + path;
    }
    write_bytes(base + ".phaseStack", bytes);
}

/// A whole recording: ids are set, files are cut where the recorder cuts them.
inline void write_recording(const std::string& base, Events events,
                            const std::vector<std::string>& paths = {"ROOT"}) {
    for (std::size_t i = 0; i < events.size(); ++i) {
        events[i].id = static_cast<std::int32_t>(i);
    }
    constexpr std::size_t full = memtrack::full_file;
    for (std::size_t at = 0, number = 0; at < events.size(); at += full, ++number) {
        const std::size_t count = std::min(full, events.size() - at);
        const auto first = events.begin() + static_cast<std::ptrdiff_t>(at);
        write_transactions(base + ".memT" + std::to_string(number),
                           static_cast<std::int32_t>(count),
                           Events(first, first + static_cast<std::ptrdiff_t>(count)));
    }
    write_phases(base, paths);
}

} // namespace test
