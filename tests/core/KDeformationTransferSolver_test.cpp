// Deformation transfer engine: the compute flow, its messages, the transfer numerics and the
// guards. The row layout and the pairing are checked piece by piece in
// KDeformationTransferSystem_test.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <fstream>
#include <functional>
#include <sstream>
#include <thread>

#include "DeformationTransferTestSupport.h"

using namespace Kavrin;
using namespace Kavrin::dttest;

namespace {

std::string Progress(const std::string& message) { return std::string("Current time: ") + kFixedDate + "0" + message + "\n"; }

const std::string kFinding = "KDeformationTransfer: Finding Triangle Correspondences ...";
const std::string kFound = "KDeformationTransfer: Triangle Correspondences Found!...";
const std::string kBuilding = "KDeformationTransfer: Building Coefficient Matrix ...";
const std::string kCreated = "KDeformationTransfer: Coefficient Matrix Created!\n";
std::string Iteration(int n) { return "KDeformationTransfer: iteration count " + std::to_string(n); }

// A source and a target with their markers, as the node would read them.
struct Scene {
    KTriMesh source;
    KTriMesh target;
    KIntArray markers;
    int srcFix = 0;
    int trgFix = 0;

    KDeformationTransferInput input(bool recalc, short aim, short mode, short iterations = 2) const {
        KDeformationTransferInput in;
        in.reCalculate = recalc;
        in.aim = aim;
        in.calcMode = mode;
        in.iterCount = iterations;
        in.sourceMesh = source;
        in.targetMesh = target;
        in.vertCorres = markers;
        in.srcFixPNum = KIntArray{srcFix};
        in.trgFixPNum = KIntArray{trgFix};
        in.threads = 2;
        return in;
    }
};

// Same topology: a bumpy sphere and a stretched, differently bumped copy, paired on the twelve
// icosahedron corners.
Scene SameTopologyScene(int levels = 2) {
    Scene s;
    s.source = Icosphere(levels);
    Bump(s.source, 0.05f, 1);
    s.target = Icosphere(levels);
    Bump(s.target, 0.04f, 3);
    for (KVector& p : s.target.points) p = KVector(1.2f * p.x + 0.3f, 0.9f * p.y - 0.1f, 1.1f * p.z + 0.2f);
    for (int i = 0; i < 12; ++i) {
        s.markers.push_back(i);
        s.markers.push_back(i);
    }
    return s;
}

// Different topology: a bumpy sphere onto a finer, stretched sphere; markers on the corners,
// which keep their indices under subdivision.
Scene DifferentTopologyScene() {
    Scene s;
    s.source = Icosphere(2);
    Bump(s.source, 0.05f, 1);
    s.target = Icosphere(3);
    for (KVector& p : s.target.points) p = KVector(1.3f * p.x, 0.8f * p.y, p.z);
    for (int i = 0; i < 12; ++i) {
        s.markers.push_back(i);
        s.markers.push_back(i);
    }
    return s;
}

struct Node {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    Node() {
        UseUtc();
        solver.setClock(FixedClock);
    }
    KDeformationTransferResult eval(const KDeformationTransferInput& in) {
        sink.entries.clear();
        return solver.compute(in, sink);
    }
};

KVector OutPoint(const KDeformationTransferSolver& s, int i) {
    const KDouble4& p = s.outPoints()[i];
    return KVector(float(p[0]), float(p[1]), float(p[2]));
}

KTriMesh Posed(const KTriMesh& rest, const std::function<KVector(const KVector&)>& f) {
    KTriMesh m = rest;
    for (KVector& p : m.points) p = f(p);
    return m;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Progress lines and the compute flow

TEST(DeformationTransferFlow, TransferRecalculationWritesTheExactProgressLines) {
    Node node;
    const Scene scene = SameTopologyScene();
    const KDeformationTransferResult r = node.eval(scene.input(true, 2, 1, 2));
    EXPECT_TRUE(node.sink.errors().empty());
    EXPECT_TRUE(node.sink.warnings().empty());
    EXPECT_EQ(node.sink.outputs(), (std::vector<std::string>{Progress(kFinding), Progress(Iteration(1)),
                                                            Progress(Iteration(2)), Progress(kBuilding),
                                                            Progress(kCreated)}));
    EXPECT_EQ(Progress(kCreated), std::string("Current time: Tue Nov 14 22:13:20 2023\n0KDeformationTransfer: "
                                              "Coefficient Matrix Created!\n\n"));
    EXPECT_EQ(r.status, KDeformationTransferResult::kSuccess);
    EXPECT_EQ(r.output, KDeformationTransferResult::kFromTarget);
    EXPECT_TRUE(r.setPoints);
    EXPECT_TRUE(r.setNormals);
    EXPECT_TRUE(r.writeReCalculate);
    EXPECT_FALSE(r.reCalculate);
    EXPECT_TRUE(node.solver.ready());
    EXPECT_EQ(node.solver.outPoints().length(), scene.target.numVertices());
    EXPECT_EQ(node.solver.outNormalVerts().length(), scene.target.numVertices());
    EXPECT_EQ(node.solver.outNormalVerts()[5], 5);
    EXPECT_EQ(node.solver.outPoints()[7][3], 1.0);
}

TEST(DeformationTransferFlow, DifferentTopologyAddsTheFoundLineAndZeroIterationsWriteNone) {
    Node node;
    const Scene scene = DifferentTopologyScene();
    node.eval(scene.input(true, 2, 2, 1));
    EXPECT_EQ(node.sink.outputs(), (std::vector<std::string>{Progress(kFinding), Progress(Iteration(1)),
                                                            Progress(kFound), Progress(kBuilding),
                                                            Progress(kCreated)}));
    for (short iterations : {short(0), short(-3)}) {
        Node quiet;
        quiet.eval(scene.input(true, 2, 2, iterations));
        EXPECT_EQ(quiet.sink.outputs(), (std::vector<std::string>{Progress(kFinding), Progress(kFound),
                                                                 Progress(kBuilding), Progress(kCreated)}));
    }
}

TEST(DeformationTransferFlow, EmptyPairListKeepsReCalculateSetAndReportsEachMissingInput) {
    Node node;
    Scene scene = SameTopologyScene(1);
    KDeformationTransferInput in = scene.input(true, 2, 1);
    in.vertCorres = KIntArray{4};  // one element: no pair
    in.srcFixPNum.clear();
    in.trgFixPNum.clear();
    KDeformationTransferResult r = node.eval(in);
    EXPECT_EQ(node.sink.errors(), (std::vector<std::string>{"No source mesh fixed point.", "No target mesh fixed point.",
                                                           "No correspondences."}));
    // Nothing is built, so the evaluation ends with the "not ready" warning.
    EXPECT_EQ(node.sink.warnings(), std::vector<std::string>{"No correspondences."});
    EXPECT_TRUE(node.sink.outputs().empty());
    EXPECT_EQ(r.status, KDeformationTransferResult::kSuccess);
    EXPECT_EQ(r.output, KDeformationTransferResult::kNoOutput);
    EXPECT_FALSE(r.writeReCalculate) << "reCalculate stays true so that the next evaluation retries";

    in.aim = 1;
    r = node.eval(in);
    EXPECT_TRUE(node.sink.warnings().empty()) << "\"Source To Target\" does not warn when nothing is built";
    EXPECT_FALSE(r.writeReCalculate);
}

TEST(DeformationTransferFlow, FixedVerticesAreKeptWhenTheirArraysAreEmpty) {
    Node node;
    Scene scene = SameTopologyScene(1);
    scene.srcFix = 3;
    scene.trgFix = 4;
    node.eval(scene.input(true, 1, 1));
    KDeformationTransferInput in = scene.input(true, 1, 1);
    in.srcFixPNum.clear();
    in.trgFixPNum = KIntArray{7, 9};
    node.eval(in);
    EXPECT_EQ(node.solver.sourceFixedVertex(), 3);
    EXPECT_EQ(node.solver.targetFixedVertex(), 7) << "only element 0 is used";
    EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"No source mesh fixed point."});
}

