// Attribute creation, painted maps and initialize-time error reports.

#include <cstring>
#include <iostream>

#include <maya/MFnAttribute.h>
#include <maya/MFnData.h>
#include <maya/MFnDoubleArrayData.h>
#include <maya/MFnNumericData.h>
#include <maya/MPxDeformerNode.h>

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

namespace {

// Creates one row's attribute with the creator of its type; compounds get their children.
MStatus CreateRow(const KAttributeTable& table, int row, MObject* const handles[]) {
    const KAttributeRow& r = table.rows[row];
    MObject& attr = *handles[row];
    MFnNumericAttribute numeric;
    MFnTypedAttribute typed;
    switch (r.type) {
        case KAttributeType::kBool: return CreateBoolAttr(numeric, attr, r.longName, r.shortName, r.defaults[0] != 0.0);
        case KAttributeType::kInt:
            return CreateIntAttr(numeric, attr, r.longName, r.shortName, static_cast<int>(r.defaults[0]));
        case KAttributeType::kFloat:
            return CreateFloatAttr(numeric, attr, r.longName, r.shortName, static_cast<float>(r.defaults[0]));
        case KAttributeType::kDouble: return CreateDoubleAttr(numeric, attr, r.longName, r.shortName, r.defaults[0]);
        case KAttributeType::kFloat3:
            return CreateF3Attr(numeric, attr, r.longName, r.shortName, static_cast<float>(r.defaults[0]));
        case KAttributeType::kColour: {
            MStatus status = CreateColorAttr(numeric, attr, r.longName, r.shortName);
            if (status && r.hasDefault)
                status = numeric.setDefault(static_cast<float>(r.defaults[0]), static_cast<float>(r.defaults[1]),
                                            static_cast<float>(r.defaults[2]));
            return status;
        }
        case KAttributeType::kEnum: {
            MFnEnumAttribute fn;
            MStatus status = CreateEnumAttr(fn, attr, r.longName, r.shortName, static_cast<int>(r.defaults[0]));
            for (int f = 0; status && f < r.numFields; ++f)
                status = fn.addField(r.fields[f].name, static_cast<short>(r.fields[f].index));
            return status;
        }
        case KAttributeType::kTime: {
            MFnUnitAttribute fn;
            return CreateTimeAttr(fn, attr, r.longName, r.shortName, r.defaults[0]);
        }
        case KAttributeType::kMatrix: {
            MFnMatrixAttribute fn;
            return CreateMatrixAttr(fn, attr, r.longName, r.shortName);
        }
        case KAttributeType::kMesh: return CreateMeshAttr(typed, attr, r.longName, r.shortName);
        case KAttributeType::kIntArray: return CreateIArrayAttr(typed, attr, r.longName, r.shortName);
        case KAttributeType::kDoubleArray: return CreateDArrayAttr(typed, attr, r.longName, r.shortName);
        case KAttributeType::kVectorArray: return CreateVArrayAttr(typed, attr, r.longName, r.shortName);
        case KAttributeType::kCompound: {
            MFnCompoundAttribute fn;
            MStatus status = CreateCompoundAttr(fn, attr, r.longName, r.shortName);
            // Its children are the rows before it that name it (Maya adds them with it).
            for (int c = 0; status && c < row; ++c)
                if (table.rows[c].parent && std::strcmp(table.rows[c].parent, r.longName) == 0)
                    status = fn.addChild(*handles[c]);
            return status;
        }
        case KAttributeType::kMessage: {
            MFnMessageAttribute fn;
            return CreateMessageAttr(fn, attr, r.longName, r.shortName);
        }
    }
    return MS::kInvalidParameter;
}

// The flags and limits the creators leave to the caller.
MStatus ApplyFlags(const KAttributeRow& r, const MObject& attr) {
    MFnAttribute fn(attr);
    if (r.has(KAttributeRow::kHidden)) fn.setHidden(true);
    if (r.has(KAttributeRow::kArray)) fn.setArray(true);
    if (r.has(KAttributeRow::kNotKeyable)) fn.setKeyable(false);
    if (r.has(KAttributeRow::kStorable)) fn.setStorable(true);
    if (r.has(KAttributeRow::kCached)) fn.setCached(true);
    if (r.has(KAttributeRow::kChannelBox)) fn.setChannelBox(true);
    if (!r.limitsSet) return MS::kSuccess;
    MFnNumericAttribute numeric(attr);
    if (r.hasLimit(KAttributeRow::kMin)) numeric.setMin(r.limits[KAttributeRow::kMin]);
    if (r.hasLimit(KAttributeRow::kMax)) numeric.setMax(r.limits[KAttributeRow::kMax]);
    if (r.hasLimit(KAttributeRow::kSoftMin)) numeric.setSoftMin(r.limits[KAttributeRow::kSoftMin]);
    if (r.hasLimit(KAttributeRow::kSoftMax)) numeric.setSoftMax(r.limits[KAttributeRow::kSoftMax]);
    return MS::kSuccess;
}

// A row of the table, or the deformer's inherited input and output geometry; null otherwise.
const MObject* Named(const KAttributeTable& table, MObject* const handles[], const char* name) {
    for (int i = 0; i < table.numRows; ++i)
        if (std::strcmp(table.rows[i].longName, name) == 0) return handles[i];
    if (std::strcmp(name, "inputGeom") == 0) return &MPxDeformerNode::inputGeom;
    if (std::strcmp(name, "outputGeom") == 0) return &MPxDeformerNode::outputGeom;
    return nullptr;
}

}  // namespace

MStatus AddAttributes(const KAttributeTable& table, MObject* const handles[], int numHandles) {
    if (numHandles != table.numRows) {
        ReportApiError(MStatus(MS::kInvalidParameter), table.source, 0);
        return MS::kInvalidParameter;
    }
    for (int i = 0; i < table.numRows; ++i) {
        const KAttributeRow& r = table.rows[i];
        MStatus status = CreateRow(table, i, handles);
        if (status) status = ApplyFlags(r, *handles[i]);
        // Decision (behaviour note "Maya layer: attributes declared in tables"): a child is added
        // with its compound, and a failure names the row.
        if (status && !r.parent) status = MPxNode::addAttribute(*handles[i]);
        if (!status) ReportApiError(status, table.source, i + 1);
    }
    for (int k = 0; k < table.numAffects; ++k) {
        const MObject* from = Named(table, handles, table.affects[k].from);
        const MObject* to = Named(table, handles, table.affects[k].to);
        const MStatus status =
            from && to ? MPxNode::attributeAffects(*from, *to) : MStatus(MS::kInvalidParameter);
        if (!status) ReportApiError(status, table.source, table.numRows + k + 1);
    }
    for (int c = 0; c < table.numPaintCommands; ++c) MGlobal::executeCommand(table.paintCommands[c], false, false);
    return MS::kSuccess;
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
