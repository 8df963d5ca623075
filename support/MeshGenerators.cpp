#include "MeshGenerators.h"

#include <algorithm>
#include <cmath>
#include <map>
#include <numeric>
#include <random>

namespace Kavrin {

KPolyMesh MakeDetailedGrid(int n, float size) {
    KPolyMesh mesh;
    n = std::max(n, 2);
    const float step = size / static_cast<float>(n - 1);
    const float bump = 0.01f * size;
    const float freq = 6.2831853f * 12.0f / size;
    mesh.points.setLength(n * n, false);
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const float x = -0.5f * size + step * static_cast<float>(i);
            const float y = -0.5f * size + step * static_cast<float>(j);
            mesh.points[j * n + i] = KVector(x, y, bump * std::sin(freq * x) * std::cos(freq * y));
        }
    mesh.faceCounts.setLengthWithValue((n - 1) * (n - 1), 4);
    mesh.faceVertices.reserve(4 * static_cast<size_t>((n - 1) * (n - 1)));
    for (int j = 0; j + 1 < n; ++j)
        for (int i = 0; i + 1 < n; ++i) {
            const int v = j * n + i;
            mesh.faceVertices.push_back(v);
            mesh.faceVertices.push_back(v + 1);
            mesh.faceVertices.push_back(v + n + 1);
            mesh.faceVertices.push_back(v + n);
        }
    return mesh;
}

KPolyMesh BendAroundY(const KPolyMesh& rest, float angle) {
    KPolyMesh pose = rest;
    float maxX = 0.0f;
    for (const KVector& p : rest.points) maxX = std::max(maxX, p.x);
    if (maxX <= 0.0f || angle == 0.0f) return pose;
    const float radius = maxX / angle;
    for (KVector& p : pose.points) {
        if (p.x <= 0.0f) continue;
        const float theta = p.x / radius;
        const float r = radius - p.z;
        p = KVector(r * std::sin(theta), p.y, radius - r * std::cos(theta));
    }
    return pose;
}

}  // namespace Kavrin

namespace Kavrin {

namespace {

void addTriangle(KPolyMesh& mesh, int a, int b, int c) {
    mesh.faceCounts.push_back(3);
    mesh.faceVertices.push_back(a);
    mesh.faceVertices.push_back(b);
    mesh.faceVertices.push_back(c);
}

}  // namespace

KPolyMesh MakeUVSphere(int rings, int segments) {
    rings = std::max(rings, 2);
    segments = std::max(segments, 3);
    KPolyMesh mesh;
    const float pi = 3.14159265f;
    mesh.points.push_back(KVector(0, 0, 1));
    for (int r = 1; r <= rings; ++r) {
        const float theta = pi * static_cast<float>(r) / static_cast<float>(rings + 1);
        for (int s = 0; s < segments; ++s) {
            const float phi = 2.0f * pi * static_cast<float>(s) / static_cast<float>(segments);
            mesh.points.push_back(KVector(std::sin(theta) * std::cos(phi), std::sin(theta) * std::sin(phi),
                                          std::cos(theta)));
        }
    }
    mesh.points.push_back(KVector(0, 0, -1));
    const int south = mesh.numVertices() - 1;
    const auto at = [segments](int r, int s) { return 1 + (r - 1) * segments + (s % segments); };
    for (int s = 0; s < segments; ++s) addTriangle(mesh, 0, at(1, s), at(1, s + 1));
    for (int r = 1; r < rings; ++r)
        for (int s = 0; s < segments; ++s) {
            addTriangle(mesh, at(r, s), at(r + 1, s), at(r + 1, s + 1));
            addTriangle(mesh, at(r, s), at(r + 1, s + 1), at(r, s + 1));
        }
    for (int s = 0; s < segments; ++s) addTriangle(mesh, south, at(rings, s + 1), at(rings, s));
    return mesh;
}

KPolyMesh MakeIcosphere(int subdivisions) {
    const float t = (1.0f + std::sqrt(5.0f)) / 2.0f;
    KPolyMesh mesh;
    const float corners[12][3] = {{-1, t, 0}, {1, t, 0}, {-1, -t, 0}, {1, -t, 0}, {0, -1, t}, {0, 1, t},
                                  {0, -1, -t}, {0, 1, -t}, {t, 0, -1}, {t, 0, 1}, {-t, 0, -1}, {-t, 0, 1}};
    for (const auto& c : corners) mesh.points.push_back(KVector(c[0], c[1], c[2]).normalized());
    std::vector<KInt3> faces = {{0, 11, 5}, {0, 5, 1},  {0, 1, 7},   {0, 7, 10}, {0, 10, 11}, {1, 5, 9}, {5, 11, 4},
                                {11, 10, 2}, {10, 7, 6}, {7, 1, 8},  {3, 9, 4},  {3, 4, 2},   {3, 2, 6}, {3, 6, 8},
                                {3, 8, 9},  {4, 9, 5},  {2, 4, 11}, {6, 2, 10}, {8, 6, 7},   {9, 8, 1}};
    for (int level = 0; level < subdivisions; ++level) {
        std::map<std::pair<int, int>, int> midpoints;
        const auto midpoint = [&](int a, int b) {
            const std::pair<int, int> key(std::min(a, b), std::max(a, b));
            const auto found = midpoints.find(key);
            if (found != midpoints.end()) return found->second;
            mesh.points.push_back(((mesh.points[a] + mesh.points[b]) * 0.5f).normalized());
            midpoints[key] = mesh.numVertices() - 1;
            return mesh.numVertices() - 1;
        };
        std::vector<KInt3> finer;
        for (const KInt3& f : faces) {
            const int ab = midpoint(f[0], f[1]), bc = midpoint(f[1], f[2]), ca = midpoint(f[2], f[0]);
            finer.push_back(KInt3{f[0], ab, ca});
            finer.push_back(KInt3{f[1], bc, ab});
            finer.push_back(KInt3{f[2], ca, bc});
            finer.push_back(KInt3{ab, bc, ca});
        }
        faces.swap(finer);
    }
    for (const KInt3& f : faces) addTriangle(mesh, f[0], f[1], f[2]);
    return mesh;
}

void ScalePoints(KPolyMesh& mesh, float sx, float sy, float sz) {
    for (KVector& p : mesh.points) p = KVector(p.x * sx, p.y * sy, p.z * sz);
}

}  // namespace Kavrin