TEST(DeformationTransferFlow, OddTrailingElementIsIgnored) {
    Node node;
    Scene scene = SameTopologyScene(1);
    scene.markers = KIntArray{0, 0, 5};
    const KDeformationTransferResult r = node.eval(scene.input(true, 1, 1, 1));
    EXPECT_EQ(r.status, KDeformationTransferResult::kSuccess);
    KRecordingSink sink;
    KDeformationTransferTestAccess access(node.solver, sink);
    EXPECT_EQ(access.vertCorresCount(), 1);
}

TEST(DeformationTransferFlow, SourceToTargetShowsTheFittedSourceOnceAndThenStaysQuiet) {
    Node node;
    Scene scene = SameTopologyScene();
    scene.srcFix = 20;  // not a marker: the offset is then not zero
    scene.trgFix = 30;
    KDeformationTransferResult r = node.eval(scene.input(true, 1, 1, 3));
    EXPECT_EQ(node.sink.outputs(), (std::vector<std::string>{Progress(kFinding), Progress(Iteration(1)),
                                                            Progress(Iteration(2)), Progress(Iteration(3))}));
    EXPECT_TRUE(node.sink.warnings().empty());
    EXPECT_EQ(r.status, KDeformationTransferResult::kSuccess);
    EXPECT_EQ(r.output, KDeformationTransferResult::kFromSource);
    EXPECT_TRUE(r.setPoints);
    EXPECT_TRUE(r.writeReCalculate);
    EXPECT_FALSE(node.solver.ready());
    EXPECT_TRUE(node.solver.triCorres().empty()) << "no pairing in \"Source To Target\"";

    KRecordingSink sink;
    const KTriMesh fitted = KDeformationTransferTestAccess(node.solver, sink).source();
    const KVector offset = scene.target.points[30] - fitted.points[20];
    EXPECT_EQ(node.solver.offset(), offset);
    for (int i = 0; i < fitted.numVertices(); ++i) EXPECT_EQ(OutPoint(node.solver, i), fitted.points[i] - offset);
    // Pinned vertices sit on their target vertices; the fit pulls the rest close to the target.
    for (int i = 0; i < 12; ++i) EXPECT_EQ(fitted.points[i], scene.target.points[i]);
    double worst = 0;
    for (int i = 0; i < fitted.numVertices(); ++i)
        worst = std::max(worst, double((fitted.points[i] - scene.target.points[i]).length()));
    EXPECT_LT(worst, 0.05);

    const KArray<KDouble4> before = node.solver.outPoints();
    r = node.eval(scene.input(false, 1, 1, 3));
    EXPECT_TRUE(node.sink.entries.empty());
    EXPECT_EQ(r.status, KDeformationTransferResult::kSuccess);
    EXPECT_EQ(r.output, KDeformationTransferResult::kNoOutput);
    EXPECT_FALSE(r.writeReCalculate);
    EXPECT_TRUE(node.solver.outPoints() == before);
}

