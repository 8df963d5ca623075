// The plug-in's entry points: register and deregister every node type of this build in the order
// Kavrin::LoadSteps / UnloadSteps give, source the interface scripts and install the menu.

#include <maya/MDrawRegistry.h>
#include <maya/MFnPlugin.h>
#include <maya/MGlobal.h>
#include <maya/MObject.h>
#include <maya/MStatus.h>
#include <maya/MString.h>
#include <maya/MTypeId.h>

#include "KDeformationTransfer.h"
#include "KDeltaMush.h"
#include "KPluginRegistration.h"

namespace {

// The classes behind the node types of this build, found by type id. A node type joins with one
// line here and one line in each table of KPluginRegistration.cpp.
struct NodeClass {
    unsigned int id;
    MCreatorFunction creator;
    MInitializeFunction initialize;
};

bool FindNodeClass(unsigned int id, NodeClass& found) {
    const NodeClass classes[] = {
        {KDeformationTransfer::id.id(), KDeformationTransfer::creator, KDeformationTransfer::initialize},
        {KDeltaMush::id.id(), KDeltaMush::creator, KDeltaMush::initialize},
    };
    for (const NodeClass& c : classes) {
        if (c.id != id) continue;
        found = c;
        return true;
    }
    return false;
}

// The draw-override creator for a locator's classification; the marker locator's joins here.
MHWRender::MDrawRegistry::DrawOverrideCreator FindDrawOverrideCreator(const Kavrin::KDrawOverrideType&) {
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

    bool registerNode(const Kavrin::KNodeType& type) override {
        NodeClass c;
        if (!FindNodeClass(type.id, c)) return check(MStatus(MS::kNotImplemented));
        const MString classification(type.classification ? type.classification : "");
        return check(_plugin.registerNode(type.name, MTypeId(type.id), c.creator, c.initialize, NodeKind(type.kind),
                                          type.classification ? &classification : nullptr));
    }
    bool deregisterNode(const Kavrin::KNodeType& type) override {
        return check(_plugin.deregisterNode(MTypeId(type.id)));
    }
    bool registerDrawOverride(const Kavrin::KDrawOverrideType& type) override {
        MHWRender::MDrawRegistry::DrawOverrideCreator creator = FindDrawOverrideCreator(type);
        if (!creator) return check(MStatus(MS::kNotImplemented));
        return check(MHWRender::MDrawRegistry::registerDrawOverrideCreator(type.locator->classification,
                                                                          type.registrantId, creator));
    }
    bool deregisterDrawOverride(const Kavrin::KDrawOverrideType& type) override {
        return check(
            MHWRender::MDrawRegistry::deregisterDrawOverrideCreator(type.locator->classification, type.registrantId));
    }
    bool registerContext(const Kavrin::KContextType&) override {
        // No context class is part of this build yet; the marking tool's joins here.
        return false;
    }
    bool deregisterContext(const Kavrin::KContextType& type) override {
        return _plugin.deregisterContextCommand(type.name, type.toolCommandName) == MS::kSuccess;
    }
    bool sourceScript(const char* fileName) override { return MGlobal::sourceFile(fileName) == MS::kSuccess; }
    bool registerMenu(const char* createProcedure, const char* deleteProcedure) override {
        return _plugin.registerUI(createProcedure, deleteProcedure, "", "") == MS::kSuccess;
    }
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

MStatus initializePlugin(MObject obj) {
    MFnPlugin plugin(obj, Kavrin::kPluginVendor, Kavrin::kPluginVersion, Kavrin::kPluginApiVersion);
    MayaPluginHost host(plugin);
    if (!Kavrin::LoadPlugin(host)) return host.status();
    return MS::kSuccess;
}

MStatus uninitializePlugin(MObject obj) {
    MFnPlugin plugin(obj, Kavrin::kUnloadVendor, Kavrin::kUnloadVersion, Kavrin::kPluginApiVersion);
    MayaPluginHost host(plugin);
    if (!Kavrin::UnloadPlugin(host)) return host.status();
    return MS::kSuccess;
}
