#pragma once
// The wrap deformer node: every point follows its closest triangle of a driver mesh. Everything
// it decides and computes lives in Kavrin::KWrapBinding; the node reads its plugs and meshes,
// calls the engine and writes the points and the stored binding back.

#include <vector>

#include <maya/MDataBlock.h>
#include <maya/MItGeometry.h>
#include <maya/MMatrix.h>
#include <maya/MObject.h>
#include <maya/MPointArray.h>
#include <maya/MPxDeformerNode.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>

#include "KWrapBinding.h"

class KWrapMeshDeformer : public MPxDeformerNode {
public:
    static void* creator();
    static MStatus initialize();
    void postConstructor() override;
    MStatus deform(MDataBlock& block, MItGeometry& iter, const MMatrix& localToWorld,
                   unsigned int multiIndex) override;

    static const MString name;
    static const MTypeId id;

    static MObject driverMeshObj;
    static MObject bindingObj;
    // The binding saved with the scene: per point its driver triangle and its offset.
    static MObject bindTrianglesObj;
    static MObject bindOffsetsObj;

private:
    Kavrin::KWrapBinding _engine;
    // The evaluation's inputs, kept so that their storage is reused.
    Kavrin::KTriMesh _driver;
    MPointArray _positions;
    std::vector<double> _points;
};