TEST(DeformationTransferFlow, WrapDeformerWarnsOnEveryEvaluationAndReusesOldArrays) {
    Node node;
    Scene scene = SameTopologyScene(1);
    KDeformationTransferResult r = node.eval(scene.input(true, 3, 1, 1));
    EXPECT_EQ(node.sink.outputs(), (std::vector<std::string>{Progress(kFinding), Progress(Iteration(1))}));
    EXPECT_EQ(node.sink.warnings(), std::vector<std::string>{"No correspondences."});
    EXPECT_EQ(r.output, KDeformationTransferResult::kFromSource);
    EXPECT_FALSE(r.setPoints) << "nothing has filled the output points yet";
    EXPECT_TRUE(r.writeReCalculate);
    EXPECT_EQ(node.solver.triCorres().length(), scene.target.numTriangles());
    for (int i = 0; i < 2; ++i) {
        r = node.eval(scene.input(false, 3, 1, 1));
        EXPECT_EQ(node.sink.warnings(), std::vector<std::string>{"No correspondences."});
        EXPECT_EQ(r.status, KDeformationTransferResult::kSuccess);
        EXPECT_EQ(r.output, KDeformationTransferResult::kNoOutput);
    }

    // After "Source To Target" filled them, a "Wrap Deformer" recalculation hands out the same points.
    node.eval(scene.input(true, 1, 1, 1));
    const KArray<KDouble4> shown = node.solver.outPoints();
    r = node.eval(scene.input(true, 3, 1, 1));
    EXPECT_TRUE(r.setPoints);
    EXPECT_TRUE(node.solver.outPoints() == shown);
}

TEST(DeformationTransferFlow, TransferPassWithShortPairListFails) {
    Node node;
    const Scene scene = SameTopologyScene(1);
    node.eval(scene.input(true, 2, 1, 1));
    const KArray<KDouble4> before = node.solver.outPoints();
    KDeformationTransferInput in = scene.input(false, 2, 1, 1);
    in.vertCorres = KIntArray{0};
    const KDeformationTransferResult r = node.eval(in);
    EXPECT_EQ(node.sink.warnings(), std::vector<std::string>{"No correspondences."});
    EXPECT_EQ(r.status, KDeformationTransferResult::kFailure);
    EXPECT_EQ(r.output, KDeformationTransferResult::kNoOutput);
    EXPECT_TRUE(node.solver.outPoints() == before);
    EXPECT_TRUE(node.solver.ready());
}

