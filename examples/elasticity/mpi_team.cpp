// Sums are made on one rank and handed out, so that they are the same everywhere: by them each rank
// decides for itself whether the iteration goes on.
#include "mpi_team.h"

#include "program.h"

#include <cstdio>

#include <mpi.h>

namespace elasticity {

namespace {

class MpiTeam final : public Team {
public:
    MpiTeam(int argc, char** argv) {
        MPI_Init(&argc, &argv);
        MPI_Comm_rank(MPI_COMM_WORLD, &rank_);
        MPI_Comm_size(MPI_COMM_WORLD, &ranks_);
    }

    int rank() const override { return rank_; }
    int ranks() const override { return ranks_; }
    using Team::largest;
    using Team::sum;
    void sum(double* values, std::size_t count) override { combine(values, count, MPI_SUM); }
    void largest(double* values, std::size_t count) override { combine(values, count, MPI_MAX); }
    void exchange(Halo& halo, double* values, int width) override;
    int end(int status) override;

private:
    void combine(double* values, std::size_t count, MPI_Op operation);

    int rank_ = 0;
    int ranks_ = 1;
};

void MpiTeam::combine(double* values, std::size_t count, MPI_Op operation) {
    const int n = static_cast<int>(count); // never more than a coarse matrix
    MPI_Reduce(rank_ == 0 ? MPI_IN_PLACE : values, values, n, MPI_DOUBLE, operation, 0,
               MPI_COMM_WORLD);
    MPI_Bcast(values, n, MPI_DOUBLE, 0, MPI_COMM_WORLD);
}

void MpiTeam::exchange(Halo& halo, double* values, int width) {
    constexpr int tag = 1;
    const auto wide = static_cast<std::size_t>(width);
    halo.outgoing.clear();
    for (const Neighbour& neighbour : halo.neighbours)
        for (const std::int32_t i : neighbour.wanted) {
            const double* own = values + wide * static_cast<std::size_t>(i);
            halo.outgoing.insert(halo.outgoing.end(), own, own + width);
        }
    Vector<MPI_Request> requests(2 * halo.neighbours.size());
    MPI_Request* request = requests.data();
    const double* out = halo.outgoing.data();
    for (const Neighbour& neighbour : halo.neighbours) {
        double* const copies = values + wide * static_cast<std::size_t>(neighbour.first_copy);
        MPI_Irecv(copies, neighbour.copies * width, MPI_DOUBLE, neighbour.rank, tag, MPI_COMM_WORLD,
                  request++);
        const int count = static_cast<int>(neighbour.wanted.size()) * width;
        MPI_Isend(out, count, MPI_DOUBLE, neighbour.rank, tag, MPI_COMM_WORLD, request++);
        out += count;
    }
    MPI_Waitall(static_cast<int>(requests.size()), requests.data(), MPI_STATUSES_IGNORE);
}

int MpiTeam::end(int status) {
    // The others wait for this rank somewhere in the job, and would for ever.
    if (status != done && status != failed) {
        std::fflush(nullptr);
        MPI_Abort(MPI_COMM_WORLD, status);
    }
    MPI_Finalize();
    return status;
}

} // namespace

Team& join_mpi_team(int argc, char** argv) {
    static MpiTeam team(argc, argv);
    return team;
}

} // namespace elasticity
