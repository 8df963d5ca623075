// The seven node types' attribute tables against the attribute lists of the node descriptions:
// names, order, types, defaults, limits, flags, compounds, affects and paint commands. Each row is
// written as one line: "long[/short] type [default] [flags] [limits] [in compound] [{fields}]".

#include <gtest/gtest.h>

#include <sstream>
#include <string>
#include <vector>

#include "KNodeAttributes.h"
#include "KPluginRegistration.h"

using namespace Kavrin;

namespace {

typedef std::vector<std::string> Lines;

std::string Line(const KAttributeRow& r) {
    static const char* const types[] = {"bool",    "int",         "float",       "double",   "float3",
                                        "colour",  "enum",        "time",        "matrix",   "mesh",
                                        "intArray", "doubleArray", "vectorArray", "compound", "message"};
    std::ostringstream out;
    out << r.longName;
    if (std::string(r.shortName) != r.longName) out << "/" << r.shortName;
    out << " " << types[static_cast<int>(r.type)];
    if (r.hasDefault) {
        out << " " << r.defaults[0];
        if (r.type == KAttributeType::kColour) out << "," << r.defaults[1] << "," << r.defaults[2];
    }
    static const struct {
        KAttributeRow::Flag flag;
        const char* name;
    } flags[] = {{KAttributeRow::kHidden, "hidden"},       {KAttributeRow::kArray, "array"},
                 {KAttributeRow::kNotKeyable, "notKeyable"}, {KAttributeRow::kStorable, "storable"},
                 {KAttributeRow::kCached, "cached"},       {KAttributeRow::kChannelBox, "channelBox"},
                 {KAttributeRow::kPaintable, "paintable"}};
    for (const auto& f : flags)
        if (r.has(f.flag)) out << " " << f.name;
    const char* limits[] = {"min", "max", "softMin", "softMax"};
    for (unsigned l = 0; l < 4; ++l)
        if (r.hasLimit(static_cast<KAttributeRow::Limit>(l))) out << " " << limits[l] << "=" << r.limits[l];
    if (r.parent) out << " in " << r.parent;
    for (int f = 0; f < r.numFields; ++f) out << (f ? "," : " {") << r.fields[f].name << "=" << r.fields[f].index;
    if (r.numFields) out << "}";
    return out.str();
}

struct Expected {
    const KNodeType* type;
    Lines rows;
    Lines affects;  // "from>to"
    Lines paint;    // the commands initialize runs
    Lines withdraw; // the commands unload runs
};

}  // namespace

