// A team of one: nothing to do.
#include "team.h"

namespace elasticity {

void Team::sum(double*, std::size_t) {}
void Team::largest(double*, std::size_t) {}
void Team::exchange(Halo&, double*, int) {}

int Team::end(int status) {
    return status;
}

Team& alone() {
    static class Alone final : public Team {
    } team;
    return team;
}

} // namespace elasticity
