#pragma once
// Jacobi smoothing over a vertex-neighbour table: k sweeps, each moving every vertex to the plain
// mean of its neighbours' previous positions (sums in double from zero, in neighbour order,
// divided by the count). The result is the same, bit for bit, for any thread count.
//
// A parallel sweep needs all threads to meet after every sweep. When the vertex order keeps
// neighbours close in index (as most meshes do), each thread instead works on its own index
// range plus the rings around it that the k sweeps reach, recomputing that thin border itself,
// so the threads meet once instead of k times. That matters when a core is shared: every meeting
// waits for the slowest thread. The plan for this is kept while the neighbour table, k and the
// team size stay the same; when the borders would cost too much extra work, the sweeps meet
// after each sweep as usual.

#include <vector>

#include "KPolyMesh.h"

namespace Kavrin {

class KJacobiSmoother {
public:
    // points holds x, y, z per vertex and is replaced by the result; with k < 1 the result is all
    // zero. A vertex without neighbours divides zero by zero and becomes NaN.
    void smooth(std::vector<double>& points, const KVertexNeighbours& neighbours, int k, int threads);

    // Whether the last smooth() ran with one meeting of the threads (for tests and benchmarks).
    bool partitioned() const { return _partitioned; }

private:
    // One thread's share: its own vertices first, then the rings around them, nearest first.
    struct Part {
        std::vector<int> global;    // local index -> vertex
        int owned = 0;              // the first `owned` local vertices are the thread's own
        std::vector<int> active;    // active[s]: local vertices updated by sweep s (1..k)
        std::vector<int> offsets;   // local neighbour table of the vertices updated at all
        std::vector<int> indices;
        std::vector<double> scale;  // 1/count for power-of-two counts, else 0 (divide)
        std::vector<double> a, b;
    };

    void _plan(const KVertexNeighbours& neighbours, int k, int team);
    void _sweepShared(std::vector<double>& points, const KVertexNeighbours& neighbours, int k, int team);
    void _sweepPartitioned(std::vector<double>& points, int k, int team);

    KIntArray _keyOffsets;
    KIntArray _keyIndices;
    int _keyK = -1;
    int _keyTeam = -1;
    bool _partitioned = false;
    std::vector<Part> _parts;
    std::vector<double> _scale;
    std::vector<double> _next;
};

}  // namespace Kavrin
