// The processes that share one job. The class by itself is a job of one process, for which there is
// nothing to exchange; mpi_team.cpp has the one for several.
//
// Every operation but the first two is collective: all ranks make the same calls in the same order.
#pragma once

#include "memory.h"

#include <cstdint>

namespace elasticity {

/// Rows or nodes of this rank that another one needs, and those of the other that this one holds
/// copies of, which lie side by side.
struct Neighbour {
    int rank;
    Vector<std::int32_t> wanted; // of this rank's own, in the order of the other's copies
    std::int32_t first_copy;
    std::int32_t copies;
};

struct Halo {
    Vector<Neighbour> neighbours;
    Vector<double> outgoing; // room for what goes out
};

class Team {
public:
    Team() = default;
    Team(const Team&) = delete;
    Team& operator=(const Team&) = delete;

    virtual int rank() const { return 0; }
    virtual int ranks() const { return 1; }

    /// Replaces each value by its sum, or the largest, over the ranks: the same to the bit on all.
    virtual void sum(double* values, std::size_t count);
    virtual void largest(double* values, std::size_t count);

    /// Renews the copies of others' values; `width` values belong to each row or node.
    virtual void exchange(Halo& halo, double* values, int width);

    /// Ends the job with this status of this rank, which is what its process then ends with. A rank
    /// that failed alone takes the others along.
    virtual int end(int status);

    double sum(double value) {
        sum(&value, 1);
        return value;
    }
    double largest(double value) {
        largest(&value, 1);
        return value;
    }

protected:
    ~Team() = default;
};

/// The team of a process by itself.
Team& alone();

} // namespace elasticity
