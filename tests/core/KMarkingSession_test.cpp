// Marking tool: set-up from the selection and the stored pairs, the click state machine, the
// undo and redo of a recorded step, each checked through the exact command texts the host runs
// and the messages it shows, in order.

#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "KMarkingSession.h"

using namespace Kavrin;

namespace {

typedef std::vector<std::string> Lines;

// A scene answering the tool's commands. Every command and every message shown goes into one
// log, in order; a message is logged as "error: <text>".
class Scene : public KMarkingCommands, public KMessageSink {
public:
    Lines log;
    Lines nodes;                               // what "ls -type KDeformationTransfer" lists
    std::map<std::string, KIntArray> stored;   // "vertCorres" per node
    bool createFails = false;
    int created = 0;

    void run(const std::string& c) override { log.push_back(c); }
    std::vector<std::string> runForStrings(const std::string& c) override {
        log.push_back(c);
        if (c == "ls -type KDeformationTransfer") return nodes;
        if (c == "createNode KDTPoint -p VertexPicked" && !createFails) return {"KDTPoint" + std::to_string(++created)};
        return {};
    }
    KIntArray runForInts(const std::string& c) override {
        log.push_back(c);
        for (const auto& n : stored)
            if (c == "getAttr " + n.first + ".vertCorres") return n.second;
        return {};
    }
    void error(const std::string& m) override { log.push_back("error: " + m); }
    void warning(const std::string& m) override { log.push_back("warning: " + m); }
    void output(const std::string& m) override { log.push_back("output: " + m); }

    // As the host shows an outcome.
    void show(const KOutcome& o) {
        if (o.failed()) error(o.message);
    }
    Lines take() { return std::exchange(log, Lines()); }
};

// Source: a 3 x 3 grid at z = 1.5, spacing 0.5; target: the same grid 10 units along x.
KVectorArray Grid(float dx) {
    KVectorArray p;
    for (int j = 0; j < 3; ++j)
        for (int i = 0; i < 3; ++i) p.push_back(KVector(dx + 0.5f * i, 0.5f * j, 1.5f));
    return p;
}

struct Tool {
    Scene scene;
    KMarkingSession session;
    KVectorArray source = Grid(0.0f), target = Grid(10.0f);

    KOutcome setUp(int meshes = 2) {
        const KOutcome o = session.setUp(meshes, &source, &target, scene, scene);
        scene.show(o);
        return o;
    }
    // A press and a release whose ray hit the source near vertex s and/or the target near
    // vertex t (-1: that mesh was missed). Returns whether a tool command is due.
    bool click(int s, int t) {
        scene.show(session.press(true));
        const KMarkingHit hit{s >= 0, s >= 0 ? source[s] + KVector(0.1f, -0.1f, 0.05f) : KVector(), t >= 0,
                              t >= 0 ? target[t] + KVector(-0.1f, 0.1f, -0.05f) : KVector()};
        const KMarkingResult r = session.release(hit, scene);
        scene.show(r.outcome);
        return r.recordStep;
    }
};

const std::string kLs = "ls -type KDeformationTransfer";
const std::string kCreate = "createNode KDTPoint -p VertexPicked";
const std::string kClear = "textScrollList -e -ra tslKDTWin";
const std::string kDelete = "select -r VertexPicked; doDelete;";

std::string Line(int s, int t) {
    return "string $pair=\"" + std::to_string(s) + " " + std::to_string(t) + "\"; textScrollList -e -a $pair tslKDTWin;";
}

}  // namespace

