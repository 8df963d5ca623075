// Transfer system: the frame it transfers with (a sheared and a non-uniformly scaled pose, worked
// by hand), triangles without a pair, separate parts, and the builds it refuses.

#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "KTransferSystem.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

KInt4Array Uniform(int n, const KInt4& entry) {
    KInt4Array a;
    a.setLengthWithValue(n, entry);
    return a;
}

const std::string kNotBuilt = "; the transfer system was not built.";

}  // namespace

TEST(TransferSystem, TransfersWithTheUnitNormalFrame) {
    // One source triangle in the XY plane, one target triangle leaning out of it. For a pose L of
    // the source the transferred deformation is S = [L e1, L e2, n'] [e1, e2, n]^-1 with n and n'
    // the unit normals before and after; the target's edges become S f. The fitting frame's e3
    // (length sqrt|c|) or L n in place of n' would give other edges.
    KTriMesh source;
    for (const KVector& p : {KVector(0, 0, 0), KVector(1, 0, 0), KVector(0, 1, 0)}) source.points.push_back(p);
    source.triangles.push_back(KInt3{0, 1, 2});
    KTriMesh target;
    for (const KVector& p : {KVector(0.2f, 0.1f, 0.3f), KVector(0.9f, 0.3f, 0.8f), KVector(0.1f, 0.7f, -0.4f)})
        target.points.push_back(p);
    target.triangles.push_back(KInt3{0, 1, 2});
    const struct {
        const char* name;
        std::function<KVector(const KVector&)> pose;
        // S applied to a vector, worked by hand: n = (0, 0, 1).
        std::function<KVector(const KVector&)> S;
    } cases[] = {
        // Stretch x by 2: L e1 = (2, 0, 0), L e2 = e2, n' = n; the area doubles, which the
        // unit-normal frame ignores: S = diag(2, 1, 1) (the fitting frame gives diag(2, 1, sqrt 2)).
        {"scale", [](const KVector& p) { return KVector(2 * p.x, p.y, p.z); },
         [](const KVector& f) { return KVector(2 * f.x, f.y, f.z); }},
        // Shear z += x: L e1 = (1, 0, 1), L e2 = (0, 1, 0), n' = (-1, 0, 1) / sqrt 2, while L n = n.
        {"shear", [](const KVector& p) { return KVector(p.x, p.y, p.z + p.x); },
         [](const KVector& f) {
             const float r = 1.0f / std::sqrt(2.0f);
             return KVector(f.x - r * f.z, f.y, f.x + r * f.z);
         }}};
    for (const auto& c : cases) {
        KTransferSystem system;
        ASSERT_TRUE(system.build(source, target, Uniform(1, KInt4{0, -1, -1, 1}), 1)) << system.failure();
        KVectorArray posed, out;
        for (const KVector& p : source.points) posed.push_back(c.pose(p));
        ASSERT_TRUE(system.solve(posed, target, out));
        for (int k = 1; k < 3; ++k) {
            const KVector expected = c.S(target.points[k] - target.points[0]);
            EXPECT_LT(((out[k] - out[0]) - expected).length(), 1e-5f) << c.name << " edge " << k;
        }
        EXPECT_EQ(out[0], target.points[0]) << "the part's lowest vertex stays put";
    }
}

TEST(TransferSystem, UnpairedTrianglesAndSeparatePartsKeepTheirShape) {
    // Two spheres side by side (two parts, each with its own anchor) and no pair anywhere:
    // identity gradients give back the rest target exactly where it was, whatever the pose.
    const KTriMesh source = TriangulatedIcosphere(1);
    KTriMesh target = TriangulatedIcosphere(2, 0.07f, 8);
    const int n = target.numVertices();
    const KTriMesh second = TriangulatedIcosphere(1, 0.05f, 3);
    for (const KVector& p : second.points) target.points.push_back(p + KVector(3, 0, 0));
    for (const KInt3& t : second.triangles) target.triangles.push_back(KInt3{t[0] + n, t[1] + n, t[2] + n});
    KTransferSystem system;
    ASSERT_TRUE(system.build(source, target, Uniform(target.numTriangles(), KInt4{-1, -1, -1, 0}), 2));
    EXPECT_EQ(system.anchors(), (KIntArray{0, n}));
    EXPECT_EQ(system.rows(), 3 * target.numTriangles());
    KVectorArray posed, out;
    for (const KVector& p : source.points) posed.push_back(KVector(2 * p.x, p.y, -p.z));
    long held = 0;
    for (int pass = 0; pass < 3; ++pass) {
        if (pass == 1) held = system.libraryObjects();
        ASSERT_TRUE(system.solve(posed, target, out));
        for (int i = 0; i < target.numVertices(); ++i) ASSERT_LT((out[i] - target.points[i]).length(), 1e-5f) << i;
    }
    EXPECT_EQ(system.libraryObjects(), held) << "solves after the first allocate nothing";

}