TEST(DeformationTransferFlow, NonTransferRecalculationDropsReadiness) {
    Node node;
    const Scene scene = SameTopologyScene(1);
    node.eval(scene.input(true, 2, 1, 1));
    ASSERT_TRUE(node.solver.ready());
    node.eval(scene.input(true, 1, 1, 1));
    EXPECT_FALSE(node.solver.ready());
    const KDeformationTransferResult r = node.eval(scene.input(false, 2, 1, 1));
    EXPECT_EQ(node.sink.warnings(), std::vector<std::string>{"No correspondences."});
    EXPECT_EQ(r.output, KDeformationTransferResult::kNoOutput);
}

TEST(DeformationTransferFlow, CalculationModeMessages) {
    {
        // Equal vertex counts with "Different Topology": warning, and the search goes on.
        Node node;
        const Scene scene = SameTopologyScene(1);
        const KDeformationTransferResult r = node.eval(scene.input(true, 2, 2, 1));
        EXPECT_EQ(node.sink.warnings(), std::vector<std::string>{"This calculation mode may cause inaccurate result."});
        EXPECT_EQ(r.status, KDeformationTransferResult::kSuccess);
        EXPECT_TRUE(node.solver.ready());
    }
    {
        // Different counts with "Same Topology": the search stops and keeps the old pairing, on
        // which the transfer system is rebuilt.
        Node node;
        const Scene scene = DifferentTopologyScene();
        node.eval(scene.input(true, 2, 2, 1));
        const KInt4Array pairing = node.solver.triCorres();
        const KDeformationTransferResult r = node.eval(scene.input(true, 2, 1, 1));
        EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"Check the calculation mode."});
        EXPECT_EQ(node.sink.outputs(), (std::vector<std::string>{Progress(kFinding), Progress(kBuilding),
                                                                Progress(kCreated)}));
        EXPECT_TRUE(node.solver.triCorres() == pairing);
        EXPECT_EQ(r.status, KDeformationTransferResult::kSuccess);
    }
    {
        // A mode that is neither: the fit runs, the pairing is cleared, and the system then has
        // no rows for any triangle, so its normal equations are singular.
        Node node;
        const Scene scene = DifferentTopologyScene();
        const KDeformationTransferResult r = node.eval(scene.input(true, 2, 3, 1));
        EXPECT_EQ(node.sink.outputs(), (std::vector<std::string>{Progress(kFinding), Progress(Iteration(1)),
                                                                Progress(kBuilding)}));
        EXPECT_EQ(node.sink.errors(),
                  (std::vector<std::string>{"Invalid value of calc mode.",
                                            "KDeformationTransfer: the normal equations of the transfer system are "
                                            "singular; the transfer system was not built."}));
        EXPECT_EQ(r.status, KDeformationTransferResult::kFailure);
        EXPECT_FALSE(node.solver.ready());
    }
}

// ---------------------------------------------------------------------------------------------
// Transfer numerics

TEST(DeformationTransferNumerics, RigidMotionOfTheSourceMovesTheTargetRigidly) {
    Node node;
    Scene scene = SameTopologyScene();
    scene.srcFix = 0;
    scene.trgFix = 0;
    ASSERT_EQ(node.eval(scene.input(true, 2, 1, 3)).status, KDeformationTransferResult::kSuccess);
    for (const KInt4& tc : node.solver.triCorres()) ASSERT_EQ(tc[3], 1) << "every target triangle is paired";

    const Rotation rot(0.3, -1.0, 0.5, 0.9);
    const KVector shift(2.0f, -1.0f, 0.5f);
    KDeformationTransferInput in = scene.input(false, 2, 1, 3);
    in.sourceMesh = Posed(scene.source, [&](const KVector& p) { return rot(p) + shift; });
    const KDeformationTransferResult r = node.eval(in);
    ASSERT_EQ(r.status, KDeformationTransferResult::kSuccess);
    EXPECT_TRUE(node.sink.entries.empty()) << "a transfer pass writes no message";

    // The target turns with the source and its fixed vertex lands on the source's fixed vertex.
    const KVector anchor = OutPoint(node.solver, 0);
    EXPECT_LT((anchor - in.sourceMesh.points[0]).length(), 1e-6f);
    double worst = 0;
    for (int i = 0; i < scene.target.numVertices(); ++i) {
        const KVector expected = rot(scene.target.points[i] - scene.target.points[0]);
        worst = std::max(worst, double((OutPoint(node.solver, i) - anchor - expected).length()));
    }
    EXPECT_LT(worst, 2e-5) << "relative to a target about 2.5 wide";
    // Normals turn with it.
    KVectorArray restNormals;
    scene.target.getVertexNormals(restNormals, true);
    for (int i = 0; i < scene.target.numVertices(); i += 17) {
        const KDouble3& n = node.solver.outNormals()[i];
        const KVector e = rot(restNormals[i]);
        EXPECT_NEAR(n[0], e.x, 1e-4);
        EXPECT_NEAR(n[1], e.y, 1e-4);
        EXPECT_NEAR(n[2], e.z, 1e-4);
    }
}

