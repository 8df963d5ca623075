// Delta mush engine: smoothing numerics, bind and rebind rules, messages and guards.

#include <gtest/gtest.h>

#include <cmath>

#include "KDeltaMushMemoryStore.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// A bound-able sheet: rest mesh, its triangles and polygon-edge neighbours.
struct Sheet {
    KPolyMesh poly;
    KTriMesh mesh;
    KVertexNeighbours neighbours;
    explicit Sheet(int n = 9) : poly(MakeDetailedGrid(n, 4.0f)) {
        // Stronger detail than the generator's bumps, so that losing it would show.
        for (int i = 0; i < poly.numVertices(); ++i) poly.points[i].z += 0.05f * float((i * 7) % 5);
        poly.triangulate(mesh);
        poly.edgeNeighbours(neighbours);
    }
    KTriMesh posed(const KVectorArray& points) const {
        KTriMesh m = mesh;
        m.points = points;
        return m;
    }
};

struct Evaluation {
    KDeltaMushMemoryStore store;
    KDeltaMushSolver solver;
    KRecordingSink sink;
    KDeltaMushSolver::Result deform(const KTriMesh& m, const KVertexNeighbours& n, float envelope = 1.0f,
                                    int count = -1) {
        store.input = &m;
        store.inputNeighbours = &n;
        return solver.deform(m, n, count < 0 ? m.numVertices() : count, envelope, store, sink);
    }
};

double maxError(const KVectorArray& a, const KVectorArray& b) {
    double worst = 0;
    for (int i = 0; i < b.length(); ++i) worst = std::max(worst, double((a[i] - b[i]).length()));
    return worst;
}

}  // namespace

TEST(DeltaMushSmooth, JacobiSweepsMatchHandWorkedValues) {
    // Path 0 - 1 - 2 with x = 0, 3, 9.
    KVertexNeighbours n;
    n.assign({{1}, {0, 2}, {1}});
    std::vector<double> p = {0, 0, 0, 3, 0, 0, 9, 0, 0};
    KDeltaMushSolver::Smooth(p, n, 1, 1);
    EXPECT_EQ(p[0], 3.0);
    EXPECT_EQ(p[3], 4.5) << "every average reads the previous sweep (Jacobi), not the updated vertex 0";
    EXPECT_EQ(p[6], 3.0);
    KDeltaMushSolver::Smooth(p, n, 1, 1);
    EXPECT_EQ(p[0], 4.5);
    EXPECT_EQ(p[3], 3.0);

    std::vector<double> zero = {1, 2, 3, 4, 5, 6, 7, 8, 9};
    KDeltaMushSolver::Smooth(zero, n, 0, 1);
    for (double v : zero) EXPECT_EQ(v, 0.0) << "no sweep leaves the smoothed points at the origin";

    KVertexNeighbours isolated;
    isolated.assign({{}, {0}});
    std::vector<double> q = {1, 1, 1, 2, 2, 2};
    KDeltaMushSolver::Smooth(q, isolated, 1, 1);
    EXPECT_TRUE(std::isnan(q[0])) << "a vertex without neighbours divides zero by zero";
    EXPECT_EQ(q[3], 1.0);
}

TEST(DeltaMush, FirstEvaluationCapturesRestAndReproducesIt) {
    const Sheet sheet;
    Evaluation run;
    ASSERT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kDeformed);
    EXPECT_FALSE(run.store.onlyOnceValue);
    EXPECT_TRUE(run.store.gotDeltaValue);
    EXPECT_EQ(run.store.restMesh.points, sheet.mesh.points);
    EXPECT_EQ(run.store.delta.length(), sheet.mesh.numVertices());
    EXPECT_EQ(run.solver.boundIterations(), 15);
    EXPECT_LT(maxError(run.solver.result(), sheet.mesh.points), 1e-5);
    EXPECT_TRUE(run.sink.entries.empty());
}

TEST(DeltaMush, FollowsARigidMotionOfTheWholeMesh) {
    const Sheet sheet;
    Evaluation run;
    run.deform(sheet.mesh, sheet.neighbours);
    KVectorArray moved = sheet.mesh.points;
    const float c = 0.8f, s = 0.6f;  // rotation about z, then translation
    for (KVector& p : moved) p = KVector(c * p.x - s * p.y + 2.0f, s * p.x + c * p.y - 1.0f, p.z + 0.5f);
    const KTriMesh pose = sheet.posed(moved);
    ASSERT_EQ(run.deform(pose, sheet.neighbours), KDeltaMushSolver::kDeformed);
    EXPECT_LT(maxError(run.solver.result(), moved), 1e-5);
}

TEST(DeltaMush, EnvelopeIsAnOnOffSwitch) {
    const Sheet sheet;
    KVectorArray bent = sheet.mesh.points;
    for (KVector& p : bent) p.z += 0.1f * p.x * p.x;
    const KTriMesh pose = sheet.posed(bent);

    Evaluation full;
    full.deform(sheet.mesh, sheet.neighbours);
    full.deform(pose, sheet.neighbours, 1.0f);
    Evaluation half;
    half.deform(sheet.mesh, sheet.neighbours);
    half.deform(pose, sheet.neighbours, 0.5f);
    EXPECT_EQ(half.solver.result(), full.solver.result());

    for (float envelope : {0.0f, -1.0f, 1e-31f}) {
        Evaluation off;
        EXPECT_EQ(off.deform(pose, sheet.neighbours, envelope), KDeltaMushSolver::kUntouched);
        EXPECT_TRUE(off.store.onlyOnceValue) << "nothing runs below the threshold, not even the capture";
        EXPECT_FALSE(off.store.hasDelta);
    }
}

