// Deformation transfer engine: the compute flow and its messages, the transfer numerics, meshes
// with borders and the guards. The stages are checked piece by piece in KSourceFitting_test.cpp,
// KTrianglePairing_test.cpp, KTransferSystem_test.cpp and KSparseLeastSquares_test.cpp.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <ctime>
#include <functional>
#include <map>
#include <thread>
#include <tuple>

#include "KDeformationTransferSolver.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

typedef KDeformationTransferResult R;
typedef KDeformationTransferInput In;
typedef std::vector<std::string> Texts;
const std::string kFinding = "KDeformationTransfer: Finding Triangle Correspondences ...";
const std::string kFound = "KDeformationTransfer: Triangle Correspondences Found!...";
const std::string kBuilding = "KDeformationTransfer: Building Coefficient Matrix ...";
const std::string kCreated = "KDeformationTransfer: Coefficient Matrix Created!\n";
const std::string kSingular = "KDeformationTransfer: the normal equations of the transfer system are singular at ";
std::string It(int n) { return "KDeformationTransfer: iteration count " + std::to_string(n); }
// Progress lines as printed, with the timestamp of a fixed clock (1700000000) read in UTC.
Texts Lines(std::initializer_list<std::string> messages) {
    Texts out;
    for (const std::string& m : messages) out.push_back("Current time: Tue Nov 14 22:13:20 2023\n0" + m + "\n");
    return out;
}

KTriMesh Map(KTriMesh m, const std::function<KVector(const KVector&)>& f) {
    for (KVector& p : m.points) p = f(p);
    return m;
}

