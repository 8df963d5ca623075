#include "KNodeAttributes.h"

#include <cstring>

namespace Kavrin {

namespace {

template <class T, std::size_t N>
constexpr int Count(const T (&)[N]) {
    return static_cast<int>(N);
}

// ---- KDeformationTransfer ---------------------------------------------------------------------

const KEnumField kCalcModes[] = {{"Same Topology", 1}, {"Different Topology", 2}};
const KEnumField kAims[] = {{"Source To Target", 1}, {"Transfer", 2}, {"Wrap Deformer", 3}};
const KAttributeRow kTransferRows[] = {
    MeshAttr("sourceMesh").hidden(),
    MeshAttr("targetMesh").hidden(),
    MeshAttr("outputMesh").hidden(),
    IntArrayAttr("vertCorres").hidden(),
    BoolAttr("reCalculate", false),
    EnumAttr("calcMode", 1, kCalcModes),
    IntAttr("iterCount", 5),
    EnumAttr("aim", 1, kAims),
    IntArrayAttr("srcFixPNum").hidden(),
    IntArrayAttr("trgFixPNum").hidden(),
};
// "targetMesh", "vertCorres" and the fixed points do not dirty the output: they take effect at the
// next evaluation, normally the one "reCalculate" triggers.
const KAffects kTransferAffects[] = {{"sourceMesh", "outputMesh"},
                                     {"reCalculate", "outputMesh"},
                                     {"calcMode", "outputMesh"},
                                     {"iterCount", "outputMesh"},
                                     {"aim", "outputMesh"}};

// ---- KDTPoint ---------------------------------------------------------------------------------

const KAttributeRow kDTPointRows[] = {Float3Attr("position", 0.0), ColourAttr("color", 1.0, 0.0, 0.0)};

// ---- KDeltaMush -------------------------------------------------------------------------------

const KAttributeRow kDeltaMushRows[] = {
    BoolAttr("onlyOnce", true).hidden(),
    BoolAttr("gotDelta", false).hidden(),
    MeshAttr("restMesh").hidden().storable(),
    VectorArrayAttr("delta").hidden().storable(),
    IntAttr("numIter", 15),
};
const KAffects kDeltaMushAffects[] = {{"inputGeom", "outputGeom"}, {"numIter", "outputGeom"}};

// ---- KWrapMeshDeformer ------------------------------------------------------------------------

// Decision (behaviour note "Wrap: the binding is saved with the scene"): the last two rows.
const KAttributeRow kWrapRows[] = {
    MeshAttr("driverMesh").hidden(),
    BoolAttr("binding", false),
    IntArrayAttr("bindTriangles").hidden().storable(),
    VectorArrayAttr("bindOffsets").hidden().storable(),
};
// "binding" affects nothing: clearing it takes effect at the next evaluation something else
// triggers. The stored binding is the node's own record and affects nothing either.
const KAffects kWrapAffects[] = {{"driverMesh", "outputGeom"}};

// ---- KOffsetMeshDeformer ----------------------------------------------------------------------

const KAttributeRow kOffsetRows[] = {ColourAttr("offset"), DoubleAttr("scale", 1.0).softMin(-1.0).softMax(2.0)};
const KAffects kOffsetAffects[] = {{"offset", "outputGeom"}, {"scale", "outputGeom"}};
// Withdraws the deformer's standard weights from the paint tool; they are still applied.
const char* const kOffsetPaint[] = {"makePaintable -rm KOffsetMeshDeformer weights;"};

// ---- KJiggleMeshDeformer ----------------------------------------------------------------------

const KEnumField kComputingMethods[] = {{"Single CPU", 0}, {"Multi-CPUs", 1}};
const KAttributeRow kJiggleRows[] = {
    EnumAttr("computingMethod", 1, kComputingMethods).channelBox(),
    TimeAttr("inTime", 0.0).shortNamed("inT").hidden(),
    IntAttr("startFrame", 0).shortNamed("stF"),
    FloatAttr("timeScale", 1.0).min(0.0).softMax(1.0),
    MatrixAttr("worldMatrix").shortNamed("wdM").hidden(),
    FloatAttr("damping", 0.1).shortNamed("dmp").min(0.0).max(1.0),
    FloatAttr("stiffness", 0.3).shortNamed("stf").min(0.0).max(1.0),
    FloatAttr("normalStrength", 1.0).shortNamed("nms").min(0.0).max(1.0),
    DoubleArrayAttr("dampingMap").shortNamed("dpM").hidden().paintable(),
    DoubleArrayAttr("stiffnessMap").shortNamed("stM").hidden().paintable(),
    DoubleArrayAttr("normalStrengthMap").shortNamed("nsM").hidden().paintable(),
    FloatAttr("scale", 1.0).shortNamed("scl"),
    FloatAttr("distanceLimit", 1.0).shortNamed("dsl"),
    FloatAttr("directionBias", 0.0).shortNamed("drb").min(-1.0).max(1.0),
    BoolAttr("moreAccurateTangent", false).shortNamed("mat"),
};
// Kept on purpose (behaviour note "Jiggle: settings show at the next time change"): only the
// clock, the start frame and the object's matrix re-evaluate the deformer.
const KAffects kJiggleAffects[] = {
    {"inTime", "outputGeom"}, {"startFrame", "outputGeom"}, {"worldMatrix", "outputGeom"}};
const char* const kJigglePaint[] = {
    "makePaintable -attrType doubleArray KJiggleMeshDeformer dampingMap",
    "makePaintable -attrType doubleArray KJiggleMeshDeformer stiffnessMap",
    "makePaintable -attrType doubleArray KJiggleMeshDeformer normalStrengthMap",
};

// ---- KRelaxationMeshDeformer ------------------------------------------------------------------

// A stored binding list's entry: a hidden, non-keyable array child of its list.
KAttributeRow ListEntry(const KAttributeRow& row, const char* list) {
    return row.hidden().array().notKeyable().childOf(list);
}
const KAttributeRow kRelaxationRows[] = {
    BoolAttr("enableScaleSafe", false),
    IntAttr("iterations", 10).min(0).softMax(30),
    BoolAttr("doCollisions", true),
    IntAttr("collisionSteps", 1).min(1).softMax(10),
    ListEntry(IntAttr("connVrtId", -1), "connVrtIdList"),
    CompoundAttr("connVrtIdList").hidden().array(),
    ListEntry(IntAttr("connVrtIdNrmOrder", -1), "connVrtIdNrmOrderList"),
    CompoundAttr("connVrtIdNrmOrderList").hidden().array(),
    DoubleAttr("b", -1.0).hidden().array().notKeyable(),
    ListEntry(DoubleAttr("bScalable", -1.0), "bScalableList"),
    CompoundAttr("bScalableList").hidden().array(),
    ListEntry(DoubleAttr("meanValueWeight", -1.0), "meanValueWeightList"),
    CompoundAttr("meanValueWeightList").hidden().array(),
    DoubleArrayAttr("stiffness").hidden().paintable(),
    MessageAttr("paintTrans").hidden(),
    DoubleArrayAttr("colliderMap").hidden().notKeyable().paintable(),
    MeshAttr("mshCollider").hidden().array().cached(),
    DoubleAttr("mshColliderTag", 0.0).hidden().array().notKeyable(),
    DoubleAttr("mshColliderVrtMult", 0.0).hidden().array().childOf("mshColliderVrtMultList"),
    CompoundAttr("mshColliderVrtMultList").shortNamed("mCVML").hidden().array(),
};
const KAffects kRelaxationAffects[] = {
    {"enableScaleSafe", "outputGeom"},
    {"iterations", "outputGeom"},
    {"doCollisions", "outputGeom"},
    {"collisionSteps", "outputGeom"},
    {"stiffness", "outputGeom"},
    {"paintTrans", "outputGeom"},
    {"colliderMap", "outputGeom"},
    {"mshCollider", "outputGeom"},
    {"mshColliderTag", "outputGeom"},
    {"mshColliderVrtMult", "outputGeom"},
    {"mshColliderVrtMultList", "outputGeom"},
};
const char* const kRelaxationPaint[] = {
    "makePaintable -rm KRelaxationMeshDeformer stiffness;",
    "makePaintable -at doubleArray KRelaxationMeshDeformer stiffness;",
    "makePaintable -rm KRelaxationMeshDeformer colliderMap;",
    "makePaintable -at doubleArray KRelaxationMeshDeformer colliderMap;",
    "makePaintable -rm KRelaxationMeshDeformer weights;",
    "makePaintable -at multiFloat -sm deformer weightGeometryFilter weights;",
};

}  // namespace

const KAttributeTable kDeformationTransferAttributeTable = {
    "KDeformationTransfer", "source/KDeformationTransfer", kTransferRows, Count(kTransferRows),
    kTransferAffects,       Count(kTransferAffects),       nullptr,       0};
const KAttributeTable kDTPointAttributeTable = {
    "KDTPoint", "source/KDTPoint", kDTPointRows, Count(kDTPointRows), nullptr, 0, nullptr, 0};
const KAttributeTable kDeltaMushAttributeTable = {
    "KDeltaMush",      "source/KDeltaMush",      kDeltaMushRows, Count(kDeltaMushRows),
    kDeltaMushAffects, Count(kDeltaMushAffects), nullptr,        0};
const KAttributeTable kWrapMeshDeformerAttributeTable = {
    "KWrapMeshDeformer", "source/KWrapMeshDeformer", kWrapRows, Count(kWrapRows),
    kWrapAffects,        Count(kWrapAffects),        nullptr,   0};
const KAttributeTable kOffsetMeshDeformerAttributeTable = {
    "KOffsetMeshDeformer", "source/KOffsetMeshDeformer", kOffsetRows,  Count(kOffsetRows),
    kOffsetAffects,        Count(kOffsetAffects),        kOffsetPaint, Count(kOffsetPaint)};
const KAttributeTable kJiggleMeshDeformerAttributeTable = {
    "KJiggleMeshDeformer", "source/KJiggleMeshDeformer", kJiggleRows,  Count(kJiggleRows),
    kJiggleAffects,        Count(kJiggleAffects),        kJigglePaint, Count(kJigglePaint)};
const KAttributeTable kRelaxationMeshDeformerAttributeTable = {
    "KRelaxationMeshDeformer", "source/KRelaxationMeshDeformer", kRelaxationRows,  Count(kRelaxationRows),
    kRelaxationAffects,        Count(kRelaxationAffects),        kRelaxationPaint, Count(kRelaxationPaint)};

const KAttributeTable* AttributesOf(const char* nodeType) {
    const KAttributeTable* tables[] = {&kDeformationTransferAttributeTable,
                                       &kDTPointAttributeTable,
                                       &kDeltaMushAttributeTable,
                                       &kWrapMeshDeformerAttributeTable,
                                       &kOffsetMeshDeformerAttributeTable,
                                       &kJiggleMeshDeformerAttributeTable,
                                       &kRelaxationMeshDeformerAttributeTable};
    for (const KAttributeTable* t : tables)
        if (nodeType && std::strcmp(t->nodeType, nodeType) == 0) return t;
    return nullptr;
}

std::vector<std::string> WithdrawPaintableCommands(const KAttributeTable& table) {
    std::vector<std::string> commands;
    for (int i = 0; i < table.numRows; ++i)
        if (table.rows[i].has(KAttributeRow::kPaintable))
            commands.push_back("makePaintable -rm " + std::string(table.nodeType) + " " + table.rows[i].longName + ";");
    return commands;
}

}  // namespace Kavrin
