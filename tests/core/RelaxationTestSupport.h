#pragma once
// Meshes and a node stand-in shared by the relaxation tests.

#include <cmath>

#include "KRelaxationSolver.h"
#include "KVertexRings.h"
#include "MeshGenerators.h"

namespace Kavrin {
namespace relaxtest {

// n x n vertices with the given spacing in the XY plane, quads wound counter-clockwise seen from +z.
inline KPolyMesh FlatGrid(int n, float spacing = 1.0f) {
    KPolyMesh m;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) m.points.push_back(KVector(i * spacing, j * spacing, 0.0f));
    for (int j = 0; j + 1 < n; ++j)
        for (int i = 0; i + 1 < n; ++i) {
            m.faceCounts.push_back(4);
            for (int v : {j * n + i, j * n + i + 1, (j + 1) * n + i + 1, (j + 1) * n + i}) m.faceVertices.push_back(v);
        }
    return m;
}

// Vertex 0 at the origin (lifted by height) surrounded by n vertices on the unit circle, one
// triangle per rim edge.
inline KPolyMesh Fan(int n, float height = 0.0f) {
    KPolyMesh m;
    m.points.push_back(KVector(0.0f, 0.0f, height));
    for (int k = 0; k < n; ++k) {
        const double a = 2.0 * 3.14159265358979 * k / n;
        m.points.push_back(KVector(float(std::cos(a)), float(std::sin(a)), 0.0f));
    }
    for (int k = 0; k < n; ++k) {
        m.faceCounts.push_back(3);
        for (int v : {0, 1 + k, 1 + (k + 1) % n}) m.faceVertices.push_back(v);
    }
    return m;
}

// The closed cube [-h, h]^3 as twelve outward-facing triangles.
inline KTriMesh Cube(float h = 1.0f) {
    KTriMesh m;
    for (int i = 0; i < 8; ++i) m.points.push_back(KVector(i & 1 ? h : -h, i & 2 ? h : -h, i & 4 ? h : -h));
    const int faces[6][4] = {{0, 2, 3, 1}, {4, 5, 7, 6}, {0, 1, 5, 4}, {2, 6, 7, 3}, {0, 4, 6, 2}, {1, 3, 7, 5}};
    for (const auto& f : faces) {
        m.triangles.push_back(KInt3{f[0], f[1], f[2]});
        m.triangles.push_back(KInt3{f[0], f[2], f[3]});
    }
    return m;
}

inline KArray<KDouble3> Widen(const KVectorArray& points) {
    KArray<KDouble3> out;
    for (const KVector& p : points) out.push_back(KDouble3{p.x, p.y, p.z});
    return out;
}

inline double MaxDistance(const KArray<KDouble3>& a, const KArray<KDouble3>& b) {
    double worst = 0.0;
    for (int i = 0; i < a.length(); ++i)
        worst = std::max(worst, std::hypot(a[i][0] - b[i][0], a[i][1] - b[i][1], a[i][2] - b[i][2]));
    return worst;
}

// One node on one mesh topology: its stored attributes, its engine and the host-order rings.
struct Node {
    KRelaxationAttributes store;
    KRelaxationSolver solver;
    KVertexNeighbours rings;
    KArray<KDouble3> points;
    explicit Node(const KPolyMesh& mesh) { VertexRings(mesh, rings); }

    // Evaluates on positions; the input carries the options, its points and rings are filled here.
    KRelaxationResult run(const KVectorArray& positions, KRelaxationInput in = KRelaxationInput()) {
        points = Widen(positions);
        in.points = points.data();
        in.count = points.length();
        in.rings = &rings;
        return store.evaluate(solver, in);
    }
};

}  // namespace relaxtest
}  // namespace Kavrin
