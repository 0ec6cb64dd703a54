// What a run held over its events, in a bounded number of points whatever its length. The run is cut into
// stretches of equal length; each keeps the moment when most bytes were held in it, so the curve's highest
// point is the peak. When there would be more stretches than points, two become one.
#pragma once

#include "figures.h"

#include <cstdint>
#include <vector>

namespace memtrack::exporting {

struct CurvePoint {
    std::uint64_t number = 0; ///< of the event after which this was held
    Amount held;
};

class Curve {
public:
    static constexpr std::uint64_t most_points = 500; // even

    void add(std::uint64_t number, const Amount& held) {
        if (number < end_) {
            if (held.bytes > points_.back().held.bytes) {
                points_.back() = {number, held};
            }
        } else {
            begin_stretch(number, held);
        }
        last_ = {number, held};
    }

    /// With the last event's as the last point, if it is not among them: one point more at most.
    std::vector<CurvePoint> points() const {
        std::vector<CurvePoint> result = points_;
        if (!result.empty() && result.back().number != last_.number) {
            result.push_back(last_);
        }
        return result;
    }

private:
    void begin_stretch(std::uint64_t number, const Amount& held) {
        while (number / length_ >= most_points) {
            length_ *= 2;
            join();
        }
        end_ = (number / length_ + 1) * length_;
        // Points are even in number, so that where stretches became longer this one does not begin in the last.
        points_.push_back({number, held});
    }

    // Points that lie in one stretch now become the higher one.
    void join() {
        std::size_t kept = 0;
        for (const CurvePoint& point : points_) {
            CurvePoint* const before = kept != 0 ? &points_[kept - 1] : nullptr;
            if (before == nullptr || before->number / length_ != point.number / length_) {
                points_[kept++] = point;
            } else if (point.held.bytes > before->held.bytes) {
                *before = point;
            }
        }
        points_.resize(kept);
    }

    std::vector<CurvePoint> points_;
    CurvePoint last_;
    std::uint64_t length_ = 1, end_ = 0; // of a stretch, in events; of the present one
};

} // namespace memtrack::exporting