TEST(DeformationTransferNumerics, UniformScaleOfTheSourceScalesAnIdenticalTarget) {
    Node node;
    Scene scene;
    scene.source = Icosphere(2);
    Bump(scene.source, 0.06f, 2);
    scene.target = Posed(scene.source, [](const KVector& p) { return p + KVector(3.0f, 0.0f, -1.0f); });
    for (int i = 0; i < 12; ++i) {
        scene.markers.push_back(i);
        scene.markers.push_back(i);
    }
    scene.srcFix = 5;
    scene.trgFix = 5;
    ASSERT_EQ(node.eval(scene.input(true, 2, 1, 2)).status, KDeformationTransferResult::kSuccess);

    KDeformationTransferInput in = scene.input(false, 2, 1, 2);
    in.sourceMesh = Posed(scene.source, [](const KVector& p) { return p * 1.75f; });
    ASSERT_EQ(node.eval(in).status, KDeformationTransferResult::kSuccess);
    const KVector anchor = OutPoint(node.solver, 5);
    EXPECT_LT((anchor - in.sourceMesh.points[5]).length(), 1e-6f);
    double worst = 0;
    for (int i = 0; i < scene.target.numVertices(); ++i) {
        const KVector expected = (scene.target.points[i] - scene.target.points[5]) * 1.75f;
        worst = std::max(worst, double((OutPoint(node.solver, i) - anchor - expected).length()));
    }
    EXPECT_LT(worst, 2e-5);
}

TEST(DeformationTransferNumerics, RestPoseOfTheSourceGivesTheRestTarget) {
    // Different topology: the rest pose has identity gradients everywhere, so the target comes
    // back as it is, translated by the fixed-vertex offset.
    Node node;
    const Scene scene = DifferentTopologyScene();
    node.eval(scene.input(true, 2, 2, 2));
    const KDeformationTransferResult r = node.eval(scene.input(false, 2, 2, 2));
    ASSERT_EQ(r.status, KDeformationTransferResult::kSuccess);
    const KVector anchor = OutPoint(node.solver, 0);
    double worst = 0;
    for (int i = 0; i < scene.target.numVertices(); ++i)
        worst = std::max(worst, double((OutPoint(node.solver, i) - anchor -
                                        (scene.target.points[i] - scene.target.points[0])).length()));
    EXPECT_LT(worst, 2e-5);
    EXPECT_LT((anchor - scene.source.points[0]).length(), 1e-6f);
}

TEST(DeformationTransferNumerics, FirstOutputAfterRecalculationCarriesTheFit) {
    // The recalculating evaluation solves for the fitted source, which still sits in the working
    // copy: its gradients take the source onto the target shape.
    Node node;
    Scene scene;
    scene.source = Icosphere(2);
    scene.target = Posed(scene.source, [](const KVector& p) { return KVector(2.0f * p.x, p.y, p.z); });
    for (int i = 0; i < 12; ++i) {
        scene.markers.push_back(i);
        scene.markers.push_back(i);
    }
    node.eval(scene.input(true, 2, 1, 5));
    // Target twice as wide again, roughly.
    double lo = 1e30, hi = -1e30;
    for (const KDouble4& p : node.solver.outPoints()) {
        lo = std::min(lo, p[0]);
        hi = std::max(hi, p[0]);
    }
    EXPECT_GT(hi - lo, 6.0);
}