TEST(DeltaMush, RebindRules) {
    const Sheet sheet;
    Evaluation run;
    run.deform(sheet.mesh, sheet.neighbours);
    const KArray<KDouble3> firstDelta = run.store.delta;

    // Same sweep count, delta present: editing the stored rest shape changes nothing.
    KVectorArray shifted = sheet.mesh.points;
    for (KVector& p : shifted) p.z += 1.0f;
    run.store.restMesh.points = shifted;
    run.deform(sheet.mesh, sheet.neighbours);
    EXPECT_EQ(run.store.delta, firstDelta);

    // A new sweep count rebinds from the stored rest shape.
    run.store.numIterValue = 5;
    run.deform(sheet.mesh, sheet.neighbours);
    EXPECT_EQ(run.solver.boundIterations(), 5);
    EXPECT_NE(run.store.delta, firstDelta);
    // A translated rest shape binds to the same detail: the sheet still comes out as itself.
    EXPECT_LT(maxError(run.solver.result(), sheet.mesh.points), 1e-5);

    // Clearing gotDelta by hand rebinds too; onlyOnce replaces the rest shape first.
    run.store.gotDeltaValue = false;
    run.store.onlyOnceValue = true;
    run.deform(sheet.mesh, sheet.neighbours);
    EXPECT_EQ(run.store.restMesh.points, sheet.mesh.points);
    EXPECT_LT(maxError(run.solver.result(), sheet.mesh.points), 1e-5);

    // onlyOnce alone replaces the rest shape but does not rebind.
    const KArray<KDouble3> bound = run.store.delta;
    run.store.onlyOnceValue = true;
    run.deform(sheet.posed(shifted), sheet.neighbours);
    EXPECT_EQ(run.store.restMesh.points, shifted);
    EXPECT_EQ(run.store.delta, bound);
}

TEST(DeltaMush, NewNodeRebindsFromStoredRestMesh) {
    const Sheet sheet;
    Evaluation first;
    first.deform(sheet.mesh, sheet.neighbours);
    // A reopened scene: the attributes come back, the engine is new (its sweep count is 0).
    Evaluation reopened;
    reopened.store = first.store;
    reopened.store.delta.clear();
    reopened.deform(sheet.mesh, sheet.neighbours);
    EXPECT_EQ(reopened.store.delta, first.store.delta);
}

TEST(DeltaMush, DeltaMessagesLeaveThePointsUntouched) {
    const Sheet sheet;
    Evaluation run;
    run.deform(sheet.mesh, sheet.neighbours);

    run.store.delta.clear();
    EXPECT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kUntouched);
    run.store.hasDelta = false;
    EXPECT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kUntouched);
    run.store.hasDelta = true;
    run.store.delta.setLength(5, true);
    EXPECT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kUntouched);
    EXPECT_EQ(run.sink.errors(),
              (std::vector<std::string>{"No delta found.", "No delta found.", "Wrong size of the delta array."}));
}

TEST(DeltaMush, GuardsAgainstTooFewVertices) {
    const Sheet sheet;
    const Sheet small(5);
    Evaluation run;
    run.store.onlyOnceValue = false;
    run.store.restMesh = small.mesh;
    run.store.restNeighbours = small.neighbours;
    EXPECT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kUntouched);
    EXPECT_EQ(run.sink.errors(), (std::vector<std::string>{kDeltaMushRestTooSmall}));
    EXPECT_FALSE(run.store.hasDelta);
    EXPECT_FALSE(run.store.gotDeltaValue);
    EXPECT_EQ(run.solver.boundIterations(), 0) << "a failed bind is retried at the next evaluation";

    // Geometry with more points than the mesh it is evaluated with.
    Evaluation more;
    more.deform(sheet.mesh, sheet.neighbours);
    more.store.delta.setLength(sheet.mesh.numVertices() + 1, true);
    EXPECT_EQ(more.deform(sheet.mesh, sheet.neighbours, 1.0f, sheet.mesh.numVertices() + 1),
              KDeltaMushSolver::kUntouched);
    EXPECT_EQ(more.sink.errors(), (std::vector<std::string>{kDeltaMushMeshTooSmall}));

    // Neighbour lists that do not belong to the mesh.
    Evaluation wrong;
    EXPECT_EQ(wrong.deform(sheet.mesh, small.neighbours), KDeltaMushSolver::kUntouched);
    EXPECT_EQ(wrong.sink.errors(), (std::vector<std::string>{kDeltaMushBadNeighbours}));
}

TEST(DeltaMush, ObjectPointAppliesTheInverseMatrixWithTheCurrentWeight) {
    const Sheet sheet;
    Evaluation run;
    run.deform(sheet.mesh, sheet.neighbours);
    const double inverse[4][4] = {{2, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {10, 20, 30, 1}};
    double out[4];
    run.solver.objectPoint(3, 1.0, inverse, out);
    const KVector& p = run.solver.result()[3];
    EXPECT_DOUBLE_EQ(out[0], 2.0 * p.x + 10.0);
    EXPECT_DOUBLE_EQ(out[1], p.y + 20.0);
    EXPECT_DOUBLE_EQ(out[2], p.z + 30.0);
    EXPECT_DOUBLE_EQ(out[3], 1.0);
    run.solver.objectPoint(3, 0.5, inverse, out);
    EXPECT_DOUBLE_EQ(out[0], 2.0 * p.x + 5.0);
    EXPECT_DOUBLE_EQ(out[3], 0.5);
}
