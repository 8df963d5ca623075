// Attribute creation, painted maps and initialize-time error reports.

#include <iostream>

#include <maya/MFnData.h>
#include <maya/MFnDoubleArrayData.h>
#include <maya/MFnNumericData.h>

#include "KMayaBase.h"
#include "KWeightMap.h"

namespace Kavrin {

namespace {

MStatus Numeric(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                MFnNumericData::Type type, double defaultValue) {
    MStatus status;
    attr = fn.create(longName, shortName, type, defaultValue, &status);
    if (!status) return status;
    fn.setKeyable(true);
    return fn.setStorable(true);
}

MStatus Typed(MFnTypedAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
              MFnData::Type type) {
    MStatus status;
    attr = fn.create(longName, shortName, type, MObject::kNullObj, &status);
    if (!status) return status;
    return fn.setStorable(true);
}

}  // namespace

MStatus CreateBoolAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                       bool defaultValue) {
    return Numeric(fn, attr, longName, shortName, MFnNumericData::kBoolean, defaultValue ? 1.0 : 0.0);
}

MStatus CreateIntAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                      int defaultValue) {
    return Numeric(fn, attr, longName, shortName, MFnNumericData::kInt, defaultValue);
}

MStatus CreateFloatAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                        float defaultValue) {
    return Numeric(fn, attr, longName, shortName, MFnNumericData::kFloat, defaultValue);
}

MStatus CreateDoubleAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName, double defaultValue) {
    return Numeric(fn, attr, longName, shortName, MFnNumericData::kDouble, defaultValue);
}

MStatus CreateF3Attr(MFnNumericAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                     float defaultValue) {
    MStatus status;
    const char* axes[3] = {"X", "Y", "Z"};
    MObject children[3];
    for (int i = 0; i < 3; ++i) {
        children[i] = fn.create(longName + axes[i], shortName + axes[i], MFnNumericData::kFloat, defaultValue,
                                &status);
        if (!status) return status;
    }
    attr = fn.create(longName, shortName, children[0], children[1], children[2], &status);
    if (!status) return status;
    fn.setDefault(defaultValue, defaultValue, defaultValue);
    fn.setKeyable(true);  // passed on to the children
    return fn.setStorable(true);
}

MStatus CreateColorAttr(MFnNumericAttribute& fn, MObject& attr, const MString& longName,
                        const MString& shortName) {
    MStatus status;
    attr = fn.createColor(longName, shortName, &status);
    if (!status) return status;
    fn.setKeyable(true);
    return fn.setStorable(true);
}

MStatus CreateEnumAttr(MFnEnumAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                       int defaultIndex) {
    MStatus status;
    attr = fn.create(longName, shortName, static_cast<short>(defaultIndex), &status);
    if (!status) return status;
    fn.setKeyable(true);
    return fn.setStorable(true);
}

MStatus CreateTimeAttr(MFnUnitAttribute& fn, MObject& attr, const MString& longName, const MString& shortName,
                       double defaultValue) {
    MStatus status;
    attr = fn.create(longName, shortName, MFnUnitAttribute::kTime, defaultValue, &status);
    if (!status) return status;
    return fn.setStorable(true);
}

MStatus CreateMatrixAttr(MFnMatrixAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName) {
    MStatus status;
    attr = fn.create(longName, shortName, MFnMatrixAttribute::kDouble, &status);
    if (!status) return status;
    return fn.setStorable(true);
}

MStatus CreateMeshAttr(MFnTypedAttribute& fn, MObject& attr, const MString& longName, const MString& shortName) {
    return Typed(fn, attr, longName, shortName, MFnData::kMesh);
}

MStatus CreateIArrayAttr(MFnTypedAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName) {
    return Typed(fn, attr, longName, shortName, MFnData::kIntArray);
}

MStatus CreateDArrayAttr(MFnTypedAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName) {
    return Typed(fn, attr, longName, shortName, MFnData::kDoubleArray);
}

MStatus CreateVArrayAttr(MFnTypedAttribute& fn, MObject& attr, const MString& longName,
                         const MString& shortName) {
    return Typed(fn, attr, longName, shortName, MFnData::kVectorArray);
}

MStatus CreateCompoundAttr(MFnCompoundAttribute& fn, MObject& attr, const MString& longName,
                           const MString& shortName) {
    MStatus status;
    attr = fn.create(longName, shortName, &status);
    if (!status) return status;
    return fn.setStorable(true);
}

MStatus CreateMessageAttr(MFnMessageAttribute& fn, MObject& attr, const MString& longName,
                          const MString& shortName) {
    MStatus status;
    attr = fn.create(longName, shortName, &status);
    if (!status) return status;
    return fn.setStorable(true);
}

void ReportApiError(const MStatus& status, const char* source, int line) {
    std::cerr << ApiErrorText(source, line) << std::flush;
    status.perror("");
}

bool GetMapValues(MDataBlock& block, const MObject& attr, MDoubleArray& values) {
    values.clear();
    MStatus status;
    MDataHandle handle = block.inputValue(attr, &status);
    if (!status) return false;
    MObject data = handle.data();
    if (data.isNull()) return false;
    MFnDoubleArrayData fn(data, &status);
    if (!status) return false;
    status = fn.copyTo(values);
    return status && values.length() > 0;
}

MStatus SetMapValues(MDataBlock& block, const MObject& attr, MDoubleArray& values) {
    MStatus status;
    MFnDoubleArrayData fn;
    MObject data = fn.create(values, &status);
    if (!status) return status;
    MDataHandle handle = block.outputValue(attr, &status);
    if (!status) return status;
    handle.set(data);
    return MS::kSuccess;
}

bool GetMapValuesOrFull(MDataBlock& block, const MObject& attr, MDoubleArray& values, int numVertices) {
    const bool read = GetMapValues(block, attr, values);
    if (!ResolveWeightMap(read, values, numVertices)) return true;
    SetMapValues(block, attr, values);
    return false;
}

}  // namespace Kavrin
