#pragma once
// The deformation-transfer node. Everything it decides and computes lives in
// Kavrin::KDeformationTransferSolver; the node reads its plugs and meshes, calls the engine and
// writes the output mesh and the "reCalculate" trigger back as the engine's result asks.

#include <maya/MDataBlock.h>
#include <maya/MObject.h>
#include <maya/MPlug.h>
#include <maya/MPxNode.h>
#include <maya/MStatus.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>

#include "KDeformationTransferSolver.h"

class KDeformationTransfer : public MPxNode {
public:
    static void* creator();
    static MStatus initialize();
    void postConstructor() override;
    MStatus compute(const MPlug& plug, MDataBlock& block) override;

    static const MString name;
    static const MTypeId id;

    static MObject sourceMeshObj;
    static MObject targetMeshObj;
    static MObject outputMeshObj;
    static MObject vertCorresObj;
    static MObject reCalculateObj;
    static MObject calcModeObj;
    static MObject iterCountObj;
    static MObject aimObj;
    static MObject srcFixPNumObj;
    static MObject trgFixPNumObj;

private:
    // A copy of the source or target input with the engine's points and normals, set on
    // "outputMesh".
    MStatus _writeOutputMesh(MDataBlock& block, const Kavrin::KDeformationTransferResult& result);
    // Debugging aid that no path calls: writes the triangle pairing to /tmp/triCorres.out, the
    // same text as `kavrin transfer --pairing-log`.
    void _writeTriCorresLog() const;

    MObject _self;
    Kavrin::KDeformationTransferSolver _solver;
    Kavrin::KDeformationTransferInput _input;  // kept so its arrays are reused between evaluations
};