namespace Kavrin {

namespace {

KVector FaceCentroid(const KPolyMesh& mesh, int first, int count) {
    KVector c;
    for (int k = 0; k < count; ++k) c += mesh.points[mesh.faceVertices[first + k]];
    return c / static_cast<float>(count);
}

}  // namespace

KTriMesh Triangulated(const KPolyMesh& mesh) {
    KTriMesh tri;
    mesh.triangulate(tri);
    return tri;
}

void AddRadialBumps(KPolyMesh& mesh, float amount, int seed) {
    for (KVector& p : mesh.points)
        p *= 1.0f + amount * std::sin(5.1f * p.x + 3.7f * p.y + seed) * std::cos(4.3f * p.z * seed + 0.5f);
}

KTriMesh TriangulatedIcosphere(int levels, float amount, int seed) {
    KPolyMesh m = MakeIcosphere(levels);
    if (amount != 0.0f) AddRadialBumps(m, amount, seed);
    return Triangulated(m);
}

KPolyMesh KeepFaces(const KPolyMesh& mesh, const std::function<bool(const KVector&)>& keep) {
    KPolyMesh out;
    std::vector<int> renumber(static_cast<size_t>(mesh.numVertices()), -1);
    std::vector<int> kept;
    for (int f = 0, at = 0; f < mesh.numFaces(); at += mesh.faceCounts[f++]) {
        if (!keep(FaceCentroid(mesh, at, mesh.faceCounts[f]))) continue;
        out.faceCounts.push_back(mesh.faceCounts[f]);
        for (int k = 0; k < mesh.faceCounts[f]; ++k) {
            const int v = mesh.faceVertices[at + k];
            renumber[v] = 0;
            kept.push_back(v);
        }
    }
    for (int v = 0, n = 0; v < mesh.numVertices(); ++v)
        if (renumber[v] == 0) {
            renumber[v] = n++;
            out.points.push_back(mesh.points[v]);
        }
    for (int v : kept) out.faceVertices.push_back(renumber[v]);
    return out;
}

KPolyMesh CutSlit(const KPolyMesh& mesh, const std::vector<int>& path,
                  const std::function<bool(const KVector&)>& side) {
    KPolyMesh out = mesh;
    std::map<int, int> copyOf;
    for (size_t i = 1; i + 1 < path.size(); ++i) {
        copyOf[path[i]] = out.points.length();
        out.points.push_back(mesh.points[path[i]]);
    }
    for (int f = 0, at = 0; f < mesh.numFaces(); at += mesh.faceCounts[f++]) {
        if (!side(FaceCentroid(mesh, at, mesh.faceCounts[f]))) continue;
        for (int k = 0; k < mesh.faceCounts[f]; ++k) {
            const auto it = copyOf.find(mesh.faceVertices[at + k]);
            if (it != copyOf.end()) out.faceVertices[at + k] = it->second;
        }
    }
    return out;
}

}  // namespace Kavrin

namespace Kavrin {

KPolyMesh SplitIntoFour(const KPolyMesh& mesh) {
    KInt3Array triangles;
    mesh.fanTriangles(triangles);
    KPolyMesh out;
    out.points = mesh.points;
    std::map<std::pair<int, int>, int> midpoints;
    auto midpoint = [&](int a, int b) {
        const std::pair<int, int> key(std::min(a, b), std::max(a, b));
        const auto it = midpoints.find(key);
        if (it != midpoints.end()) return it->second;
        out.points.push_back((mesh.points[a] + mesh.points[b]) * 0.5f);
        return midpoints[key] = out.points.length() - 1;
    };
    for (const KInt3& t : triangles) {
        const int ab = midpoint(t[0], t[1]), bc = midpoint(t[1], t[2]), ca = midpoint(t[2], t[0]);
        for (const KInt3& f : {KInt3{t[0], ab, ca}, KInt3{t[1], bc, ab}, KInt3{t[2], ca, bc}, KInt3{ab, bc, ca}}) {
            out.faceCounts.push_back(3);
            out.faceVertices.insert(out.faceVertices.end(), {f[0], f[1], f[2]});
        }
    }
    return out;
}

KPolyMesh ShuffledVertices(const KPolyMesh& mesh, unsigned seed) {
    std::vector<int> order(static_cast<size_t>(mesh.numVertices()));
    std::iota(order.begin(), order.end(), 0);
    std::shuffle(order.begin(), order.end(), std::mt19937(seed));
    KPolyMesh out = mesh;
    for (int v = 0; v < mesh.numVertices(); ++v) out.points[order[v]] = mesh.points[v];
    for (int& v : out.faceVertices) v = order[v];
    return out;
}

}  // namespace Kavrin
