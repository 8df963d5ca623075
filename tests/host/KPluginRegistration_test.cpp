// Plug-in load and unload: the order of every host call, the stop at the first checked failure
// with its exact text, and the results that are deliberately ignored.

#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <set>
#include <string>
#include <vector>

#include "KPluginRegistration.h"

using namespace Kavrin;

namespace {

// Records every call as one line; a call whose line is in `failing` reports failure.
class RecordingHost : public KPluginHost {
public:
    std::vector<std::string> calls, reports;
    std::set<std::string> failing;
    std::set<const void*> missing;  // types whose class the host layer does not hold

    bool hasClass(const KPluginStep& s) override {
        return missing.count(s.node ? static_cast<const void*>(s.node)
                                    : s.drawOverride ? static_cast<const void*>(s.drawOverride)
                                                     : static_cast<const void*>(s.context)) == 0;
    }

    bool registerNode(const KNodeType& t) override { return call("register " + std::string(t.name)); }
    bool deregisterNode(const KNodeType& t) override { return call("deregister " + std::string(t.name)); }
    bool registerDrawOverride(const KDrawOverrideType& t) override { return call("register " + Override(t)); }
    bool deregisterDrawOverride(const KDrawOverrideType& t) override { return call("deregister " + Override(t)); }
    bool registerContext(const KContextType& t) override { return call("register " + Context(t)); }
    bool deregisterContext(const KContextType& t) override { return call("deregister " + Context(t)); }
    bool sourceScript(const char* file) override { return call("source " + std::string(file)); }
    bool registerMenu(const char* create, const char* remove) override {
        return call("menu " + std::string(create) + " " + remove);
    }
    void runCommand(const std::string& command) override { call("run " + command); }
    void reportFailure(const std::string& message) override { reports.push_back(message); }

private:
    static std::string Override(const KDrawOverrideType& t) {
        return "override " + std::string(t.locator->classification) + " " + t.registrantId;
    }
    static std::string Context(const KContextType& t) {
        return "context " + std::string(t.name) + " " + t.toolCommandName;
    }
    bool call(const std::string& line) {
        calls.push_back(line);
        return failing.count(line) == 0;
    }
};

const std::vector<std::string> kLoadCalls = {
    "register KDeformationTransfer", "register KDTPoint",
    "register override drawdb/geometry/KDTPoint KDTPointNodePlugin", "register KDeltaMush",
    "register KWrapMeshDeformer", "register KOffsetMeshDeformer", "register KJiggleMeshDeformer",
    "register KRelaxationMeshDeformer", "register context KDTMarkCtx KDTMarkCtxToolCmd",
    "source KavrinUtils.mel", "source KavrinMenu.mel", "source KDTMarkCtx.mel", "source KOffsetMeshDeformer.mel",
    "source KJiggleMeshDeformer.mel", "source KRelaxationMeshDeformer.mel", "source KDeformationTransfer.mel",
    "source KWrapMeshDeformer.mel", "source KDeltaMush.mel", "menu CreateKavrinMenu DeleteKavrinMenu"};
// Each node type's paintable maps are withdrawn just before the type goes.
const std::vector<std::string> kUnloadCalls = {
    "deregister override drawdb/geometry/KDTPoint KDTPointNodePlugin", "deregister KDTPoint", "deregister KDeltaMush",
    "deregister KWrapMeshDeformer", "deregister KOffsetMeshDeformer",
    "run makePaintable -rm KJiggleMeshDeformer dampingMap;", "run makePaintable -rm KJiggleMeshDeformer stiffnessMap;",
    "run makePaintable -rm KJiggleMeshDeformer normalStrengthMap;", "deregister KJiggleMeshDeformer",
    "deregister KDeformationTransfer", "run makePaintable -rm KRelaxationMeshDeformer stiffness;",
    "run makePaintable -rm KRelaxationMeshDeformer colliderMap;", "deregister KRelaxationMeshDeformer",
    "deregister context KDTMarkCtx KDTMarkCtxToolCmd"};

// The first n calls, then the given ones.
std::vector<std::string> First(const std::vector<std::string>& calls, int n, std::vector<std::string> then = {}) {
    std::vector<std::string> out(calls.begin(), calls.begin() + n);
    out.insert(out.end(), then.begin(), then.end());
    return out;
}

}  // namespace

