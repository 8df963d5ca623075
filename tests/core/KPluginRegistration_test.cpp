// Plug-in load and unload: order of every host call, stop at the first checked failure, the
// exact failure texts, and the results that are deliberately ignored.

#include <gtest/gtest.h>

#include <algorithm>
#include <set>
#include <string>
#include <vector>

#include "KPluginRegistration.h"

using namespace Kavrin;

namespace {

// Records every call as one line; any call whose line is in `failing` reports failure.
class RecordingHost : public KPluginHost {
public:
    std::vector<std::string> calls;
    std::vector<std::string> reports;
    std::set<std::string> failing;

    bool registerNode(const KNodeType& t) override { return call("register " + std::string(t.name)); }
    bool deregisterNode(const KNodeType& t) override { return call("deregister " + std::string(t.name)); }
    bool registerDrawOverride(const KDrawOverrideType& t) override {
        return call("register override " + std::string(t.locator->classification) + " " + t.registrantId);
    }
    bool deregisterDrawOverride(const KDrawOverrideType& t) override {
        return call("deregister override " + std::string(t.locator->classification) + " " + t.registrantId);
    }
    bool registerContext(const KContextType& t) override {
        return call("register context " + std::string(t.name) + " " + t.toolCommandName);
    }
    bool deregisterContext(const KContextType& t) override {
        return call("deregister context " + std::string(t.name) + " " + t.toolCommandName);
    }
    bool sourceScript(const char* file) override { return call("source " + std::string(file)); }
    bool registerMenu(const char* create, const char* remove) override {
        return call("menu " + std::string(create) + " " + remove);
    }
    void reportFailure(const std::string& message) override { reports.push_back(message); }

private:
    bool call(const std::string& line) {
        calls.push_back(line);
        return failing.count(line) == 0;
    }
};

// The complete toolkit, as every type will register once its class exists.
const KPluginStep kFullLoad[] = {
    NodeStep(kDeformationTransferNode),   NodeStep(kDTPointNode),           DrawOverrideStep(kDTPointDrawOverride),
    NodeStep(kDeltaMushNode),             NodeStep(kWrapMeshDeformerNode),  NodeStep(kOffsetMeshDeformerNode),
    NodeStep(kJiggleMeshDeformerNode),    NodeStep(kRelaxationMeshDeformerNode), ContextStep(kDTMarkContext)};
const KPluginStep kFullUnload[] = {
    DrawOverrideStep(kDTPointDrawOverride), NodeStep(kDTPointNode),          NodeStep(kDeltaMushNode),
    NodeStep(kWrapMeshDeformerNode),        NodeStep(kOffsetMeshDeformerNode), NodeStep(kJiggleMeshDeformerNode),
    NodeStep(kDeformationTransferNode),     NodeStep(kRelaxationMeshDeformerNode), ContextStep(kDTMarkContext)};
const KPluginSteps kFullLoadSteps = {kFullLoad, 9};
const KPluginSteps kFullUnloadSteps = {kFullUnload, 9};

const std::vector<std::string> kScriptCalls = {
    "source KavrinUtils.mel",          "source KavrinMenu.mel",          "source KDTMarkCtx.mel",
    "source KOffsetMeshDeformer.mel",  "source KJiggleMeshDeformer.mel", "source KRelaxationMeshDeformer.mel",
    "source KDeformationTransfer.mel", "source KWrapMeshDeformer.mel",   "source KDeltaMush.mel",
    "menu CreateKavrinMenu DeleteKavrinMenu"};

std::vector<std::string> Join(std::vector<std::string> a, const std::vector<std::string>& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

const std::vector<std::string> kFullLoadNodeCalls = {
    "register KDeformationTransfer",
    "register KDTPoint",
    "register override drawdb/geometry/KDTPoint KDTPointNodePlugin",
    "register KDeltaMush",
    "register KWrapMeshDeformer",
    "register KOffsetMeshDeformer",
    "register KJiggleMeshDeformer",
    "register KRelaxationMeshDeformer",
    "register context KDTMarkCtx KDTMarkCtxToolCmd"};

const std::vector<std::string> kFullUnloadCalls = {
    "deregister override drawdb/geometry/KDTPoint KDTPointNodePlugin",
    "deregister KDTPoint",
    "deregister KDeltaMush",
    "deregister KWrapMeshDeformer",
    "deregister KOffsetMeshDeformer",
    "deregister KJiggleMeshDeformer",
    "deregister KDeformationTransfer",
    "deregister KRelaxationMeshDeformer",
    "deregister context KDTMarkCtx KDTMarkCtxToolCmd"};

bool SameStep(const KPluginStep& a, const KPluginStep& b) {
    return a.node == b.node && a.drawOverride == b.drawOverride && a.context == b.context;
}

// True when every step of part appears in full, in the same relative order.
bool IsSubsequence(KPluginSteps part, KPluginSteps full) {
    int j = 0;
    for (int i = 0; i < part.count; ++i) {
        while (j < full.count && !SameStep(part.steps[i], full.steps[j])) ++j;
        if (j == full.count) return false;
        ++j;
    }
    return true;
}

}  // namespace

TEST(PluginRegistration, TypeIdentities) {
    struct Row {
        const KNodeType* t;
        const char* name;
        unsigned int id;
        KNodeKind kind;
    } rows[] = {{&kDeformationTransferNode, "KDeformationTransfer", 0x82002, KNodeKind::kDependNode},
                {&kDTPointNode, "KDTPoint", 0x82006, KNodeKind::kLocatorNode},
                {&kDeltaMushNode, "KDeltaMush", 0x82008, KNodeKind::kDeformerNode},
                {&kWrapMeshDeformerNode, "KWrapMeshDeformer", 0x82005, KNodeKind::kDeformerNode},
                {&kOffsetMeshDeformerNode, "KOffsetMeshDeformer", 0x90012, KNodeKind::kDeformerNode},
                {&kJiggleMeshDeformerNode, "KJiggleMeshDeformer", 0x82001, KNodeKind::kDeformerNode},
                {&kRelaxationMeshDeformerNode, "KRelaxationMeshDeformer", 0x90014, KNodeKind::kDeformerNode}};
    std::set<unsigned int> ids;
    for (const Row& r : rows) {
        EXPECT_STREQ(r.t->name, r.name);
        EXPECT_EQ(r.t->id, r.id) << r.name;
        EXPECT_EQ(r.t->kind, r.kind) << r.name;
        if (r.t != &kDTPointNode) {
            EXPECT_EQ(r.t->classification, nullptr) << r.name;
        }
        ids.insert(r.t->id);
    }
    EXPECT_EQ(ids.size(), 7u);
    EXPECT_EQ(kDeltaMushNode.id, 532488u);
    EXPECT_STREQ(kDTPointNode.classification, "drawdb/geometry/KDTPoint");
    EXPECT_EQ(kDTPointDrawOverride.locator, &kDTPointNode);
    EXPECT_STREQ(kDTPointDrawOverride.registrantId, "KDTPointNodePlugin");
    EXPECT_STREQ(kPluginVersion, "1.0");
    EXPECT_STREQ(kPluginApiVersion, "Any");
    EXPECT_STREQ(kUnloadVendor, "Unknown");
    EXPECT_STREQ(kUnloadVersion, "Unknown");
}

TEST(PluginRegistration, BuildTablesFollowTheFullOrder) {
    // Types join the tables as they are built; wherever they go, the relative order must be
    // that of the complete toolkit.
    EXPECT_TRUE(IsSubsequence(LoadSteps(), kFullLoadSteps));
    EXPECT_TRUE(IsSubsequence(UnloadSteps(), kFullUnloadSteps));
    EXPECT_GE(LoadSteps().count, 1);
    EXPECT_EQ(LoadSteps().count, UnloadSteps().count);
    // Whatever is registered is also deregistered.
    for (int i = 0; i < LoadSteps().count; ++i) {
        const KPluginSteps one = {LoadSteps().steps + i, 1};
        EXPECT_TRUE(IsSubsequence(one, UnloadSteps())) << "load step " << i << " is never undone";
    }

    RecordingHost host;
    EXPECT_TRUE(LoadPlugin(host));
    EXPECT_EQ(host.calls.front(), "register KDeformationTransfer");
    EXPECT_EQ(std::vector<std::string>(host.calls.end() - 10, host.calls.end()), kScriptCalls);
    EXPECT_TRUE(host.reports.empty());
}

TEST(PluginRegistration, FullLoadOrder) {
    RecordingHost host;
    EXPECT_TRUE(LoadPlugin(host, kFullLoadSteps));
    EXPECT_EQ(host.calls, Join(kFullLoadNodeCalls, kScriptCalls));
    EXPECT_TRUE(host.reports.empty());
}

TEST(PluginRegistration, FullUnloadOrderRunsNoScript) {
    RecordingHost host;
    EXPECT_TRUE(UnloadPlugin(host, kFullUnloadSteps));
    EXPECT_EQ(host.calls, kFullUnloadCalls);
    EXPECT_TRUE(host.reports.empty());
}

TEST(PluginRegistration, LoadStopsAtFirstFailedNode) {
    RecordingHost host;
    host.failing = {"register KDeformationTransfer"};
    EXPECT_FALSE(LoadPlugin(host, kFullLoadSteps));
    EXPECT_EQ(host.calls, std::vector<std::string>{"register KDeformationTransfer"});
    EXPECT_EQ(host.reports, std::vector<std::string>{"Failed to register: KDeformationTransfer"});

    // A deformer in the middle: earlier ones stay registered, nothing later is tried, no script runs.
    RecordingHost mid;
    mid.failing = {"register KOffsetMeshDeformer"};
    EXPECT_FALSE(LoadPlugin(mid, kFullLoadSteps));
    EXPECT_EQ(mid.calls, std::vector<std::string>(kFullLoadNodeCalls.begin(), kFullLoadNodeCalls.begin() + 6));
    EXPECT_EQ(mid.reports, std::vector<std::string>{"Failed to register: KOffsetMeshDeformer"});
}

TEST(PluginRegistration, DrawOverrideFailureNamesTheRegistrant) {
    RecordingHost host;
    host.failing = {"register override drawdb/geometry/KDTPoint KDTPointNodePlugin"};
    EXPECT_FALSE(LoadPlugin(host, kFullLoadSteps));
    EXPECT_EQ(host.calls, std::vector<std::string>(kFullLoadNodeCalls.begin(), kFullLoadNodeCalls.begin() + 3));
    EXPECT_EQ(host.reports, std::vector<std::string>{"Failed to register: KDTPointNodePlugin"});
}

TEST(PluginRegistration, UnloadOverrideFailureNamesTheLocator) {
    RecordingHost host;
    host.failing = {"deregister override drawdb/geometry/KDTPoint KDTPointNodePlugin"};
    EXPECT_FALSE(UnloadPlugin(host, kFullUnloadSteps));
    EXPECT_EQ(host.calls, std::vector<std::string>{kFullUnloadCalls[0]});  // every node type stays
    EXPECT_EQ(host.reports, std::vector<std::string>{"Failed to deregister: KDTPoint"});
}

TEST(PluginRegistration, UnloadStopsAtFirstFailedNode) {
    RecordingHost host;
    host.failing = {"deregister KDeformationTransfer", "deregister KRelaxationMeshDeformer"};
    EXPECT_FALSE(UnloadPlugin(host, kFullUnloadSteps));
    EXPECT_EQ(host.calls, std::vector<std::string>(kFullUnloadCalls.begin(), kFullUnloadCalls.begin() + 7));
    EXPECT_EQ(host.reports, std::vector<std::string>{"Failed to deregister: KDeformationTransfer"});
}

TEST(PluginRegistration, IgnoredResults) {
    // Missing scripts, a failed context registration and a failed menu registration change
    // neither the calls nor the result of the load.
    RecordingHost host;
    host.failing = {"source KDeltaMush.mel", "source KavrinUtils.mel",
                    "register context KDTMarkCtx KDTMarkCtxToolCmd", "menu CreateKavrinMenu DeleteKavrinMenu"};
    EXPECT_TRUE(LoadPlugin(host, kFullLoadSteps));
    EXPECT_EQ(host.calls, Join(kFullLoadNodeCalls, kScriptCalls));
    EXPECT_TRUE(host.reports.empty());

    RecordingHost unload;
    unload.failing = {"deregister context KDTMarkCtx KDTMarkCtxToolCmd"};
    EXPECT_TRUE(UnloadPlugin(unload, kFullUnloadSteps));
    EXPECT_EQ(unload.calls, kFullUnloadCalls);
    EXPECT_TRUE(unload.reports.empty());
}

TEST(PluginRegistration, EmptyTableStillSourcesScripts) {
    RecordingHost host;
    EXPECT_TRUE(LoadPlugin(host, KPluginSteps{nullptr, 0}));
    EXPECT_EQ(host.calls, kScriptCalls);
}
