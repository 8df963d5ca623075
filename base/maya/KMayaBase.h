#pragma once
// The bridge between Maya and the base types: mesh and array conversion, attribute creation,
// painted maps, selection and small geometry queries. The only place (with KDrawOverride.h)
// where base types meet the host; it holds no state.

#include <cstddef>

#include <maya/MDagPath.h>
#include <maya/MDagPathArray.h>
#include <maya/MDataBlock.h>
#include <maya/MDoubleArray.h>
#include <maya/MFn.h>
#include <maya/MFnCompoundAttribute.h>
#include <maya/MFnEnumAttribute.h>
#include <maya/MFnMatrixAttribute.h>
#include <maya/MFnMessageAttribute.h>
#include <maya/MFnNumericAttribute.h>
#include <maya/MFnTypedAttribute.h>
#include <maya/MFnUnitAttribute.h>
#include <maya/MGlobal.h>
#include <maya/MIntArray.h>
#include <maya/MItGeometry.h>
#include <maya/MObject.h>
#include <maya/MPlug.h>
#include <maya/MPointArray.h>
#include <maya/MStatus.h>
#include <maya/MString.h>
#include <maya/MVector.h>
#include <maya/MVectorArray.h>

#include "KHostMessages.h"
#include "KNodeAttributes.h"
#include "KPolyMesh.h"

namespace Kavrin {

// ---- Meshes and arrays -------------------------------------------------------------------

// Replaces mesh with the Maya mesh's vertex list (object space, single precision, in the
// host's order), its faces split into triangles that keep each face's winding, and texture
// coordinates. With hostTriangulation false every face becomes a fan around its first vertex
// (face order, the same triangles as KPolyMesh::triangulate); with true the host's own
// triangulation is used, which also handles concave faces. uvs gets three entries per triangle,
// its corners' coordinates in the UV set uvSetName ("currentUVSet" means the mesh's current
// set; (0, 0) for a corner of a face without UVs); with a null or empty name, or a set without
// UVs, uvs is empty. A failure leaves whatever part was read, reports through the status and
// never reads past the host's arrays.
MStatus Convert(KTriMesh& mesh, const MObject& meshObject, bool hostTriangulation, const char* uvSetName);

// Replaces mesh with the Maya mesh's vertex list (object space, single precision, in the host's
// order) and its faces as they are (vertex count per face, then the faces' vertex indices), the
// form every engine that works on polygons takes. A failure leaves whatever part was read and
// reports through the status.
MStatus Convert(KPolyMesh& mesh, const MObject& meshObject);

// One KVector per point: x, y, z narrowed to float, w dropped.
void Copy(KVectorArray& to, const MPointArray& from);
// One point per vector, w = 1.
void Copy(MPointArray& to, const KVectorArray& from);
// One vector per element.
void Copy(MVectorArray& to, const KVectorArray& from);
// The same ints (face sizes, face vertex lists, neighbour lists).
void Copy(KIntArray& to, const MIntArray& from);

// ---- Attribute creation --------------------------------------------------------------------
// Each creates one attribute with the given function set and stores it in attr; the caller sets
// further flags and adds it. Numeric and enum attributes are keyable; every attribute is
// storable.

MStatus CreateBoolAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                       bool defaultValue);
MStatus CreateIntAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                      int defaultValue);
MStatus CreateFloatAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                        float defaultValue);
MStatus CreateDoubleAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName, double defaultValue);
// Three float children named longName/shortName + "X", "Y", "Z", each defaulting to defaultValue;
// fn is left on the parent.
MStatus CreateF3Attr(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                     float defaultValue);
MStatus CreateColorAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName,
                        const MString& shortName);
// The caller adds the field names.
MStatus CreateEnumAttr(MFnEnumAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                       int defaultIndex);
MStatus CreateTimeAttr(MFnUnitAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                       double defaultValue);
MStatus CreateMatrixAttr(MFnMatrixAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName);
MStatus CreateMeshAttr(MFnTypedAttribute& fn, MObject& attr, const MString& longName, const MString& shortName);
MStatus CreateIArrayAttr(MFnTypedAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName);
MStatus CreateDArrayAttr(MFnTypedAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName);
MStatus CreateVArrayAttr(MFnTypedAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName);
// The caller adds the children.
MStatus CreateCompoundAttr(MFnCompoundAttribute& fn, MObject& attr, const MString& longName,
                           const MString& shortName);
