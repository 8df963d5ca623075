// Wrap engine: bind and reconstruction numerics, the plane-projection offset, the stored binding,
// messages and guards.

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cmath>
#include <limits>

#include "KWrapBinding.h"
#include "MeshGenerators.h"
#include "ObjIO.h"

using namespace Kavrin;

namespace {

// A driver of two triangles: the unit right triangle in the plane z = 0 (triangle 0) and a wall
// standing in the plane x = 3 (triangle 1), its normal along x.
KTriMesh FloorAndWall() {
    KTriMesh m;
    m.points = KVectorArray();
    for (const KVector& p : {KVector(0, 0, 0), KVector(1, 0, 0), KVector(0, 1, 0), KVector(3, 0, 0),
                             KVector(3, 1, 0), KVector(3, 0, 1)})
        m.points.push_back(p);
    m.triangles.push_back(KInt3{0, 1, 2});
    m.triangles.push_back(KInt3{3, 4, 5});
    return m;
}

KTriMesh Translated(const KTriMesh& mesh, const KVector& d) {
    KTriMesh m = mesh;
    for (KVector& p : m.points) p += d;
    return m;
}

KVectorArray Points(std::initializer_list<KVector> list) {
    KVectorArray a;
    for (const KVector& p : list) a.push_back(p);
    return a;
}

// A flat n x n sheet of the given size at height z, as triangles.
KTriMesh Sheet(int n, float size, float z) {
    KPolyMesh grid = MakeDetailedGrid(n, size);
    for (KVector& p : grid.points) p.z = z;
    KTriMesh m;
    grid.triangulate(m);
    return m;
}

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

void ExpectNear(const KVector& got, const KVector& expected, float tolerance, const char* what) {
    EXPECT_NEAR(got.x, expected.x, tolerance) << what;
    EXPECT_NEAR(got.y, expected.y, tolerance) << what;
    EXPECT_NEAR(got.z, expected.z, tolerance) << what;
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
    const KVectorArray points = Points({KVector(0.2f, 0.3f, 0.5f), KVector(1.0f, 1.0f, 0.25f),
                                        KVector(-1.0f, -1.0f, 1.0f), KVector(3.5f, -0.5f, 2.0f)});
    Node node;
    const KWrapBindingResult bind = node.run(driver, points);
    EXPECT_EQ(bind.outcome.status, KOutcome::kUntouched) << "the binding evaluation leaves the points";
    EXPECT_TRUE(bind.writeBindData);
    EXPECT_TRUE(bind.writeBinding);
    EXPECT_TRUE(node.store.binding);
    EXPECT_EQ(node.sink.outputs(), std::vector<std::string>{"0\n"});
    EXPECT_TRUE(node.sink.errors().empty());
    EXPECT_EQ(node.store.bindTriangles, (KIntArray{0, 0, 0, 1}));
    // Hand-worked: the offset is the point minus its projection onto the triangle's plane, not
    // minus its closest point (which for the last three lies on an edge or a corner).
    const KVector offsets[] = {KVector(0, 0, 0.5f), KVector(0, 0, 0.25f), KVector(0, 0, 1), KVector(0.5f, 0, 0)};
    for (int i = 0; i < 4; ++i) ExpectNear(node.store.bindOffsets[i], offsets[i], 1e-6f, "offset");

    // An unchanged driver gives the points back, wherever their closest point lay.
    const KWrapBindingResult again = node.run(driver, points);
    ASSERT_TRUE(again.outcome.deformed());
    EXPECT_FALSE(again.writeBindData);
    EXPECT_TRUE(again.writeBinding);
    for (int i = 0; i < 4; ++i) ExpectNear(node.engine.points()[i], points[i], 1e-6f, "unchanged driver");
    EXPECT_EQ(node.sink.outputs().size(), 1u) << "only a bind prints the trace";
}

TEST(Wrap, FollowsTheTrianglesPlane) {
    const KTriMesh driver = FloorAndWall();
    const KVectorArray points = Points({KVector(0.2f, 0.3f, 0.5f), KVector(-1.0f, -1.0f, 1.0f),
                                        KVector(3.5f, 0.2f, 0.3f), KVector(3.25f, 2.0f, -1.0f)});
    const struct {
        const char* what;
        KVector move;
    } cases[] = {
        {"along the floor's normal", KVector(0, 0, 0.75f)},
        {"along the wall's normal", KVector(-0.5f, 0, 0)},
        {"along both planes", KVector(0, 2.0f, 0)},
        {"across both", KVector(0.25f, 0, -0.5f)},
    };
    for (const auto& c : cases) {
        Node node;
        const KVectorArray got = node.follow(driver, Translated(driver, c.move), points);
        // A translation moves each point by the part of it along its triangle's normal.
        for (int i = 0; i < 4; ++i) {
            const KVector along = i < 2 ? KVector(0, 0, c.move.z) : KVector(c.move.x, 0, 0);
            ExpectNear(got[i], points[i] + along, 1e-6f, c.what);
        }
    }

    // Turning the floor's plane about the x axis by 90 degrees (z = 0 becomes y = 0) takes the
    // point's projection onto the new plane, and adds the offset as it was stored (hand-worked).
    KTriMesh turned = driver;
    for (int v = 0; v < 3; ++v) turned.points[v] = KVector(driver.points[v].x, 0, driver.points[v].y);
    Node node;
    const KVectorArray got = node.follow(driver, turned, points);
    ExpectNear(got[0], KVector(0.2f, 0, 1.0f), 1e-6f, "(0.2, 0.3, 0.5) -> (0.2, 0, 0.5) + (0, 0, 0.5)");
    ExpectNear(got[1], KVector(-1.0f, 0, 2.0f), 1e-6f, "(-1, -1, 1) -> (-1, 0, 1) + (0, 0, 1)");
}

TEST(Wrap, CollapsedTrianglePutsThePointAtItsBareOffset) {
    const KTriMesh driver = FloorAndWall();
    const KVectorArray points = Points({KVector(0.2f, 0.3f, 0.5f), KVector(-1.0f, -1.0f, 1.0f)});
    const struct {
        const char* what;
        KVector corners[3];
    } cases[] = {
        {"to a point", {KVector(1, 1, 1), KVector(1, 1, 1), KVector(1, 1, 1)}},
        {"to a line", {KVector(0, 0, 0), KVector(1, 0, 0), KVector(2, 0, 0)}},
        {"to a tiny triangle", {KVector(0, 0, 0), KVector(1e-9f, 0, 0), KVector(0, 1e-9f, 0)}},
    };
    for (const auto& c : cases) {
        KTriMesh collapsed = driver;
        for (int k = 0; k < 3; ++k) collapsed.points[k] = c.corners[k];
        Node node;
        const KVectorArray got = node.follow(driver, collapsed, points);
        EXPECT_EQ(got[0], node.store.bindOffsets[0]) << c.what;
        EXPECT_EQ(got[1], node.store.bindOffsets[1]) << c.what;
    }

    // Bound to a triangle that is already collapsed, the offset is the point itself.
    KTriMesh line = driver;
    line.points[2] = KVector(2, 0, 0);
    line.triangles.resize(1);
    Node node;
    EXPECT_EQ(node.follow(line, line, points)[0], points[0]);
    EXPECT_EQ(node.store.bindOffsets[0], points[0]);
}

TEST(Wrap, ReconstructionMatchesAnIndependentProjection) {
    // A sheet bound 0.01 above a coarser sheet, which is then bent and lifted.
    const KTriMesh mesh = Sheet(40, 2.0f, 0.0f), driver = Sheet(12, 2.2f, -0.01f);
    KPolyMesh poly = MakeDetailedGrid(12, 2.2f);
    for (KVector& p : poly.points) p.z = -0.01f;
    KPolyMesh bentPoly = BendAroundY(poly, 1.0f);
    for (KVector& p : bentPoly.points) p.z += 0.3f * p.y;
    KTriMesh bent;
    bentPoly.triangulate(bent);
    Node node;
    const KVectorArray got = node.follow(driver, bent, mesh.points);
    double worst = 0;
    for (int i = 0; i < mesh.numVertices(); ++i) {
        const KVector expected = ProjectDouble(bent, node.store.bindTriangles[i], mesh.points[i]) +
                                 node.store.bindOffsets[i];
        worst = std::max(worst, double((got[i] - expected).length()));
    }
    EXPECT_LT(worst, 2e-6);
}

TEST(Wrap, ParallelResultsEqualTheSerialOnes) {
    const KTriMesh mesh = Sheet(90, 2.0f, 0.0f), driver = Sheet(20, 2.2f, -0.01f);
    KTriMesh bent = driver;
    for (KVector& p : bent.points) p.z += 0.2f * std::sin(3.0f * p.x) + 0.1f * p.y * p.y;
    Node serial;
    serial.threads = 1;
    const KVectorArray expected = serial.follow(driver, bent, mesh.points);
    for (int threads : {2, 3, 4}) {
        Node parallel;
        parallel.threads = threads;
        EXPECT_EQ(parallel.follow(driver, bent, mesh.points), expected) << threads;
        EXPECT_EQ(parallel.store.bindTriangles, serial.store.bindTriangles) << threads;
        EXPECT_EQ(parallel.store.bindOffsets, serial.store.bindOffsets) << threads;
    }
}

TEST(Wrap, WorldSpaceAndTheInverseMatrix) {
    // The geometry's transform scales by 2 and moves by (1, 2, 3): its object points bind where
    // they lie in the world, and the write-back brings them back to object space.
    const KTriMesh driver = Translated(FloorAndWall(), KVector(1, 2, 3));
    const double object[2][4] = {{0.1, 0.15, 0.25, 1.0}, {-0.5, -0.5, 0.5, 1.0}};
    KWrapBindingInput in;
    in.driver = &driver;
    in.points = &object[0][0];
    in.pointCount = 2;
    const double m[4][4] = {{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 2, 0}, {1, 2, 3, 1}};
    const double inverse[4][4] = {{0.5, 0, 0, 0}, {0, 0.5, 0, 0}, {0, 0, 0.5, 0}, {-0.5, -1, -1.5, 1}};
    std::copy(&m[0][0], &m[0][0] + 16, &in.localToWorld[0][0]);
    KWrapBinding engine;
    KRecordingSink sink;
    ASSERT_EQ(engine.evaluate(in, sink).outcome.status, KOutcome::kUntouched);
    EXPECT_EQ(engine.boundTriangles(), (KIntArray{0, 0}));
    ExpectNear(engine.boundOffsets()[0], KVector(0, 0, 0.5f), 1e-6f, "world offset");
    in.binding = true;
    const KTriMesh lifted = Translated(driver, KVector(0, 0, 1));
    in.driver = &lifted;
    ASSERT_TRUE(engine.evaluate(in, sink).outcome.deformed());
    ExpectNear(engine.points()[1], KVector(0.0f, 1.0f, 5.0f), 1e-6f, "world result");
    for (int i = 0; i < 2; ++i) {
        double out[4];
        engine.objectPoint(i, 1.0, inverse, out);
        EXPECT_NEAR(out[0], object[i][0], 1e-6);
        EXPECT_NEAR(out[1], object[i][1], 1e-6);
        EXPECT_NEAR(out[2], object[i][2] + 0.5, 1e-6) << "one world unit is half an object unit";
        EXPECT_EQ(out[3], 1.0);
    }
}

TEST(Wrap, EnvelopeAndMissingDriver) {
    const KTriMesh driver = FloorAndWall(), lifted = Translated(driver, KVector(0, 0, 1));
    const KVectorArray points = Points({KVector(0.2f, 0.3f, 0.5f)});
    for (float envelope : {0.0f, -1.0f, 1e-31f}) {
        Node node;
        const KWrapBindingResult r = node.run(driver, points, envelope);
        EXPECT_EQ(r.outcome.status, KOutcome::kUntouched);
        EXPECT_FALSE(r.writeBindData || r.writeBinding);
        EXPECT_FALSE(node.engine.hasBinding()) << "nothing runs below the threshold, not even the bind";
    }
    for (float envelope : {1e-30f, 0.5f}) {
        Node node;
        node.run(driver, points);
        ASSERT_TRUE(node.run(lifted, points, envelope).outcome.deformed());
        ExpectNear(node.engine.points()[0], points[0] + KVector(0, 0, 1), 1e-6f, "no blending");
    }

    KWrapBinding engine;
    KRecordingSink sink;
    KWrapBindingInput in;
    const double p[4] = {0, 0, 1, 1};
    in.points = p;
    in.pointCount = 1;
    const KWrapBindingResult r = engine.evaluate(in, sink);
    EXPECT_EQ(r.outcome.status, KOutcome::kUntouched) << "no driver: nothing happens, silently";
    EXPECT_FALSE(r.writeBinding);
    EXPECT_TRUE(sink.entries.empty());
}

TEST(Wrap, StoredBindingSurvivesAReload) {
    const KTriMesh mesh = Sheet(30, 2.0f, 0.0f), driver = Sheet(8, 2.2f, -0.01f);
    KTriMesh bent = driver;
    for (KVector& p : bent.points) p.z += 0.3f * p.x * p.x;
    Node original;
    const KVectorArray expected = original.follow(driver, bent, mesh.points);

    // A reopened scene: the attributes come back (offsets through the host's double vectors), the
    // engine is new.
    Node reopened;
    reopened.store = original.store;
    for (KVector& o : reopened.store.bindOffsets) {
        const double d[3] = {o.x, o.y, o.z};
        o = KVector(float(d[0]), float(d[1]), float(d[2]));
    }
    KWrapBindingInput in;
    in.driver = &bent;
    in.binding = true;
    EXPECT_TRUE(reopened.engine.storedBindingNeeded(in));
    const KWrapBindingResult r = reopened.run(bent, mesh.points);
    ASSERT_TRUE(r.outcome.deformed()) << r.outcome.message;
    EXPECT_FALSE(r.writeBindData);
    EXPECT_EQ(reopened.engine.points(), expected);
    EXPECT_FALSE(reopened.engine.storedBindingNeeded(in)) << "loaded once, then held";
    EXPECT_TRUE(reopened.sink.outputs().empty()) << "loading is not a bind";

    // Setting binding to false binds again, to the driver as it is now.
    reopened.store.binding = false;
    EXPECT_EQ(reopened.run(bent, mesh.points).outcome.status, KOutcome::kUntouched);
    EXPECT_EQ(reopened.sink.outputs().size(), 1u);
    ASSERT_TRUE(reopened.run(bent, mesh.points).outcome.deformed());
    double worst = 0;
    for (int i = 0; i < mesh.numVertices(); ++i)
        worst = std::max(worst, double((reopened.engine.points()[i] - mesh.points[i]).length()));
    EXPECT_LT(worst, 1e-6);
}

TEST(Wrap, StoredBindingThatDoesNotFitLeavesThePoints) {
    const KTriMesh driver = FloorAndWall();
    const KVectorArray points = Points({KVector(0.2f, 0.3f, 0.5f), KVector(3.5f, 0.2f, 0.3f)});
    Node good;
    good.run(driver, points);
    const KWrapBindingAttributes stored = good.store;
    const std::string fix = "; set binding to false to bind again. The points were left untouched.";

    const struct {
        const char* what;
        void (*edit)(KWrapBindingAttributes&);
        std::string message;
    } cases[] = {
        {"no triangles", [](KWrapBindingAttributes& a) { a.hasBindTriangles = false; },
         "KWrapMeshDeformer: binding is on but no binding is stored with the node; set binding to false to bind "
         "again. The points were left untouched."},
        {"no offsets", [](KWrapBindingAttributes& a) { a.hasBindOffsets = false; },
         "KWrapMeshDeformer: binding is on but no binding is stored with the node; set binding to false to bind "
         "again. The points were left untouched."},
        {"short triangles", [](KWrapBindingAttributes& a) { a.bindTriangles.resize(1); },
         "KWrapMeshDeformer: the binding holds 1 triangles and 2 offsets, but the deformed geometry has 2 points" +
             fix},
        {"long offsets", [](KWrapBindingAttributes& a) { a.bindOffsets.push_back(KVector()); },
         "KWrapMeshDeformer: the binding holds 2 triangles and 3 offsets, but the deformed geometry has 2 points" +
             fix},
        {"triangle past the driver", [](KWrapBindingAttributes& a) { a.bindTriangles[1] = 2; },
         "KWrapMeshDeformer: the binding names driver triangle 2, but the driver mesh has 2 triangles" + fix},
        {"negative triangle", [](KWrapBindingAttributes& a) { a.bindTriangles[0] = -1; },
         "KWrapMeshDeformer: the binding names driver triangle -1, but the driver mesh has 2 triangles" + fix},
    };
    for (const auto& c : cases) {
        Node reopened;
        reopened.store = stored;
        c.edit(reopened.store);
        const KWrapBindingAttributes before = reopened.store;
        const KWrapBindingResult r = reopened.run(driver, points);
        EXPECT_EQ(r.outcome.status, KOutcome::kFailed) << c.what;
        EXPECT_EQ(r.outcome.message, c.message) << c.what;
        EXPECT_FALSE(r.writeBindData || r.writeBinding) << c.what;
        EXPECT_FALSE(reopened.engine.hasBinding()) << c.what << ": nothing is taken over";
        EXPECT_EQ(reopened.store.bindTriangles, before.bindTriangles) << c.what;
        EXPECT_TRUE(reopened.sink.entries.empty()) << c.what << ": the failure travels in the outcome only";
    }
}

TEST(Wrap, BindingThatNoLongerFitsLeavesThePoints) {
    const KTriMesh driver = FloorAndWall();
    const KVectorArray points = Points({KVector(0.2f, 0.3f, 0.5f), KVector(3.5f, 0.2f, 0.3f)});
    Node node;
    node.run(driver, points);
    const KIntArray bound = node.engine.boundTriangles();

    KVectorArray more = points;
    more.push_back(KVector(0, 0, 1));
    KWrapBindingResult r = node.run(driver, more);
    EXPECT_EQ(r.outcome.message,
              "KWrapMeshDeformer: the binding holds 2 triangles and 2 offsets, but the deformed geometry has 3 "
              "points; set binding to false to bind again. The points were left untouched.");
    EXPECT_FALSE(r.writeBinding);

    KTriMesh floorOnly = driver;
    floorOnly.triangles.resize(1);
    r = node.run(floorOnly, points);
    EXPECT_EQ(r.outcome.message,
              "KWrapMeshDeformer: the binding names driver triangle 1, but the driver mesh has 1 triangles; set "
              "binding to false to bind again. The points were left untouched.");

    KTriMesh broken = driver;
    broken.triangles[0][2] = 6;
    r = node.run(broken, points);
    EXPECT_EQ(r.outcome.message,
              "KWrapMeshDeformer: the driver mesh's triangles name vertices it does not have; the points were left "
              "untouched.");
    EXPECT_EQ(node.engine.boundTriangles(), bound) << "the binding is kept through every failure";
    EXPECT_TRUE(node.run(driver, points).outcome.deformed());
}

TEST(Wrap, BadInputFailsTheBindAndKeepsTheBindingHeld) {
    const KTriMesh driver = FloorAndWall();
    const KVectorArray points = Points({KVector(0.2f, 0.3f, 0.5f), KVector(3.5f, 0.2f, 0.3f)});
    const float nan = std::numeric_limits<float>::quiet_NaN(), inf = std::numeric_limits<float>::infinity();
    KTriMesh noTriangles = driver;
    noTriangles.triangles.clear();
    KTriMesh nanDriver = driver;
    for (KVector& p : nanDriver.points) p.x = nan;
    KTriMesh badIndex = driver;
    badIndex.triangles[1][0] = -1;
    const std::string unbound =
        " of the deformed geometry is not a finite position or lies farther than 1e30 from the driver; nothing "
        "was bound.";

    const struct {
        const char* what;
        KTriMesh driver;
        KVectorArray points;
        std::string message;
    } cases[] = {
        {"driver without triangles", noTriangles, points,
         "KWrapMeshDeformer: the driver mesh has no triangles with finite corners to bind to; nothing was bound."},
        {"driver of NaN points", nanDriver, points,
         "KWrapMeshDeformer: the driver mesh has no triangles with finite corners to bind to; nothing was bound."},
        {"driver naming a missing vertex", badIndex, points,
         "KWrapMeshDeformer: the driver mesh's triangles name vertices it does not have; the points were left "
         "untouched."},
        {"NaN point", driver, Points({points[0], KVector(0, nan, 0)}), "KWrapMeshDeformer: point 1" + unbound},
        {"infinite point", driver, Points({KVector(inf, 0, 0), points[1]}), "KWrapMeshDeformer: point 0" + unbound},
        {"point beyond the search radius", driver, Points({points[0], KVector(0, 0, 3e30f)}),
         "KWrapMeshDeformer: point 1" + unbound},
    };
    for (const auto& c : cases) {
        Node fresh;
        KWrapBindingResult r = fresh.run(c.driver, c.points);
        EXPECT_EQ(r.outcome.status, KOutcome::kFailed) << c.what;
        EXPECT_EQ(r.outcome.message, c.message) << c.what;
        EXPECT_FALSE(r.writeBindData || r.writeBinding) << c.what;
        EXPECT_FALSE(fresh.store.binding || fresh.store.hasBindTriangles) << c.what;
        EXPECT_TRUE(fresh.sink.entries.empty()) << c.what << ": no trace without a bind";

        // A rebind that fails keeps the binding held and stored before it.
        Node bound;
        bound.run(driver, points);
        const KWrapBindingAttributes before = bound.store;
        bound.store.binding = false;
        r = bound.run(c.driver, c.points);
        EXPECT_EQ(r.outcome.message, c.message) << c.what;
        EXPECT_EQ(bound.engine.boundTriangles(), before.bindTriangles) << c.what;
        EXPECT_EQ(bound.engine.boundOffsets(), before.bindOffsets) << c.what;
        EXPECT_EQ(bound.store.bindOffsets, before.bindOffsets) << c.what;
    }

    // An empty geometry binds to nothing and reconstructs nothing.
    Node empty;
    EXPECT_EQ(empty.run(driver, KVectorArray()).outcome.status, KOutcome::kUntouched);
    EXPECT_TRUE(empty.run(driver, KVectorArray()).outcome.deformed());
}

TEST(Wrap, RealMeshesComeBackAndFollowATranslation) {
    // The lion bound to the cat: points everywhere around a real mesh, most of them off edges and
    // corners of their triangles.
    const std::string dir = std::string(KAVRIN_DATA_DIR) + "/cat-lion/";
    struct stat st;
    if (stat((dir + "cat-reference.obj").c_str(), &st) != 0) GTEST_SKIP() << "no data in " << dir;
    KTriMesh cat;
    ReadObj(dir + "cat-reference.obj").triangulate(cat);
    const KVectorArray lion = ReadObj(dir + "lion-reference.obj").points;
    const KVector move(0.3f, -0.2f, 0.5f);
    const KTriMesh catMoved = Translated(cat, move);
    Node node;
    ASSERT_EQ(node.run(cat, lion).outcome.status, KOutcome::kUntouched);
    ASSERT_TRUE(node.run(cat, lion).outcome.deformed());
    const KVectorArray same = node.engine.points();
    ASSERT_TRUE(node.run(catMoved, lion).outcome.deformed());
    double back = 0, moved = 0, size = 0;
    for (int i = 0; i < lion.length(); ++i) {
        back = std::max(back, double((same[i] - lion[i]).length()));
        // The plane of the point's triangle moves by the part of the translation along its normal.
        const KVector onPlane = ProjectDouble(cat, node.store.bindTriangles[i], lion[i]);
        const KVector along = ProjectDouble(catMoved, node.store.bindTriangles[i], onPlane) - onPlane;
        moved = std::max(moved, double((node.engine.points()[i] - (lion[i] + along)).length()));
        size = std::max(size, double(lion[i].length()));
    }
    EXPECT_LT(back, 1e-6 * size);
    // Single-precision weights of points lying far outside small triangles magnify rounding.
    EXPECT_LT(moved, 2e-4 * size);
}