TEST(MarkingSession, FixedTextsCommandFormatsAndTheRay) {
    EXPECT_STREQ(kMarkingTitle, "Mark the corresspondences for KDeformationTransfer");
    EXPECT_STREQ(kMarkingHelp, "Click on the source-target mesh vertex pair to add to the correspondence list.");
    // Coordinates: the shortest text that reads back as the same float.
    const struct {
        KVector p;
        const char* text;
    } rows[] = {{KVector(0.1f, 1.0f, -2.5f), "setAttr KDTPoint3.position 0.1 1 -2.5"},
                {KVector(16777216.0f, 1e-7f, 0.0f), "setAttr KDTPoint3.position 16777216 1e-07 0"},
                {KVector(1.0f / 3.0f, 123456.79f, -0.0f), "setAttr KDTPoint3.position 0.33333334 123456.79 -0"},
                // Nine significant digits, the most a float needs ("127.99998" is another float).
                {KVector(127.999985f, 0.0f, 1.0f), "setAttr KDTPoint3.position 127.999985 0 1"}};
    for (const auto& r : rows) EXPECT_EQ(MarkingPlaceMarkerCommand("KDTPoint3", r.p), r.text);

    // The ray through a pixel: homogeneous points made Cartesian, a direction too short to
    // normalise left as it is.
    double o[3], d[3];
    const double nearH[4] = {2.0, 4.0, 6.0, 2.0}, farH[4] = {1.0, 2.0, 7.0, 1.0};  // near is (1, 2, 3)
    EXPECT_EQ(MarkingRay(nearH, farH, o, d), 4.0);  // the ray's reach: near to far
    EXPECT_EQ((std::vector<double>{o[0], o[1], o[2], d[0], d[1], d[2]}), (std::vector<double>{1, 2, 3, 0, 0, 1}));
    const double a[4] = {1.0, 1.0, 1.0, 1.0}, b[4] = {1.0 + 3e-11, 1.0, 1.0 + 4e-11, 1.0};
    MarkingRay(a, b, o, d);
    EXPECT_NEAR(d[0], 3e-11, 1e-16);
    EXPECT_NEAR(d[2], 4e-11, 1e-16);
}

TEST(MarkingSession, SetUpNeedsTwoMeshesAndAtMostOneNode) {
    for (int meshes : {0, 1, 3}) {
        Tool tool;
        ASSERT_TRUE(tool.setUp().deformed());  // an earlier good set-up is forgotten
        tool.scene.take();
        EXPECT_TRUE(tool.setUp(meshes).failed() && !tool.session.ready());
        EXPECT_FALSE(tool.click(4, -1) || tool.click(4, 4));
        EXPECT_EQ(tool.scene.take(), Lines(3, "error: Invalid number of selected meshes.")) << meshes;
    }
    Tool tool;
    tool.scene.nodes = {"KDeformationTransfer1", "KDeformationTransfer2"};
    tool.scene.stored["KDeformationTransfer1"] = {1, 2};
    EXPECT_TRUE(tool.setUp().failed() && !tool.session.ready());
    EXPECT_EQ(tool.scene.take(), (Lines{kLs, "error: There are too many KDeformationTransfer nodes in this scene."}));
    EXPECT_TRUE(tool.session.sourceIds().empty());
}

TEST(MarkingSession, SetUpMarksTheStoredPairs) {
    const struct {
        KIntArray stored;
        Lines log;
        KIntArray sourceIds, targetIds;
        Lines nodes = {"KDeformationTransfer1"};
    } cases[] = {
        // Five entries: two pairs, four markers; the odd last entry is ignored.
        {{2, 7, 4, 1, 8},
         {kLs, "getAttr KDeformationTransfer1.vertCorres", kCreate, "setAttr KDTPoint1.position 1 0 1.5", kCreate,
          "setAttr KDTPoint2.position 10.5 1 1.5", kCreate, "setAttr KDTPoint3.position 0.5 0.5 1.5", kCreate,
          "setAttr KDTPoint4.position 10.5 0 1.5"},
         {2, 4},
         {7, 1}},
        {{}, {kLs, "getAttr KDeformationTransfer1.vertCorres"}, {}, {}},
        // A pair naming a vertex the target does not have is kept, its marker is not placed.
        {{3, 9},
         {kLs, "getAttr KDeformationTransfer1.vertCorres",
          "error: KDTMarkCtx: stored correspondence pair 0 (3, 9) names a vertex outside the meshes (source 9 "
          "vertices, target 9); its markers were not placed.",
          kCreate, "setAttr KDTPoint1.position 0 0.5 1.5", kCreate},
         {3},
         {9}},
        // Likewise a source vertex one past the last.
        {{9, 2},
         {kLs, "getAttr KDeformationTransfer1.vertCorres",
          "error: KDTMarkCtx: stored correspondence pair 0 (9, 2) names a vertex outside the meshes (source 9 "
          "vertices, target 9); its markers were not placed.",
          kCreate, kCreate, "setAttr KDTPoint2.position 11 0 1.5"},
         {9},
         {2}},
        // No node: nothing stored to read.
        {{1, 2}, {kLs}, {}, {}, {}}};
    for (const auto& c : cases) {
        Tool tool;
        tool.scene.nodes = c.nodes;
        tool.scene.stored["KDeformationTransfer1"] = c.stored;
        EXPECT_TRUE(tool.setUp().deformed());
        EXPECT_TRUE(tool.session.ready() && tool.session.waitingForSource());
        EXPECT_EQ(tool.scene.take(), c.log);
        EXPECT_EQ(tool.session.sourceIds(), c.sourceIds);
        EXPECT_EQ(tool.session.targetIds(), c.targetIds);
        EXPECT_EQ(tool.session.sourceLocators().size(), c.sourceIds.size());
    }
}

