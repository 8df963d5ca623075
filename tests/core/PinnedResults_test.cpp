// Results pinned bit for bit: digests of the exact bits delta mush, jiggle and offset compute and
// of the text the OBJ writer writes, on generated meshes with borders, a hole, triangles, quads
// and larger polygons mixed, valences 2 to 6, vertices in no face and a scattered vertex numbering,
// at one and two threads. The digests were taken from the straightforward implementations these
// engines started from; a faster implementation must give the same bits. A digest that changes
// means results changed: find out why before taking a new one.

#include <gtest/gtest.h>

#include <algorithm>
#include <cinttypes>
#include <cmath>
#include <cstdio>
#include <map>
#include <string>

#include "KDeltaMushSolver.h"
#include "KJiggleSolver.h"
#include "KOffsetSolver.h"
#include "MeshGenerators.h"
#include "ObjIO.h"

using namespace Kavrin;

namespace {

// FNV-1a over raw bytes, printed as 16 hex digits.
struct Digest {
    uint64_t h = 1469598103934665603ull;
    void add(const void* data, size_t bytes) {
        const unsigned char* p = static_cast<const unsigned char*>(data);
        for (size_t i = 0; i < bytes; ++i) h = (h ^ p[i]) * 1099511628211ull;
    }
    template <class Array>
    void addArray(const Array& a) {
        add(a.data(), a.size() * sizeof(a[0]));
    }
    std::string text() const {
        char buffer[17];
        std::snprintf(buffer, sizeof(buffer), "%016" PRIx64, h);
        return buffer;
    }
};

// A 70 x 70 sheet whose quads become, by position, two triangles, a hexagon with their right-hand
// neighbour, or stay quads; a round hole in the middle whose vertices stay, in no face, as does
// one extra vertex at the end (delta mush writes them as NaN).
KPolyMesh Mixed() {
    const int n = 70;
    const KPolyMesh grid = MakeDetailedGrid(n, 7.0f);
    KPolyMesh out;
    out.points = grid.points;
    for (int j = 0; j + 1 < n; ++j)
        for (int i = 0; i + 1 < n; ++i) {
            const int v = j * n + i;
            const float x = grid.points[v].x + 0.05f, y = grid.points[v].y + 0.05f;
            if (x * x + y * y < 1.2f) continue;  // the hole
            if ((i + 2 * j) % 7 == 0) {
                out.faceCounts.insert(out.faceCounts.end(), {3, 3});
                out.faceVertices.insert(out.faceVertices.end(), {v, v + 1, v + n + 1, v, v + n + 1, v + n});
            } else if ((i + j) % 5 == 1 && i + 2 < n && (i + 1 + 2 * j) % 7 != 0) {
                out.faceCounts.push_back(6);
                out.faceVertices.insert(out.faceVertices.end(), {v, v + 1, v + 2, v + n + 2, v + n + 1, v + n});
                ++i;  // the right-hand quad is part of the hexagon
            } else {
                out.faceCounts.push_back(4);
                out.faceVertices.insert(out.faceVertices.end(), {v, v + 1, v + n + 1, v + n});
            }
        }
    out.points.push_back(KVector(0.1f, 0.2f, 0.3f));
    return out;
}

// A smooth non-rigid deformation of a mesh's points.
KPolyMesh Deformed(const KPolyMesh& mesh, float phase) {
    KPolyMesh out = mesh;
    for (KVector& p : out.points)
        p = KVector(p.x + 0.1f * std::sin(p.y + phase), p.y + 0.05f * p.x * p.x, p.z + 0.3f * std::sin(p.x * 0.8f));
    return out;
}

struct Case {
    const char* name;
    KPolyMesh mesh;
};

std::vector<Case> Meshes() {
    KPolyMesh sphere = MakeIcosphere(5);  // 10,242 vertices: triangles, valences 5 and 6
    ScalePoints(sphere, 3.0f, 2.0f, 2.5f);
    return {{"grid", MakeDetailedGrid(70, 7.0f)},
            {"icosphere", sphere},
            {"mixed", Mixed()},
            {"mixed-shuffled", ShuffledVertices(Mixed(), 11)}};
}

}  // namespace

TEST(PinnedResults, DeltaMushBindAndEvaluation) {
    // Per mesh and sweep count: the bound deltas, the first pose's points, a second pose's points.
    const std::map<std::string, std::string> expected = {
        {"grid/1", "794aa839292be090"},           {"grid/15", "ce74355accc8b1e7"},           {"grid/60", "ebf7c3becffa34a3"},
        {"icosphere/1", "23fa6cca6e8be399"},      {"icosphere/15", "345063c03ff38e00"},      {"icosphere/60", "56c2b283b757d962"},
        {"mixed/1", "5a04e52e464b3a97"},          {"mixed/15", "743c489b14f8a343"},          {"mixed/60", "3602f85f38c3d3e3"},
        {"mixed-shuffled/1", "c0182be40524b937"}, {"mixed-shuffled/15", "839548564d00db73"}, {"mixed-shuffled/60", "7402a538bbeb268b"},
    };
    for (const Case& c : Meshes())
        for (int k : {1, 15, 60})
            for (int threads : {1, 2}) {
                KDeltaMushAttributes store;
                store.onlyOnce = false;
                store.numIter = k;
                store.restMesh = c.mesh;
                store.hasRestMesh = true;
                KDeltaMushSolver solver;
                Digest d;
                for (float phase : {0.0f, 1.0f}) {
                    const KDeltaMushResult r = store.evaluate(solver, Deformed(c.mesh, phase), 1.0f, threads);
                    ASSERT_TRUE(r.outcome.deformed()) << c.name;
                    d.addArray(solver.points());
                }
                d.addArray(store.delta);
                const std::string key = std::string(c.name) + "/" + std::to_string(k);
                EXPECT_EQ(d.text(), expected.at(key)) << key << " at " << threads << " threads";
            }
}

