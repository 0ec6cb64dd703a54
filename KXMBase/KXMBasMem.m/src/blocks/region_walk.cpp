// See region_walk.h.
#include "blocks/region_walk.h"

namespace blocks {

struct Inspector {
    const mem_FixedRegion& region;
    Chain chain{};

    bool holds(bool statement, const char* fault) {
        if (!statement && chain.fault == nullptr) {
            chain.fault = fault;
        }
        return chain.fault == nullptr;
    }

    int word_at(int offset) const { return *region.Slot(offset); }

    // Follows the chain to the frontier, which it returns; -1 when the chain is broken.
    int follow() {
        const int limit = region.m_regionSize - region.m_fixedSize;
        int at = region.m_freeHead;
        for (;;) {
            const int distance = at - region.m_reserveOffset;
            if (!holds(distance >= 0 && distance % region.m_fixedSize == 0, "link off a slot")) {
                return -1;
            }
            if (at > limit) {
                return at;
            }
            const int next = word_at(at);
            if (next == -1) {
                return at;
            }
            const auto slot = static_cast<std::size_t>(distance / region.m_fixedSize);
            if (!holds(!chain.links[slot], "slot twice in the chain")) {
                return -1;
            }
            chain.links.set(slot);
            at = next;
        }
    }

    void walk() {
        const int reserve = region.m_reserveOffset;
        if (!holds(region.m_fixedSize > 0 && (reserve == 10 || reserve == 12), "region header")) {
            return;
        }
        chain.slots = (region.m_regionSize - reserve) / region.m_fixedSize;
        const int frontier = follow();
        if (frontier < 0) {
            return;
        }
        chain.touched = (frontier - reserve) / region.m_fixedSize;
        holds(chain.touched <= chain.slots, "frontier behind the region");
        holds((chain.links >> static_cast<std::size_t>(chain.touched)).none(),
              "link above the frontier");
        holds(frontier >= region.m_regionSize || word_at(frontier) == -1, "frontier not marked");
        holds(region.m_allocCount == chain.used() * region.m_fixedSize, "count of words in use");
    }
};

Chain walk_region(const mem_FixedRegion& region) {
    Inspector inspector{region};
    inspector.walk();
    return inspector.chain;
}

} // namespace blocks
