// Delta mush engine: smoothing numerics, bind and rebind rules, messages and guards.

#include <gtest/gtest.h>

#include <cmath>

#include "KDeltaMushSolver.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// A sheet with stronger detail than the generator's bumps, so that losing it would show.
KPolyMesh Sheet(int n = 9) {
    KPolyMesh mesh = MakeDetailedGrid(n, 4.0f);
    for (int i = 0; i < mesh.numVertices(); ++i) mesh.points[i].z += 0.05f * float((i * 7) % 5);
    return mesh;
}

KPolyMesh Posed(const KPolyMesh& mesh, const KVectorArray& points) {
    KPolyMesh m = mesh;
    m.points = points;
    return m;
}

// One node: its stored attributes, its engine and the failures it reported.
struct Evaluation {
    KDeltaMushAttributes store;
    KDeltaMushSolver solver;
    std::vector<std::string> errors;
    KOutcome::Status deform(const KPolyMesh& m, float envelope = 1.0f) {
        const KDeltaMushResult r = store.evaluate(solver, m, envelope, 0);
        if (r.outcome.failed()) errors.push_back(r.outcome.message);
        return r.outcome.status;
    }
    double error(const KVectorArray& expected) const {
        double worst = 0;
        for (int i = 0; i < expected.length(); ++i)
            worst = std::max(worst, double((solver.points()[i] - expected[i]).length()));
        return worst;
    }
};

}  // namespace

