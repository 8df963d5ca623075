#include "KAxis.h"

#include <cmath>
#include <cstring>

#include "KDenseMatrix.h"
#include "KThreads.h"
#include "KTriMeshConnectionInfo.h"

namespace Kavrin {

namespace {

KMatrix3d axesMatrix(const KAxis& a) {
    KMatrix3d m;
    for (int r = 0; r < 3; ++r) {
        m(r, 0) = a.xAxis[r];
        m(r, 1) = a.yAxis[r];
        m(r, 2) = a.zAxis[r];
    }
    return m;
}

}  // namespace

KVector KAxis::_inverseTimes(const KVector& d) const {
    KMatrix3d inv = axesMatrix(*this);
    inv.inverse();
    KVector r;
    for (int i = 0; i < 3; ++i)
        r[i] = static_cast<float>(inv(i, 0) * d.x + inv(i, 1) * d.y + inv(i, 2) * d.z);
    return r;
}

void GetTangentSpace(const KTriMesh& mesh, KAxisArray& frames, bool /*orthonormal*/, bool /*atVertex*/,
                     int threads) {
    KTangentSpaceBuilder builder;
    builder.compute(mesh.points.data(), mesh.numVertices(), mesh.triangles, frames, threads);
}

void KTangentSpaceBuilder::_setTopology(int nv, const KInt3Array& triangles) {
    _numPoints = nv;
    _triangles = triangles;
    BuildVertexTriangles(nv, triangles, _v2tOffsets, _v2tIndices);
    // The reference neighbour: the next corner, in winding order, of the vertex's first triangle.
    _reference.setLengthWithValue(nv, -1);
    for (int v = 0; v < nv; ++v) {
        if (_v2tOffsets[v] == _v2tOffsets[v + 1]) continue;
        const KInt3& t = triangles[_v2tIndices[_v2tOffsets[v]]];
        const int k = t[0] == v ? 0 : (t[1] == v ? 1 : 2);
        _reference[v] = t[(k + 1) % 3];
    }
}

void KTangentSpaceBuilder::compute(const KVector* p, int nv, const KInt3Array& triangles, KAxisArray& frames,
                                   int threads) {
    // KInt3 is three packed ints, so the triangle lists compare as plain memory.
    const bool sameTriangles =
        triangles.size() == _triangles.size() &&
        (triangles.empty() || std::memcmp(triangles.data(), _triangles.data(), triangles.size() * sizeof(KInt3)) == 0);
    if (nv != _numPoints || !sameTriangles) _setTopology(nv, triangles);
    const int nt = triangles.length();
    if (frames.length() != nv) frames.setLength(nv, false);
    if (nv == 0) return;
    _faceNormals.setLength(nt, false);

    const KInt3* tri = triangles.data();
    KVector* faceNormals = _faceNormals.data();
    const int* offsets = _v2tOffsets.data();
    const int* around = _v2tIndices.data();
    const int* ref = _reference.data();
    KAxis* f = frames.data();
#pragma omp parallel num_threads(TeamFor(threads, nv))
    {
        // Area-weighted face normals, then per vertex their sum in increasing triangle order.
#pragma omp for schedule(static)
        for (int t = 0; t < nt; ++t)
            faceNormals[t] = (p[tri[t][1]] - p[tri[t][0]]).cross(p[tri[t][2]] - p[tri[t][0]]);

#pragma omp for schedule(static)
        for (int v = 0; v < nv; ++v) {
            if (ref[v] < 0) {
                WorldFrameAt(p[v], f[v]);
                continue;
            }
            KVector n;
            for (int j = offsets[v]; j < offsets[v + 1]; ++j) n += faceNormals[around[j]];
            TangentFrameAt(p[v], p[ref[v]], n, f[v]);
        }
    }
}

}  // namespace Kavrin
