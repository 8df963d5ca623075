// Delta mush engine: smoothing numerics, bind and rebind rules, messages and guards.

#include <gtest/gtest.h>

#include <cmath>

#include "KDeltaMushMemoryStore.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// A bound-able sheet with stronger detail than the generator's bumps, so that losing it would show.
struct Sheet {
    KPolyMesh poly;
    KTriMesh mesh;
    KVertexNeighbours neighbours;
    explicit Sheet(int n = 9) : poly(MakeDetailedGrid(n, 4.0f)) {
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

// One node: its stored attributes, its engine and its messages.
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
    double error(const KVectorArray& expected) const {
        double worst = 0;
        for (int i = 0; i < expected.length(); ++i)
            worst = std::max(worst, double((solver.result()[i] - expected[i]).length()));
        return worst;
    }
};

}  // namespace

TEST(DeltaMush, CapturesRestReproducesItAndFollowsRigidMotion) {
    const Sheet sheet;
    Evaluation run;
    ASSERT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kDeformed);
    EXPECT_FALSE(run.store.onlyOnceValue);
    EXPECT_TRUE(run.store.gotDeltaValue);
    EXPECT_EQ(run.store.restMesh.points, sheet.mesh.points);
    EXPECT_EQ(run.solver.boundIterations(), 15);
    EXPECT_LT(run.error(sheet.mesh.points), 1e-5);
    EXPECT_TRUE(run.sink.entries.empty());

    KVectorArray moved = sheet.mesh.points;  // rotation about z, then translation
    for (KVector& p : moved) p = KVector(0.8f * p.x - 0.6f * p.y + 2.0f, 0.6f * p.x + 0.8f * p.y - 1.0f, p.z + 0.5f);
    ASSERT_EQ(run.deform(sheet.posed(moved), sheet.neighbours), KDeltaMushSolver::kDeformed);
    EXPECT_LT(run.error(moved), 1e-5);
}

TEST(DeltaMush, EnvelopeIsAnOnOffSwitch) {
    const Sheet sheet;
    KVectorArray bent = sheet.mesh.points;
    for (KVector& p : bent) p.z += 0.1f * p.x * p.x;
    const KTriMesh pose = sheet.posed(bent);
    Evaluation full;
    full.deform(sheet.mesh, sheet.neighbours);
    full.deform(pose, sheet.neighbours, 1.0f);
    for (float envelope : {0.5f, 1e-30f}) {
        Evaluation partial;
        partial.deform(sheet.mesh, sheet.neighbours);
        ASSERT_EQ(partial.deform(pose, sheet.neighbours, envelope), KDeltaMushSolver::kDeformed) << envelope;
        EXPECT_EQ(partial.solver.result(), full.solver.result());
    }

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

    // A reopened scene: the attributes come back, the engine is new (its sweep count is 0).
    Evaluation reopened;
    reopened.store = run.store;
    reopened.store.delta.clear();
    reopened.deform(sheet.mesh, sheet.neighbours);
    EXPECT_EQ(reopened.store.delta, firstDelta);

    // Same sweep count, delta present: editing the stored rest shape changes nothing.
    KVectorArray shifted = sheet.mesh.points;
    for (KVector& p : shifted) p.z += 1.0f;
    run.store.restMesh.points = shifted;
    run.deform(sheet.mesh, sheet.neighbours);
    EXPECT_EQ(run.store.delta, firstDelta);

    // A new sweep count rebinds from the stored (translated) rest shape: same detail, same sheet.
    run.store.numIterValue = 5;
    run.deform(sheet.mesh, sheet.neighbours);
    EXPECT_EQ(run.solver.boundIterations(), 5);
    EXPECT_NE(run.store.delta, firstDelta);
    EXPECT_LT(run.error(sheet.mesh.points), 1e-5);

    // Clearing gotDelta by hand rebinds too; onlyOnce replaces the rest shape first.
    run.store.gotDeltaValue = false;
    run.store.onlyOnceValue = true;
    run.deform(sheet.mesh, sheet.neighbours);
    EXPECT_EQ(run.store.restMesh.points, sheet.mesh.points);
    EXPECT_LT(run.error(sheet.mesh.points), 1e-5);

    // onlyOnce alone replaces the rest shape but does not rebind.
    const KArray<KDouble3> bound = run.store.delta;
    run.store.onlyOnceValue = true;
    run.deform(sheet.posed(shifted), sheet.neighbours);
    EXPECT_EQ(run.store.restMesh.points, shifted);
    EXPECT_EQ(run.store.delta, bound);
}

TEST(DeltaMush, MessagesAndGuardsLeaveThePointsUntouched) {
    const Sheet sheet, small(5);
    Evaluation run;
    run.deform(sheet.mesh, sheet.neighbours);
    run.store.delta.clear();
    EXPECT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kUntouched);
    run.store.hasDelta = false;
    EXPECT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kUntouched);
    run.store.hasDelta = true;
    run.store.delta.setLength(5, true);
    EXPECT_EQ(run.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kUntouched);
    // Geometry with more points than the mesh it is evaluated with.
    run.store.delta.setLength(sheet.mesh.numVertices() + 1, true);
    EXPECT_EQ(run.deform(sheet.mesh, sheet.neighbours, 1.0f, sheet.mesh.numVertices() + 1),
              KDeltaMushSolver::kUntouched);
    // Neighbour lists that do not belong to the mesh.
    EXPECT_EQ(run.deform(sheet.mesh, small.neighbours), KDeltaMushSolver::kUntouched);
    EXPECT_EQ(run.sink.errors(), (std::vector<std::string>{"No delta found.", "No delta found.",
                                                           "Wrong size of the delta array.", kDeltaMushMeshTooSmall,
                                                           kDeltaMushBadNeighbours}));

    Evaluation tooSmall;
    tooSmall.store.onlyOnceValue = false;
    tooSmall.store.restMesh = small.mesh;
    tooSmall.store.restNeighbours = small.neighbours;
    EXPECT_EQ(tooSmall.deform(sheet.mesh, sheet.neighbours), KDeltaMushSolver::kUntouched);
    EXPECT_EQ(tooSmall.sink.errors(), (std::vector<std::string>{kDeltaMushRestTooSmall}));
    EXPECT_FALSE(tooSmall.store.hasDelta);
    EXPECT_FALSE(tooSmall.store.gotDeltaValue);
    EXPECT_EQ(tooSmall.solver.boundIterations(), 0) << "a failed bind is retried at the next evaluation";
}

TEST(DeltaMush, ObjectPointAppliesTheInverseMatrixWithTheCurrentWeight) {
    const Sheet sheet;
    Evaluation run;
    run.deform(sheet.mesh, sheet.neighbours);
    const double inverse[4][4] = {{2, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {10, 20, 30, 1}};
    const KVector& p = run.solver.result()[3];
    for (double w : {1.0, 0.5}) {
        double out[4];
        run.solver.objectPoint(3, w, inverse, out);
        EXPECT_DOUBLE_EQ(out[0], 2.0 * p.x + 10.0 * w);
        EXPECT_DOUBLE_EQ(out[1], p.y + 20.0 * w);
        EXPECT_DOUBLE_EQ(out[2], p.z + 30.0 * w);
        EXPECT_DOUBLE_EQ(out[3], w);
    }
}