TEST(MarkingSession, ClickingPairsSnapsMarksAndPublishes) {
    for (const bool withNode : {true, false}) {
        Tool tool;
        if (withNode) tool.scene.nodes = {"KDeformationTransfer1"};
        tool.scene.stored["KDeformationTransfer1"] = {0, 8};
        tool.setUp();
        tool.scene.take();
        EXPECT_FALSE(tool.click(5, -1));  // source vertex 5 = (1, 0.5)
        EXPECT_FALSE(tool.session.waitingForSource());
        EXPECT_TRUE(tool.click(-1, 3));  // target vertex 3 = (10, 0.5)
        EXPECT_TRUE(tool.session.waitingForSource());
        const int first = withNode ? 3 : 1;  // set-up made two markers for the stored pair
        Lines log = {kCreate,
                     "setAttr KDTPoint" + std::to_string(first) + ".position 1 0.5 1.5",
                     kCreate,
                     "setAttr KDTPoint" + std::to_string(first + 1) + ".position 10 0.5 1.5",
                     kClear};
        if (withNode) log.push_back(Line(0, 8));
        log.push_back(Line(5, 3));
        log.push_back(kLs);
        if (withNode) log.push_back("KDTMarkCtxSetAttr");
        EXPECT_EQ(tool.scene.take(), log);
        EXPECT_EQ(tool.session.pairs(), withNode ? KIntArray({0, 8, 5, 3}) : KIntArray({5, 3}));

        const KMarkingStep step = tool.session.step();
        EXPECT_TRUE(step.flag);
        EXPECT_EQ(step.closestSourceId, 5);
        EXPECT_EQ(step.closestTargetId, 3);
        EXPECT_EQ(step.sourceLocators.back(), "KDTPoint" + std::to_string(first));
    }
}

TEST(MarkingSession, WrongClicksSayWhatToDoAndKeepTheState) {
    Tool tool;
    tool.setUp();
    tool.click(5, -1);
    tool.click(-1, 3);
    tool.scene.take();
    const struct {
        int source, target;
        const char* message;
        bool waitingForSource;  // before the click; the click leaves it unchanged
    } rows[] = {{5, -1, "error: Already selected entry. Select another source mesh vertex.", true},
                {-1, -1, "error: Click on the source mesh.", true},
                {-1, 4, "error: Click on the source mesh.", true},
                {-1, 3, "error: Already selected entry. Select another target mesh vertex.", false},
                {-1, -1, "error: Click on the target mesh.", false},
                {6, -1, "error: Click on the target mesh.", false}};
    for (const auto& r : rows) {
        if (!r.waitingForSource && tool.session.waitingForSource()) {
            tool.click(2, -1);
            tool.scene.take();
        }
        EXPECT_FALSE(tool.click(r.source, r.target));
        EXPECT_EQ(tool.scene.take(), Lines{r.message});
        EXPECT_EQ(tool.session.waitingForSource(), r.waitingForSource) << r.message;
    }
    EXPECT_EQ(tool.session.sourceIds(), KIntArray({5, 2}));
    EXPECT_EQ(tool.session.targetIds(), KIntArray({3}));

    // A press whose position cannot be read makes the release do nothing.
    tool.scene.show(tool.session.press(false));
    EXPECT_FALSE(tool.session.release(KMarkingHit{false, KVector(), true, tool.target[0]}, tool.scene).recordStep);
    EXPECT_TRUE(tool.scene.take().empty());
}

