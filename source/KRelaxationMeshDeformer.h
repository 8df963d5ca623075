#pragma once
// The relaxation deformer node. Binding, relaxation passes, collisions and every decision of an
// evaluation live in Kavrin::KRelaxationSolver; the painting redirection's decisions in
// KColliderPainting.h. The node reads its plugs and meshes into the engine's input, calls it and
// writes back what the result asks for; its callback and connectionMade only move data between
// "colliderMap" and the collider multipliers.

#include <maya/MCallbackIdArray.h>
#include <maya/MDataBlock.h>
#include <maya/MItGeometry.h>
#include <maya/MMatrix.h>
#include <maya/MMessage.h>
#include <maya/MNodeMessage.h>
#include <maya/MObject.h>
#include <maya/MPlug.h>
#include <maya/MPxDeformerNode.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>

#include <vector>

#include "KColliderPainting.h"
#include "KNeighbourCache.h"
#include "KRelaxationSolver.h"

class KRelaxationMeshDeformer : public MPxDeformerNode {
public:
    KRelaxationMeshDeformer();
    ~KRelaxationMeshDeformer() override;
    void postConstructor() override;
    MStatus connectionMade(const MPlug& plug, const MPlug& otherPlug, bool asSrc) override;
    MStatus deform(MDataBlock& block, MItGeometry& iter, const MMatrix& worldMatrix,
                   unsigned int geometryIndex) override;

    static void* creator();
    static MStatus initialize();

    static const MString name;
    static const MTypeId id;

    static MObject enableScaleSafeObj;
    static MObject iterationsObj;
    static MObject doCollisionsObj;
    static MObject collisionStepsObj;
    static MObject connVrtIdObj;
    static MObject connVrtIdListObj;
    static MObject connVrtIdNrmOrderObj;
    static MObject connVrtIdNrmOrderListObj;
    static MObject bObj;
    static MObject bScalableObj;
    static MObject bScalableListObj;
    static MObject meanValWgtObj;
    static MObject meanValWgtListObj;
    static MObject stiffnessObj;
    static MObject paintTransObj;
    static MObject colliderMapObj;
    static MObject mshColliderObj;
    static MObject mshColliderTagObj;
    static MObject mshColliderVrtMultObj;
    static MObject mshColliderVrtMultListObj;

    // Forwards the host's attribute-changed message to the node given as client data.
    static void sAttrChangedCallback(MNodeMessage::AttributeMessage message, MPlug& plug, MPlug& otherPlug,
                                     void* clientData);
    void attrChangedCallback(MNodeMessage::AttributeMessage message, MPlug& plug, MPlug& otherPlug);
    void removeCallbacks();

    // The collider index whose tag is connected from node; false when there is none.
    bool findInfluenceObjectIndex(const MObject& node, int& index) const;
    // The multipliers of collider index for all vertices (only as long as the last non-zero one).
    void getInfluenceObjectWeights(int index, Kavrin::KArray<double>& weights) const;

private:
    void _readMultiplierPlugs(std::vector<Kavrin::KMultiplierElement>& list) const;

    MCallbackId callbackId = 0;
    Kavrin::KRelaxationSolver _solver;
    Kavrin::KNeighbourCache _rings;
    // The evaluation's inputs, kept so that their storage is reused.
    Kavrin::KArray<Kavrin::KDouble3> _points;
    Kavrin::KFloatArray _weights;
    Kavrin::KArray<double> _stiffness;
    Kavrin::KRelaxationBindingData _stored;
    std::vector<Kavrin::KTriMesh> _colliderMeshes;
    std::vector<Kavrin::KRelaxationCollider> _colliders;
    std::vector<Kavrin::KMultiplierElement> _multiplierList;
    Kavrin::KArray<double> _multipliers;
    Kavrin::KVectorArray _normals;
};
