// Relaxation binding: polar order, weights, heights, ratios, the neighbour limit, the loader's
// messages and the host order of the command line.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>
#include <set>

#include "KRingNormal.h"
#include "RelaxationTestSupport.h"

using namespace Kavrin;
using namespace Kavrin::relaxtest;

namespace {

// Changes list v of a stored binding's lists.
template <typename T, typename F>
void Edit(KRelaxationLists<T>& lists, int v, F edit) {
    std::vector<std::vector<T> > nested;
    for (int u = 0; u < lists.size(); ++u) nested.push_back(lists.list(u));
    edit(nested[static_cast<size_t>(v)]);
    lists.assign(nested);
}

KRelaxationBindingData Bind(const KPolyMesh& mesh, KOutcome* outcome = nullptr) {
    KVertexNeighbours rings;
    VertexRings(mesh, rings);
    const KArray<KDouble3> points = Widen(mesh.points);
    KRelaxationBindingData data;
    const KOutcome r = BindRelaxation(points.data(), points.length(), rings, data);
    if (outcome) *outcome = r;
    return data;
}

}  // namespace

TEST(RelaxationBinding, QuadrantRuleUsesSinglePrecisionConstants) {
    const double eps = 1e-31, twoPi = 6.2831854820251465, pi = 3.1415927410125732;
    const struct {
        double u, w, theta;
    } cases[] = {
        {1, 1, std::atan(1.0)},
        {1, 0, 0.0},
        {1, -eps, -eps},                       // just below the X axis: a hair below 0, sorts first
        {1, -1, std::atan(-1.0) + twoPi},      // fourth quadrant: widened float 2pi
        {-1, 0, pi},
        {-1, -1, std::atan(1.0) + pi},
        {0, 2, 1.5707963705062866},
        {eps, -2, std::atan(-2 / eps) + twoPi},  // u > 0 with w < -eps comes before |u| <= 1e-30
        {0, -2, 4.71238899230957},
        {0, 0, 0.0},
        {std::nan(""), 1, 0.0},
    };
    for (const auto& c : cases) EXPECT_EQ(PolarAngle(c.u, c.w), c.theta) << c.u << ", " << c.w;
}

TEST(RelaxationBinding, GridVertexAndPyramidApexAreHandWorked) {
    const KPolyMesh grid = FlatGrid(5, 0.5f);
    KVertexNeighbours rings;
    VertexRings(grid, rings);
    const KArray<KDouble3> points = Widen(grid.points);
    const int centre = 12;
    std::vector<KPolarCoords> polar;
    double N[3], c[3];
    PolarCoordinates(points.data(), centre, rings.begin(centre), rings.count(centre), polar, N, c);
    ASSERT_EQ(polar.size(), 4u);
    const double angles[] = {0.0, 1.5707963705062866, 3.1415927410125732, 4.71238899230957};
    for (int k = 0; k < 4; ++k) {
        EXPECT_EQ(polar[k].theta, angles[k]) << k;
        EXPECT_DOUBLE_EQ(polar[k].radius, 0.5);
    }
    EXPECT_EQ(N[2], 1.0) << "faces wound counter-clockwise from +z: the ring normal points up";

    const KRelaxationBindingData data = Bind(grid);
    ASSERT_EQ(data.connVrtId.size(), 25);
    for (double w : data.meanValueWeight.list(centre)) EXPECT_NEAR(w, 0.25, 1e-7) << "up to the float angle constants";
    EXPECT_EQ(data.b[centre], 0.0);
    for (double r : data.bScalable.list(centre)) EXPECT_EQ(r, 0.0);
    // The sorted list turns counter-clockwise (+x, +y, -x, -y) from the first host neighbour.
    std::vector<int> ccw{13, 17, 11, 7};
    std::rotate(ccw.begin(), std::find(ccw.begin(), ccw.end(), rings.begin(centre)[0]), ccw.end());
    EXPECT_EQ(data.connVrtId.list(centre), ccw);

    // A pyramid away from the origin: apex 0.5 above four rim vertices at distance 1, height 0.5,
    // every edge's cotangent against the normal 0.5 / 1. Pointing the apex down flips both signs.
    for (const float h : {0.5f, -0.5f}) {
        KPolyMesh pyramid = Fan(4, h);
        for (KVector& p : pyramid.points) p += KVector(1, 2, 3);
        const KRelaxationBindingData apex = Bind(pyramid);
        EXPECT_NEAR(apex.b[0], h, 1e-6);
        for (double r : apex.bScalable.list(0)) EXPECT_NEAR(r, h, 1e-6);
        for (double w : apex.meanValueWeight.list(0)) EXPECT_NEAR(w, 0.25, 1e-7);
    }
}