TEST(MarkingSession, ClicksOnBothMeshesAddNothing) {
    Tool tool;
    tool.scene.nodes = {"KDeformationTransfer1"};
    tool.setUp();
    tool.scene.take();
    // Waiting for the source: only switches to waiting for the target.
    EXPECT_FALSE(tool.click(1, 1));
    EXPECT_FALSE(tool.session.waitingForSource());
    EXPECT_TRUE(tool.scene.take().empty());
    // Waiting for the target: completes the step without a target (both sides still empty, so
    // the empty list is published).
    EXPECT_TRUE(tool.click(2, 2));
    EXPECT_EQ(tool.scene.take(), (Lines{kClear, kLs, "KDTMarkCtxSetAttr"}));
    // With a source picked, the sides differ and the list is left alone.
    EXPECT_FALSE(tool.click(4, -1));
    EXPECT_TRUE(tool.click(4, 4));
    EXPECT_EQ(tool.scene.take(), (Lines{kCreate, "setAttr KDTPoint1.position 0.5 0.5 1.5"}));
    EXPECT_EQ(tool.session.sourceIds(), KIntArray({4}));
    EXPECT_TRUE(tool.session.targetIds().empty());
    const KMarkingStep step = tool.session.step();
    EXPECT_EQ(step.closestSourceId, 4);
    EXPECT_EQ(step.closestTargetId, -1);  // no target snapped yet

    // Its undo has no pair to drop: every array ends empty.
    KMarkingStep undone = step;
    undone.undo(tool.scene, tool.scene);
    EXPECT_EQ(tool.scene.take(), (Lines{kDelete, kClear, kLs, "KDTMarkCtxSetAttr", "KDTWinPick"}));
    EXPECT_TRUE(undone.sourceIds.empty() && undone.sourceLocators.empty() && undone.lastSourceLocator.empty());
}

TEST(MarkingSession, UndoDropsThePairAndRedoPutsItBack) {
    const struct {
        Lines nodes;
        Lines tail;  // what follows the list lines
    } cases[] = {{{"KDeformationTransfer1"}, {kLs, "KDTMarkCtxSetAttr", "KDTWinPick"}},
                 {{},
                  {kLs, "error: There is no KDeformationTransfer node in this scene. The list will be initialized.",
                   "KDTMarkCtxSetAttr"}},
                 {{"KDeformationTransfer1", "KDeformationTransfer2"},
                  {kLs, "error: There are too many KDeformationTransfer node in this scene."}}};
    for (const auto& c : cases) {
        Tool tool;
        tool.scene.nodes = {"KDeformationTransfer1"};
        tool.setUp();
        tool.click(0, -1);
        tool.click(-1, 8);  // KDTPoint1, KDTPoint2
        tool.click(4, -1);
        ASSERT_TRUE(tool.click(-1, 5));  // KDTPoint3, KDTPoint4
        KMarkingStep step = tool.session.step();
        tool.scene.nodes = c.nodes;
        tool.scene.take();

        step.undo(tool.scene, tool.scene);
        Lines log = {kDelete, kClear, Line(0, 8)};
        log.insert(log.end(), c.tail.begin(), c.tail.end());
        EXPECT_EQ(tool.scene.take(), log);
        EXPECT_EQ(step.pairs, KIntArray({0, 8}));
        EXPECT_EQ(step.sourceLocators, Lines{"KDTPoint1"});
        EXPECT_EQ(step.lastSourceLocator, "KDTPoint3");
        EXPECT_EQ(step.lastTargetLocator, "KDTPoint4");
        // The undo reaches the tool's own lists too, so the next pick does not bring the pair back.
        EXPECT_EQ(tool.session.targetIds(), KIntArray({8}));
        EXPECT_EQ(tool.session.sourceLocators(), Lines{"KDTPoint1"});

        step.redo(tool.scene, tool.scene);
        log = {kDelete, kClear, Line(0, 8), Line(4, 5)};
        log.insert(log.end(), c.tail.begin(), c.tail.end());
        EXPECT_EQ(tool.scene.take(), log);
        EXPECT_EQ(step.pairs, KIntArray({0, 8, 4, 5}));
        // Redo takes the names at the end of the shortened arrays, as it always has.
        EXPECT_EQ(step.lastSourceLocator, "KDTPoint1");
        EXPECT_EQ(step.sourceLocators, (Lines{"KDTPoint1", "KDTPoint1"}));
        EXPECT_EQ(step.targetLocators, (Lines{"KDTPoint2", "KDTPoint2"}));
        EXPECT_EQ(tool.session.sourceIds(), KIntArray({0, 4}));
        EXPECT_TRUE(tool.session.waitingForSource());
    }
}

