// Writes the mesh of a cantilever beam of any fineness: a box of cells, each cut into six
// tetrahedra.
//
// All cells are cut alike, along the paths from their lowest to their highest corner, so that the
// cuts of neighbours meet. The middles of all edges then lie on a grid of half the width, and a
// node number is a matter of arithmetic: the mesh is written as it is counted, and takes no memory.
// The face at x = 0 is the physical surface "fixed", the one at the other end "load". MSH 4.1
// ASCII.
#include <array>
#include <charconv>
#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <initializer_list>
#include <utility>

namespace {

using Cell = std::array<std::int64_t, 3>;

struct Beam {
    std::array<double, 3> lengths{10, 1, 1};
    Cell cells{10, 2, 2};
    int order = 2;
};

// Grid points stand at whole multiples of a cell, or of half a cell in second order.
struct Grid {
    explicit Grid(const Beam& beam) : beam_(beam) {
        for (std::size_t i = 0; i < 3; ++i)
            points[i] = beam.cells[i] * beam.order + 1;
    }
    std::int64_t count() const { return points[0] * points[1] * points[2]; }
    // Number from 1 of a point given in half cells.
    std::int64_t number(const Cell& half) const {
        const std::int64_t step = 2 / beam_.order;
        return (half[0] / step * points[1] + half[1] / step) * points[2] + half[2] / step + 1;
    }

    Cell points{};

private:
    const Beam& beam_;
};

class MeshWriter {
public:
    MeshWriter(const Beam& beam, std::FILE* file) : beam_(beam), grid_(beam), file_(file) {}
    void write();

private:
    void write_head();
    void write_nodes();
    void write_surface(int tag, std::int64_t x, bool outward_is_low);
    void write_body();
    void write_element(std::initializer_list<Cell> corners);