TEST(NodeAttributes, EveryNodeTypeAsDescribed) {
    const Lines dtOut = {"sourceMesh>outputMesh", "reCalculate>outputMesh", "calcMode>outputMesh",
                         "iterCount>outputMesh", "aim>outputMesh"};
    const Expected nodes[] = {
        {&kDeformationTransferNode,
         {"sourceMesh mesh hidden", "targetMesh mesh hidden", "outputMesh mesh hidden", "vertCorres intArray hidden",
          "reCalculate bool 0", "calcMode enum 1 {Same Topology=1,Different Topology=2}", "iterCount int 5",
          "aim enum 1 {Source To Target=1,Transfer=2,Wrap Deformer=3}", "srcFixPNum intArray hidden",
          "trgFixPNum intArray hidden"},
         dtOut, {}, {}},
        {&kDTPointNode, {"position float3 0", "color colour 1,0,0"}, {}, {}, {}},
        {&kDeltaMushNode,
         {"onlyOnce bool 1 hidden", "gotDelta bool 0 hidden", "restMesh mesh hidden storable",
          "delta vectorArray hidden storable", "numIter int 15"},
         {"inputGeom>outputGeom", "numIter>outputGeom"}, {}, {}},
        {&kWrapMeshDeformerNode,
         {"driverMesh mesh hidden", "binding bool 0", "bindTriangles intArray hidden storable",
          "bindOffsets vectorArray hidden storable"},
         {"driverMesh>outputGeom"}, {}, {}},
        {&kOffsetMeshDeformerNode, {"offset colour", "scale double 1 softMin=-1 softMax=2"},
         {"offset>outputGeom", "scale>outputGeom"}, {"makePaintable -rm KOffsetMeshDeformer weights;"}, {}},
        {&kJiggleMeshDeformerNode,
         {"computingMethod enum 1 channelBox {Single CPU=0,Multi-CPUs=1}", "inTime/inT time 0 hidden",
          "startFrame/stF int 0", "timeScale float 1 min=0 softMax=1", "worldMatrix/wdM matrix hidden",
          "damping/dmp float 0.1 min=0 max=1", "stiffness/stf float 0.3 min=0 max=1",
          "normalStrength/nms float 1 min=0 max=1", "dampingMap/dpM doubleArray hidden paintable",
          "stiffnessMap/stM doubleArray hidden paintable", "normalStrengthMap/nsM doubleArray hidden paintable",
          "scale/scl float 1", "distanceLimit/dsl float 1", "directionBias/drb float 0 min=-1 max=1",
          "moreAccurateTangent/mat bool 0"},
         {"inTime>outputGeom", "startFrame>outputGeom", "worldMatrix>outputGeom"},
         {"makePaintable -attrType doubleArray KJiggleMeshDeformer dampingMap",
          "makePaintable -attrType doubleArray KJiggleMeshDeformer stiffnessMap",
          "makePaintable -attrType doubleArray KJiggleMeshDeformer normalStrengthMap"},
         {"makePaintable -rm KJiggleMeshDeformer dampingMap;", "makePaintable -rm KJiggleMeshDeformer stiffnessMap;",
          "makePaintable -rm KJiggleMeshDeformer normalStrengthMap;"}},
        {&kRelaxationMeshDeformerNode,
         {"enableScaleSafe bool 0", "iterations int 10 min=0 softMax=30", "doCollisions bool 1",
          "collisionSteps int 1 min=1 softMax=10", "connVrtId int -1 hidden array notKeyable in connVrtIdList",
          "connVrtIdList compound hidden array",
          "connVrtIdNrmOrder int -1 hidden array notKeyable in connVrtIdNrmOrderList",
          "connVrtIdNrmOrderList compound hidden array", "b double -1 hidden array notKeyable",
          "bScalable double -1 hidden array notKeyable in bScalableList", "bScalableList compound hidden array",
          "meanValueWeight double -1 hidden array notKeyable in meanValueWeightList",
          "meanValueWeightList compound hidden array", "stiffness doubleArray hidden paintable",
          "paintTrans message hidden", "colliderMap doubleArray hidden notKeyable paintable",
          "mshCollider mesh hidden array cached", "mshColliderTag double 0 hidden array notKeyable",
          "mshColliderVrtMult double 0 hidden array in mshColliderVrtMultList",
          "mshColliderVrtMultList/mCVML compound hidden array"},
         {"enableScaleSafe>outputGeom", "iterations>outputGeom", "doCollisions>outputGeom",
          "collisionSteps>outputGeom", "stiffness>outputGeom", "paintTrans>outputGeom", "colliderMap>outputGeom",
          "mshCollider>outputGeom", "mshColliderTag>outputGeom", "mshColliderVrtMult>outputGeom",
          "mshColliderVrtMultList>outputGeom"},
         {"makePaintable -rm KRelaxationMeshDeformer stiffness;",
          "makePaintable -at doubleArray KRelaxationMeshDeformer stiffness;",
          "makePaintable -rm KRelaxationMeshDeformer colliderMap;",
          "makePaintable -at doubleArray KRelaxationMeshDeformer colliderMap;",
          "makePaintable -rm KRelaxationMeshDeformer weights;",
          "makePaintable -at multiFloat -sm deformer weightGeometryFilter weights;"},
         {"makePaintable -rm KRelaxationMeshDeformer stiffness;",
          "makePaintable -rm KRelaxationMeshDeformer colliderMap;"}},
    };
    for (const Expected& e : nodes) {
        const KAttributeTable* t = AttributesOf(e.type->name);
        ASSERT_NE(t, nullptr) << e.type->name;
        EXPECT_EQ(t->source, "source/" + std::string(e.type->name));
        Lines rows, affects, paint;
        for (int i = 0; i < t->numRows; ++i) rows.push_back(Line(t->rows[i]));
        for (int k = 0; k < t->numAffects; ++k)
            affects.push_back(std::string(t->affects[k].from) + ">" + t->affects[k].to);
        for (int c = 0; c < t->numPaintCommands; ++c) paint.push_back(t->paintCommands[c]);
        EXPECT_EQ(rows, e.rows) << e.type->name;
        EXPECT_EQ(affects, e.affects) << e.type->name;
        EXPECT_EQ(paint, e.paint) << e.type->name;
        EXPECT_EQ(WithdrawPaintableCommands(*t), e.withdraw) << e.type->name;

        // What the creator needs: every child comes before its compound, and every affects name is
        // a row or the deformer's inherited geometry.
        for (int i = 0; i < t->numRows; ++i) {
            if (!t->rows[i].parent) continue;
            int compound = -1;
            for (int j = 0; j < t->numRows; ++j)
                if (std::string(t->rows[j].longName) == t->rows[i].parent) compound = j;
            EXPECT_GT(compound, i) << t->rows[i].longName;
        }
        for (int k = 0; k < t->numAffects; ++k)
            for (const char* name : {t->affects[k].from, t->affects[k].to}) {
                bool known = std::string(name) == "inputGeom" || std::string(name) == "outputGeom";
                for (int i = 0; i < t->numRows; ++i) known = known || std::string(t->rows[i].longName) == name;
                EXPECT_TRUE(known) << name;
            }
    }
    EXPECT_EQ(AttributesOf("KSomethingElse"), nullptr);
}