// A source and a target with their markers (by default the 12 icosahedron corners, pair i i).
struct Scene {
    KTriMesh source, target;
    KIntArray markers;
    int srcFix = 0, trgFix = 0;
    Scene(const KTriMesh& s, const KTriMesh& t) : source(s), target(t) {
        for (int i = 0; i < 12; ++i) markers.insert(markers.end(), {i, i});
    }
    In input(bool recalc, short aim, short mode, short iterations = 1) const {
        return In{recalc, aim, mode, iterations, source, target, markers, KIntArray{srcFix}, KIntArray{trgFix}, 2};
    }
};
// Same topology: a bumpy sphere and a stretched, differently bumped copy.
Scene SameTopology(int levels = 1) {
    return Scene(TriangulatedIcosphere(levels, 0.05f, 1), Map(TriangulatedIcosphere(levels, 0.04f, 3), [](const KVector& p) {
                     return KVector(1.2f * p.x + 0.3f, 0.9f * p.y - 0.1f, 1.1f * p.z + 0.2f);
                 }));
}
// Different topology: a bumpy sphere onto a finer, stretched one.
Scene DifferentTopology() {
    return Scene(TriangulatedIcosphere(2, 0.05f, 1), Map(TriangulatedIcosphere(3),
                                         [](const KVector& p) { return KVector(1.3f * p.x, 0.8f * p.y, p.z); }));
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
    const Texts none, inaccurate = {"This calculation mode may cause inaccurate result."};
    const struct {
        Scene scene;
        short mode, iterations;
        Texts lines, warnings;
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
        EXPECT_TRUE(node.sink.errors().empty() && !r.outcome.failed() && node.solver.ready());
        EXPECT_EQ(r.output, R::kFromTarget);
        EXPECT_TRUE(r.setPoints && r.setNormals && r.writeReCalculate && !r.reCalculate);
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
    EXPECT_EQ(node.sink.errors(), (Texts{"No source mesh fixed point.", "No correspondences."}));
    EXPECT_EQ(node.sink.warnings(), Texts{"No correspondences."});
    EXPECT_TRUE(node.sink.outputs().empty() && !r.outcome.failed() && !r.writeReCalculate);
    EXPECT_EQ(r.output, R::kNoOutput);
    EXPECT_EQ(std::make_pair(node.solver.sourceFixedVertex(), node.solver.targetFixedVertex()), std::make_pair(3, 7));

    in.aim = 1;  // "Source To Target" does not warn
    in.vertCorres.clear();
    in.trgFixPNum.clear();
    r = node.eval(in);
    EXPECT_EQ(node.sink.errors(),
              (Texts{"No source mesh fixed point.", "No target mesh fixed point.", "No correspondences."}));
    EXPECT_TRUE(node.sink.warnings().empty() && !r.writeReCalculate);

    in.vertCorres = KIntArray{0, 0, 5};  // the third element is ignored: one pin, no failure
    EXPECT_FALSE(node.eval(in).outcome.failed());
    EXPECT_EQ(node.solver.fittedSource()[0], scene.target.points[0]);

    // A transfer pass with fewer than 2 elements fails (a warning, reported once, by the host)
    // and keeps the built system; any other recalculation drops it.
    node.eval(scene.input(true, 2, 1));
    const KArray<KDouble4> built = node.solver.outPoints();
    in = scene.input(false, 2, 1);
    in.vertCorres = KIntArray{0};
    r = node.eval(in);
    EXPECT_TRUE(node.sink.warnings().empty() && r.outcome.failed());
    EXPECT_EQ(r.outcome.message, "No correspondences.");
    EXPECT_EQ(r.outcome.severity, KOutcome::kWarning);
    EXPECT_EQ(r.output, R::kNoOutput);
    EXPECT_TRUE(node.solver.outPoints() == built && node.solver.ready());
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
    EXPECT_TRUE(node.sink.warnings().empty() && !node.solver.ready() && node.solver.triCorres().empty());
    EXPECT_EQ(r.output, R::kFromSource);
    EXPECT_TRUE(r.setPoints && r.writeReCalculate && !r.reCalculate);
    const KVectorArray fitted = node.solver.fittedSource();
    const KVector offset = scene.target.points[30] - fitted[20];
    EXPECT_EQ(node.solver.offset(), offset);
    for (int i = 0; i < fitted.length(); ++i) {
        ASSERT_EQ(node.out(i), fitted[i] - offset);
        // Pins sit on their target vertices; the fit pulls the rest close to the target.
        ASSERT_LE((fitted[i] - scene.target.points[i]).length(), i < 12 ? 0.0f : 0.06f);
    }
    const KArray<KDouble4> shown = node.solver.outPoints();
    r = node.eval(scene.input(false, 1, 1, 3));
    EXPECT_TRUE(node.sink.entries.empty() && !r.writeReCalculate);
    EXPECT_EQ(r.output, R::kNoOutput);

    // "Wrap Deformer" pairs, builds nothing, hands out the arrays as they are and warns on every
    // evaluation.
    for (int i = 0; i < 3; ++i) {
        r = node.eval(scene.input(i == 0, 3, 1, 1));
        EXPECT_EQ(node.sink.outputs(), i == 0 ? Lines({kFinding, It(1)}) : Texts());
        EXPECT_EQ(node.sink.warnings(), Texts{"No correspondences."});
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
    auto turn = [c, s](const KVector& p) {
        return KVector(c * p.x - s * p.y, s * c * p.x + c * c * p.y - s * p.z, s * s * p.x + s * c * p.y + c * p.z);
    };
    const KTriMesh bumpy = TriangulatedIcosphere(2, 0.06f, 2);
    const struct {
        Scene scene;
        std::function<KVector(const KVector&)> map;
        KVector shift;
        int fix;
        short mode;
    } cases[] = {{SameTopology(2), turn, KVector(2.0f, -1.0f, 0.5f), 0, 1},
                 {Scene(bumpy, Map(bumpy, [](const KVector& p) { return p + KVector(3, 0, -1); })),
                  [](const KVector& p) { return p * 1.75f; }, KVector(), 5, 1},
                 {DifferentTopology(), [](const KVector& p) { return p; }, KVector(), 0, 2}};
    for (const auto& t : cases) {
        Scene scene = t.scene;
        scene.srcFix = scene.trgFix = t.fix;
        Node node;
        ASSERT_FALSE(node.eval(scene.input(true, 2, t.mode, 2)).outcome.failed());
        // The factored system stays; a transfer pass allocates nothing in the sparse library.
        const long kept = node.solver.libraryObjects();
        EXPECT_GT(kept, 0);
        In in = scene.input(false, 2, t.mode);
        in.sourceMesh = Map(scene.source, [&](const KVector& p) { return t.map(p) + t.shift; });
        ASSERT_FALSE(node.eval(in).outcome.failed());
        EXPECT_TRUE(node.sink.entries.empty());
        EXPECT_EQ(node.solver.libraryObjects(), kept);
        EXPECT_LT((node.out(t.fix) - in.sourceMesh.points[t.fix]).length(), 1e-6f);
        KVectorArray normals;
        scene.target.getVertexNormals(normals, true);
        for (int i = 0; i < scene.target.numVertices(); ++i) {
            const KVector expected = t.map(scene.target.points[i] - scene.target.points[t.fix]);
            ASSERT_LT((node.out(i) - node.out(t.fix) - expected).length(), 2e-5f) << i;
            ASSERT_EQ(node.solver.outNormalVerts()[i], i);
            const KDouble3& n = node.solver.outNormals()[i];
            ASSERT_LT((KVector(float(n[0]), float(n[1]), float(n[2])) - t.map(normals[i]).normalized()).length(), 1e-4f);
        }
    }
}

TEST(DeformationTransferNumerics, TwoSolversAtOnceMatchOneOnOneThread) {
    In in = DifferentTopology().input(true, 2, 2);
    in.threads = 1;
    Node reference, a, b;
    reference.eval(in);
    in.threads = 2;
    std::thread ta([&] { a.eval(in); }), tb([&] { b.eval(in); });
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
    const std::string abandoned = "; the correspondence search was abandoned.";
    const std::string changed = "KDeformationTransfer: the source mesh (";
    const std::string recalculate = " vertices, 80 triangles) no longer matches the rest pose the system was built "
                                    "from (42 vertices, 80 triangles); recalculate. The output was not written.";
    const struct {
        std::function<void(In&)> change;
        Texts errors;  // the errors shown, then the failure (a trailing "*": its start)
    } cases[] = {
        {[](In& in) { in.vertCorres = KIntArray{0, 0, 3, -1}; }, {pairMsg + "-1" + pairEnd}},
        {[](In& in) { in.vertCorres = KIntArray{0, 0, 3, 1000}; }, {pairMsg + "1000" + pairEnd}},
        {[](In& in) { in.trgFixPNum = KIntArray{42}; },
         {"KDeformationTransfer: the target fixed vertex 42 is not a vertex of the target mesh (42 vertices); the "
          "output was not written."}},
        {[](In& in) { in.aim = 1; in.srcFixPNum = KIntArray{-2}; },
         {"KDeformationTransfer: the source fixed vertex -2 is not a vertex of the source mesh (42 vertices); the "
          "output was not written."}},
        {[](In& in) { in.targetMesh.triangles[2][1] = 42; },
         {"KDeformationTransfer: the target mesh has triangles that name vertices it does not have; nothing was "
          "recalculated."}},
        {[](In& in) { in.reCalculate = false; in.sourceMesh.points.push_back(KVector()); }, {changed + "43" + recalculate}},
        {[](In& in) { in.reCalculate = false; std::swap(in.sourceMesh.triangles[3], in.sourceMesh.triangles[4]); },
         {changed + "42" + recalculate}},
        {[](In& in) { in.reCalculate = false; in.targetMesh = TriangulatedIcosphere(2); },
         {"KDeformationTransfer: the target mesh (162 vertices, 320 triangles) no longer matches the one the system "
          "was built for (42 vertices, 80 triangles); recalculate. The output was not written."}},
        // No pairing at all: every triangle without rows.
        {[](In& in) { in.calcMode = 3; }, {"Invalid value of calc mode.", kSingular + "*"}},
        // "Same Topology" with different vertex counts: the search stops and keeps the old pairing,
        // which does not fit the new target.
        {[](In& in) { in = DifferentTopology().input(true, 2, 1); },
         {"Check the calculation mode.", "KDeformationTransfer: the triangle correspondence has 80 entries for a "
                                         "target of 1280 triangles; the transfer system was not built."}},
        // Singular fits say so once, with their cause.
        {[](In& in) { in.sourceMesh.points.push_back(KVector(5, 5, 5)); in.calcMode = 2; },
         {"KDeformationTransfer: source vertex 42 lies in no triangle and no marker pins it, so the source fit is "
          "singular" + abandoned}},
        {[](In& in) { in.sourceMesh.points[in.sourceMesh.triangles[0][1]] = in.sourceMesh.points[in.sourceMesh.triangles[0][0]]; },
         {"KDeformationTransfer: source triangle 0 (vertices 0, 12, 14) has no area, so the source fit is singular" +
          abandoned}},
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
                                   node.solver.targetFixedVertex(), node.solver.ready(),
                                   node.solver.referenceSource().points, node.solver.fittedSource());
        };
        const auto before = state();
        In in = scene.input(true, 2, 1);
        c.change(in);
        const R r = node.eval(in);
        Texts errors = node.sink.errors();
        errors.push_back(r.outcome.message);
        ASSERT_EQ(errors.size(), c.errors.size()) << r.outcome.message;
        for (size_t e = 0; e < errors.size(); ++e) {
            const size_t n = c.errors[e].back() == '*' ? c.errors[e].size() - 1 : std::string::npos;
            EXPECT_EQ(errors[e].substr(0, n), c.errors[e].substr(0, n));
        }
        EXPECT_EQ(r.outcome.severity, KOutcome::kError);
        EXPECT_TRUE(r.outcome.failed() && !r.writeReCalculate);
        EXPECT_EQ(r.output, R::kNoOutput);
        EXPECT_TRUE(state() == before) << c.errors[0];
        // The kept system still answers as before.
        EXPECT_EQ(node.eval(pose).outcome.status, KOutcome::kDeformed);
        EXPECT_TRUE(state() == before) << c.errors[0];
    }
}

