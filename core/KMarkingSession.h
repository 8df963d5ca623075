#pragma once
// The correspondence marking tool: the artist picks a source vertex, then a target vertex, and
// every completed pair joins the pair list that the deformation-transfer node reads from
// "vertCorres". Each pick drops a KDTPoint marker under the transform "VertexPicked".
//
// KMarkingSession is the tool context's behaviour: set-up from the two selected meshes and the
// stored pairs, the press and release of a click, snapping to the nearest vertex, the checks
// and messages. KMarkingStep is what one tool command remembers of a click, with its undo and
// redo. Neither touches the host: everything the tool tells the scene goes through
// KMarkingCommands as the exact command text the host's interpreter runs, and the ray cast
// stays in the host, which reports what it hit (KMarkingHit).

#include <memory>
#include <string>
#include <vector>

#include "KMessageSink.h"
#include "KOutcome.h"
#include "KPointsDistTree.h"

namespace Kavrin {

// The tool's fixed texts (the misspelt title and the singular "node" of the undo message are
// the tool's own and are kept).
extern const char* const kMarkingTitle;               // "Mark the corresspondences for KDeformationTransfer"
extern const char* const kMarkingHelp;                // "Click on the source-target mesh vertex pair ..."
extern const char* const kMarkingInvalidMeshCount;    // "Invalid number of selected meshes."
extern const char* const kMarkingTooManyNodes;        // "There are too many KDeformationTransfer nodes in this scene."
extern const char* const kMarkingTooManyNodesOnUndo;  // "There are too many KDeformationTransfer node in this scene."
extern const char* const kMarkingNoNode;              // "There is no KDeformationTransfer node ... initialized."
extern const char* const kMarkingSourceTaken;         // "Already selected entry. Select another source mesh vertex."
extern const char* const kMarkingTargetTaken;         // "Already selected entry. Select another target mesh vertex."
extern const char* const kMarkingClickSource;         // "Click on the source mesh."
extern const char* const kMarkingClickTarget;         // "Click on the target mesh."

// The command texts and script procedures the tool runs.
extern const char* const kMarkingListNodes;      // "ls -type KDeformationTransfer"
extern const char* const kMarkingCreateMarker;   // "createNode KDTPoint -p VertexPicked"
extern const char* const kMarkingClearList;      // "textScrollList -e -ra tslKDTWin"
extern const char* const kMarkingSetAttrProc;    // "KDTMarkCtxSetAttr"
extern const char* const kMarkingWinPickProc;    // "KDTWinPick"
extern const char* const kMarkingDeleteMarkers;  // "select -r VertexPicked; doDelete;"
std::string MarkingGetPairsCommand(const std::string& node);  // "getAttr <node>.vertCorres"
std::string MarkingPlaceMarkerCommand(const std::string& marker, const KVector& position);
std::string MarkingListLineCommand(int sourceId, int targetId);

// A stored pair naming a vertex the meshes do not have (reported at set-up; the pair is kept).
std::string MarkingStoredPairOutsideText(int pair, int sourceId, int targetId, int sourceCount, int targetCount);

// The host's command interpreter. Results are not checked beyond what the tool reads from them.
class KMarkingCommands {
public:
    virtual ~KMarkingCommands() {}
    virtual void run(const std::string& command) = 0;
    // The command's result as strings / ints; empty when it failed or returned nothing.
    virtual std::vector<std::string> runForStrings(const std::string& command) = 0;
    virtual KIntArray runForInts(const std::string& command) = 0;
};

// What the ray through the clicked pixel hit: each mesh, and where (world space).
struct KMarkingHit {
    bool source = false;
    KVector sourcePoint;
    bool target = false;
    KVector targetPoint;
};

// The world ray through a pixel from the view's near and far points (homogeneous; made
// Cartesian when w is not 1): origin = near, direction = far - near, normalised when its squared
// length exceeds 1e-20. Returns the distance from near to far: how far the ray must reach to
// cross the whole view, from its near to its far clipping plane.
double MarkingRay(const double nearPoint[4], const double farPoint[4], double origin[3], double direction[3]);

// Shown when the host cannot turn a click into a ray through the view.
extern const char* const kMarkingNoRay;

// The tool's own record of the picks: the ids and marker names of both sides (entry i of each
// belongs to pair i) and whether the next click must be on the source. Shared with the tool
// commands the tool records, so that their undo and redo reach it.
struct KMarkingLists {
    KIntArray sourceIds, targetIds;
    std::vector<std::string> sourceLocators, targetLocators;
    // Decision (behaviour note "Marking: a new tool waits for a source click")
    bool waitingForSource = true;
};

// What one tool command keeps of the click that recorded it, and its undo and redo.
struct KMarkingStep {
    bool recorded = false;  // filled by the tool (a command run by hand has nothing to redo)
    bool flag = false;      // the tool was waiting for a source click again: undo applies
    int closestSourceId = -1;
    int closestTargetId = -1;
    // Decision (behaviour note "Marking: tool commands share the mesh points")
    std::shared_ptr<const KVectorArray> sourcePoints, targetPoints;
    KIntArray sourceIds, targetIds;
    std::vector<std::string> sourceLocators, targetLocators;
    std::vector<std::string> nodeNames;
    std::string lastSourceLocator, lastTargetLocator;
    KIntArray pairs;
    // The lists of the tool that recorded this step, while that tool and its set-up last.
    std::weak_ptr<KMarkingLists> toolLists;