TEST(RelaxationBinding, WeightsSumToOneAndTheXNeighbourHasAngleZeroOnCurvedMeshes) {
    for (const KPolyMesh& mesh : {MakeUVSphere(12, 24), MakeIcosphere(2), MakeDetailedGrid(12, 3.0f)}) {
        KVertexNeighbours rings;
        VertexRings(mesh, rings);
        const KArray<KDouble3> points = Widen(mesh.points);
        std::vector<KPolarCoords> polar;
        double N[3], c[3];
        for (int i = 0; i < mesh.numVertices(); ++i) {
            PolarCoordinates(points.data(), i, rings.begin(i), rings.count(i), polar, N, c);
            EXPECT_EQ(std::count_if(polar.begin(), polar.end(),
                                    [&](const KPolarCoords& p) { return p.vertexId == rings.begin(i)[0] && p.theta == 0.0; }),
                      1)
                << "vertex " << i;
        }
        const KRelaxationLists<double> weights = Bind(mesh).meanValueWeight;
        for (int v = 0; v < weights.size(); ++v) EXPECT_NEAR(std::accumulate(weights.begin(v), weights.end(v), 0.0), 1.0, 1e-9);
    }
}

TEST(RelaxationBinding, NeighbourLimitStopsAfterTheListsWereWritten) {
    KOutcome outcome;
    EXPECT_EQ(Bind(Fan(128), &outcome).meanValueWeight.count(0), 128);
    EXPECT_TRUE(outcome.deformed());

    const KRelaxationBindingData stopped = Bind(Fan(129), &outcome);
    ASSERT_TRUE(outcome.failed());
    EXPECT_EQ(outcome.message, "Only supports meshes with 32 or fewer connected vertices per vertex\"");
    ASSERT_EQ(stopped.connVrtId.size(), 1);
    EXPECT_EQ(stopped.connVrtId.count(0), 129);
    EXPECT_EQ(stopped.connVrtIdNrmOrder.count(0), 129);
    EXPECT_TRUE(stopped.b.empty() && stopped.meanValueWeight.size() == 0 && stopped.bScalable.size() == 0);
}

TEST(RelaxationBinding, IsolatedVertexAndBadRings) {
    KPolyMesh mesh = FlatGrid(3);
    mesh.points.push_back(KVector(7, 7, 7));  // in no face
    KOutcome outcome;
    const KRelaxationBindingData data = Bind(mesh, &outcome);
    ASSERT_TRUE(outcome.deformed());
    EXPECT_EQ(data.connVrtId.count(9), 0);
    EXPECT_EQ(data.b[9], 0.0);

    KVertexNeighbours rings;
    rings.assign({{1}, {0, 2}});  // 2 is one past the last vertex
    const KArray<KDouble3> points = Widen(FlatGrid(2).points);
    KRelaxationBindingData untouched = data;
    EXPECT_EQ(BindRelaxation(points.data(), 2, rings, untouched).message, kRelaxBindBadRings);
    EXPECT_EQ(untouched.connVrtId.values, data.connVrtId.values) << "a guard writes nothing";
    // No vertices, no neighbour lists: an empty binding.
    EXPECT_TRUE(BindRelaxation(nullptr, 0, KVertexNeighbours(), untouched).deformed());
    EXPECT_TRUE(untouched.connVrtId.size() == 0 && untouched.b.empty());
}