// ---------------------------------------------------------------------------------------------
// Meshes with borders

namespace {

int Nearest(const KTriMesh& mesh, const KVector& p) {
    int best = 0;
    for (int i = 1; i < mesh.numVertices(); ++i)
        if ((mesh.points[i] - p).length() < (mesh.points[best] - p).length()) best = i;
    return best;
}

// Builds with markers at the vertices nearest the landmarks (the first pair fixed) and transfers
// the posed source points; the target's output points, or nothing when an evaluation failed.
KVectorArray Transfer(const KTriMesh& source, const KTriMesh& target, const std::vector<KVector>& landmarks,
                      short mode, const KVectorArray& posed) {
    Scene scene(source, target);
    scene.markers.clear();
    for (const KVector& l : landmarks) scene.markers.insert(scene.markers.end(), {Nearest(source, l), Nearest(target, l)});
    scene.srcFix = scene.markers[0];
    scene.trgFix = scene.markers[1];
    Node node;
    In in = scene.input(true, 2, mode, 3);
    R r = node.eval(in);
    in.reCalculate = false;
    in.sourceMesh.points = posed;
    if (!r.outcome.failed()) r = node.eval(in);
    EXPECT_FALSE(r.outcome.failed()) << r.outcome.message;
    KVectorArray out;
    for (int i = 0; !r.outcome.failed() && i < target.numVertices(); ++i) out.push_back(node.out(i));
    return out;
}

// The largest and the mean distance of matched points (got, expected) once their centroids meet.
std::pair<float, float> Misfit(const std::vector<std::pair<KVector, KVector>>& matched) {
    KVector shift;
    for (const auto& m : matched) shift += (m.second - m.first) / float(matched.size());
    float worst = 0, mean = 0;
    for (const auto& m : matched) {
        const float d = (m.first + shift - m.second).length();
        worst = std::max(worst, d);
        mean += d / matched.size();
    }
    return {worst, mean};
}

}  // namespace