TEST(DeformationTransferNumerics, TransferPassesReleaseWhatTheyAllocate) {
    Node node;
    const Scene scene = DifferentTopologyScene();
    node.eval(scene.input(true, 2, 2, 1));
    KDeformationTransferInput in = scene.input(false, 2, 2, 1);
    long kept = 0;
    {
        KRecordingSink sink;
        kept = KDeformationTransferTestAccess(node.solver, sink).cholmodObjects();
    }
    EXPECT_GT(kept, 0) << "the factored system stays";
    for (int pose = 0; pose < 5; ++pose) {
        in.sourceMesh = Posed(scene.source, [&](const KVector& p) { return p * (1.0f + 0.1f * pose); });
        ASSERT_EQ(node.eval(in).status, KDeformationTransferResult::kSuccess);
        KRecordingSink sink;
        EXPECT_EQ(KDeformationTransferTestAccess(node.solver, sink).cholmodObjects(), kept);
    }
}

TEST(DeformationTransferNumerics, ThreadCountDoesNotChangeTheResult) {
    const Scene scene = DifferentTopologyScene();
    KArray<KDouble4> results[2];
    for (int t = 0; t < 2; ++t) {
        Node node;
        KDeformationTransferInput in = scene.input(true, 2, 2, 2);
        in.threads = t + 1;
        node.eval(in);
        in.reCalculate = false;
        in.sourceMesh = Posed(scene.source, [](const KVector& p) { return KVector(p.x, p.y + 0.3f * p.x * p.x, p.z); });
        node.eval(in);
        results[t] = node.solver.outPoints();
    }
    EXPECT_TRUE(results[0] == results[1]);
}

TEST(DeformationTransferNumerics, TwoSolversEvaluateAtOnce) {
    const Scene scene = DifferentTopologyScene();
    KDeformationTransferInput in = scene.input(true, 2, 2, 1);
    in.threads = 1;
    Node reference;
    reference.eval(in);
    Node a, b;
    std::thread ta([&] { a.eval(in); });
    std::thread tb([&] { b.eval(in); });
    ta.join();
    tb.join();
    EXPECT_TRUE(a.solver.outPoints() == reference.solver.outPoints());
    EXPECT_TRUE(b.solver.outPoints() == reference.solver.outPoints());
    EXPECT_TRUE(a.sink.errors().empty());
    EXPECT_TRUE(b.sink.errors().empty());
}

// ---------------------------------------------------------------------------------------------
// Guards: a failed evaluation leaves every output and the stored state as they were

namespace {

// A node with a built system and one transfer output, and that state for comparison.
struct BuiltNode : Node {
    Scene scene = SameTopologyScene(1);
    KArray<KDouble4> points;
    KInt4Array pairing;
    KVector offset;
    BuiltNode() {
        eval(scene.input(true, 2, 1, 1));
        KDeformationTransferInput in = scene.input(false, 2, 1, 1);
        in.sourceMesh = Posed(scene.source, [](const KVector& p) { return KVector(p.x, 1.5f * p.y, p.z); });
        eval(in);
        points = solver.outPoints();
        pairing = solver.triCorres();
        offset = solver.offset();
    }
    void expectUntouched(const KDeformationTransferResult& r) {
        EXPECT_EQ(r.status, KDeformationTransferResult::kFailure);
        EXPECT_EQ(r.output, KDeformationTransferResult::kNoOutput);
        EXPECT_FALSE(r.writeReCalculate);
        EXPECT_TRUE(solver.ready());
        EXPECT_TRUE(solver.outPoints() == points);
        EXPECT_TRUE(solver.triCorres() == pairing);
        EXPECT_EQ(solver.offset(), offset);
    }
    // The kept system still answers as before.
    void expectStillWorking() {
        KDeformationTransferInput in = scene.input(false, 2, 1, 1);
        in.sourceMesh = Posed(scene.source, [](const KVector& p) { return KVector(p.x, 1.5f * p.y, p.z); });
        EXPECT_EQ(eval(in).status, KDeformationTransferResult::kSuccess);
        EXPECT_TRUE(solver.outPoints() == points);
    }
};

}  // namespace

TEST(DeformationTransferGuards, MarkerOutsideTheMeshes) {
    for (int bad : {-1, 1000}) {
        BuiltNode node;
        KDeformationTransferInput in = node.scene.input(true, 2, 1, 1);
        in.vertCorres = KIntArray{0, 0, 3, bad};
        const KDeformationTransferResult r = node.eval(in);
        EXPECT_EQ(node.sink.errors(),
                  std::vector<std::string>{"KDeformationTransfer: correspondence pair 1 (3, " + std::to_string(bad) +
                                           ") names a vertex outside the meshes (source 42 vertices, target 42); "
                                           "nothing was recalculated."});
        node.expectUntouched(r);
        node.expectStillWorking();
    }
}

