// Wrap engine: bind and reconstruction numerics, the plane-projection offset, the stored binding,
// messages and guards.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>

#include "KWrapBinding.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

KVectorArray Points(std::initializer_list<KVector> list) {
    KVectorArray a;
    for (const KVector& p : list) a.push_back(p);
    return a;
}

// A driver of two triangles: the unit right triangle in the plane z = 0 (triangle 0) and a wall
// standing in the plane x = 3 (triangle 1), its normal along x.
KTriMesh FloorAndWall() {
    KTriMesh m;
    m.points = Points({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {3, 0, 0}, {3, 1, 0}, {3, 0, 1}});
    m.triangles.push_back(KInt3{0, 1, 2});
    m.triangles.push_back(KInt3{3, 4, 5});
    return m;
}

KTriMesh Translated(const KTriMesh& mesh, const KVector& d) {
    KTriMesh m = mesh;
    for (KVector& p : m.points) p += d;
    return m;
}

// One point above the floor and one beside the wall.
const KVectorArray kTwoPoints = Points({{0.2f, 0.3f, 0.5f}, {3.5f, 0.2f, 0.3f}});

// One node: its stored attributes, its engine and what it said.
struct Node {
    KWrapBindingAttributes store;
    KWrapBinding engine;
    KRecordingSink sink;
    int threads = 0;
    KWrapBindingResult run(const KTriMesh& driver, const KVectorArray& points, float envelope = 1.0f) {
        return store.evaluate(engine, driver, points, envelope, threads, sink);
    }
    // Binds, then evaluates with the given driver; the points it gives.
    KVectorArray follow(const KTriMesh& rest, const KTriMesh& pose, const KVectorArray& points) {
        EXPECT_EQ(run(rest, points).outcome.status, KOutcome::kUntouched);
        const KWrapBindingResult r = run(pose, points);
        EXPECT_TRUE(r.outcome.deformed()) << r.outcome.message;
        return engine.points();
    }
};

void ExpectNear(const KVector& got, const KVector& expected, const char* what) {
    EXPECT_LT((got - expected).length(), 1e-6f) << what << ": " << got.x << ", " << got.y << ", " << got.z;
}

// Plane projection in double precision through the unit normal, independent of the engine's
// barycentric form.
KVector ProjectDouble(const KTriMesh& m, int t, const KVector& x) {
    const KVector& a = m.points[m.triangles[t][0]];
    const KVector& b = m.points[m.triangles[t][1]];
    const KVector& c = m.points[m.triangles[t][2]];
    const double e1[3] = {double(b.x) - a.x, double(b.y) - a.y, double(b.z) - a.z};
    const double e2[3] = {double(c.x) - a.x, double(c.y) - a.y, double(c.z) - a.z};
    double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2], e1[0] * e2[1] - e1[1] * e2[0]};
    const double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    for (double& v : n) v /= len;
    const double h = (x.x - a.x) * n[0] + (x.y - a.y) * n[1] + (x.z - a.z) * n[2];
    return KVector(float(x.x - h * n[0]), float(x.y - h * n[1]), float(x.z - h * n[2]));
}

}  // namespace

TEST(Wrap, BindsToTheClosestTriangleWithTheOffsetFromThePlaneProjection) {
    const KTriMesh driver = FloorAndWall();
    // Above the floor's inside, off the floor's long edge, off its corner at the origin, and
    // beside the wall past its corner (3, 0, 1).
    const KVectorArray points = Points({{0.2f, 0.3f, 0.5f}, {1.0f, 1.0f, 0.25f}, {-1.0f, -1.0f, 1.0f}, {3.5f, -0.5f, 2.0f}});
    Node node;
    const KWrapBindingResult bind = node.run(driver, points);
    EXPECT_EQ(bind.outcome.status, KOutcome::kUntouched) << "the binding evaluation leaves the points";
    EXPECT_TRUE(bind.writeBindData && bind.writeBinding && node.store.binding);
    EXPECT_EQ(node.sink.outputs(), std::vector<std::string>{"0\n"});
    EXPECT_EQ(node.store.bindTriangles, (KIntArray{0, 0, 0, 1}));
    // Hand-worked: the offset is the point minus its projection onto the triangle's plane, not
    // minus its closest point (which for the last three lies on an edge or a corner).
    const KVector offsets[] = {KVector(0, 0, 0.5f), KVector(0, 0, 0.25f), KVector(0, 0, 1), KVector(0.5f, 0, 0)};
    for (int i = 0; i < 4; ++i) ExpectNear(node.store.bindOffsets[i], offsets[i], "offset");

    // An unchanged driver gives the points back, wherever their closest point lay.
    const KWrapBindingResult again = node.run(driver, points);
    ASSERT_TRUE(again.outcome.deformed());
    EXPECT_TRUE(!again.writeBindData && again.writeBinding);
    for (int i = 0; i < 4; ++i) ExpectNear(node.engine.points()[i], points[i], "unchanged driver");
    EXPECT_EQ(node.sink.entries.size(), 1u) << "only a bind prints the trace";
}

