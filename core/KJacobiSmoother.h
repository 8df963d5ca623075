#pragma once
// Jacobi smoothing over a vertex-neighbour table: k sweeps, each moving every vertex to the plain
// mean of its neighbours' previous positions (sums in double from zero, in neighbour order,
// divided by the count). The result is the same, bit for bit, for any thread count.
//
// The sweeps run in cache-sized pieces. The vertices are ordered breadth first (per connected
// part, from a vertex at the part's far end) and cut into groups of whole breadth-first levels,
// so that a group's neighbours lie in the group itself or the groups on either side. Sweep s of a
// group then needs only sweep s - 1 of three groups, and a thread carries all the sweeps of a pass
// along the group order in step, each sweep one group behind the one before: every sweep reads
// what the sweep before wrote a moment ago, from rings of a few groups per sweep that stay in the
// core's cache, and the points and the table stream through memory once per pass instead of once
// per sweep. Each thread takes a run of groups plus the groups around it that the pass's sweeps
// reach and recomputes that border itself, so the threads meet once per pass. A mesh whose levels
// are too wide for this (one vertex joined to all others, say) is swept whole, sweep by sweep.

#include <vector>

#include "KPolyMesh.h"

namespace Kavrin {

class KJacobiSmoother {
public:
    // Plans the sweeps over this neighbour table (the table itself is not kept). The plan holds
    // until the next call.
    void setNeighbours(const KVertexNeighbours& neighbours);
    int numVertices() const { return _n; }

    // k sweeps of the planned table's points in (x, y, z per vertex, numVertices() of them) into
    // out, narrowed to float at the end; in and out are distinct arrays. With k < 1 the result is
    // all zero. A vertex without neighbours divides zero by zero and becomes NaN.
    void smooth(const KVector* in, KVector* out, int k, int threads);
    // The same in double precision, in place: points holds x, y, z per vertex.
    void smooth(std::vector<double>& points, int k, int threads);

    // Whether the last smooth() ran in cache-sized pieces, and in how many passes over the mesh
    // (for tests and benchmarks).
    bool blocked() const { return _blocked; }
    int passes() const { return _passes; }

private:
    // Where a pass reads its points from and writes them to: float or double points by vertex,
    // or double points in the planned order (between passes).
    struct Points {
        const KVector* floats = nullptr;
        KVector* floatsOut = nullptr;
        double* doubles = nullptr;  // by vertex (x, y, z)
        bool planned = false;       // doubles are in the planned order
    };
    // One thread's share of a pass: its groups, its rings (4 doubles a vertex) and the last
    // sweep of one group.
    struct Part {
        int first = 0, last = 0;  // groups [first, last)
        std::vector<double> rings;
        std::vector<double> last4;
    };

    // Orders the vertices breadth first and groups whole levels.
    void _breadthFirst(const KVertexNeighbours& neighbours);
    void _run(const Points& in, const Points& out, int k, int threads);
    void _passBlocked(Part& part, const Points& in, const Points& out, int sweeps);
    void _sweepWhole(const Points& in, const Points& out, int k, int team);
    int _teamFor(int threads, int sweeps) const;

    int _n = 0;
    std::vector<int> _order;       // planned position -> vertex; empty: the vertex order itself
    std::vector<int> _offsets;     // neighbours of planned position i: _slots[_offsets[i] .. _offsets[i + 1])
    std::vector<unsigned> _slots;  // a neighbour's ring slot times 4, or its planned position
    std::vector<int> _irregular;   // the positions with other than four neighbours, in order
    std::vector<int> _groupStart;  // group g holds planned positions [_groupStart[g], _groupStart[g + 1])
    int _ring = 0;                 // slots per ring: at least the vertices of any three groups in a row
    int _largestGroup = 0;
    bool _blocked = false;
    int _passes = 0;
    std::vector<Part> _parts;
    std::vector<double> _between[2];  // double points in the planned order between passes
    std::vector<double> _whole[2];    // the whole-mesh sweeps' two buffers (4 doubles a vertex)
};

}  // namespace Kavrin
