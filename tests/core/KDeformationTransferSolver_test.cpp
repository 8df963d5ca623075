// Deformation transfer engine: the compute flow and its messages, the transfer numerics and the
// guards. The rows and the pairing are checked piece by piece in KDeformationTransferSystem_test.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <sstream>
#include <thread>
#include <tuple>

#include "DeformationTransferTestSupport.h"

using namespace Kavrin;
using namespace Kavrin::dttest;

namespace {

typedef KDeformationTransferResult R;
typedef KDeformationTransferInput In;
const std::string kFinding = "KDeformationTransfer: Finding Triangle Correspondences ...";
const std::string kFound = "KDeformationTransfer: Triangle Correspondences Found!...";
const std::string kBuilding = "KDeformationTransfer: Building Coefficient Matrix ...";
const std::string kCreated = "KDeformationTransfer: Coefficient Matrix Created!\n";
const std::string kSingular =
    "KDeformationTransfer: the normal equations of the transfer system are singular; the transfer system was not "
    "built.";
std::string It(int n) { return "KDeformationTransfer: iteration count " + std::to_string(n); }
// The timestamp comes from a fixed clock (1700000000) read in UTC.
std::string Progress(const std::string& message) {
    return "Current time: Tue Nov 14 22:13:20 2023\n0" + message + "\n";
}
std::vector<std::string> Lines(std::initializer_list<std::string> messages) {
    std::vector<std::string> out;
    for (const std::string& m : messages) out.push_back(Progress(m));
    return out;
}

// A source and a target with their markers, as the node would read them.
struct Scene {
    KTriMesh source, target;
    KIntArray markers;
    int srcFix = 0, trgFix = 0;
    Scene(const KTriMesh& s, const KTriMesh& t) : source(s), target(t) {
        for (int i = 0; i < 12; ++i) markers.insert(markers.end(), {i, i});  // the icosahedron corners
    }
    In input(bool recalc, short aim, short mode, short iterations = 1) const {
        return In{recalc, aim, mode, iterations, source, target,
                                         markers, KIntArray{srcFix}, KIntArray{trgFix}, 2};
    }
};

KTriMesh Map(KTriMesh m, const std::function<KVector(const KVector&)>& f) {
    for (KVector& p : m.points) p = f(p);
    return m;
}
KTriMesh Bumpy(int levels, float amount, int seed) {
    KTriMesh m = Icosphere(levels);
    Bump(m, amount, seed);
    return m;
}
// Same topology: a bumpy sphere and a stretched, differently bumped copy.
Scene SameTopology(int levels = 1) {
    return Scene(Bumpy(levels, 0.05f, 1), Map(Bumpy(levels, 0.04f, 3), [](const KVector& p) {
                     return KVector(1.2f * p.x + 0.3f, 0.9f * p.y - 0.1f, 1.1f * p.z + 0.2f);
                 }));
}
// Different topology: a bumpy sphere onto a finer, stretched one.
Scene DifferentTopology() {
    return Scene(Bumpy(2, 0.05f, 1),
                 Map(Icosphere(3), [](const KVector& p) { return KVector(1.3f * p.x, 0.8f * p.y, p.z); }));
}

struct Node {
    KDeformationTransferSolver solver;
    KRecordingSink sink;
    Node() {
        setenv("TZ", "UTC", 1);
        tzset();
        solver.setClock([] { return std::time_t(1700000000); });
    }
    R eval(const In& in) {
        sink.entries.clear();
        return solver.compute(in, sink);
    }
    KVector out(int i) const {
        const KDouble4& p = solver.outPoints()[i];
        EXPECT_EQ(p[3], 1.0);
        return KVector(float(p[0]), float(p[1]), float(p[2]));
    }
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// Compute flow and messages

TEST(DeformationTransferFlow, MessagesOfATransferRecalculation) {
    const std::vector<std::string> none, inaccurate = {"This calculation mode may cause inaccurate result."};
    const struct {
        Scene scene;
        short mode, iterations;
        std::vector<std::string> lines, warnings;
    } cases[] = {{SameTopology(), 1, 2, Lines({kFinding, It(1), It(2), kBuilding, kCreated}), none},
                 {SameTopology(), 2, 1, Lines({kFinding, It(1), kFound, kBuilding, kCreated}), inaccurate},
                 {DifferentTopology(), 2, 1, Lines({kFinding, It(1), kFound, kBuilding, kCreated}), none},
                 {DifferentTopology(), 2, 0, Lines({kFinding, kFound, kBuilding, kCreated}), none},
                 {DifferentTopology(), 2, -3, Lines({kFinding, kFound, kBuilding, kCreated}), none}};
    for (const auto& c : cases) {
        Node node;
        const R r = node.eval(c.scene.input(true, 2, c.mode, c.iterations));
        EXPECT_EQ(node.sink.outputs(), c.lines);
        EXPECT_EQ(node.sink.warnings(), c.warnings);
        EXPECT_TRUE(node.sink.errors().empty());
        EXPECT_FALSE(r.outcome.failed());
        EXPECT_EQ(r.output, R::kFromTarget);
        EXPECT_TRUE(r.setPoints && r.setNormals && r.writeReCalculate && !r.reCalculate);
        EXPECT_TRUE(node.solver.ready());
    }
}

TEST(DeformationTransferFlow, MissingInputsAndShortPairLists) {
    Node node;
    Scene scene = SameTopology();
    scene.srcFix = 3;
    scene.trgFix = 4;
    node.eval(scene.input(true, 1, 1));
    // One element is no pair: the recalculation is abandoned and "reCalculate" stays true; with
    // nothing built, "Transfer" then warns. An empty fixed-vertex array keeps the old vertex.
    In in = scene.input(true, 2, 1);
    in.vertCorres = KIntArray{4};
    in.srcFixPNum.clear();
    in.trgFixPNum = KIntArray{7, 9};
    R r = node.eval(in);
    EXPECT_EQ(node.sink.errors(), (std::vector<std::string>{"No source mesh fixed point.", "No correspondences."}));
    EXPECT_EQ(node.sink.warnings(), std::vector<std::string>{"No correspondences."});
    EXPECT_TRUE(node.sink.outputs().empty());
    EXPECT_FALSE(r.outcome.failed());
    EXPECT_EQ(r.output, R::kNoOutput);
    EXPECT_FALSE(r.writeReCalculate);
    EXPECT_EQ(node.solver.sourceFixedVertex(), 3);
    EXPECT_EQ(node.solver.targetFixedVertex(), 7);

    in.aim = 1;  // "Source To Target" does not warn
    in.vertCorres.clear();
    in.trgFixPNum.clear();
    r = node.eval(in);
    EXPECT_EQ(node.sink.errors(), (std::vector<std::string>{"No source mesh fixed point.",
                                                            "No target mesh fixed point.", "No correspondences."}));
    EXPECT_TRUE(node.sink.warnings().empty());
    EXPECT_FALSE(r.writeReCalculate);

    in.vertCorres = KIntArray{0, 0, 5};  // the third element is ignored
    EXPECT_FALSE(node.eval(in).outcome.failed());
    EXPECT_EQ(KDeformationTransferTestAccess(node.solver, node.sink).vertCorresCount(), 1);

    // A transfer pass with fewer than 2 elements fails and keeps the built system.
    node.eval(scene.input(true, 2, 1));
    const KArray<KDouble4> built = node.solver.outPoints();
    in = scene.input(false, 2, 1);
    in.vertCorres = KIntArray{0};
    r = node.eval(in);
    EXPECT_TRUE(node.sink.warnings().empty()) << "a failure is reported once, by the host, from the outcome";
    EXPECT_TRUE(r.outcome.failed());
    EXPECT_EQ(r.outcome.message, "No correspondences.");
    EXPECT_EQ(r.outcome.severity, KOutcome::kWarning);
    EXPECT_EQ(r.output, R::kNoOutput);
    EXPECT_TRUE(node.solver.outPoints() == built && node.solver.ready());
    // Any other recalculation drops the built system.
    node.eval(scene.input(true, 3, 1));
    EXPECT_FALSE(node.solver.ready());
}

TEST(DeformationTransferFlow, SourceToTargetShowsTheFittedSourceOnceAndThenStaysQuiet) {
    Node node;
    Scene scene = SameTopology(2);
    scene.srcFix = 20;  // not a marker, so the offset is not zero
    scene.trgFix = 30;
    R r = node.eval(scene.input(true, 1, 1, 3));
    EXPECT_EQ(node.sink.outputs(), Lines({kFinding, It(1), It(2), It(3)}));
    EXPECT_TRUE(node.sink.warnings().empty());
    EXPECT_EQ(r.output, R::kFromSource);
    EXPECT_TRUE(r.setPoints && r.writeReCalculate && !r.reCalculate);
    EXPECT_FALSE(node.solver.ready());
    EXPECT_TRUE(node.solver.triCorres().empty());
    const KTriMesh fitted = KDeformationTransferTestAccess(node.solver, node.sink).source();
    const KVector offset = scene.target.points[30] - fitted.points[20];
    EXPECT_EQ(node.solver.offset(), offset);
    for (int i = 0; i < fitted.numVertices(); ++i) {
        ASSERT_EQ(node.out(i), fitted.points[i] - offset);
        // Pins sit on their target vertices; the fit pulls the rest close to the target.
        ASSERT_LE((fitted.points[i] - scene.target.points[i]).length(), i < 12 ? 0.0f : 0.05f);
    }
    const KArray<KDouble4> shown = node.solver.outPoints();
    r = node.eval(scene.input(false, 1, 1, 3));
    EXPECT_TRUE(node.sink.entries.empty());
    EXPECT_EQ(r.output, R::kNoOutput);
    EXPECT_FALSE(r.writeReCalculate);
    EXPECT_TRUE(node.solver.outPoints() == shown);

    // "Wrap Deformer" pairs, builds nothing, hands out the arrays as they are and warns on every
    // evaluation.
    for (int i = 0; i < 3; ++i) {
        r = node.eval(scene.input(i == 0, 3, 1, 1));
        EXPECT_EQ(node.sink.outputs(), i == 0 ? Lines({kFinding, It(1)}) : std::vector<std::string>());
        EXPECT_EQ(node.sink.warnings(), std::vector<std::string>{"No correspondences."});
        EXPECT_FALSE(r.outcome.failed());
        EXPECT_EQ(r.output, i == 0 ? R::kFromSource : R::kNoOutput);
        EXPECT_EQ(r.setPoints, i == 0);
    }
    EXPECT_TRUE(node.solver.outPoints() == shown);
    EXPECT_EQ(node.solver.triCorres().length(), scene.target.numTriangles());
}

// ---------------------------------------------------------------------------------------------
// Transfer numerics

TEST(DeformationTransferNumerics, SimilarityMotionsOfTheSourceAreReproduced) {
    // Rigid motion onto a differently shaped target, uniform scale onto an identical one, and the
    // rest pose across topologies: the output is the target under the same linear map, its fixed
    // vertex on the posed source's, and its normals turned with it.
    const float c = std::cos(0.9f), s = std::sin(0.9f);
    auto turn = [c, s](const KVector& p) { return KVector(c * p.x - s * p.y, s * c * p.x + c * c * p.y - s * p.z,
                                                          s * s * p.x + s * c * p.y + c * p.z); };
    auto scale = [](const KVector& p) { return p * 1.75f; };
    auto same = [](const KVector& p) { return p; };
    const KTriMesh bumpy = Bumpy(2, 0.06f, 2);
    const KTriMesh moved = Map(bumpy, [](const KVector& p) { return p + KVector(3, 0, -1); });
    const struct {
        Scene scene;
        std::function<KVector(const KVector&)> map;
        KVector shift;
        int fix;
        short mode;
    } cases[] = {{SameTopology(2), turn, KVector(2.0f, -1.0f, 0.5f), 0, 1},
                 {Scene(bumpy, moved), scale, KVector(), 5, 1},
                 {DifferentTopology(), same, KVector(), 0, 2}};
    for (const auto& t : cases) {
        Scene scene = t.scene;
        scene.srcFix = scene.trgFix = t.fix;
        Node node;
        ASSERT_FALSE(node.eval(scene.input(true, 2, t.mode, 2)).outcome.failed());
        // The factored system stays; a transfer pass releases whatever else it allocates.
        const long kept = KDeformationTransferTestAccess(node.solver, node.sink).cholmodObjects();
        EXPECT_GT(kept, 0);
        In in = scene.input(false, 2, t.mode);
        in.sourceMesh = Map(scene.source, [&](const KVector& p) { return t.map(p) + t.shift; });
        ASSERT_FALSE(node.eval(in).outcome.failed());
        EXPECT_TRUE(node.sink.entries.empty());
        EXPECT_EQ(KDeformationTransferTestAccess(node.solver, node.sink).cholmodObjects(), kept);
        EXPECT_LT((node.out(t.fix) - in.sourceMesh.points[t.fix]).length(), 1e-6f);
        KVectorArray normals;
        scene.target.getVertexNormals(normals, true);
        for (int i = 0; i < scene.target.numVertices(); ++i) {
            const KVector expected = t.map(scene.target.points[i] - scene.target.points[t.fix]);
            ASSERT_LT((node.out(i) - node.out(t.fix) - expected).length(), 2e-5f) << i;
            ASSERT_EQ(node.solver.outNormalVerts()[i], i);
            const KDouble3& n = node.solver.outNormals()[i];
            const KVector turned = t.map(normals[i]).normalized();
            ASSERT_LT((KVector(float(n[0]), float(n[1]), float(n[2])) - turned).length(), 1e-4f);
        }
    }
}

TEST(DeformationTransferNumerics, TwoSolversAtOnceMatchOneOnOneThread) {
    const Scene scene = DifferentTopology();
    In in = scene.input(true, 2, 2);
    in.threads = 1;
    Node reference, a, b;
    reference.eval(in);
    in.threads = 2;
    std::thread ta([&] { a.eval(in); });
    std::thread tb([&] { b.eval(in); });
    ta.join();
    tb.join();
    EXPECT_TRUE(a.solver.outPoints() == reference.solver.outPoints());
    EXPECT_TRUE(b.solver.outPoints() == reference.solver.outPoints());
    EXPECT_TRUE(a.sink.errors().empty() && b.sink.errors().empty());
}

// ---------------------------------------------------------------------------------------------
// Guards: a failed evaluation reports why and leaves every output and the stored state as they were

TEST(DeformationTransferGuards, FailedEvaluationsLeaveTheBuiltStateUntouched) {
    const std::string pairMsg = "KDeformationTransfer: correspondence pair 1 (3, ";
    const std::string pairEnd = ") names a vertex outside the meshes (source 42 vertices, target 42); nothing was "
                                "recalculated.";
    const Scene open(Grid(6), Map(Grid(6), [](const KVector& p) { return KVector(p.x, p.y, 0.1f * p.x * p.x); }));
    const struct {
        std::function<void(In&)> change;
        std::vector<std::string> errors;
    } cases[] = {
        {[](In& in) { in.vertCorres = KIntArray{0, 0, 3, -1}; }, {pairMsg + "-1" + pairEnd}},
        {[](In& in) { in.vertCorres = KIntArray{0, 0, 3, 1000}; }, {pairMsg + "1000" + pairEnd}},
        {[](In& in) { in.trgFixPNum = KIntArray{42}; },
         {"KDeformationTransfer: the target fixed vertex 42 is not a vertex of the target mesh (42 vertices); the "
          "output was not written."}},
        {[](In& in) { in.aim = 1; in.srcFixPNum = KIntArray{-2}; },
         {"KDeformationTransfer: the source fixed vertex -2 is not a vertex of the source mesh (42 vertices); the "
          "output was not written."}},
        {[](In& in) { in.vertCorres.insert(in.vertCorres.end(), 86, 1); },
         {"KDeformationTransfer: there are more correspondence pairs (55) than source vertices (42); nothing was "
          "recalculated."}},
        {[](In& in) { in.targetMesh.triangles[2][1] = 42; },
         {"KDeformationTransfer: the target mesh has triangles that name vertices it does not have; nothing was "
          "recalculated."}},
        {[](In& in) { in.reCalculate = false; in.sourceMesh.points.push_back(KVector()); },
         {"KDeformationTransfer: the source mesh (43 vertices, 80 triangles) no longer matches the rest pose the "
          "system was built from (42 vertices, 80 triangles); recalculate. The output was not written."}},
        {[](In& in) { in.reCalculate = false; std::swap(in.sourceMesh.triangles[3], in.sourceMesh.triangles[4]); },
         {"KDeformationTransfer: the source mesh (42 vertices, 80 triangles) no longer matches the rest pose the "
          "system was built from (42 vertices, 80 triangles); recalculate. The output was not written."}},
        {[](In& in) { in.reCalculate = false; in.targetMesh = Icosphere(2); },
         {"KDeformationTransfer: the target mesh (162 vertices, 320 triangles) no longer matches the one the system "
          "was built for (42 vertices, 80 triangles); recalculate. The output was not written."}},
        {[](In& in) { in.calcMode = 3; }, {"Invalid value of calc mode.", kSingular}},
        // "Same Topology" with different vertex counts: the search stops and keeps the old pairing,
        // which does not fit the new target.
        {[](In& in) { in = DifferentTopology().input(true, 2, 1); },
         {"Check the calculation mode.", "KDeformationTransfer: the triangle correspondence has 80 entries for a "
                                         "target of 1280 triangles; the transfer system was not built."}},
        // The sparse library rejects a matrix taller than its right-hand side: unpaired smooth
        // blocks on an open sheet, or a marker named twice (counted twice in the budget).
        {[&](In& in) { in = open.input(true, 2, 1); in.vertCorres = KIntArray{0, 0, 35, 35}; },
         {"cholmod error!"}},
        {[](In& in) { in.vertCorres.insert(in.vertCorres.end(), {3, 3}); }, {"cholmod error!"}},
    };
    for (const auto& c : cases) {
        // A node with a built system and one transfer output.
        Node node;
        const Scene scene = SameTopology();
        node.eval(scene.input(true, 2, 1));
        In pose = scene.input(false, 2, 1);
        pose.sourceMesh = Map(scene.source, [](const KVector& p) { return KVector(p.x, 1.5f * p.y, p.z); });
        node.eval(pose);
        auto state = [&] {
            return std::make_tuple(node.solver.outPoints(), node.solver.triCorres(), node.solver.offset(),
                                   node.solver.targetFixedVertex(), node.solver.ready());
        };
        const auto before = state();
        In in = scene.input(true, 2, 1);
        c.change(in);
        const R r = node.eval(in);
        // The errors shown on the way, then the failure's own message.
        std::vector<std::string> errors = node.sink.errors();
        errors.push_back(r.outcome.message);
        EXPECT_EQ(errors, c.errors);
        EXPECT_EQ(r.outcome.severity, KOutcome::kError);
        if (c.errors.back() == "cholmod error!") {
            // The library's own line follows; the process goes on.
            std::ostringstream prefix;
            prefix << static_cast<const void*>(stderr) << ", cholmod error: file: ";
            const std::string line = node.sink.outputs().back();
            EXPECT_EQ(line.compare(0, prefix.str().size(), prefix.str()), 0) << line;
            EXPECT_NE(line.find(" line: "), std::string::npos);
            EXPECT_NE(line.find(" status: -4: "), std::string::npos) << line;
            EXPECT_EQ(line.back(), '\n');
        }
        EXPECT_TRUE(r.outcome.failed());
        EXPECT_EQ(r.output, R::kNoOutput);
        EXPECT_FALSE(r.writeReCalculate);
        EXPECT_TRUE(state() == before) << c.errors[0];
        // The kept system still answers as before.
        EXPECT_EQ(node.eval(pose).outcome.status, KOutcome::kDeformed);
        EXPECT_TRUE(state() == before) << c.errors[0];
    }
}
