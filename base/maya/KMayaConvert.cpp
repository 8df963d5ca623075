// Meshes, arrays, selection and geometry queries between Maya and the base types.

#include <cstring>

#include <maya/MFloatArray.h>
#include <maya/MFnDagNode.h>
#include <maya/MFnMesh.h>
#include <maya/MItSelectionList.h>
#include <maya/MPoint.h>
#include <maya/MSelectionList.h>

#include "KMayaBase.h"
#include "KMeshConversion.h"
#include "KPolyMesh.h"
#include "KRingNormal.h"

namespace Kavrin {

namespace {

// The host's triangulation, checked against the faces before use.
MStatus HostTriangles(const MFnMesh& fn, int numFaces, KIntArray& perFace, KInt3Array& triangles) {
    MIntArray counts, vertices;
    MStatus status = fn.getTriangles(counts, vertices);
    if (!status) return status;
    Copy(perFace, counts);
    long long total = 0;
    for (int c : perFace) {
        if (c < 0) return MS::kFailure;
        total += c;
    }
    if (perFace.length() != numFaces || total * 3 != static_cast<long long>(vertices.length()))
        return MS::kFailure;
    triangles.setLength(static_cast<int>(total), false);
    for (int t = 0; t < triangles.length(); ++t)
        triangles[t] = KInt3{vertices[3 * t], vertices[3 * t + 1], vertices[3 * t + 2]};
    return MS::kSuccess;
}

// Texture coordinates per triangle corner from the named set ("currentUVSet": the current one).
MStatus CornerUVs(const MFnMesh& fn, const char* uvSetName, const KIntArray& faceCounts,
                  const KIntArray& faceVertices, const KIntArray& perFace, const KInt3Array& triangles,
                  KArray<KFloat2>& uvs) {
    uvs.clear();
    if (!uvSetName || !uvSetName[0]) return MS::kSuccess;
    MString setName(uvSetName);
    if (setName == "currentUVSet") setName = fn.currentUVSetName();
    if (setName.length() == 0) return MS::kSuccess;  // a mesh without any UV set

    MFloatArray u, v;
    MStatus status = fn.getUVs(u, v, &setName);
    if (!status) return status;  // no set of that name
    if (u.length() == 0) return MS::kSuccess;
    MIntArray uvCounts, uvIds;
    status = fn.getAssignedUVs(uvCounts, uvIds, &setName);
    if (!status) return status;

    KArray<KFloat2> setUVs;
    setUVs.setLength(static_cast<int>(u.length() < v.length() ? u.length() : v.length()), false);
    for (int i = 0; i < setUVs.length(); ++i) setUVs[i] = KFloat2{u[i], v[i]};
    KIntArray counts, ids;
    Copy(counts, uvCounts);
    Copy(ids, uvIds);
    if (!TriangleCornerUVs(faceCounts, faceVertices, perFace, triangles, counts, ids, setUVs, uvs))
        return MS::kFailure;
    return MS::kSuccess;
}

}  // namespace

MStatus Convert(KPolyMesh& mesh, const MObject& meshObject) {
    mesh = KPolyMesh();
    MStatus status;
    MFnMesh fn(meshObject, &status);
    if (!status) return status;

    // Faces: vertex count per face, then the faces' vertex lists.
    MIntArray counts, vertices;
    status = fn.getVertices(counts, vertices);
    if (!status) return status;
    Copy(mesh.faceCounts, counts);
    Copy(mesh.faceVertices, vertices);

    // Points in object space. Mesh data (a plug's value) hands over its single-precision vertex
    // list directly; a mesh shape goes through getPoints, which gives its evaluated positions.
    const int numVertices = fn.numVertices();
    if (numVertices > 0 && meshObject.apiType() == MFn::kMeshData) {
        const float* raw = fn.getRawPoints(&status);
        if (!status || !raw) return status ? MStatus(MS::kFailure) : status;
        mesh.points.setLength(numVertices, false);
        std::memcpy(static_cast<void*>(mesh.points.data()), raw, sizeof(KVector) * numVertices);
    } else if (numVertices > 0) {
        MPointArray points;
        status = fn.getPoints(points, MSpace::kObject);
        if (!status) return status;
        Copy(mesh.points, points);
    }
    return MS::kSuccess;
}

MStatus Convert(KTriMesh& mesh, const MObject& meshObject, bool hostTriangulation, const char* uvSetName) {
    mesh.points.clear();
    mesh.triangles.clear();
    mesh.uvs.clear();
    KPolyMesh faces;
    MStatus status = Convert(faces, meshObject);
    // Guard (behaviour note "Maya layer: Convert, inconsistent host arrays").
    if (!status || !faces.valid()) {
        mesh.points = faces.points;
        return status ? MStatus(MS::kFailure) : status;
    }

    MFnMesh fn(meshObject);
    KIntArray perFace;
    if (hostTriangulation) {
        mesh.points = faces.points;
        status = HostTriangles(fn, faces.numFaces(), perFace, mesh.triangles);
        if (!status || !mesh.indicesValid()) {
            mesh.triangles.clear();
            return status ? MStatus(MS::kFailure) : status;
        }
    } else {
        faces.triangulate(mesh);  // fan per face, winding kept; copies the points
        FanTriangleCounts(faces.faceCounts, perFace);
    }
    return CornerUVs(fn, uvSetName, faces.faceCounts, faces.faceVertices, perFace, mesh.triangles, mesh.uvs);
}

void Copy(KVectorArray& to, const MPointArray& from) {
    to.setLength(static_cast<int>(from.length()), false);
    for (int i = 0; i < to.length(); ++i) {
        const MPoint& p = from[i];
        to[i] = KVector(static_cast<float>(p.x), static_cast<float>(p.y), static_cast<float>(p.z));
    }
}

void Copy(MPointArray& to, const KVectorArray& from) {
    to.setLength(static_cast<unsigned int>(from.length()));
    for (int i = 0; i < from.length(); ++i) to.set(static_cast<unsigned int>(i), from[i].x, from[i].y, from[i].z, 1.0);
}

void Copy(MVectorArray& to, const KVectorArray& from) {
    to.setLength(static_cast<unsigned int>(from.length()));
    for (int i = 0; i < from.length(); ++i) to.set(MVector(from[i].x, from[i].y, from[i].z), static_cast<unsigned int>(i));
}

void Copy(KIntArray& to, const MIntArray& from) {
    to.setLength(static_cast<int>(from.length()), false);
    if (!to.empty()) from.get(to.data());
}

MStatus GetSelectedNodes(MDagPathArray& paths, MFn::Type type, bool shapesOfTransforms) {
    paths.clear();
    MSelectionList selection;
    MStatus status = MGlobal::getActiveSelectionList(selection, true);
    if (!status) return status;

    auto add = [&paths](const MDagPath& path) {
        for (unsigned int i = 0; i < paths.length(); ++i)
            if (paths[i] == path) return;
        paths.append(path);
    };
    for (unsigned int i = 0; i < selection.length(); ++i) {
        MDagPath path;
        if (!selection.getDagPath(i, path)) continue;  // not a DAG object
        // The node itself decides: a path ending at a transform would also answer for its shape.
        if (path.node().hasFn(type)) {
            add(path);
            continue;
        }
        if (!shapesOfTransforms || !path.node().hasFn(MFn::kTransform)) continue;
        unsigned int shapes = 0;
        path.numberOfShapesDirectlyBelow(shapes);
        for (unsigned int s = 0; s < shapes; ++s) {
            MDagPath shape(path);
            if (!shape.extendToShapeDirectlyBelow(s) || !shape.node().hasFn(type)) continue;
            if (MFnDagNode(shape).isIntermediateObject()) continue;
            add(shape);
        }
    }
    return MS::kSuccess;
}

MObject DagPathToMObject(const MDagPath& path) { return path.node(); }

MVector CurrentNormal(const MPointArray& points, const MIntArray& vertexIds) {
    const int n = static_cast<int>(vertexIds.length());
    KIntArray ids;
    Copy(ids, vertexIds);
    KDouble3 normal;
    auto point = [&points](int i) {
        const MPoint& p = points[static_cast<unsigned int>(i)];
        return KDouble3{p.x, p.y, p.z};
    };
    // Guard (behaviour note "Maya layer: CurrentNormal, id outside the point list").
    if (!RingNormal(static_cast<int>(points.length()), ids.data(), n, point, normal))
        MGlobal::displayError("CurrentNormal: a vertex id lies outside the point list.");
    return MVector(normal[0], normal[1], normal[2]);
}

}  // namespace Kavrin