    // Drops the last pair, deletes every marker and republishes the list (flag only).
    void undo(KMarkingCommands& commands, KMessageSink& sink);
    // Deletes every marker, appends the remembered ids again and republishes the list.
    void redo(KMarkingCommands& commands, KMessageSink& sink);

private:
    void _publish(KMarkingCommands& commands, KMessageSink& sink);
};

// A release's outcome: a failed outcome carries the message to display; recordStep asks the
// host for a tool command filled from step().
struct KMarkingResult {
    KOutcome outcome;
    bool recordStep = false;
};

class KMarkingSession {
public:
    // Sets the tool up from the selection: selectedMeshes is the number of selected meshes; when
    // it is 2, sourcePoints and targetPoints are their vertices (the first selected is the source).
    // Reads the stored pairs of the scene's one KDeformationTransfer node and marks them.
    KOutcome setUp(int selectedMeshes, const KVectorArray* sourcePoints, const KVectorArray* targetPoints,
                   KMarkingCommands& commands, KMessageSink& sink);

    // A press; positionRead says whether the host could read the event's position.
    KOutcome press(bool positionRead);

    // A release whose ray (cast by the host only when pressValid()) hit what `hit` says.
    KMarkingResult release(const KMarkingHit& hit, KMarkingCommands& commands);

    // The record for the tool command of the last release that asked for one.
    KMarkingStep step() const;

    bool meshesSet() const { return _meshesSet; }
    bool ready() const { return _ready; }
    bool pressValid() const { return _pressValid; }
    bool waitingForSource() const { return _lists->waitingForSource; }
    bool hitSource() const { return _hit.source; }
    bool hitTarget() const { return _hit.target; }
    int sourceVertex() const { return _sourceVertex; }
    int targetVertex() const { return _targetVertex; }
    const KIntArray& sourceIds() const { return _lists->sourceIds; }
    const KIntArray& targetIds() const { return _lists->targetIds; }
    const std::vector<std::string>& sourceLocators() const { return _lists->sourceLocators; }
    const std::vector<std::string>& targetLocators() const { return _lists->targetLocators; }
    const KIntArray& pairs() const { return _pairs; }
    const std::vector<std::string>& nodeNames() const { return _nodeNames; }

private:
    std::string _createMarker(const KVectorArray& points, int id, KMarkingCommands& commands);
    void _publishPairs(KMarkingCommands& commands);

    std::shared_ptr<const KVectorArray> _sourcePoints, _targetPoints;
    KPointsDistTree _sourceTree, _targetTree;
    // A new one at every set-up, so that the steps of an earlier set-up no longer reach it.
    std::shared_ptr<KMarkingLists> _lists = std::make_shared<KMarkingLists>();
    KIntArray _pairs;
    std::vector<std::string> _nodeNames;
    KMarkingHit _hit;
    bool _meshesSet = false;
    bool _ready = false;
    bool _pressValid = false;
    // Decision (behaviour note "Marking: no vertex snapped yet")
    int _sourceVertex = -1;
    int _targetVertex = -1;
};

}  // namespace Kavrin