// The first evaluation captures its mesh as the rest shape and binds to it: the rest shape comes
// back and a rigid motion is followed, by any envelope from 1e-30 up (an on/off switch); below it
// nothing runs, not even the capture. The write-back applies the inverse matrix with the point's
// own homogeneous weight.
TEST(DeltaMush, CapturesRestReproducesItAndFollowsRigidMotion) {
    const KPolyMesh sheet = Sheet();
    Evaluation run;
    ASSERT_EQ(run.deform(sheet), KOutcome::kDeformed);
    EXPECT_TRUE(!run.store.onlyOnce && run.store.gotDelta && run.errors.empty());
    EXPECT_EQ(run.store.restMesh.points, sheet.points);
    EXPECT_EQ(run.solver.boundIterations(), 15);
    EXPECT_LT(run.error(sheet.points), 1e-5);

    KVectorArray moved = sheet.points;  // rotation about z, then translation
    for (KVector& p : moved) p = KVector(0.8f * p.x - 0.6f * p.y + 2.0f, 0.6f * p.x + 0.8f * p.y - 1.0f, p.z + 0.5f);
    ASSERT_EQ(run.deform(Posed(sheet, moved)), KOutcome::kDeformed);
    EXPECT_LT(run.error(moved), 1e-5);
    KVectorArray bent = moved;
    for (KVector& p : bent) p.z += 0.1f * p.x * p.x;
    ASSERT_EQ(run.deform(Posed(sheet, bent)), KOutcome::kDeformed);
    const KVectorArray full = run.solver.points();
    for (float envelope : {0.5f, 1e-30f}) {
        ASSERT_EQ(run.deform(Posed(sheet, bent), envelope), KOutcome::kDeformed) << envelope;
        EXPECT_EQ(run.solver.points(), full) << envelope;
    }
    for (float envelope : {0.0f, -1.0f, 1e-31f}) {
        Evaluation off;
        EXPECT_EQ(off.deform(sheet, envelope), KOutcome::kUntouched);
        EXPECT_TRUE(off.store.onlyOnce && !off.store.hasDelta) << envelope;
    }

    const double inverse[4][4] = {{2, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {10, 20, 30, 1}};
    const KVector& p = run.solver.points()[3];
    double out[4];
    run.solver.objectPoint(3, 0.5, inverse, out);
    EXPECT_DOUBLE_EQ(out[0], 2.0 * p.x + 5.0);
    EXPECT_DOUBLE_EQ(out[1], p.y + 10.0);
    EXPECT_DOUBLE_EQ(out[2], p.z + 15.0);
    EXPECT_DOUBLE_EQ(out[3], 0.5);
}

// When a bind is due, and so when the host must read "restMesh".
TEST(DeltaMush, RebindRules) {
    const KPolyMesh sheet = Sheet();
    Evaluation run;
    KDeltaMushInput in;
    in.mesh = &sheet;
    in.pointCount = sheet.numVertices();
    EXPECT_FALSE(run.solver.restMeshNeeded(in)) << "onlyOnce binds to the input mesh";
    in.onlyOnce = false;
    EXPECT_TRUE(run.solver.restMeshNeeded(in));
    in.envelope = 0.0f;
    EXPECT_FALSE(run.solver.restMeshNeeded(in));
    run.deform(sheet);
    const KArray<KDouble3> firstDelta = run.store.delta;
    in.envelope = 1.0f;
    in.gotDelta = true;
    EXPECT_FALSE(run.solver.restMeshNeeded(in)) << "bound with the same sweep count";
    in.numIter = 3;
    EXPECT_TRUE(run.solver.restMeshNeeded(in));

    // A reopened scene: the attributes come back, the engine is new (its sweep count is 0).
    Evaluation reopened;
    reopened.store = run.store;
    reopened.store.delta.clear();
    reopened.deform(sheet);
    EXPECT_EQ(reopened.store.delta, firstDelta);

    // Same sweep count, delta present: editing the stored rest shape changes nothing.
    KVectorArray shifted = sheet.points;
    for (KVector& p : shifted) p.z += 1.0f;
    run.store.restMesh.points = shifted;
    run.deform(sheet);
    EXPECT_EQ(run.store.delta, firstDelta);

    // A new sweep count rebinds from the stored (translated) rest shape: same detail, same sheet.
    run.store.numIter = 5;
    run.deform(sheet);
    EXPECT_EQ(run.solver.boundIterations(), 5);
    EXPECT_NE(run.store.delta, firstDelta);
    EXPECT_LT(run.error(sheet.points), 1e-5);

    // Clearing gotDelta by hand rebinds too; onlyOnce replaces the rest shape first.
    run.store.gotDelta = false;
    run.store.onlyOnce = true;
    run.deform(sheet);
    EXPECT_EQ(run.store.restMesh.points, sheet.points);
    EXPECT_LT(run.error(sheet.points), 1e-5);

    // onlyOnce alone replaces the rest shape but does not rebind.
    const KArray<KDouble3> bound = run.store.delta;
    run.store.onlyOnce = true;
    run.deform(Posed(sheet, shifted));
    EXPECT_EQ(run.store.restMesh.points, shifted);
    EXPECT_EQ(run.store.delta, bound);
}

TEST(DeltaMush, MessagesAndGuardsLeaveThePointsUntouched) {
    const KPolyMesh sheet = Sheet();
    const int n = sheet.numVertices();
    Evaluation run;
    run.deform(sheet);
    const KArray<KDouble3> bound = run.store.delta;
    run.store.delta.clear();
    EXPECT_EQ(run.deform(sheet), KOutcome::kFailed);
    run.store.hasDelta = false;
    EXPECT_EQ(run.deform(sheet), KOutcome::kFailed);
    run.store.hasDelta = true;
    for (int length : {5, n - 1, n + 1}) {
        run.store.delta = bound;
        run.store.delta.setLength(length, false);
        EXPECT_EQ(run.deform(sheet), KOutcome::kFailed) << length;
    }
    EXPECT_EQ(run.errors, (std::vector<std::string>{"No delta found.", "No delta found.",
                                                    "Wrong size of the delta array.", "Wrong size of the delta array.",
                                                    "Wrong size of the delta array."}));

    // Geometry with more points than the mesh it is evaluated with, and faces naming a vertex the
    // mesh does not have: nothing to write back.
    KPolyMesh broken = sheet;
    broken.faceVertices[7] = n;
    run.store.delta.setLength(n + 1, true);
    for (const KPolyMesh* mesh : {&sheet, static_cast<const KPolyMesh*>(&broken)}) {
        KDeltaMushInput in;
        in.mesh = mesh;
        in.pointCount = mesh == &sheet ? n + 1 : n;
        in.gotDelta = true;
        in.numIter = run.store.numIter;
        in.delta = mesh == &sheet ? &run.store.delta : &bound;
        const KDeltaMushResult r = run.solver.evaluate(in);
        EXPECT_EQ(r.outcome.message, mesh == &sheet ? kDeltaMushMeshTooSmall : kDeltaMushBadFaces);
        EXPECT_FALSE(r.writeGotDelta || r.writeDelta || r.captureRestMesh);
    }

    // A rest mesh too small, or none at all: nothing is bound or written, and the bind is retried.
    Evaluation tooSmall;
    tooSmall.store.onlyOnce = false;
    EXPECT_EQ(tooSmall.deform(sheet), KOutcome::kFailed);
    tooSmall.store.restMesh = Sheet(5);
    tooSmall.store.hasRestMesh = true;
    EXPECT_EQ(tooSmall.deform(sheet), KOutcome::kFailed);
    EXPECT_EQ(tooSmall.errors, (std::vector<std::string>{kDeltaMushNoRestMesh, kDeltaMushRestTooSmall}));
    EXPECT_FALSE(tooSmall.store.hasDelta || tooSmall.store.gotDelta);
    EXPECT_EQ(tooSmall.solver.boundIterations(), 0) << "a failed bind is retried at the next evaluation";
}