TEST(DeformationTransferBorders, OpenMeshesTransferLikeClosedOnesAwayFromTheBorder) {
    // Closed pair: a bumpy sphere onto a stretched one of the same topology, or a latitude-longitude
    // sphere onto it (different topology). Open variants cut a cap (z > 0.7) from either side or
    // both, or a slit along a meridian of the latitude-longitude sphere. A twist transferred across
    // must match the closed result on the target below z = 0.2 (centroids aligned).
    // The cut is decided on the plain sphere, so that same-topology meshes lose the same faces.
    auto cap = [](const KPolyMesh& m) { return KeepFaces(m, [](const KVector& c) { return c.z < 0.7f; }); };
    auto bumped = [](KPolyMesh m, int seed, float sx, float sy) {
        AddRadialBumps(m, 0.03f, seed);
        ScalePoints(m, sx, sy, 1.0f);
        return m;
    };
    // A twist about Z growing with height and a sideways bend: smooth, neither rigid nor linear.
    auto twist = [](const KVector& p) {
        const float a = 0.6f * (p.z + 1.0f), c = std::cos(a), s = std::sin(a);
        return KVector(c * p.x - s * p.y + 0.2f * p.z * p.z, s * p.x + c * p.y, 1.1f * p.z);
    };
    const KPolyMesh plain = MakeIcosphere(3), uv = MakeUVSphere(20, 40);
    const KPolyMesh openTarget = bumped(cap(plain), 3, 1.3f, 0.8f);
    // Rings 8 to 11 of the meridian at y = 0, x > 0: a slit of 3 edges.
    const KTriMesh slit = Triangulated(CutSlit(uv, {1 + 7 * 40, 1 + 8 * 40, 1 + 9 * 40, 1 + 10 * 40},
                                               [](const KVector& c) { return c.y > 0.0f; }));
    std::vector<KVector> below, onBorder;  // landmarks off the cap, and with two on its border
    for (const KVector& d : {KVector(0, 0, -1), KVector(1, 0, 0), KVector(-1, 0, 0), KVector(0, 1, 0),
                             KVector(0, -1, 0), KVector(0.7f, 0.7f, -0.3f), KVector(-0.6f, 0.5f, 0.4f)})
        below.push_back(d * (1.0f / d.length()));
    onBorder = below;
    onBorder.insert(onBorder.end(), {KVector(0.7f, 0, 0.71f), KVector(-0.35f, -0.6f, 0.71f)});

    const KTriMesh closedSame = Triangulated(bumped(plain, 1, 1, 1)), openSame = Triangulated(bumped(cap(plain), 1, 1, 1));
    const KTriMesh closedTarget = Triangulated(bumped(plain, 3, 1.3f, 0.8f)), closedUV = Triangulated(uv);
    const struct {
        const char* name;
        KTriMesh source, target;
        const KTriMesh *closedSource, *closedTarget;
        const std::vector<KVector>* landmarks;
        short mode;
        double tolerance;  // of the target's size
    } cases[] = {
        {"same topology, both open", openSame, Triangulated(openTarget), &closedSame, &closedTarget, &below, 1, 0.03},
        {"same topology, markers on the border", openSame, Triangulated(openTarget), &closedSame, &closedTarget,
         &onBorder, 1, 0.03},
        // Where the target is closed, its part over the source's opening finds no source triangle
        // and keeps its rest shape; the opening is kept small here (z > 0.9).
        {"open source", Triangulated(KeepFaces(uv, [](const KVector& c) { return c.z < 0.9f; })), closedTarget,
         &closedUV, &closedTarget, &below, 2, 0.03},
        {"open target", closedUV, Triangulated(openTarget), &closedUV, &closedTarget, &below, 2, 0.03},
        {"both open, markers on the border", Triangulated(cap(uv)), Triangulated(openTarget), &closedUV,
         &closedTarget, &onBorder, 2, 0.03},
        {"slit source", slit, closedTarget, &closedUV, &closedTarget, &below, 2, 0.01},
        {"slit target", closedSame, slit, &closedSame, &closedUV, &below, 2, 0.01},
    };
    for (const auto& c : cases) {
        const KVectorArray closed = Transfer(*c.closedSource, *c.closedTarget, *c.landmarks, c.mode,
                                             Map(*c.closedSource, twist).points);
        const KVectorArray open = Transfer(c.source, c.target, *c.landmarks, c.mode, Map(c.source, twist).points);
        ASSERT_FALSE(closed.empty() || open.empty()) << c.name;
        // Open target vertices are closed ones, renumbered or copied: match them by rest position.
        std::map<std::tuple<float, float, float>, int> closedIndex;
        for (int j = c.closedTarget->numVertices() - 1; j >= 0; --j) {
            const KVector& p = c.closedTarget->points[j];
            closedIndex[std::make_tuple(p.x, p.y, p.z)] = j;
        }
        std::vector<std::pair<KVector, KVector>> matched;
        for (int i = 0; i < c.target.numVertices(); ++i) {
            const KVector& p = c.target.points[i];
            const auto j = closedIndex.find(std::make_tuple(p.x, p.y, p.z));
            ASSERT_TRUE(j != closedIndex.end()) << c.name << " " << i;
            if (p.z < 0.2f) matched.push_back({open[i], closed[j->second]});
        }
        EXPECT_LT(Misfit(matched).first / 2.6f, c.tolerance) << c.name;  // of the target's largest extent
    }
}
