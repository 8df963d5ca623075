// The plug-in's entry points: register and deregister every node type, the draw override and the
// context in the order Kavrin::LoadSteps / UnloadSteps give, source the interface scripts and
// install the menu. A load that fails part-way takes back what it registered; unload withdraws
// the maps the node types made paintable.

#include <maya/MDrawRegistry.h>
#include <maya/MFnPlugin.h>
#include <maya/MGlobal.h>
#include <maya/MObject.h>
#include <maya/MStatus.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>

#include "KDTMarkCtx.h"
#include "KDTPointClass.h"
#include "KDeformationTransfer.h"
#include "KDeltaMush.h"
#include "KOffsetMeshDeformer.h"
#include "KJiggleMeshDeformer.h"
#include "KPluginRegistration.h"
#include "KRelaxationMeshDeformer.h"
#include "KWrapMeshDeformer.h"

namespace {

// The classes of this build. A node type joins the plug-in with one entry here (Kavrin::LoadSteps
// and UnloadSteps already hold every type at its place in the order); steps without an entry
// are skipped.
struct NodeClass {
    const Kavrin::KNodeType* type;
    MCreatorFunction creator;
    MInitializeFunction initialize;
};
const NodeClass kNodeClasses[] = {
    {&Kavrin::kDeformationTransferNode, KDeformationTransfer::creator, KDeformationTransfer::initialize},
    {&Kavrin::kDeltaMushNode, KDeltaMush::creator, KDeltaMush::initialize},
    {&Kavrin::kDTPointNode, KDTPointClass::creator, KDTPointClass::initialize},
    {&Kavrin::kOffsetMeshDeformerNode, KOffsetMeshDeformer::creator, KOffsetMeshDeformer::initialize},
    {&Kavrin::kJiggleMeshDeformerNode, KJiggleMeshDeformer::creator, KJiggleMeshDeformer::initialize},
    {&Kavrin::kRelaxationMeshDeformerNode, KRelaxationMeshDeformer::creator, KRelaxationMeshDeformer::initialize},
    {&Kavrin::kWrapMeshDeformerNode, KWrapMeshDeformer::creator, KWrapMeshDeformer::initialize},
};

struct DrawOverrideClass {
    const Kavrin::KDrawOverrideType* type;
    MHWRender::MDrawRegistry::DrawOverrideCreator creator;
};
const DrawOverrideClass kDrawOverrideClasses[] = {
    {&Kavrin::kDTPointDrawOverride, KDTPointClass::drawOverrideCreator},
};

struct ContextClass {
    const Kavrin::KContextType* type;
    MCreatorFunction contextCreator;
    MCreatorFunction toolCommandCreator;
    MCreateSyntaxFunction toolCommandSyntax;
};
const ContextClass kContextClasses[] = {
    {&Kavrin::kDTMarkContext, KDTMarkCtxCmd::creator, KDTMarkCtxToolCmd::creator, KDTMarkCtxToolCmd::newSyntax},
};

template <typename Class, typename Type, size_t N>
const Class* Find(const Class (&table)[N], const Type* type) {
    for (const Class& c : table)
        if (c.type && c.type == type) return &c;
    return nullptr;
}

MPxNode::Type NodeKind(Kavrin::KNodeKind kind) {
    switch (kind) {
        case Kavrin::KNodeKind::kLocatorNode:
            return MPxNode::kLocatorNode;
        case Kavrin::KNodeKind::kDeformerNode:
            return MPxNode::kDeformerNode;
        case Kavrin::KNodeKind::kDependNode:
            break;
    }
    return MPxNode::kDependNode;
}

// Maya's registration calls behind the load and unload sequences. Keeps the status of the last
// checked call, which a failure reports and the entry point returns.
class MayaPluginHost : public Kavrin::KPluginHost {
public:
    explicit MayaPluginHost(MFnPlugin& plugin) : _plugin(plugin) {}
    const MStatus& status() const { return _status; }

    bool hasClass(const Kavrin::KPluginStep& step) override {
        if (step.node) return Find(kNodeClasses, step.node) != nullptr;
        if (step.drawOverride) return Find(kDrawOverrideClasses, step.drawOverride) != nullptr;
        return step.context && Find(kContextClasses, step.context) != nullptr;
    }
    bool registerNode(const Kavrin::KNodeType& type) override {
        const NodeClass* c = Find(kNodeClasses, &type);
        if (!c) return check(MStatus(MS::kNotImplemented));
        const MString classification(type.classification ? type.classification : "");
        return check(_plugin.registerNode(type.name, MTypeId(type.id), c->creator, c->initialize, NodeKind(type.kind),
                                          type.classification ? &classification : nullptr));
    }
    bool deregisterNode(const Kavrin::KNodeType& type) override {
        return check(_plugin.deregisterNode(MTypeId(type.id)));
    }
    bool registerDrawOverride(const Kavrin::KDrawOverrideType& type) override {
        const DrawOverrideClass* c = Find(kDrawOverrideClasses, &type);
        if (!c) return check(MStatus(MS::kNotImplemented));
        return check(MHWRender::MDrawRegistry::registerDrawOverrideCreator(type.locator->classification,
                                                                          type.registrantId, c->creator));
    }
    bool deregisterDrawOverride(const Kavrin::KDrawOverrideType& type) override {
        return check(
            MHWRender::MDrawRegistry::deregisterDrawOverrideCreator(type.locator->classification, type.registrantId));
    }
    bool registerContext(const Kavrin::KContextType& type) override {
        const ContextClass* c = Find(kContextClasses, &type);
        if (!c) return false;
        return _plugin.registerContextCommand(type.name, c->contextCreator, type.toolCommandName,
                                              c->toolCommandCreator, c->toolCommandSyntax) == MS::kSuccess;
    }
    bool deregisterContext(const Kavrin::KContextType& type) override {
        return _plugin.deregisterContextCommand(type.name, type.toolCommandName) == MS::kSuccess;
    }
    bool sourceScript(const char* fileName) override { return MGlobal::sourceFile(fileName) == MS::kSuccess; }
    bool registerMenu(const char* createProcedure, const char* deleteProcedure) override {
        return _plugin.registerUI(createProcedure, deleteProcedure, "", "") == MS::kSuccess;
    }
    void runCommand(const std::string& command) override { MGlobal::executeCommand(command.c_str(), false, false); }
    void reportFailure(const std::string& message) override { _status.perror(message.c_str()); }

private:
    bool check(const MStatus& status) {
        _status = status;
        return status == MS::kSuccess;
    }

    MFnPlugin& _plugin;
    MStatus _status;
};

}  // namespace

// The two entry points are the only functions the plug-in exports (source/Kavrin.map).
PLUGIN_EXPORT MStatus initializePlugin(MObject obj) {
    MFnPlugin plugin(obj, Kavrin::kPluginVendor, Kavrin::kPluginVersion, Kavrin::kPluginApiVersion);
    MayaPluginHost host(plugin);
    if (!Kavrin::LoadPlugin(host)) return host.status();
    return MS::kSuccess;
}

PLUGIN_EXPORT MStatus uninitializePlugin(MObject obj) {
    MFnPlugin plugin(obj, Kavrin::kUnloadVendor, Kavrin::kUnloadVersion, Kavrin::kPluginApiVersion);
    MayaPluginHost host(plugin);
    if (!Kavrin::UnloadPlugin(host)) return host.status();
    return MS::kSuccess;
}