TEST(RelaxationBinding, LoaderChecksListLengthsInOrderAndKeepsCachesOnFailure) {
    const KRelaxationBindingData good = Bind(FlatGrid(3));
    KRelaxationBindingData caches;
    ASSERT_TRUE(LoadRelaxationCaches(good, 9, caches).deformed());
    EXPECT_EQ(caches.connVrtId.offsets[9], 24);
    EXPECT_TRUE(caches.fits(9) && !caches.fits(8) && !caches.fits(10)) << "neighbour 8 is not a vertex of an 8-vertex mesh";

    const struct {
        void (*spoil)(KRelaxationBindingData&);
        const char* message;
    } cases[] = {
        {[](KRelaxationBindingData& d) { Edit(d.connVrtIdNrmOrder, 4, [](auto& l) { l.pop_back(); }); },
         "Failed to get connVrtNrmOrder."},
        {[](KRelaxationBindingData& d) { Edit(d.bScalable, 4, [](auto& l) { l.push_back(0.0); }); }, "Failed to get bScalable."},
        {[](KRelaxationBindingData& d) { Edit(d.meanValueWeight, 8, [](auto& l) { l.clear(); }); }, "Failed to get meanValWgt."},
        // The order list is checked before the others.
        {[](KRelaxationBindingData& d) {
             Edit(d.meanValueWeight, 2, [](auto& l) { l.clear(); });
             Edit(d.connVrtIdNrmOrder, 2, [](auto& l) { l.clear(); });
         },
         "Failed to get connVrtNrmOrder."},
        {[](KRelaxationBindingData& d) { Edit(d.connVrtId, 1, [](auto& l) { l[0] = -1; }); }, kRelaxLoadBadIds},
        {[](KRelaxationBindingData& d) {
             Edit(d.connVrtId, 0, [](auto& l) { l.assign(129, 1); });
             Edit(d.connVrtIdNrmOrder, 0, [](auto& l) { l.assign(129, 1); });
             Edit(d.bScalable, 0, [](auto& l) { l.assign(129, 0.0); });
             Edit(d.meanValueWeight, 0, [](auto& l) { l.assign(129, 0.0); });
         },
         kRelaxLoadTooLong},
    };
    for (const auto& c : cases) {
        KRelaxationBindingData spoilt = good;
        c.spoil(spoilt);
        const KRelaxationBindingData before = caches;
        EXPECT_EQ(LoadRelaxationCaches(spoilt, 9, caches).message, c.message);
        EXPECT_EQ(caches.connVrtId.values, before.connVrtId.values);
    }
    // Lists missing at the end read as empty, a missing height as 0.
    KRelaxationBindingData shorter = good;
    for (auto* lists : {&shorter.connVrtId, &shorter.connVrtIdNrmOrder}) lists->offsets.resize(9);
    for (auto* lists : {&shorter.bScalable, &shorter.meanValueWeight}) lists->offsets.resize(9);
    shorter.b.resize(7);
    ASSERT_TRUE(LoadRelaxationCaches(shorter, 9, caches).deformed());
    EXPECT_EQ(caches.connVrtId.offsets[9], caches.connVrtId.offsets[8]);
    EXPECT_EQ(caches.b[8], 0.0);
}

TEST(RelaxationBinding, CommandLineRingsRunAroundTheVertexWithOutwardNormals) {
    for (const KPolyMesh& mesh : {FlatGrid(4), MakeUVSphere(6, 10), MakeIcosphere(1)}) {
        KVertexNeighbours rings, edges;
        VertexRings(mesh, rings);
        mesh.edgeNeighbours(edges);
        KVectorArray normals;
        Triangulated(mesh).getVertexNormals(normals, true);
        for (int v = 0; v < mesh.numVertices(); ++v) {
            std::multiset<int> a(rings.begin(v), rings.end(v)), b(edges.begin(v), edges.end(v));
            EXPECT_EQ(a, b) << "same neighbours as the polygon edges, vertex " << v;
            KDouble3 n;
            RingNormal(mesh.numVertices(), rings.begin(v), rings.count(v),
                       [&](int i) { return KDouble3{mesh.points[i].x, mesh.points[i].y, mesh.points[i].z}; }, n);
            EXPECT_TRUE(rings.count(v) < 3 || n[0] * normals[v].x + n[1] * normals[v].y + n[2] * normals[v].z > 0.5) << v;
        }
    }
    // Successive ring members share a face: a border vertex starts at its border edge.
    KVertexNeighbours rings;
    VertexRings(FlatGrid(3), rings);
    EXPECT_EQ(std::vector<int>(rings.begin(1), rings.end(1)), (std::vector<int>{0, 4, 2}));
}