TEST(Wrap, FollowsTheTrianglesPlaneAndCollapsedTrianglesLeaveTheBareOffset) {
    const KTriMesh driver = FloorAndWall();
    const KVectorArray points = Points({{0.2f, 0.3f, 0.5f}, {-1.0f, -1.0f, 1.0f}, {3.5f, 0.2f, 0.3f}, {3.25f, 2.0f, -1.0f}});
    // A translation moves each point by the part of it along its triangle's normal: along the
    // floor's, along the wall's, along both planes, across both.
    for (const KVector& move : {KVector(0, 0, 0.75f), KVector(-0.5f, 0, 0), KVector(0, 2.0f, 0), KVector(0.25f, 0, -0.5f)}) {
        Node node;
        const KVectorArray got = node.follow(driver, Translated(driver, move), points);
        for (int i = 0; i < 4; ++i)
            ExpectNear(got[i], points[i] + (i < 2 ? KVector(0, 0, move.z) : KVector(move.x, 0, 0)), "moved");
    }

    // Turning the floor's plane about the x axis by 90 degrees (z = 0 becomes y = 0) takes the
    // point's projection onto the new plane, and adds the offset as it was stored (hand-worked).
    KTriMesh turned = driver;
    for (int v = 0; v < 3; ++v) turned.points[v] = KVector(driver.points[v].x, 0, driver.points[v].y);
    Node node;
    const KVectorArray got = node.follow(driver, turned, points);
    ExpectNear(got[0], KVector(0.2f, 0, 1.0f), "(0.2, 0.3, 0.5) -> (0.2, 0, 0.5) + (0, 0, 0.5)");
    ExpectNear(got[1], KVector(-1.0f, 0, 2.0f), "(-1, -1, 1) -> (-1, 0, 1) + (0, 0, 1)");

    // A floor collapsed to a point, a line or a tiny triangle puts its points at their bare offsets.
    for (const auto& corners : {std::array<KVector, 3>{KVector(1, 1, 1), KVector(1, 1, 1), KVector(1, 1, 1)},
                                std::array<KVector, 3>{KVector(0, 0, 0), KVector(1, 0, 0), KVector(2, 0, 0)},
                                std::array<KVector, 3>{KVector(0, 0, 0), KVector(1e-9f, 0, 0), KVector(0, 1e-9f, 0)}}) {
        KTriMesh collapsed = driver;
        std::copy(corners.begin(), corners.end(), collapsed.points.begin());
        Node n;
        const KVectorArray bare = n.follow(driver, collapsed, points);
        EXPECT_TRUE(bare[0] == n.store.bindOffsets[0] && bare[1] == n.store.bindOffsets[1]);
    }
    // Bound to a triangle that is already collapsed, the offset is the point itself.
    KTriMesh line = driver;
    line.points[2] = KVector(2, 0, 0);
    line.triangles.resize(1);
    Node bound;
    EXPECT_EQ(bound.follow(line, line, points)[0], points[0]);
    EXPECT_EQ(bound.store.bindOffsets[0], points[0]);
}

