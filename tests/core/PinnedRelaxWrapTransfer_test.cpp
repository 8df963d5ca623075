// Results pinned bit for bit: digests of the exact bits the engines give on generated meshes
// (borders, odd valences, a collider), on one thread and on two. Work on the speed of an engine
// must leave its digest as it is; a change of numerics on purpose changes the digest here, with
// a behaviour note saying why.
//
// The digests are those of x86-64 builds (SSE2, no fused multiply-add) with Debian 12's C library.
// The transfer digests leave the source fit out (its supernodal factorisation goes through the
// processor-specific kernels of BLAS): they pin the pairing and the transfer of a pose.

#include <gtest/gtest.h>

#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "KDeformationTransferSolver.h"
#include "KRelaxationSolver.h"
#include "KTriMeshDistTree.h"
#include "KVertexNormals.h"
#include "KVertexRings.h"
#include "KWrapBinding.h"
#include "MeshGenerators.h"

using namespace Kavrin;

namespace {

// FNV-1a over the bytes of every value given.
class Digest {
public:
    template <class T>
    Digest& add(const T& value) {
        unsigned char bytes[sizeof(T)];
        std::memcpy(bytes, &value, sizeof(T));
        for (unsigned char b : bytes) _h = (_h ^ b) * 1099511628211ull;
        return *this;
    }
    template <class T>
    Digest& addAll(const T& values) {
        add(static_cast<uint64_t>(values.size()));
        for (const auto& v : values) add(v);
        return *this;
    }
    std::string hex() const {
        char text[20];
        std::snprintf(text, sizeof text, "%016" PRIx64, _h);
        return text;
    }

private:
    uint64_t _h = 14695981039346656037ull;
};

// The meshes are large enough for two threads to share every loop (at least 2,048 items each).

// A bumpy ball (triangles; valences 5 and 6) with its top cut off: a border of odd valences.
KPolyMesh OpenBall() {
    KPolyMesh ball = MakeIcosphere(5);
    AddRadialBumps(ball, 0.08f, 2);
    return KeepFaces(ball, [](const KVector& c) { return c.z < 0.7f; });
}

// A bumpy 72 x 72 sheet of quads with a slit of 36 edges across its middle.
KPolyMesh SlitSheet() {
    const KPolyMesh sheet = MakeDetailedGrid(72, 4.0f);
    std::vector<int> path;
    for (int i = 18; i <= 54; ++i) path.push_back(36 * 72 + i);
    return CutSlit(sheet, path, [](const KVector& c) { return c.y > 0.0f; });
}

KArray<KDouble3> Wide(const KVectorArray& points) {
    KArray<KDouble3> out;
    for (const KVector& p : points) out.push_back(KDouble3{p.x, p.y, p.z});
    return out;
}

// Moves every point by a smooth pattern of its position: a pose no two vertices share.
KVectorArray Wobbled(const KVectorArray& points, float amount) {
    KVectorArray out = points;
    for (KVector& p : out)
        p += KVector(amount * std::sin(3.1f * p.y + 0.4f), amount * std::cos(2.3f * p.z - 1.1f),
                     amount * std::sin(1.7f * p.x + 2.9f * p.y));
    return out;
}

template <class T>
void AddLists(Digest& d, const KRelaxationLists<T>& lists) {
    for (int v = 0; v < lists.size(); ++v) d.addAll(lists.list(v));
}

void AddBinding(Digest& d, const KRelaxationSolver& solver) {
    const KRelaxationBindingData& b = solver.binding();
    AddLists(d, b.connVrtId);
    AddLists(d, b.connVrtIdNrmOrder);
    d.addAll(b.b);
    AddLists(d, b.bScalable);
    AddLists(d, b.meanValueWeight);
    d.addAll(solver.stiffness());
}

// Binds mesh at rest, then relaxes a wobbled pose with the given options; the digest of the
// binding and of the result, and the result again from a second engine that loads the stored
// binding (which must give the same bits).
std::string Relax(const KPolyMesh& mesh, int threads, const std::function<void(KRelaxationInput&)>& options,
                  const KTriMesh* collider = nullptr) {
    KVertexNeighbours rings;
    VertexRings(mesh, rings, threads);
    const KArray<KDouble3> rest = Wide(mesh.points);
    KRelaxationAttributes store;
    KRelaxationSolver solver;
    KRelaxationInput bind;
    bind.points = rest.data();
    bind.count = rest.length();
    bind.rings = &rings;
    bind.iterations = 0;
    bind.threads = threads;
    store.evaluate(solver, bind);
    Digest d;
    AddBinding(d, solver);

    KPolyMesh pose = mesh;
    pose.points = Wobbled(mesh.points, 0.04f);
    const KArray<KDouble3> points = Wide(pose.points);
    KRelaxationInput in;
    in.points = points.data();
    in.count = points.length();
    in.threads = threads;
    KVectorArray normals;
    KArray<double> multipliers;
    KRelaxationCollider c;
    if (collider) {
        FaceMeanVertexNormals(pose, normals);
        for (int v = 0; v < pose.numVertices(); ++v) multipliers.push_back(v % 3 == 0 ? 0.5 : 1.0);
        c.mesh = collider;
        in.colliders = &c;
        in.numColliders = 1;
        in.multipliers = &multipliers;
        in.normals = normals.data();
    }
    options(in);
    const KRelaxationResult r = store.evaluate(solver, in);
    EXPECT_TRUE(r.outcome.deformed());
    d.addAll(solver.points());

    KRelaxationSolver reloaded;
    in.rings = nullptr;
    EXPECT_TRUE(store.evaluate(reloaded, in).outcome.deformed());
    EXPECT_EQ(0, std::memcmp(reloaded.points().data(), solver.points().data(), sizeof(KDouble3) * points.length()))
        << "a stored binding gives the bits of the binding engine";
    return d.hex();
}

// A ball of radius 1.2 pushed up into the sheet from below.
KTriMesh Collider() {
    KPolyMesh ball = MakeIcosphere(3);
    ScalePoints(ball, 1.2f, 1.2f, 1.2f);
    for (KVector& p : ball.points) p += KVector(0.3f, -0.2f, -0.9f);
    return Triangulated(ball);
}

std::string RelaxBall(int threads) {
    return Relax(OpenBall(), threads, [](KRelaxationInput& in) {
        in.iterations = 6;
        in.enableScaleSafe = true;
    });
}

std::string RelaxSheet(int threads) {
    const KPolyMesh sheet = SlitSheet();
    std::vector<float> weights;
    for (int v = 0; v < sheet.numVertices(); ++v) weights.push_back(v % 7 == 0 ? 0.0005f : 0.2f + 0.8f * (v % 5) / 4.0f);
    return Relax(sheet, threads, [&weights](KRelaxationInput& in) {
        in.iterations = 5;
        in.envelope = 0.7f;
        in.weights = weights.data();
        const double m[4][4] = {{1.5, 0, 0, 0}, {0, 1.5, 0, 0}, {0, 0, 1.5, 0}, {0.25, -1, 2, 1}};
        const double inv[4][4] = {{1 / 1.5, 0, 0, 0}, {0, 1 / 1.5, 0, 0}, {0, 0, 1 / 1.5, 0},
                                  {-0.25 / 1.5, 1 / 1.5, -2 / 1.5, 1}};
        std::memcpy(in.worldMatrix, m, sizeof m);
        std::memcpy(in.inverseWorldMatrix, inv, sizeof inv);
    });
}

std::string RelaxCollide(int threads) {
    const KTriMesh ball = Collider();
    return Relax(SlitSheet(), threads, [](KRelaxationInput& in) {
        in.iterations = 5;
        in.collisionSteps = 2;
        in.enableScaleSafe = true;
    }, &ball);
}

class NullSink : public KMessageSink {
public:
    void error(const std::string&) override {}
    void warning(const std::string&) override {}
    void output(const std::string&) override {}
};

// A denser bumpy ball and the driver's own corners (ties between triangles) bound to a coarser
// bumpy ball, then the driver twisted.
std::string Wrap(int threads) {
    const KTriMesh driver = TriangulatedIcosphere(3, 0.06f, 3);
    KTriMesh twisted = driver;
    for (KVector& p : twisted.points) {
        const float a = 0.6f * p.z;
        p = KVector(p.x * std::cos(a) - p.y * std::sin(a), p.x * std::sin(a) + p.y * std::cos(a), 1.1f * p.z);
    }
    KVectorArray points = Wobbled(TriangulatedIcosphere(5, 0.02f, 5).points, 0.05f);
    for (const KVector& p : driver.points) points.push_back(p);
    NullSink sink;
    KWrapBindingAttributes store;
    KWrapBinding engine;
    EXPECT_FALSE(store.evaluate(engine, driver, points, 1.0f, threads, sink).outcome.failed());
    Digest d;
    d.addAll(engine.boundTriangles()).addAll(engine.boundOffsets());
    EXPECT_TRUE(store.evaluate(engine, twisted, points, 1.0f, threads, sink).outcome.deformed());
    d.addAll(engine.points());
    return d.hex();
}

// Closest points, their triangles and weights for a lattice of points around the open ball (with a
// degenerate triangle and one naming a missing vertex added), and at its corners (ties); then the
// crossings of rays through it.
std::string TreeQueries(int) {
    KTriMesh mesh = Triangulated(OpenBall());
    mesh.triangles.push_back(KInt3{0, 0, 1});
    mesh.triangles.push_back(KInt3{2, 3, mesh.numVertices()});
    const KTriMeshDistTree tree(mesh, 10, 10);
    KVectorArray queries = mesh.points;
    for (int i = 0; i < 12; ++i)
        for (int j = 0; j < 12; ++j)
            for (int k = 0; k < 12; ++k) queries.push_back(KVector(-1.5f + 0.27f * i, -1.5f + 0.27f * j, -1.5f + 0.27f * k));
    Digest d;
    for (int q = 0; q < queries.length(); ++q) {
        KVector closest;
        int triangle = -2;
        float a = -1.0f, b = -1.0f;
        const float limit = q % 5 == 0 ? 0.1f : 1e30f;
        d.add(tree.getClosestPoint(queries[q], closest, triangle, limit)).add(closest).add(triangle);
        d.add(tree.getClosestPoint(queries[q], triangle, a, b, limit, q % 3 == 0 ? q : -1)).add(triangle).add(a).add(b);
    }
    std::vector<float> hits;
    for (int q = 0; q < queries.length(); q += 7) {
        const KVector direction(std::sin(0.37f * q), std::cos(0.53f * q), std::sin(0.11f * q + 1.0f));
        d.add(tree.allIntersections(queries[q], direction, 4.0f, 1e-6f, hits));
        d.addAll(hits);
    }
    return d.hex();
}

// A bumpy ball of 81,920 triangles, enough for the build to share out the root's subtrees: closest
// points of points around it and the leaves rays from them could meet (which show the hierarchy).
std::string LargeTree(int threads) {
    const KTriMesh mesh = TriangulatedIcosphere(6, 0.05f, 7);
    const KTriMeshDistTree tree(mesh, 10, 10, threads);
    Digest d;
    for (int q = 0; q < 4000; ++q) {
        const KVector p = KVector(std::sin(0.7f * q), std::cos(1.3f * q), std::sin(0.31f * q + 0.5f)).normalized() *
                          (0.95f + 0.025f * (q % 5));
        KVector closest;
        int triangle = -1;
        d.add(tree.getClosestPoint(p, closest, triangle, 1e30f)).add(closest).add(triangle);
        KTriMeshDistTree::LeafRun leaves[16];
        const int n = tree.leavesNear(p, KVector(0.3f, -0.2f, 1.0f), 0.05f, 1e-6f, 0.01f, leaves, 16);
        d.add(n);
        for (int k = 0; k < n; ++k) d.add(leaves[k].first).add(leaves[k].count);
    }
    return d.hex();
}

// Transfer between two bumpy balls of different topology (12 marker pairs): the pairing, then a
// bent pose transferred.
std::string Transfer(int threads) {
    KDeformationTransferInput in;
    in.reCalculate = true;
    in.aim = 2;
    in.calcMode = 2;
    in.iterCount = 2;
    in.sourceMesh = TriangulatedIcosphere(4, 0.05f, 1);
    KPolyMesh target = MakeUVSphere(40, 64);
    AddRadialBumps(target, 0.04f, 4);
    ScalePoints(target, 1.2f, 0.9f, 1.1f);
    in.targetMesh = Triangulated(target);
    for (int i = 0; i < 12; ++i) in.vertCorres.insert(in.vertCorres.end(), {i, 211 * i + 1});
    in.srcFixPNum = KIntArray{0};
    in.trgFixPNum = KIntArray{1};
    in.threads = threads;
    KDeformationTransferSolver solver;
    NullSink sink;
    EXPECT_FALSE(solver.compute(in, sink).outcome.failed());
    Digest d;
    d.addAll(solver.triCorres());
    in.reCalculate = false;
    for (KVector& p : in.sourceMesh.points) p = KVector(p.x, p.y + 0.3f * p.x * p.x, p.z - 0.2f * p.x * p.y);
    EXPECT_TRUE(solver.compute(in, sink).outcome.deformed());
    d.addAll(solver.outPoints()).addAll(solver.outNormals());
    return d.hex();
}

}  // namespace

TEST(PinnedResults, DigestsOnOneAndTwoThreads) {
    const struct {
        const char* what;
        std::function<std::string(int)> run;
        const char* digest;
    } cases[] = {
        {"relaxation of the open ball, scale-safe", RelaxBall, "94d846bbc5a70610"},
        {"relaxation of the slit sheet, weights, envelope, world matrix", RelaxSheet, "a758c13372163de2"},
        {"relaxation of the slit sheet with a collider", RelaxCollide, "7892bee4d5e2e732"},
        {"wrap bind and evaluation", Wrap, "a92e918294a48881"},
        {"closest points and ray crossings", TreeQueries, "872259e8ca746ef9"},
        {"closest points and leaves of a tree built on the team", LargeTree, "c496122c591670e5"},
        {"transfer pairing and pose", Transfer, "377de47d9f6ed26c"},
    };
    for (const auto& c : cases)
        for (int threads : {1, 2}) EXPECT_EQ(c.run(threads), c.digest) << c.what << " on " << threads << " threads";
}
