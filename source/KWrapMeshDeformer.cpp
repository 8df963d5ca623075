#include "KWrapMeshDeformer.h"

#include <maya/MFnDependencyNode.h>
#include <maya/MFnIntArrayData.h>
#include <maya/MFnNumericAttribute.h>
#include <maya/MFnTypedAttribute.h>
#include <maya/MFnVectorArrayData.h>
#include <maya/MIntArray.h>
#include <maya/MPoint.h>
#include <maya/MThreadUtils.h>
#include <maya/MVectorArray.h>

#include "KMayaBase.h"
#include "KMayaMessageSink.h"
#include "KPluginRegistration.h"

const MString KWrapMeshDeformer::name(Kavrin::kWrapMeshDeformerNode.name);
const MTypeId KWrapMeshDeformer::id(Kavrin::kWrapMeshDeformerNode.id);

MObject KWrapMeshDeformer::driverMeshObj;
MObject KWrapMeshDeformer::bindingObj;
MObject KWrapMeshDeformer::bindTrianglesObj;
MObject KWrapMeshDeformer::bindOffsetsObj;

namespace {

const char* const kGeometryMismatch =
    "KWrapMeshDeformer: the deformed geometry's point indices do not match its point count; the points were left "
    "untouched.";

const char* const kPointsUnreadable =
    "KWrapMeshDeformer: the deformed geometry's points could not be read; the points were left untouched.";

// "bindTriangles"; false when the attribute holds no int array.
bool ReadTriangles(MDataBlock& block, Kavrin::KIntArray& triangles) {
    triangles.clear();
    MObject data = block.inputValue(KWrapMeshDeformer::bindTrianglesObj).data();
    if (data.isNull()) return false;
    MStatus status;
    MFnIntArrayData fn(data, &status);
    if (!status) return false;
    Kavrin::Copy(triangles, fn.array());
    return true;
}

// "bindOffsets"; false when the attribute holds no vector array.
bool ReadOffsets(MDataBlock& block, Kavrin::KVectorArray& offsets) {
    offsets.clear();
    MObject data = block.inputValue(KWrapMeshDeformer::bindOffsetsObj).data();
    if (data.isNull()) return false;
    MStatus status;
    MFnVectorArrayData fn(data, &status);
    if (!status) return false;
    const MVectorArray values = fn.array();
    offsets.setLength(static_cast<int>(values.length()), false);
    for (int i = 0; i < offsets.length(); ++i) {
        const MVector& v = values[static_cast<unsigned int>(i)];
        offsets[i] = Kavrin::KVector(static_cast<float>(v.x), static_cast<float>(v.y), static_cast<float>(v.z));
    }
    return true;
}

void WriteBinding(MDataBlock& block, const Kavrin::KIntArray& triangles, const Kavrin::KVectorArray& offsets) {
    MIntArray indices(static_cast<unsigned int>(triangles.length()));
    for (int i = 0; i < triangles.length(); ++i) indices[static_cast<unsigned int>(i)] = triangles[i];
    MFnIntArrayData intData;
    MObject trianglesData = intData.create(indices);
    block.outputValue(KWrapMeshDeformer::bindTrianglesObj).set(trianglesData);

    MVectorArray vectors;
    Kavrin::Copy(vectors, offsets);
    MFnVectorArrayData vectorData;
    MObject offsetsData = vectorData.create(vectors);
    block.outputValue(KWrapMeshDeformer::bindOffsetsObj).set(offsetsData);
}

}  // namespace

void* KWrapMeshDeformer::creator() { return new KWrapMeshDeformer(); }

MStatus KWrapMeshDeformer::initialize() {
    MObject* const handles[] = {&driverMeshObj, &bindingObj, &bindTrianglesObj, &bindOffsetsObj};
    return Kavrin::AddAttributes(Kavrin::kWrapMeshDeformerAttributeTable, handles);
}

void KWrapMeshDeformer::postConstructor() {
    MFnDependencyNode fn(thisMObject());
    fn.setName("KWrapMeshDeformer#");
}

MStatus KWrapMeshDeformer::deform(MDataBlock& block, MItGeometry& iter, const MMatrix& localToWorld,
                                  unsigned int multiIndex) {
    Kavrin::KWrapBindingInput in;
    in.threads = MThreadUtils::getNumThreads();
    in.envelope = block.inputValue(envelope).asFloat();
    if (!Kavrin::KWrapBinding::Active(in.envelope)) return MS::kSuccess;
    if (Kavrin::RefuseOtherGeometry(Kavrin::kWrapMeshDeformerNode.name, multiIndex)) return MS::kSuccess;
    const MMatrix inverse = localToWorld.inverse();

    // Decision (behaviour note "Wrap: the driver in world space"): the driver's world mesh with
    // its transform applied, so that moving or parenting the driver moves the wrapped mesh.
    MObject driverMesh = block.inputValue(driverMeshObj).asMeshTransformed();
    if (driverMesh.isNull()) return MS::kSuccess;
    // A driver that cannot be converted leaves no triangles, which the engine reports.
    // Decision (behaviour note "Wrap: no texture coordinates read"): nothing in the wrap uses them.
    Kavrin::Convert(_driver, driverMesh, false, nullptr);
    in.driver = &_driver;

    // Guard (behaviour note "Wrap: points that cannot be read")
    if (!iter.allPositions(_positions, MSpace::kTransform)) {
        MGlobal::displayError(kPointsUnreadable);
        return MS::kSuccess;
    }
    const int count = static_cast<int>(_positions.length());
    _points.resize(4 * static_cast<size_t>(count));
    if (count > 0) _positions.get(reinterpret_cast<double(*)[4]>(_points.data()));
    in.points = _points.data();
    in.pointCount = count;
    localToWorld.get(in.localToWorld);
    in.binding = block.inputValue(bindingObj).asBool();
    // The stored binding is read only when a reopened scene's binding is to be loaded.
    Kavrin::KIntArray storedTriangles;
    Kavrin::KVectorArray storedOffsets;
    if (_engine.storedBindingNeeded(in)) {
        in.bindTriangles = ReadTriangles(block, storedTriangles) ? &storedTriangles : nullptr;
        in.bindOffsets = ReadOffsets(block, storedOffsets) ? &storedOffsets : nullptr;
    }

    Kavrin::KMayaMessageSink sink;
    const Kavrin::KWrapBindingResult result = _engine.evaluate(in, sink);
    // Decision (behaviour note "Maya layer: stored data written only in the normal context").
    const bool normal = Kavrin::NormalContext(block);
    if (result.writeBindData && normal) WriteBinding(block, _engine.boundTriangles(), _engine.boundOffsets());
    if (result.writeBinding && normal) block.outputValue(bindingObj).set(true);
    if (result.outcome.failed()) {
        Kavrin::ReportOutcome(result.outcome);
        return MS::kSuccess;
    }
    if (!result.outcome.deformed()) return MS::kSuccess;
    // Guard (behaviour note "Wrap: iterator indices beyond the point count")
    if (!Kavrin::IndicesBelow(iter, _engine.points().length())) {
        MGlobal::displayError(kGeometryMismatch);
        return MS::kSuccess;
    }

    // Kept on purpose (behaviour note "Wrap: world-space result times the inverse matrix")
    double out[4];
    for (iter.reset(); !iter.isDone(); iter.next()) {
        const MPoint current = iter.position(MSpace::kObject);
        _engine.objectPoint(iter.index(), current.w, inverse.matrix, out);
        iter.setPosition(MPoint(out[0], out[1], out[2], out[3]), MSpace::kObject);
    }
    return MS::kSuccess;
}
