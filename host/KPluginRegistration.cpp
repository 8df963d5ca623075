#include "KPluginRegistration.h"

#include <cstddef>
#include <vector>

#include "KNodeAttributes.h"

namespace Kavrin {

const KNodeType kDeformationTransferNode = {"KDeformationTransfer", 0x82002, KNodeKind::kDependNode, nullptr};
const KNodeType kDTPointNode = {"KDTPoint", 0x82006, KNodeKind::kLocatorNode, "drawdb/geometry/KDTPoint"};
const KNodeType kDeltaMushNode = {"KDeltaMush", 0x82008, KNodeKind::kDeformerNode, nullptr};
const KNodeType kWrapMeshDeformerNode = {"KWrapMeshDeformer", 0x82005, KNodeKind::kDeformerNode, nullptr};
const KNodeType kOffsetMeshDeformerNode = {"KOffsetMeshDeformer", 0x90012, KNodeKind::kDeformerNode, nullptr};
const KNodeType kJiggleMeshDeformerNode = {"KJiggleMeshDeformer", 0x82001, KNodeKind::kDeformerNode, nullptr};
const KNodeType kRelaxationMeshDeformerNode = {"KRelaxationMeshDeformer", 0x90014, KNodeKind::kDeformerNode,
                                               nullptr};
const KDrawOverrideType kDTPointDrawOverride = {&kDTPointNode, "KDTPointNodePlugin"};
const KContextType kDTMarkContext = {"KDTMarkCtx", "KDTMarkCtxToolCmd"};

const char* const kPluginVendor = "Kavrin";
const char* const kPluginVersion = "1.0";
const char* const kPluginApiVersion = "Any";
const char* const kUnloadVendor = "Unknown";
const char* const kUnloadVersion = "Unknown";

const char* const kPluginScripts[kPluginScriptCount] = {
    "KavrinUtils.mel",          "KavrinMenu.mel",          "KDTMarkCtx.mel",
    "KOffsetMeshDeformer.mel",  "KJiggleMeshDeformer.mel", "KRelaxationMeshDeformer.mel",
    "KDeformationTransfer.mel", "KWrapMeshDeformer.mel",   "KDeltaMush.mel"};
const char* const kCreateMenuProcedure = "CreateKavrinMenu";
const char* const kDeleteMenuProcedure = "DeleteKavrinMenu";

namespace {

// Unloading differs from loading on purpose: the draw override goes first, KDeformationTransfer
// late and KRelaxationMeshDeformer after it.
const KPluginStep kLoadSteps[] = {
    NodeStep(kDeformationTransferNode), NodeStep(kDTPointNode),          DrawOverrideStep(kDTPointDrawOverride),
    NodeStep(kDeltaMushNode),           NodeStep(kWrapMeshDeformerNode), NodeStep(kOffsetMeshDeformerNode),
    NodeStep(kJiggleMeshDeformerNode),  NodeStep(kRelaxationMeshDeformerNode), ContextStep(kDTMarkContext),
};
const KPluginStep kUnloadSteps[] = {
    DrawOverrideStep(kDTPointDrawOverride), NodeStep(kDTPointNode),            NodeStep(kDeltaMushNode),
    NodeStep(kWrapMeshDeformerNode),        NodeStep(kOffsetMeshDeformerNode), NodeStep(kJiggleMeshDeformerNode),
    NodeStep(kDeformationTransferNode),     NodeStep(kRelaxationMeshDeformerNode), ContextStep(kDTMarkContext),
};

template <std::size_t N>
KPluginSteps Steps(const KPluginStep (&steps)[N]) {
    return KPluginSteps{steps, static_cast<int>(N)};
}

}  // namespace

KPluginSteps LoadSteps() { return Steps(kLoadSteps); }
KPluginSteps UnloadSteps() { return Steps(kUnloadSteps); }

namespace {

// The maps a node type's initialize made paintable go before the type.
void WithdrawPaintable(KPluginHost& host, const KNodeType& type) {
    if (const KAttributeTable* table = AttributesOf(type.name))
        for (const std::string& command : WithdrawPaintableCommands(*table)) host.runCommand(command);
}

// Takes back registered steps, newest first; the results are not examined.
void TakeBack(KPluginHost& host, const std::vector<KPluginStep>& registered) {
    for (auto step = registered.rbegin(); step != registered.rend(); ++step) {
        if (step->node) {
            WithdrawPaintable(host, *step->node);
            host.deregisterNode(*step->node);
        } else if (step->drawOverride) {
            host.deregisterDrawOverride(*step->drawOverride);
        } else if (step->context) {
            host.deregisterContext(*step->context);
        }
    }
}

}  // namespace

bool LoadPlugin(KPluginHost& host, KPluginSteps steps) {
    std::vector<KPluginStep> registered;
    for (int i = 0; i < steps.count; ++i) {
        const KPluginStep& step = steps.steps[i];
        // Decision (behaviour note "Maya layer: registration step without a class").
        if (!host.hasClass(step)) continue;
        std::string failed;
        if (step.node) {
            if (!host.registerNode(*step.node)) failed = step.node->name;
        } else if (step.drawOverride) {
            if (!host.registerDrawOverride(*step.drawOverride)) failed = step.drawOverride->registrantId;
        } else if (step.context) {
            if (!host.registerContext(*step.context)) continue;
        }
        if (!failed.empty()) {
            host.reportFailure("Failed to register: " + failed);
            // Decision (behaviour note "Maya layer: a failed load takes back what it registered").
            TakeBack(host, registered);
            return false;
        }
        registered.push_back(step);
    }
    for (const char* script : kPluginScripts) host.sourceScript(script);
    host.registerMenu(kCreateMenuProcedure, kDeleteMenuProcedure);
    return true;
}

bool UnloadPlugin(KPluginHost& host, KPluginSteps steps) {
    for (int i = 0; i < steps.count; ++i) {
        const KPluginStep& step = steps.steps[i];
        if (!host.hasClass(step)) continue;
        if (step.node) {
            // Decision (behaviour note "Maya layer: paintable maps withdrawn at unload").
            WithdrawPaintable(host, *step.node);
            if (!host.deregisterNode(*step.node)) {
                host.reportFailure(std::string("Failed to deregister: ") + step.node->name);
                return false;
            }
        } else if (step.drawOverride) {
            if (!host.deregisterDrawOverride(*step.drawOverride)) {
                host.reportFailure(std::string("Failed to deregister: ") + step.drawOverride->locator->name);
                return false;
            }
        } else if (step.context) {
            host.deregisterContext(*step.context);
        }
    }
    return true;
}

}  // namespace Kavrin