// A sheet bound 0.01 above a coarser sheet, which is then bent and lifted: every point is its
// projection onto its triangle's new plane (computed independently) plus its offset, and any team
// size gives the serial result bit for bit.
TEST(Wrap, ReconstructionMatchesAnIndependentProjectionOnAnyTeam) {
    KPolyMesh sheet = MakeDetailedGrid(90, 2.0f), coarse = MakeDetailedGrid(20, 2.2f);
    for (KVector& p : sheet.points) p.z = 0.0f;
    for (KVector& p : coarse.points) p.z = -0.01f;
    KPolyMesh bentCoarse = BendAroundY(coarse, 1.0f);
    for (KVector& p : bentCoarse.points) p.z += 0.3f * p.y;
    const KTriMesh driver = Triangulated(coarse), bent = Triangulated(bentCoarse);
    Node serial;
    serial.threads = 1;
    const KVectorArray expected = serial.follow(driver, bent, sheet.points);
    double worst = 0;
    for (int i = 0; i < sheet.numVertices(); ++i) {
        const KVector projected = ProjectDouble(bent, serial.store.bindTriangles[i], sheet.points[i]);
        worst = std::max(worst, double((expected[i] - (projected + serial.store.bindOffsets[i])).length()));
    }
    EXPECT_LT(worst, 2e-6);
    for (int threads : {2, 3, 4}) {
        Node parallel;
        parallel.threads = threads;
        EXPECT_EQ(parallel.follow(driver, bent, sheet.points), expected) << threads;
        EXPECT_EQ(parallel.store.bindTriangles, serial.store.bindTriangles) << threads;
        EXPECT_EQ(parallel.store.bindOffsets, serial.store.bindOffsets) << threads;
    }
}

TEST(Wrap, WorldSpaceAndTheInverseMatrix) {
    // The geometry's transform scales by 2 and moves by (1, 2, 3): its object points bind where
    // they lie in the world, and the write-back brings them back to object space.
    const KTriMesh driver = Translated(FloorAndWall(), KVector(1, 2, 3)), lifted = Translated(driver, KVector(0, 0, 1));
    const double object[2][4] = {{0.1, 0.15, 0.25, 1.0}, {-0.5, -0.5, 0.5, 1.0}};
    const double m[4][4] = {{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 2, 0}, {1, 2, 3, 1}};
    const double inverse[4][4] = {{0.5, 0, 0, 0}, {0, 0.5, 0, 0}, {0, 0, 0.5, 0}, {-0.5, -1, -1.5, 1}};
    KWrapBindingInput in;
    in.driver = &driver;
    in.points = &object[0][0];
    in.pointCount = 2;
    std::copy(&m[0][0], &m[0][0] + 16, &in.localToWorld[0][0]);
    KWrapBinding engine;
    KRecordingSink sink;
    ASSERT_EQ(engine.evaluate(in, sink).outcome.status, KOutcome::kUntouched);
    EXPECT_EQ(engine.boundTriangles(), (KIntArray{0, 0}));
    ExpectNear(engine.boundOffsets()[0], KVector(0, 0, 0.5f), "world offset");
    in.binding = true;
    in.driver = &lifted;
    ASSERT_TRUE(engine.evaluate(in, sink).outcome.deformed());
    ExpectNear(engine.points()[1], KVector(0.0f, 1.0f, 5.0f), "world result");
    for (int i = 0; i < 2; ++i) {
        double out[4];
        engine.objectPoint(i, 1.0, inverse, out);  // one world unit up is half an object unit
        for (int a = 0; a < 4; ++a) EXPECT_NEAR(out[a], object[i][a] + (a == 2 ? 0.5 : 0.0), 1e-6) << i << ", " << a;
    }
}

// Below 1e-30 the envelope switches the deformer off (nothing runs, not even the bind); above it
// there is no blending. A missing driver leaves the points, silently.
TEST(Wrap, EnvelopeAndMissingDriver) {
    const KTriMesh driver = FloorAndWall(), lifted = Translated(driver, KVector(0, 0, 1));
    for (float envelope : {0.0f, -1.0f, 1e-31f, 1e-30f, 0.5f}) {
        Node node;
        const bool on = envelope >= 1e-30f;
        const KWrapBindingResult r = node.run(driver, kTwoPoints, envelope);
        EXPECT_EQ(r.writeBindData && r.writeBinding && node.engine.hasBinding(), on) << envelope;
        ASSERT_EQ(node.run(lifted, kTwoPoints, envelope).outcome.deformed(), on) << envelope;
        if (on) ExpectNear(node.engine.points()[0], kTwoPoints[0] + KVector(0, 0, 1), "no blending");
    }
    KWrapBindingInput in;
    const double p[4] = {0, 0, 1, 1};
    in.points = p;
    in.pointCount = 1;
    Node node;
    const KWrapBindingResult r = node.engine.evaluate(in, node.sink);
    EXPECT_TRUE(r.outcome.status == KOutcome::kUntouched && !r.writeBinding && node.sink.entries.empty()) << "no driver";
}