TEST(DeformationTransferGuards, MorePairsThanSourceVertices) {
    Node node;
    Scene scene = SameTopologyScene(0);  // 12 vertices
    scene.markers.clear();
    for (int i = 0; i < 13; ++i) {
        scene.markers.push_back(i % 12);
        scene.markers.push_back(i % 12);
    }
    const KDeformationTransferResult r = node.eval(scene.input(true, 1, 1, 1));
    EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"KDeformationTransfer: there are more correspondence pairs "
                                                           "(13) than source vertices (12); nothing was recalculated."});
    EXPECT_EQ(r.status, KDeformationTransferResult::kFailure);
}

TEST(DeformationTransferGuards, FixedVertexOutsideTheMeshes) {
    {
        // Transfer: the build succeeds, the output step refuses, and the whole evaluation is undone.
        BuiltNode node;
        KDeformationTransferInput in = node.scene.input(true, 2, 1, 1);
        in.trgFixPNum = KIntArray{42};
        const KDeformationTransferResult r = node.eval(in);
        EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"KDeformationTransfer: the target fixed vertex 42 is not "
                                                               "a vertex of the target mesh (42 vertices); the output "
                                                               "was not written."});
        node.expectUntouched(r);
        EXPECT_EQ(node.solver.targetFixedVertex(), 0);
        node.expectStillWorking();
    }
    {
        Node node;
        Scene scene = SameTopologyScene(1);
        scene.srcFix = -2;
        const KDeformationTransferResult r = node.eval(scene.input(true, 1, 1, 2));
        EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"KDeformationTransfer: the source fixed vertex -2 is not "
                                                               "a vertex of the source mesh (42 vertices); the output "
                                                               "was not written."});
        EXPECT_EQ(r.status, KDeformationTransferResult::kFailure);
        EXPECT_TRUE(node.solver.outPoints().empty());
        // With no iteration nothing reads the fixed vertices in "Source To Target".
        EXPECT_EQ(node.eval(scene.input(true, 1, 1, 0)).status, KDeformationTransferResult::kSuccess);
    }
}

TEST(DeformationTransferGuards, SourceThatNoLongerMatchesTheRestPose) {
    BuiltNode node;
    KDeformationTransferInput in = node.scene.input(false, 2, 1, 1);
    in.sourceMesh.points.push_back(KVector());
    KDeformationTransferResult r = node.eval(in);
    EXPECT_EQ(node.sink.errors(), std::vector<std::string>{
                                      "KDeformationTransfer: the source mesh (43 vertices, 80 triangles) no longer "
                                      "matches the rest pose the system was built from (42 vertices, 80 triangles); "
                                      "recalculate. The output was not written."});
    node.expectUntouched(r);

    in = node.scene.input(false, 2, 1, 1);
    std::swap(in.sourceMesh.triangles[3], in.sourceMesh.triangles[4]);
    r = node.eval(in);
    EXPECT_EQ(node.sink.errors().size(), 1u);
    node.expectUntouched(r);
    node.expectStillWorking();
}

TEST(DeformationTransferGuards, TargetThatNoLongerMatchesTheSystem) {
    BuiltNode node;
    KDeformationTransferInput in = node.scene.input(false, 2, 1, 1);
    in.targetMesh = Icosphere(2);
    const KDeformationTransferResult r = node.eval(in);
    EXPECT_EQ(node.sink.errors(), std::vector<std::string>{
                                      "KDeformationTransfer: the target mesh (162 vertices, 320 triangles) no longer "
                                      "matches the one the system was built for (42 vertices, 80 triangles); "
                                      "recalculate. The output was not written."});
    node.expectUntouched(r);
}

TEST(DeformationTransferGuards, MeshWithTriangleIndicesOutsideItsPoints) {
    Node node;
    Scene scene = SameTopologyScene(1);
    scene.target.triangles[2][1] = 42;
    const KDeformationTransferResult r = node.eval(scene.input(true, 2, 1, 1));
    EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"KDeformationTransfer: the target mesh has triangles that "
                                                           "name vertices it does not have; nothing was recalculated."});
    EXPECT_EQ(r.status, KDeformationTransferResult::kFailure);
    EXPECT_FALSE(node.solver.ready());
}