    const Beam& beam_;
    Grid grid_;
    std::FILE* file_;
    std::int64_t element_ = 0;
};

Cell middle(const Cell& a, const Cell& b) {
    return {(a[0] + b[0]) / 2, (a[1] + b[1]) / 2, (a[2] + b[2]) / 2};
}

void MeshWriter::write_head() {
    const auto& [x, y, z] = beam_.lengths;
    std::fprintf(file_, "$MeshFormat\n4.1 0 8\n$EndMeshFormat\n"
                        "$PhysicalNames\n3\n2 1 \"fixed\"\n2 2 \"load\"\n3 3 \"body\"\n"
                        "$EndPhysicalNames\n$Entities\n0 0 2 1\n");
    std::fprintf(file_, "1 0 0 0 0 %.17g %.17g 1 1 0\n", y, z);
    std::fprintf(file_, "2 %.17g 0 0 %.17g %.17g %.17g 1 2 0\n", x, x, y, z);
    std::fprintf(file_, "1 0 0 0 %.17g %.17g %.17g 1 3 2 1 2\n$EndEntities\n", x, y, z);
}

void MeshWriter::write_nodes() {
    const std::int64_t count = grid_.count();
    std::fprintf(file_, "$Nodes\n1 %" PRId64 " 1 %" PRId64 "\n3 1 0 %" PRId64 "\n", count, count,
                 count);
    for (std::int64_t i = 1; i <= count; ++i)
        std::fprintf(file_, "%" PRId64 "\n", i);
    const auto at = [&](std::int64_t i, std::size_t axis) {
        return beam_.lengths[axis] * static_cast<double>(i) /
               static_cast<double>(grid_.points[axis] - 1);
    };
    for (std::int64_t i = 0; i < grid_.points[0]; ++i)
        for (std::int64_t j = 0; j < grid_.points[1]; ++j)
            for (std::int64_t k = 0; k < grid_.points[2]; ++k)
                std::fprintf(file_, "%.17g %.17g %.17g\n", at(i, 0), at(j, 1), at(k, 2));
    std::fprintf(file_, "$EndNodes\n");
}

// Three corners of a triangle or four of a tetrahedron, in half cells.
void MeshWriter::write_element(std::initializer_list<Cell> corners) {
    static constexpr int edges[6][2] = {{0, 1}, {1, 2}, {2, 0}, {3, 0}, {3, 2}, {3, 1}};
    const Cell* corner = corners.begin();
    std::fprintf(file_, "%" PRId64, ++element_);
    for (const Cell& c : corners)
        std::fprintf(file_, " %" PRId64, grid_.number(c));
    const int edge_count = beam_.order == 1 ? 0 : corners.size() == 3 ? 3 : 6;
    for (int e = 0; e < edge_count; ++e)
        std::fprintf(file_, " %" PRId64,
                     grid_.number(middle(corner[edges[e][0]], corner[edges[e][1]])));
    std::fputc('\n', file_);
}

void MeshWriter::write_surface(int tag, std::int64_t x, bool outward_is_low) {
    const std::int64_t cells = beam_.cells[1] * beam_.cells[2];
    std::fprintf(file_, "2 %d %d %" PRId64 "\n", tag, beam_.order == 1 ? 2 : 9, 2 * cells);
    for (std::int64_t j = 0; j < beam_.cells[1]; ++j)
        for (std::int64_t k = 0; k < beam_.cells[2]; ++k) {
            const Cell low{2 * x, 2 * j, 2 * k}, high{2 * x, 2 * j + 2, 2 * k + 2};
            Cell right{2 * x, 2 * j + 2, 2 * k}, up{2 * x, 2 * j, 2 * k + 2};
            if (outward_is_low)
                std::swap(right, up);
            write_element({low, right, high});
            write_element({low, high, up});
        }
}

void MeshWriter::write_body() {
    static constexpr std::size_t paths[6][3] = {{0, 1, 2}, {1, 2, 0}, {2, 0, 1},
                                                {0, 2, 1}, {1, 0, 2}, {2, 1, 0}};
    const auto& [nx, ny, nz] = beam_.cells;
    std::fprintf(file_, "3 1 %d %" PRId64 "\n", beam_.order == 1 ? 4 : 11, 6 * nx * ny * nz);
    for (std::int64_t i = 0; i < nx; ++i)
        for (std::int64_t j = 0; j < ny; ++j)
            for (std::int64_t k = 0; k < nz; ++k)
                for (int path = 0; path < 6; ++path) {
                    const Cell a{2 * i, 2 * j, 2 * k}, d{2 * i + 2, 2 * j + 2, 2 * k + 2};
                    Cell b = a, c = d;
                    b[paths[path][0]] += 2;
                    c[paths[path][2]] -= 2;
                    // The last three paths are odd permutations and turn the other way round.
                    if (path < 3)
                        write_element({a, b, c, d});
                    else
                        write_element({a, c, b, d});
                }
}

void MeshWriter::write() {
    write_head();
    write_nodes();
    const auto& [nx, ny, nz] = beam_.cells;
    const std::int64_t total = 6 * nx * ny * nz + 4 * ny * nz;
    std::fprintf(file_, "$Elements\n3 %" PRId64 " 1 %" PRId64 "\n", total, total);
    write_surface(1, 0, true);
    write_surface(2, nx, false);
    write_body();
    std::fprintf(file_, "$EndElements\n");
}

template <class T> bool read_three(const char* text, std::array<T, 3>& values) {
    const char* const end = text + std::strlen(text);
    for (std::size_t i = 0; i < 3; ++i) {
        const auto [rest, error] = std::from_chars(text, end, values[i]);
        // A million cells each way keeps every count far inside 64 bits.
        if (error != std::errc{} || !(values[i] > 0 && values[i] <= T{1000000}))
            return false;
        if (i < 2 ? (rest == end || *rest != ',') : rest != end)
            return false;
        text = rest + 1;
    }
    return true;
}

int write_file(const Beam& beam, const char* name) {
    std::FILE* file = std::fopen(name, "wb");
    if (file == nullptr) {
        std::fprintf(stderr, "beam_mesh: %s cannot be opened for writing\n", name);
        return 2;
    }
    MeshWriter(beam, file).write();
    const bool good = std::ferror(file) == 0;
    if (std::fclose(file) == 0 && good)
        return 0;
    std::remove(name);
    std::fprintf(stderr, "beam_mesh: %s cannot be written in full\n", name);
    return 2;
}

} // namespace

int main(int argc, char** argv) {
    Beam beam;
    const bool good = argc == 5 && read_three(argv[1], beam.lengths) &&
                      read_three(argv[2], beam.cells) && argv[3][1] == '\0' &&
                      (argv[3][0] == '1' || argv[3][0] == '2');
    if (!good) {
        std::fputs("Usage: beam_mesh LENGTH,WIDTH,HEIGHT CELLS,CELLS,CELLS ORDER FILE\n"
                   "Writes a beam along x, lengths in metres, order 1 or 2, as MSH 4.1.\n",
                   stderr);
        return 2;
    }
    // Some gigabytes of text: more was surely not meant, and would fill a disk.
    constexpr std::int64_t most_cells = 5'000'000;
    if (beam.cells[0] * beam.cells[1] > most_cells ||
        beam.cells[0] * beam.cells[1] * beam.cells[2] > most_cells) {
        std::fprintf(stderr, "beam_mesh: more than %" PRId64 " cells are refused\n", most_cells);
        return 2;
    }
    beam.order = argv[3][0] - '0';
    return write_file(beam, argv[4]);
}