// The binding comes back with a reopened scene (the attributes are read once, into a new engine);
// setting binding to false binds again, to the driver as it is then.
TEST(Wrap, StoredBindingSurvivesAReload) {
    const KTriMesh driver = FloorAndWall(), lifted = Translated(driver, KVector(0.5f, 0, 0.25f));
    Node original;
    const KVectorArray expected = original.follow(driver, lifted, kTwoPoints);
    Node reopened;
    reopened.store = original.store;
    KWrapBindingInput in;
    in.driver = &lifted;
    in.binding = true;
    EXPECT_TRUE(reopened.engine.storedBindingNeeded(in));
    const KWrapBindingResult r = reopened.run(lifted, kTwoPoints);
    ASSERT_TRUE(r.outcome.deformed()) << r.outcome.message;
    EXPECT_TRUE(!r.writeBindData && reopened.engine.points() == expected);
    EXPECT_FALSE(reopened.engine.storedBindingNeeded(in)) << "loaded once, then held";
    EXPECT_TRUE(reopened.sink.outputs().empty()) << "loading is not a bind";

    reopened.store.binding = false;
    EXPECT_EQ(reopened.run(lifted, kTwoPoints).outcome.status, KOutcome::kUntouched);
    EXPECT_EQ(reopened.sink.outputs().size(), 1u);
    ASSERT_TRUE(reopened.run(lifted, kTwoPoints).outcome.deformed());
    for (int i = 0; i < 2; ++i) ExpectNear(reopened.engine.points()[i], kTwoPoints[i], "bound again where it is");
}

// A binding that does not fit the geometry or the driver, stored (a reopened scene) or held,
// fails with its message, takes nothing over and keeps what was there.
TEST(Wrap, BindingThatDoesNotFitLeavesThePoints) {
    const KTriMesh driver = FloorAndWall();
    Node good;
    good.run(driver, kTwoPoints);
    const std::string fix = "; set binding to false to bind again. The points were left untouched.";
    const std::string none = "KWrapMeshDeformer: binding is on but no binding is stored with the node" + fix;
    const std::string sizes = "KWrapMeshDeformer: the binding holds ";
    const std::string names = "KWrapMeshDeformer: the binding names driver triangle ";
    const struct {
        void (*edit)(KWrapBindingAttributes&);
        std::string message;
    } stored[] = {
        {[](KWrapBindingAttributes& a) { a.hasBindTriangles = false; }, none},
        {[](KWrapBindingAttributes& a) { a.hasBindOffsets = false; }, none},
        {[](KWrapBindingAttributes& a) { a.bindTriangles.resize(1); },
         sizes + "1 triangles and 2 offsets, but the deformed geometry has 2 points" + fix},
        {[](KWrapBindingAttributes& a) { a.bindOffsets.push_back(KVector()); },
         sizes + "2 triangles and 3 offsets, but the deformed geometry has 2 points" + fix},
        {[](KWrapBindingAttributes& a) { a.bindTriangles[1] = 2; }, names + "2, but the driver mesh has 2 triangles" + fix},
        {[](KWrapBindingAttributes& a) { a.bindTriangles[0] = -1; }, names + "-1, but the driver mesh has 2 triangles" + fix},
    };
    for (const auto& c : stored) {
        Node reopened;
        reopened.store = good.store;
        c.edit(reopened.store);
        const KIntArray before = reopened.store.bindTriangles;
        const KWrapBindingResult r = reopened.run(driver, kTwoPoints);
        EXPECT_EQ(r.outcome.message, c.message);
        EXPECT_TRUE(r.outcome.failed() && !r.writeBindData && !r.writeBinding) << c.message;
        // Nothing is taken over, nothing changed, and the failure travels in the outcome only.
        EXPECT_FALSE(reopened.engine.hasBinding() || reopened.store.bindTriangles != before || !reopened.sink.entries.empty())
            << c.message;
    }

    // The binding held is checked against every evaluation's points and driver.
    KTriMesh floorOnly = driver, broken = driver;
    floorOnly.triangles.resize(1);
    broken.triangles[0][2] = 6;
    const struct {
        KTriMesh driver;
        KVectorArray points;
        std::string message;
    } held[] = {
        {driver, Points({kTwoPoints[0], kTwoPoints[1], KVector(0, 0, 1)}),
         sizes + "2 triangles and 2 offsets, but the deformed geometry has 3 points" + fix},
        {floorOnly, kTwoPoints, names + "1, but the driver mesh has 1 triangles" + fix},
        {broken, kTwoPoints,
         "KWrapMeshDeformer: the driver mesh's triangles name vertices it does not have; the points were left untouched."},
    };
    for (const auto& c : held) {
        const KWrapBindingResult r = good.run(c.driver, c.points);
        EXPECT_EQ(r.outcome.message, c.message);
        EXPECT_FALSE(r.writeBinding) << c.message;
    }
    EXPECT_EQ(good.engine.boundTriangles(), (KIntArray{0, 1})) << "the binding is kept through every failure";
    EXPECT_TRUE(good.run(driver, kTwoPoints).outcome.deformed());
}