TEST(PluginRegistration, TypeIdentities) {
    const struct {
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
    for (const auto& r : rows) {
        EXPECT_STREQ(r.t->name, r.name);
        EXPECT_EQ(r.t->id, r.id) << r.name;
        EXPECT_EQ(r.t->kind, r.kind) << r.name;
        EXPECT_STREQ(r.t->classification, r.t == &kDTPointNode ? "drawdb/geometry/KDTPoint" : nullptr) << r.name;
    }
    EXPECT_EQ(kDTPointDrawOverride.locator, &kDTPointNode);
    EXPECT_STREQ(kDTPointDrawOverride.registrantId, "KDTPointNodePlugin");
    EXPECT_STREQ(kPluginVersion, "1.0");
    EXPECT_STREQ(kPluginApiVersion, "Any");
    EXPECT_STREQ(kUnloadVendor, "Unknown");
    EXPECT_STREQ(kUnloadVersion, "Unknown");
}

TEST(PluginRegistration, OrderStopAtTheFirstFailureAndIgnoredResults) {
    // Missing scripts and failed context or menu registrations change neither the calls nor the
    // result. A failed load stops at once, takes back what it registered, newest first, and runs
    // no script; a failed unload stops at once.
    const struct {
        bool load;
        std::set<std::string> failing;
        std::vector<std::string> calls, reports;
    } cases[] = {
        {true, {}, kLoadCalls, {}},
        {false, {}, kUnloadCalls, {}},
        {true,
         {"source KDeltaMush.mel", "source KavrinUtils.mel", "register context KDTMarkCtx KDTMarkCtxToolCmd",
          "menu CreateKavrinMenu DeleteKavrinMenu"},
         kLoadCalls,
         {}},
        {false, {"deregister context KDTMarkCtx KDTMarkCtxToolCmd"}, kUnloadCalls, {}},
        {true, {"register KDeformationTransfer"}, First(kLoadCalls, 1), {"Failed to register: KDeformationTransfer"}},
        {true, {"register override drawdb/geometry/KDTPoint KDTPointNodePlugin"},
         First(kLoadCalls, 3, {"deregister KDTPoint", "deregister KDeformationTransfer"}),
         {"Failed to register: KDTPointNodePlugin"}},
        {true, {"register KOffsetMeshDeformer", "register KRelaxationMeshDeformer"},
         First(kLoadCalls, 6,
               {"deregister KWrapMeshDeformer", "deregister KDeltaMush",
                "deregister override drawdb/geometry/KDTPoint KDTPointNodePlugin", "deregister KDTPoint",
                "deregister KDeformationTransfer"}),
         {"Failed to register: KOffsetMeshDeformer"}},
        {true, {"register KRelaxationMeshDeformer"},
         First(kLoadCalls, 8,
               {"run makePaintable -rm KJiggleMeshDeformer dampingMap;",
                "run makePaintable -rm KJiggleMeshDeformer stiffnessMap;",
                "run makePaintable -rm KJiggleMeshDeformer normalStrengthMap;", "deregister KJiggleMeshDeformer",
                "deregister KOffsetMeshDeformer", "deregister KWrapMeshDeformer", "deregister KDeltaMush",
                "deregister override drawdb/geometry/KDTPoint KDTPointNodePlugin", "deregister KDTPoint",
                "deregister KDeformationTransfer"}),
         {"Failed to register: KRelaxationMeshDeformer"}},
        {false, {"deregister override drawdb/geometry/KDTPoint KDTPointNodePlugin"}, First(kUnloadCalls, 1),
         {"Failed to deregister: KDTPoint"}},
        {false, {"deregister KDeformationTransfer", "deregister KRelaxationMeshDeformer"}, First(kUnloadCalls, 10),
         {"Failed to deregister: KDeformationTransfer"}}};
    for (const auto& c : cases) {
        RecordingHost host;
        host.failing = c.failing;
        EXPECT_EQ(c.load ? LoadPlugin(host) : UnloadPlugin(host), c.reports.empty());
        EXPECT_EQ(host.calls, c.calls);
        EXPECT_EQ(host.reports, c.reports);
    }
}

TEST(PluginRegistration, StepsWithoutAClassAreSkippedBothWays) {
    RecordingHost host;
    host.missing = {&kDTPointNode, &kDTPointDrawOverride, &kWrapMeshDeformerNode, &kDTMarkContext};
    EXPECT_TRUE(LoadPlugin(host));
    EXPECT_TRUE(UnloadPlugin(host));
    // Every call but those of the missing types, in order.
    // (Register and deregister calls alike.)
    const auto skipped = [](const std::string& c) {
        const auto endsWith = [&c](const std::string& tail) {
            return c.size() >= tail.size() && c.compare(c.size() - tail.size(), tail.size(), tail) == 0;
        };
        return endsWith("register KDTPoint") || endsWith("register KWrapMeshDeformer") ||
               c.find("register override ") != std::string::npos || c.find("register context ") != std::string::npos;
    };
    std::vector<std::string> expected;
    for (const std::vector<std::string>* calls : {&kLoadCalls, &kUnloadCalls})
        std::copy_if(calls->begin(), calls->end(), std::back_inserter(expected),
                     [&](const std::string& c) { return !skipped(c); });
    EXPECT_EQ(host.calls, expected);
}

TEST(PluginRegistration, EveryScriptTheLoadSourcesExistsAndIsInstalled) {
    // So that Maya never reports a missing file.
    std::ifstream cmake(std::string(KAVRIN_SOURCE_DIR) + "/source/CMakeLists.txt");
    const std::string listed((std::istreambuf_iterator<char>(cmake)), std::istreambuf_iterator<char>());
    ASSERT_FALSE(listed.empty());
    for (const char* script : kPluginScripts) {
        EXPECT_TRUE(std::ifstream(std::string(KAVRIN_SOURCE_DIR) + "/scripts/" + script).good()) << script;
        EXPECT_NE(listed.find("/scripts/" + std::string(script)), std::string::npos)
            << script << " is not in KAVRIN_MAYA_SCRIPTS";
    }
}
