#pragma once
// The delta-mush deformer node. Everything it decides and computes lives in
// Kavrin::KDeltaMushSolver; the node reads its plugs and mesh, calls the engine and writes the
// points back.

#include <maya/MDataBlock.h>
#include <maya/MItGeometry.h>
#include <maya/MMatrix.h>
#include <maya/MObject.h>
#include <maya/MPxDeformerNode.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>

#include "KDeltaMushSolver.h"

class KDeltaMush : public MPxDeformerNode {
public:
    static void* creator();
    static MStatus initialize();
    void postConstructor() override;
    MStatus deform(MDataBlock& block, MItGeometry& iter, const MMatrix& localToWorld,
                   unsigned int multiIndex) override;

    static const MString name;
    static const MTypeId id;

    static MObject onlyOnceObj;
    static MObject gotDeltaObj;
    static MObject restMeshObj;
    static MObject deltaObj;
    static MObject numIterObj;

private:
    Kavrin::KDeltaMushSolver _solver;
    // The evaluation's inputs, kept so that their storage is reused.
    Kavrin::KPolyMesh _curMesh;
    Kavrin::KPolyMesh _restMesh;
    Kavrin::KArray<Kavrin::KDouble3> _delta;
};