TEST(TransferSystem, RefusedBuildsAndSolvesSayWhy) {
    const KTriMesh source = TriangulatedIcosphere(1);  // 80 triangles
    const KTriMesh target = TriangulatedIcosphere(2, 0.07f, 8);
    KTriMesh flat = target;
    const KInt3 t6 = flat.triangles[6];
    flat.points[t6[2]] = flat.points[t6[1]];
    // The first triangle without area is the lowest-numbered one on the collapsed edge.
    auto has = [&](int t, int v) { const KInt3& x = flat.triangles[t]; return x[0] == v || x[1] == v || x[2] == v; };
    int firstFlat = 0;
    while (!has(firstFlat, t6[1]) || !has(firstFlat, t6[2])) ++firstFlat;
    const KInt3 tf = flat.triangles[firstFlat];
    KTriMesh huge = target;  // no triangle lacks area, every cross product overflows a float
    for (KVector& p : huge.points) p *= 1e20f;
    const KInt3 t0 = huge.triangles[0];
    const KInt4Array none = Uniform(320, KInt4{-1, -1, -1, 0});
    KInt4Array negative = none, missing = none;
    negative[4] = KInt4{-1, -1, -1, -1};  // no rows: its fourth vertex is in no equation
    missing[6] = KInt4{80, -1, -1, 1};
    const struct {
        const KTriMesh* target;
        KInt4Array pairing;
        std::string failure;
    } cases[] = {
        {&target, negative,
         "KDeformationTransfer: the normal equations of the transfer system are singular at the fourth vertex of "
         "target triangle 4" + kNotBuilt},
        {&target, missing,
         "KDeformationTransfer: the triangle correspondence of target triangle 6 names a source triangle the source "
         "mesh does not have" + kNotBuilt},
        {&target, Uniform(80, KInt4{0, -1, -1, 1}),
         "KDeformationTransfer: the triangle correspondence has 80 entries for a target of 320 triangles" + kNotBuilt},
        {&flat, none,
         "KDeformationTransfer: target triangle " + std::to_string(firstFlat) + " (vertices " +
             std::to_string(tf[0]) + ", " + std::to_string(tf[1]) + ", " + std::to_string(tf[2]) +
             ") has no area, so the transfer system is singular" + kNotBuilt},
        {&huge, none,
         "KDeformationTransfer: target triangle 0 (vertices " + std::to_string(t0[0]) + ", " + std::to_string(t0[1]) +
             ", " + std::to_string(t0[2]) +
             ") is too large to compute with (its edges' cross product overflows single precision), so the transfer "
             "system cannot be formed" + kNotBuilt}};
    // The same whether the target's part was prepared beforehand or not.
    for (const auto& c : cases)
        for (bool prepared : {false, true}) {
            KTransferSystem system;
            if (prepared) system.prepareTarget(*c.target, 2);
            EXPECT_FALSE(system.build(source, *c.target, c.pairing, 1));
            EXPECT_EQ(system.failure(), c.failure) << "prepared " << prepared;
            EXPECT_FALSE(system.built());
            KVectorArray out;
            EXPECT_FALSE(system.solve(source.points, *c.target, out));
        }
    // A target that changed since the build.
    KTransferSystem system;
    ASSERT_TRUE(system.build(source, target, none, 1));
    KVectorArray out;
    EXPECT_FALSE(system.solve(source.points, source, out));
    EXPECT_EQ(system.failure(), "KDeformationTransfer: the target mesh (42 vertices, 80 triangles) no longer matches "
                                "the one the system was built for (162 vertices, 320 triangles); recalculate. The "
                                "output was not written.");
    EXPECT_TRUE(out.empty());
}
