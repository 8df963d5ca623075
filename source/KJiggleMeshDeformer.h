#pragma once
// The jiggle deformer node. Everything it decides and computes lives in Kavrin::KJiggleSolver;
// the node reads its plugs, the mesh and the iterated points, calls the engine and writes the
// painted maps and the points back.

#include <maya/MDataBlock.h>
#include <maya/MDoubleArray.h>
#include <maya/MFloatVectorArray.h>
#include <maya/MItGeometry.h>
#include <maya/MMatrix.h>
#include <maya/MObject.h>
#include <maya/MPointArray.h>
#include <maya/MPxDeformerNode.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>
#include <maya/MTypes.h>
#if MAYA_API_VERSION >= 20200000
#include <maya/MEvaluationNode.h>
#include <maya/MNodeCacheDisablingInfo.h>
#include <maya/MNodeCacheSetupInfo.h>
#include <maya/MObjectArray.h>
#endif

#include "KJiggleSolver.h"

class KJiggleMeshDeformer : public MPxDeformerNode {
public:
    static void* creator();
    static MStatus initialize();
    MStatus deform(MDataBlock& block, MItGeometry& iter, const MMatrix& localToWorld,
                   unsigned int multiIndex) override;
#if MAYA_API_VERSION >= 20200000
    // Opts out of cached playback (Maya 2020 and later).
    void getCacheSetup(const MEvaluationNode& evalNode, MNodeCacheDisablingInfo& disablingInfo,
                       MNodeCacheSetupInfo& cacheSetupInfo, MObjectArray& monitoredAttributes) const override;
#endif

    static const MString name;
    static const MTypeId id;

    static MObject computingMethodObj;
    static MObject inTimeObj;
    static MObject startFrameObj;
    static MObject timeScaleObj;
    static MObject worldMatrixObj;
    static MObject dampingObj;
    static MObject stiffnessObj;
    static MObject normalStrengthObj;
    static MObject dampingMapObj;
    static MObject stiffnessMapObj;
    static MObject normalStrengthMapObj;
    static MObject scaleObj;
    static MObject distanceLimitObj;
    static MObject directionBiasObj;
    static MObject moreAccurateTangentObj;

private:
    // Reads a painted map into values and points map at them (no values when it cannot be read).
    void _readMap(MDataBlock& block, const MObject& attr, Kavrin::KArray<double>& values, Kavrin::KJiggleMap& map);

    Kavrin::KJiggleSolver _solver;
    // The evaluation's inputs, kept so that their storage is reused.
    MPointArray _iterPoints;
    MPointArray _meshPoints;
    MFloatVectorArray _hostNormals;
    MDoubleArray _hostMap;
    Kavrin::KArray<Kavrin::KDouble3> _points;
    Kavrin::KIntArray _indices;
    Kavrin::KArray<float> _weights;
    Kavrin::KArray<Kavrin::KDouble3> _restPoints;
    Kavrin::KVectorArray _normals;
    Kavrin::KTriMesh _tanMesh;
    Kavrin::KArray<double> _dampingMap;
    Kavrin::KArray<double> _stiffnessMap;
    Kavrin::KArray<double> _normalStrengthMap;
};