// An undo also drops a pick left half done (its marker went with the others), and a step of an
// earlier set-up no longer reaches the tool's lists.
TEST(MarkingSession, UndoAfterAHalfPickAndAfterANewSetUp) {
    Tool tool;
    tool.setUp();
    tool.click(0, -1);
    ASSERT_TRUE(tool.click(-1, 8));
    KMarkingStep step = tool.session.step();
    tool.click(4, -1);
    step.undo(tool.scene, tool.scene);
    EXPECT_TRUE(tool.session.sourceIds().empty());
    EXPECT_TRUE(tool.session.waitingForSource());

    step.redo(tool.scene, tool.scene);
    tool.scene.nodes = {"KDeformationTransfer1"};
    tool.scene.stored["KDeformationTransfer1"] = {3, 6};
    tool.setUp();
    step.undo(tool.scene, tool.scene);
    EXPECT_EQ(step.sourceIds.length(), 0);
    EXPECT_EQ(tool.session.sourceIds(), KIntArray({3}));
    EXPECT_EQ(tool.session.targetIds(), KIntArray({6}));
}

TEST(MarkingSession, StepsThatDoNothingAndMarkersThatWereNotMade) {
    Scene scene;
    KMarkingStep manual;  // a tool command run by hand, not by the tool
    manual.redo(scene, scene);
    manual.undo(scene, scene);
    EXPECT_TRUE(scene.log.empty());

    // Redo of the only pair after its undo finds no name at the end: empty names.
    Tool tool;
    tool.setUp();
    tool.click(3, -1);
    tool.click(-1, 6);
    KMarkingStep step = tool.session.step();
    step.undo(tool.scene, tool.scene);
    step.redo(tool.scene, tool.scene);
    EXPECT_EQ(step.sourceIds, KIntArray({3}));
    EXPECT_EQ(step.sourceLocators, Lines{""});

    // A marker the host could not create is not placed; its pick still counts.
    tool.scene.createFails = true;
    tool.scene.take();
    tool.click(7, -1);
    EXPECT_EQ(tool.scene.take(), Lines{kCreate});
    EXPECT_EQ(tool.session.sourceIds(), KIntArray({3, 7}));
    EXPECT_EQ(tool.session.sourceLocators().back(), "");
}

TEST(MarkingSession, TheInterfaceScriptsHoldWhatTheToolRuns) {
    const auto read = [](const char* file) {
        std::ifstream in(std::string(KAVRIN_SOURCE_DIR) + "/scripts/" + file);
        return std::string(std::istreambuf_iterator<char>(in), {});
    };
    const std::string script = read("KDTMarkCtx.mel"), menu = read("KavrinMenu.mel");
    for (const std::string& needed :
         {"global proc " + std::string(kMarkingSetAttrProc) + "()", "global proc " + std::string(kMarkingWinPickProc) + "()",
          std::string("textScrollList -allowMultiSelection false -selectCommand \"KDTWinPick\""),
          std::string("createNode transform -skipSelect -name VertexPicked"),
          std::string("global proc KDTMarkCtxStart()"), std::string("KDTMarkCtx KDTMarkCtx1")})
        EXPECT_NE(script.find(needed), std::string::npos) << needed;
    // The window's list is the one the tool's commands name.
    const size_t list = script.find("textScrollList -allowMultiSelection");
    ASSERT_NE(list, std::string::npos);
    const size_t end = script.find(';', list);
    EXPECT_EQ(script.substr(end - 9, 9), "tslKDTWin");
    EXPECT_NE(menu.find("-command \"KDTMarkCtxStart\""), std::string::npos);
}
