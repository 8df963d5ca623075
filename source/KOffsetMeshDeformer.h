#pragma once
// The offset deformer node: pushes the vertices of a polygon mesh along their normals by the red
// channel of the shading network whose colour feeds "offset", sampled at every vertex. The
// arithmetic lives in Kavrin::KOffsetSolver; the node finds the shading engine, reads the
// vertices, hands the engine's samples to Maya's renderer and writes the points back.

#include <maya/MDagModifier.h>
#include <maya/MDataBlock.h>
#include <maya/MObject.h>
#include <maya/MPlug.h>
#include <maya/MPxDeformerNode.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>

#include "KOffsetSolver.h"

class KOffsetMeshDeformer : public MPxDeformerNode {
public:
    static void* creator();
    static MStatus initialize();
    MStatus compute(const MPlug& plug, MDataBlock& block) override;
    MStatus accessoryNodeSetup(MDagModifier& modifier) override;
    SchedulingType schedulingType() const override;

    static const MString name;
    static const MTypeId id;

    static MObject offsetObj;
    static MObject scaleObj;

private:
    // The name of the shading engine reached through the connections of "offset" (the last one
    // found); empty when there is none.
    MString _findShadingEngine() const;

    Kavrin::KOffsetSolver _solver;
    // The iterated vertices of the evaluation, kept so that their storage is reused.
    Kavrin::KArray<Kavrin::KOffsetVertex> _vertices;
};
