// Numbers the identifiers that a recording uses, of phases or of threads, from 0 in the order of their
// first appearance, so that figures by phase or thread are plain arrays. Identifiers are small numbers from
// 0 in files that are whole; any others, which damaged files hold, take a slower way.
#pragma once

#include <cstdint>
#include <limits>
#include <unordered_map>
#include <vector>

namespace memtrack {

class DenseIds {
public:
    DenseIds() : direct_(direct_ids, none) {}

    std::uint32_t index(std::int32_t id) {
        const auto place = static_cast<std::uint32_t>(id);
        if (place < direct_ids && direct_[place] != none) {
            return direct_[place];
        }
        return slow_index(id);
    }
    std::int32_t id(std::uint32_t index) const { return ids_[index]; }
    std::size_t size() const { return ids_.size(); }

private:
    static constexpr std::uint32_t direct_ids = 4096; // more phases than a run can have
    static constexpr std::uint32_t none = std::numeric_limits<std::uint32_t>::max();

    std::uint32_t slow_index(std::int32_t id) {
        const auto place = static_cast<std::uint32_t>(id);
        std::uint32_t& entry =
            place < direct_ids ? direct_[place] : others_.try_emplace(id, none).first->second;
        if (entry == none) {
            entry = static_cast<std::uint32_t>(ids_.size());
            ids_.push_back(id);
        }
        return entry;
    }

    std::vector<std::uint32_t> direct_;
    std::unordered_map<std::int32_t, std::uint32_t> others_;
    std::vector<std::int32_t> ids_;
};

} // namespace memtrack