MStatus CreateMessageAttr(MFnMessageAttribute& fn, MObject& attr, const MString& longName,
                          const MString& shortName);

// A failed call in a node's initialize: writes ApiErrorText(source, line) to standard error,
// then lets the status report itself with an empty message. The caller goes on.
void ReportApiError(const MStatus& status, const char* source, int line);

// A node type's initialize: creates every row of the table into handles[row] (numHandles must
// be the table's row count), sets its flags, limits, fields and default, adds each compound's
// children to it and every top-level row to the node (a failed add is reported with the row's
// number, 1-based, and the rest goes on), declares the table's attributeAffects (the deformer's
// "inputGeom" and "outputGeom" by name) and runs its paint commands.
MStatus AddAttributes(const KAttributeTable& table, MObject* const handles[], int numHandles);
template <std::size_t N>
MStatus AddAttributes(const KAttributeTable& table, MObject* const (&handles)[N]) {
    return AddAttributes(table, handles, static_cast<int>(N));
}

// ---- Evaluations ----------------------------------------------------------------------------

// Whether the block is evaluated in the normal context (the current time, for the scene), not
// for another time (cached playback filling its cache, a query at another frame). Stored data is
// written back only in the normal context.
bool NormalContext(MDataBlock& block);

// Marks element multiIndex of the deformer's "outputGeom" clean: a deform that fails leaves the
// geometry as it came in, and Maya does not evaluate (and report) it again at every redraw.
void SetOutputClean(MDataBlock& block, unsigned int multiIndex);

// A deformer that keeps the state of one geometry: for any geometry but the first, shows
// OneGeometryText and returns true (the geometry is then left as it came in).
bool RefuseOtherGeometry(const char* nodeType, unsigned int multiIndex);

// True when every index the iterator visits lies in 0..count-1, so that a write-back never reads
// past the engine's result (one cheap pass, so that nothing is ever half written).
bool IndicesBelow(MItGeometry& iter, int count);

// ---- Painted maps ---------------------------------------------------------------------------

// Reads the double-array attribute attr into values. False when it cannot be read or holds no
// values (values is then empty).
bool GetMapValues(MDataBlock& block, const MObject& attr, MDoubleArray& values);
// Writes values into the double-array attribute attr.
MStatus SetMapValues(MDataBlock& block, const MObject& attr, MDoubleArray& values);
// GetMapValues, and for a map never painted one 1.0 per vertex, written back with SetMapValues.
// Returns true when the stored map was used.
bool GetMapValuesOrFull(MDataBlock& block, const MObject& attr, MDoubleArray& values, int numVertices);

// ---- Selection and geometry queries -------------------------------------------------------------

// The selected DAG objects of the given type, in selection order, each once. With shapesOfTransforms
// true, a selected transform counts through its shapes of that type (intermediate shapes such as
// a deformed mesh's original are skipped), so selecting a mesh's transform selects the mesh.
MStatus GetSelectedNodes(MDagPathArray& paths, MFn::Type type, bool shapesOfTransforms);

// The node at the end of path.
MObject DagPathToMObject(const MDagPath& path);

// The unit normal of the closed polygon points[vertexIds[0]], ..., points[vertexIds[n-1]] in that
// order, oriented as KRingNormal.h describes. An id outside points gives (0, 0, 0) and an error.
MVector CurrentNormal(const MPointArray& points, const MIntArray& vertexIds);

// Reads children 0, 1 and 2 of a compound plug into v0, v1 and v2. A child that cannot be read
// keeps its value and reports kGetAttr3Error; the others are still read.
inline void KGetAttr3(const MPlug& plug, float& v0, float& v1, float& v2) {
    float* values[3] = {&v0, &v1, &v2};
    for (unsigned int i = 0; i < 3; ++i) {
        MStatus status;
        const MPlug child = plug.child(i, &status);
        float value = 0.0f;
        if (status) status = child.getValue(value);
        if (status)
            *values[i] = value;
        else
            MGlobal::displayError(kGetAttr3Error);
    }
}

}  // namespace Kavrin