TEST(DeformationTransferGuards, PairingOfAnotherTargetIsNotBuilt) {
    // "Same Topology" with different vertex counts keeps the old pairing; on a first recalculation
    // there is none, so the build has nothing that fits the target.
    Node node;
    const Scene scene = DifferentTopologyScene();
    const KDeformationTransferResult r = node.eval(scene.input(true, 2, 1, 1));
    EXPECT_EQ(node.sink.errors(), (std::vector<std::string>{"Check the calculation mode.",
                                                           "KDeformationTransfer: the triangle correspondence has 0 "
                                                           "entries for a target of 1280 triangles; the transfer "
                                                           "system was not built."}));
    EXPECT_EQ(r.status, KDeformationTransferResult::kFailure);
    EXPECT_FALSE(node.solver.ready());
    EXPECT_TRUE(node.solver.outPoints().empty());
}

TEST(DeformationTransferGuards, SparseLibraryErrorIsReportedAndTheProcessGoesOn) {
    // An open source whose border runs along edge 0 of some triangles: their unpaired smooth
    // blocks make the matrix taller than its right-hand side, which the sparse library rejects.
    BuiltNode node;
    Scene open;
    open.source = Grid(6);
    open.target = Grid(6);
    for (KVector& p : open.target.points) p.z = 0.1f * p.x * p.x;
    open.markers = KIntArray{0, 0, 35, 35};
    KDeformationTransferInput in = open.input(true, 2, 1, 1);
    const KDeformationTransferResult r = node.eval(in);
    EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"cholmod error!"});
    const std::vector<std::string> out = node.sink.outputs();
    ASSERT_EQ(out.size(), 2u);
    EXPECT_EQ(out[0], Progress(kFinding));
    std::ostringstream prefix;
    prefix << static_cast<const void*>(stderr) << ", cholmod error: file: ";
    EXPECT_EQ(out[1].compare(0, prefix.str().size(), prefix.str()), 0) << out[1];
    EXPECT_NE(out[1].find(" line: "), std::string::npos);
    EXPECT_NE(out[1].find(" status: -4: "), std::string::npos) << out[1];
    EXPECT_EQ(out[1].back(), '\n');
    node.expectUntouched(r);
    node.expectStillWorking();
}

TEST(DeformationTransferGuards, RepeatedMarkerOverrunsTheBudgetAndIsReported) {
    // A vertex named in two pairs counts twice in the free-vertex budget, so the closest term
    // writes three rows more than the right-hand side holds.
    Node node;
    Scene scene = SameTopologyScene(1);
    scene.markers.push_back(3);
    scene.markers.push_back(3);
    const KDeformationTransferResult r = node.eval(scene.input(true, 2, 1, 1));
    EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"cholmod error!"});
    EXPECT_EQ(r.status, KDeformationTransferResult::kFailure);
    EXPECT_FALSE(node.solver.ready());
}

TEST(DeformationTransferGuards, ExactlySingularTransferSystemIsReported) {
    // The transfer system leaves the translation free. On most meshes rounding hides that; on a
    // box with grid coordinates the factorisation meets an exact zero pivot, and the solve would
    // give infinities.
    BuiltNode node;
    Scene box;
    box.source = Box(4);
    box.target = Posed(Box(4), [](const KVector& p) { return KVector(p.x * 2.0f, p.y, p.z * 0.5f); });
    for (int i = 0; i < box.source.numVertices(); i += 9) {
        box.markers.push_back(i);
        box.markers.push_back(i);
    }
    const KDeformationTransferResult r = node.eval(box.input(true, 2, 1, 2));
    EXPECT_EQ(node.sink.errors(), std::vector<std::string>{"KDeformationTransfer: the normal equations of the transfer "
                                                           "system are singular; the transfer system was not built."});
    node.expectUntouched(r);
    node.expectStillWorking();
}

TEST(DeformationTransferGuards, DebugDumpWritesOneSelectionPerTargetTriangle) {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    KDeformationTransferTestAccess access(solver, sink);
    KInt4Array pairing;
    pairing.push_back(KInt4{12, -1, -1, 1});
    pairing.push_back(KInt4{-1, -1, -1, 0});
    pairing.push_back(KInt4{0, -1, -1, 1});
    access.setTriCorres(pairing);
    access.writeLog();
    std::ifstream log(KDeformationTransferSolver::kTriCorresLogPath);
    std::stringstream text;
    text << log.rdbuf();
    EXPECT_EQ(text.str(), "select -r young.f[0] old.f[12];\nselect -r young.f[1] old.f[-1];\n"
                          "select -r young.f[2] old.f[0];\n");
    EXPECT_EQ(std::string(KDeformationTransferSolver::kTriCorresLogPath).substr(0, 1), "/");
}