TEST(PinnedResults, JiggleSteps) {
    const std::map<std::string, std::string> expected = {
        {"grid", "3efca8dde9f433e1"}, {"icosphere", "948f96e35044e988"}, {"mixed", "a4d7848822376c30"}, {"mixed-shuffled", "5c6ee655d07b464d"}};
    for (const Case& c : Meshes())
        for (int threads : {1, 2}) {
            KJiggleAttributes store;
            store.normalStrength = 0.5f;
            store.directionBias = 0.3f;
            store.stiffness = 0.2f;
            store.distanceLimit = 0.05f;
            KArray<float> weights(c.mesh.numVertices());
            for (int v = 0; v < weights.length(); ++v) weights[v] = 0.25f + 0.75f * float(v % 4) / 3.0f;
            KJiggleSolver solver;
            Digest d;
            for (int frame = 1; frame <= 6; ++frame) {
                const KJiggleResult r =
                    store.evaluate(solver, Deformed(c.mesh, 0.3f * frame), frame, &weights, 1.0f, threads);
                ASSERT_FALSE(r.outcome.failed()) << c.name;
                d.addArray(solver.points());
            }
            d.addArray(solver.currentPositions());
            d.addArray(solver.previousPositions());
            d.addArray(solver.velocities());
            EXPECT_EQ(d.text(), expected.at(c.name)) << c.name << " at " << threads << " threads";
        }
}

TEST(PinnedResults, OffsetDisplacements) {
    struct Wavy : KShadingSampler {
        bool sample(const std::string&, const KOffsetSamples& s, KArray<KFloat3>& colours) override {
            colours.setLength(s.count(), false);
            for (int i = 0; i < s.count(); ++i) colours[i] = KFloat3{0.5f + 0.5f * std::sin(7.0f * s.u[i] + s.v[i]), 0, 0};
            return true;
        }
    };
    const std::map<std::string, std::string> expected = {
        {"grid", "19b2306e79c31081"}, {"icosphere", "e09242b7ea963447"}, {"mixed", "c86e14189c98dbd6"}, {"mixed-shuffled", "886639cd8658792d"}};
    for (const Case& c : Meshes()) {
        KArray<KOffsetVertex> vertices(c.mesh.numVertices());
        for (int v = 0; v < vertices.length(); ++v) {
            const KVector& p = c.mesh.points[v];
            const KVector n = KVector(p.x, p.y, 1.0f).normalized();
            vertices[v] = KOffsetVertex{{p.x, p.y, p.z}, {n.x, n.y, n.z}, 0.1f * p.x, 0.2f * p.y, 0.5f + 0.1f * float(v % 5)};
        }
        KOffsetInput in;
        in.shadingEngine = "offsetEngine1";
        in.envelope = 0.7f;
        in.scale = 0.3;
        in.vertices = &vertices;
        KOffsetSolver solver;
        Wavy sampler;
        ASSERT_TRUE(solver.evaluate(in, sampler).deformed());
        Digest d;
        d.addArray(solver.displacements());
        EXPECT_EQ(d.text(), expected.at(c.name)) << c.name;
    }
}

TEST(PinnedResults, ObjText) {
    const std::map<std::string, std::string> expected = {
        {"grid", "ce9f976ebae09e0a"}, {"icosphere", "c9f72e3babbb92bf"}, {"mixed", "cf223c77c9e0f3d9"}, {"mixed-shuffled", "6267c6685d43c2f1"}};
    for (const Case& c : Meshes()) {
        const KPolyMesh posed = Deformed(c.mesh, 0.5f);
        KCornerUVs uvs;
        for (int v = 0; v < posed.numVertices(); ++v) uvs.uvs.push_back(KFloat2{posed.points[v].x, posed.points[v].y});
        for (int f = 0, at = 0; f < posed.numFaces(); at += posed.faceCounts[f++])
            for (int k = 0; k < posed.faceCounts[f]; ++k)
                uvs.corners.push_back(f % 3 == 0 ? -1 : posed.faceVertices[at + k]);
        Digest d;
        const std::string text = FormatObj(posed, &uvs) + FormatObj(posed);
        d.add(text.data(), text.size());
        EXPECT_EQ(d.text(), expected.at(c.name)) << c.name;
    }
}