TEST(Wrap, BadInputFailsTheBindAndKeepsTheBindingHeld) {
    const KTriMesh driver = FloorAndWall();
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    KTriMesh noTriangles = driver, nanDriver = driver, badIndex = driver;
    noTriangles.triangles.clear();
    for (KVector& p : nanDriver.points) p.x = nan;
    badIndex.triangles[1][0] = -1;
    const std::string noFaces =
        "KWrapMeshDeformer: the driver mesh has no triangles with finite corners to bind to; nothing was bound.";
    const std::string unbound =
        " of the deformed geometry is not a finite position or lies farther than 1e30 from the driver; nothing "
        "was bound.";
    const struct {
        KTriMesh driver;
        KVectorArray points;
        std::string message;
    } cases[] = {
        {noTriangles, kTwoPoints, noFaces},
        {nanDriver, kTwoPoints, noFaces},
        {badIndex, kTwoPoints,
         "KWrapMeshDeformer: the driver mesh's triangles name vertices it does not have; the points were left "
         "untouched."},
        {driver, Points({kTwoPoints[0], KVector(0, nan, 0)}), "KWrapMeshDeformer: point 1" + unbound},
        {driver, Points({KVector(inf, 0, 0), kTwoPoints[1]}), "KWrapMeshDeformer: point 0" + unbound},
        {driver, Points({kTwoPoints[0], KVector(0, 0, 3e30f)}), "KWrapMeshDeformer: point 1" + unbound},
    };
    for (const auto& c : cases) {
        Node fresh;
        KWrapBindingResult r = fresh.run(c.driver, c.points);
        EXPECT_EQ(r.outcome.message, c.message);
        EXPECT_TRUE(r.outcome.failed() && !r.writeBindData && !r.writeBinding) << c.message;
        EXPECT_FALSE(fresh.store.binding || fresh.store.hasBindTriangles || !fresh.sink.entries.empty()) << c.message;

        // A rebind that fails keeps the binding held and stored before it.
        Node bound;
        bound.run(driver, kTwoPoints);
        const KWrapBindingAttributes before = bound.store;
        bound.store.binding = false;
        r = bound.run(c.driver, c.points);
        EXPECT_EQ(r.outcome.message, c.message);
        EXPECT_TRUE(bound.engine.boundTriangles() == before.bindTriangles && bound.engine.boundOffsets() == before.bindOffsets &&
                    bound.store.bindOffsets == before.bindOffsets)
            << c.message << ": the binding held and stored is kept";
    }

    // An empty geometry binds to nothing and reconstructs nothing.
    Node empty;
    EXPECT_EQ(empty.run(driver, KVectorArray()).outcome.status, KOutcome::kUntouched);
    EXPECT_TRUE(empty.run(driver, KVectorArray()).outcome.deformed());
}
