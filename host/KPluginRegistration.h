#pragma once
// What the plug-in registers with its host, in which order, and what it reports when a step
// fails. The host layer implements KPluginHost with the host's registration calls and walks
// the sequence with LoadPlugin / UnloadPlugin. The sequences are the toolkit's complete ones;
// a step whose class the host layer does not hold (KPluginHost::hasClass) is skipped, so a
// node type joins the plug-in with one entry in the host layer's table of classes.

#include <string>

namespace Kavrin {

enum class KNodeKind { kDependNode, kLocatorNode, kDeformerNode };

// A node type's identity as the host knows it.
struct KNodeType {
    const char* name;
    unsigned int id;
    KNodeKind kind;
    const char* classification;  // null when the type has none
};

// A Viewport 2.0 draw override for a locator's classification.
struct KDrawOverrideType {
    const KNodeType* locator;  // its classification is the override's
    const char* registrantId;
};

// A tool context command with its tool command.
struct KContextType {
    const char* name;
    const char* toolCommandName;
};

// Every type of the toolkit.
extern const KNodeType kDeformationTransferNode;
extern const KNodeType kDTPointNode;
extern const KNodeType kDeltaMushNode;
extern const KNodeType kWrapMeshDeformerNode;
extern const KNodeType kOffsetMeshDeformerNode;
extern const KNodeType kJiggleMeshDeformerNode;
extern const KNodeType kRelaxationMeshDeformerNode;
extern const KDrawOverrideType kDTPointDrawOverride;
extern const KContextType kDTMarkContext;

// One registration step: exactly one of the three is set.
struct KPluginStep {
    const KNodeType* node;
    const KDrawOverrideType* drawOverride;
    const KContextType* context;
};

constexpr KPluginStep NodeStep(const KNodeType& type) { return KPluginStep{&type, nullptr, nullptr}; }
constexpr KPluginStep DrawOverrideStep(const KDrawOverrideType& type) { return KPluginStep{nullptr, &type, nullptr}; }
constexpr KPluginStep ContextStep(const KContextType& type) { return KPluginStep{nullptr, nullptr, &type}; }

struct KPluginSteps {
    const KPluginStep* steps;
    int count;
};

// The toolkit's steps, in load order and in unload order.
KPluginSteps LoadSteps();
KPluginSteps UnloadSteps();

// The plug-in's identity at load, and the one its function set is opened with at unload.
extern const char* const kPluginVendor;
extern const char* const kPluginVersion;
extern const char* const kPluginApiVersion;
extern const char* const kUnloadVendor;
extern const char* const kUnloadVersion;

// Interface scripts sourced at load, in order, and the menu procedures.
const int kPluginScriptCount = 9;
extern const char* const kPluginScripts[kPluginScriptCount];
extern const char* const kCreateMenuProcedure;
extern const char* const kDeleteMenuProcedure;

// The host's registration operations. Those returning bool report success; on a failure the
// host keeps the failing status, and reportFailure is then called with the message for it.
class KPluginHost {
public:
    virtual ~KPluginHost() {}
    // Whether the host layer holds the class behind the step (node, draw override or context).
    virtual bool hasClass(const KPluginStep& step) = 0;
    virtual bool registerNode(const KNodeType& type) = 0;
    virtual bool deregisterNode(const KNodeType& type) = 0;
    virtual bool registerDrawOverride(const KDrawOverrideType& type) = 0;
    virtual bool deregisterDrawOverride(const KDrawOverrideType& type) = 0;
    virtual bool registerContext(const KContextType& type) = 0;    // result not examined
    virtual bool deregisterContext(const KContextType& type) = 0;  // result not examined
    virtual bool sourceScript(const char* fileName) = 0;           // result not examined
    virtual bool registerMenu(const char* createProcedure, const char* deleteProcedure) = 0;  // not examined
    virtual void runCommand(const std::string& command) = 0;                                  // not examined
    virtual void reportFailure(const std::string& message) = 0;
};

// Load: the steps in order, skipping those without a class, stopping at the first failed node or
// draw-override registration ("Failed to register: " and the node type's name, or the
// override's registrant id); a context registration's result is ignored. Then the scripts are
// sourced in order, whatever each returns, and the menu procedures are registered. Returns false
// at a failure, after taking back, newest first, everything registered before it (a node type's
// paintable maps, then the type; the draw override; the context), so that the next load starts
// from nothing.
bool LoadPlugin(KPluginHost& host, KPluginSteps steps);
inline bool LoadPlugin(KPluginHost& host) { return LoadPlugin(host, LoadSteps()); }

// Unload: the steps in order, skipping those without a class, stopping at the first failed
// deregistration ("Failed to deregister: " and the node type's name; for a draw override, the
// name of its locator type). Before a node type is deregistered, the maps its initialize made
// paintable are withdrawn (WithdrawPaintableCommands). A context deregistration's result is
// ignored. No script runs.
bool UnloadPlugin(KPluginHost& host, KPluginSteps steps);
inline bool UnloadPlugin(KPluginHost& host) { return UnloadPlugin(host, UnloadSteps()); }

}  // namespace Kavrin
