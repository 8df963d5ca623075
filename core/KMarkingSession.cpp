#include "KMarkingSession.h"

#include <algorithm>
#include <cmath>
#include <locale>
#include <sstream>

namespace Kavrin {

const char* const kMarkingTitle = "Mark the corresspondences for KDeformationTransfer";
const char* const kMarkingHelp = "Click on the source-target mesh vertex pair to add to the correspondence list.";
const char* const kMarkingInvalidMeshCount = "Invalid number of selected meshes.";
const char* const kMarkingTooManyNodes = "There are too many KDeformationTransfer nodes in this scene.";
const char* const kMarkingTooManyNodesOnUndo = "There are too many KDeformationTransfer node in this scene.";
const char* const kMarkingNoNode =
    "There is no KDeformationTransfer node in this scene. The list will be initialized.";
const char* const kMarkingSourceTaken = "Already selected entry. Select another source mesh vertex.";
const char* const kMarkingTargetTaken = "Already selected entry. Select another target mesh vertex.";
const char* const kMarkingClickSource = "Click on the source mesh.";
const char* const kMarkingClickTarget = "Click on the target mesh.";
const char* const kMarkingNoRay =
    "KDTMarkCtx: the click could not be turned into a ray through the active view; nothing was picked.";

const char* const kMarkingListNodes = "ls -type KDeformationTransfer";
const char* const kMarkingCreateMarker = "createNode KDTPoint -p VertexPicked";
const char* const kMarkingClearList = "textScrollList -e -ra tslKDTWin";
const char* const kMarkingSetAttrProc = "KDTMarkCtxSetAttr";
const char* const kMarkingWinPickProc = "KDTWinPick";
const char* const kMarkingDeleteMarkers = "select -r VertexPicked; doDelete;";

namespace {

// The shortest decimal text (C locale) that reads back as the same float.
// Decision (behaviour note "Marking: marker coordinates")
std::string FormatCoordinate(float value) {
    std::string text;
    for (int precision = 6; precision <= 9; ++precision) {
        std::ostringstream out;
        out.imbue(std::locale::classic());
        out.precision(precision);
        out << value;
        text = out.str();
        std::istringstream in(text);
        in.imbue(std::locale::classic());
        float back = 0.0f;
        in >> back;
        if (back == value || !std::isfinite(value)) break;
    }
    return text;
}

bool Contains(const KIntArray& ids, int id) { return std::find(ids.begin(), ids.end(), id) != ids.end(); }

// Entry i of names, or an empty name where the array has none.
// Guard (behaviour note "Marking: marker names past the end")
std::string NameAt(const std::vector<std::string>& names, int i) {
    return i >= 0 && i < static_cast<int>(names.size()) ? names[i] : std::string();
}

// Clears pairs, empties the list, then adds one pair and one list line per index.
void RebuildList(const KIntArray& sourceIds, const KIntArray& targetIds, KIntArray& pairs,
                 KMarkingCommands& commands) {
    pairs.clear();
    commands.run(kMarkingClearList);
    for (int i = 0; i < sourceIds.length(); ++i) {
        pairs.push_back(sourceIds[i]);
        pairs.push_back(targetIds[i]);
        commands.run(MarkingListLineCommand(sourceIds[i], targetIds[i]));
    }
}

template <class Array>
void Truncate(Array& a, int n) {
    if (static_cast<int>(a.size()) > n) a.resize(static_cast<size_t>(n));
}

}  // namespace

std::string MarkingGetPairsCommand(const std::string& node) { return "getAttr " + node + ".vertCorres"; }

std::string MarkingPlaceMarkerCommand(const std::string& marker, const KVector& p) {
    return "setAttr " + marker + ".position " + FormatCoordinate(p.x) + " " + FormatCoordinate(p.y) + " " +
           FormatCoordinate(p.z);
}

// Decision (behaviour note "Marking: the pair line's quotes")
std::string MarkingListLineCommand(int sourceId, int targetId) {
    return "string $pair=\"" + std::to_string(sourceId) + " " + std::to_string(targetId) +
           "\"; textScrollList -e -a $pair tslKDTWin;";
}

std::string MarkingStoredPairOutsideText(int pair, int sourceId, int targetId, int sourceCount, int targetCount) {
    return "KDTMarkCtx: stored correspondence pair " + std::to_string(pair) + " (" + std::to_string(sourceId) +
           ", " + std::to_string(targetId) + ") names a vertex outside the meshes (source " +
           std::to_string(sourceCount) + " vertices, target " + std::to_string(targetCount) +
           "); its markers were not placed.";
}

double MarkingRay(const double nearPoint[4], const double farPoint[4], double origin[3], double direction[3]) {
    double n[3], f[3];
    for (int i = 0; i < 3; ++i) {
        n[i] = nearPoint[3] != 1.0 ? nearPoint[i] / nearPoint[3] : nearPoint[i];
        f[i] = farPoint[3] != 1.0 ? farPoint[i] / farPoint[3] : farPoint[i];
    }
    double length2 = 0.0;
    for (int i = 0; i < 3; ++i) {
        origin[i] = n[i];
        direction[i] = f[i] - n[i];
        length2 += direction[i] * direction[i];
    }
    const double length = std::sqrt(length2);
    if (length2 > 1e-20)
        for (int i = 0; i < 3; ++i) direction[i] /= length;
    return length;
}

// ---- The tool context's behaviour ------------------------------------------------------------

std::string KMarkingSession::_createMarker(const KVectorArray& points, int id, KMarkingCommands& commands) {
    const std::vector<std::string> created = commands.runForStrings(kMarkingCreateMarker);
    // Guard (behaviour note "Marking: a marker that was not created")
    if (created.empty() || created[0].empty()) return std::string();
    // Guard (behaviour note "Marking: stored pairs outside the meshes")
    if (id >= 0 && id < points.length()) commands.run(MarkingPlaceMarkerCommand(created[0], points[id]));
    return created[0];
}

KOutcome KMarkingSession::setUp(int selectedMeshes, const KVectorArray* sourcePoints,
                                const KVectorArray* targetPoints, KMarkingCommands& commands, KMessageSink& sink) {
    _ready = false;
    _pressValid = false;
    _hit = KMarkingHit();
    if (selectedMeshes != 2 || !sourcePoints || !targetPoints) {
        // Decision (behaviour note "Marking: a failed selection forgets the meshes")
        _meshesSet = false;
        _sourcePoints.reset();
        _targetPoints.reset();
        return KOutcome::Failed(kMarkingInvalidMeshCount);
    }
    // New arrays, so that the tool commands of an earlier set-up keep theirs.
    _sourcePoints = std::make_shared<const KVectorArray>(*sourcePoints);
    _targetPoints = std::make_shared<const KVectorArray>(*targetPoints);
    _sourceTree.setPoints(*_sourcePoints);
    _targetTree.setPoints(*_targetPoints);
    _meshesSet = true;

    const bool waiting = _lists->waitingForSource;
    _lists = std::make_shared<KMarkingLists>();
    _lists->waitingForSource = waiting;
    _pairs.clear();
    _nodeNames.clear();

    _nodeNames = commands.runForStrings(kMarkingListNodes);
    if (_nodeNames.size() > 1) return KOutcome::Failed(kMarkingTooManyNodes);
    if (_nodeNames.size() == 1) {
        const KIntArray stored = commands.runForInts(MarkingGetPairsCommand(_nodeNames[0]));
        const int sourceCount = _sourcePoints->length();
        const int targetCount = _targetPoints->length();
        // An odd trailing entry is ignored.
        for (int k = 0; k < stored.length() / 2; ++k) {
            const int s = stored[2 * k];
            const int t = stored[2 * k + 1];
            if (s < 0 || s >= sourceCount || t < 0 || t >= targetCount)
                sink.error(MarkingStoredPairOutsideText(k, s, t, sourceCount, targetCount));
            _lists->sourceIds.push_back(s);
            _lists->sourceLocators.push_back(_createMarker(*_sourcePoints, s, commands));
            _lists->targetIds.push_back(t);
            _lists->targetLocators.push_back(_createMarker(*_targetPoints, t, commands));
        }
    }
    _ready = true;
    _lists->waitingForSource = true;
    return KOutcome::Deformed();
}

KOutcome KMarkingSession::press(bool positionRead) {
    _pressValid = false;
    // Kept on purpose (behaviour note "Marking: clicks after a set-up that stopped")
    if (!_meshesSet) return KOutcome::Failed(kMarkingInvalidMeshCount);
    _pressValid = positionRead;
    return KOutcome::Deformed();
}

void KMarkingSession::_publishPairs(KMarkingCommands& commands) {
    RebuildList(_lists->sourceIds, _lists->targetIds, _pairs, commands);
    _nodeNames = commands.runForStrings(kMarkingListNodes);
    if (!_nodeNames.empty()) commands.run(kMarkingSetAttrProc);
}

KMarkingResult KMarkingSession::release(const KMarkingHit& hit, KMarkingCommands& commands) {
    KMarkingResult result;
    if (!_pressValid || !_meshesSet) return result;
    _hit = hit;
    int index = -1;
    float distance = 0.0f;

    if (_lists->waitingForSource) {
        if (hit.source && !hit.target) {
            // Guard (behaviour note "Marking: a hit without a nearest vertex")
            if (!_sourceTree.findClosestPoint(hit.sourcePoint, index, distance)) {
                result.outcome = KOutcome::Failed(kMarkingClickSource);
                return result;
            }
            _sourceVertex = index;
            if (Contains(_lists->sourceIds, index)) {
                result.outcome = KOutcome::Failed(kMarkingSourceTaken);
                return result;
            }
            _lists->sourceLocators.push_back(_createMarker(*_sourcePoints, index, commands));
            _lists->sourceIds.push_back(index);
            _lists->waitingForSource = false;
        } else if (hit.source && hit.target) {
            // Kept on purpose (behaviour note "Marking: a click on both meshes")
            _lists->waitingForSource = false;
        } else {
            result.outcome = KOutcome::Failed(kMarkingClickSource);
        }
        return result;
    }

    if (hit.target && !hit.source) {
        // Guard (behaviour note "Marking: a hit without a nearest vertex")
        if (!_targetTree.findClosestPoint(hit.targetPoint, index, distance)) {
            result.outcome = KOutcome::Failed(kMarkingClickTarget);
            return result;
        }
        _targetVertex = index;
        if (Contains(_lists->targetIds, index)) {
            result.outcome = KOutcome::Failed(kMarkingTargetTaken);
            return result;
        }
        _lists->targetLocators.push_back(_createMarker(*_targetPoints, index, commands));
        _lists->targetIds.push_back(index);
    } else if (!hit.target) {
        result.outcome = KOutcome::Failed(kMarkingClickTarget);
        return result;
    }
    // A target click, or (kept on purpose, behaviour note "Marking: a click on both meshes") a
    // click on both meshes, which completes the step without a target.
    _lists->waitingForSource = true;
    if (_lists->sourceIds.length() == _lists->targetIds.length()) _publishPairs(commands);
    result.outcome = KOutcome::Deformed();
    result.recordStep = true;
    return result;
}

// Decision (behaviour note "Marking: undo reaches the tool's own lists"): the step keeps copies
// of the lists and a link to the tool's own.
KMarkingStep KMarkingSession::step() const {
    KMarkingStep s;
    s.recorded = true;
    s.flag = _lists->waitingForSource;
    s.closestSourceId = _sourceVertex;
    s.closestTargetId = _targetVertex;
    s.sourcePoints = _sourcePoints;
    s.targetPoints = _targetPoints;
    s.sourceIds = _lists->sourceIds;
    s.targetIds = _lists->targetIds;
    s.sourceLocators = _lists->sourceLocators;
    s.targetLocators = _lists->targetLocators;
    s.nodeNames = _nodeNames;
    s.toolLists = _lists;
    return s;
}

// ---- The tool command's undo and redo ---------------------------------------------------------

void KMarkingStep::_publish(KMarkingCommands& commands, KMessageSink& sink) {
    // Decision (behaviour note "Marking: undo reaches the tool's own lists"): the tool takes the
    // step's lists, and a pick left half done is dropped (its marker is deleted with the others).
    if (const std::shared_ptr<KMarkingLists> lists = toolLists.lock()) {
        lists->sourceIds = sourceIds;
        lists->targetIds = targetIds;
        lists->sourceLocators = sourceLocators;
        lists->targetLocators = targetLocators;
        lists->waitingForSource = true;
    }
    if (sourceIds.length() != targetIds.length()) return;
    RebuildList(sourceIds, targetIds, pairs, commands);
    nodeNames = commands.runForStrings(kMarkingListNodes);
    if (nodeNames.size() == 1) {
        commands.run(kMarkingSetAttrProc);
        commands.run(kMarkingWinPickProc);
    } else if (nodeNames.empty()) {
        sink.error(kMarkingNoNode);
        commands.run(kMarkingSetAttrProc);
    } else {
        sink.error(kMarkingTooManyNodesOnUndo);
    }
}

void KMarkingStep::undo(KMarkingCommands& commands, KMessageSink& sink) {
    if (!flag) return;
    const int last = targetIds.length() - 1;
    lastSourceLocator = NameAt(sourceLocators, last);
    lastTargetLocator = NameAt(targetLocators, last);
    // Guard (behaviour note "Marking: undo with no pair to drop")
    const int keep = std::max(last, 0);
    // Decision (behaviour note "Marking: undo truncates the arrays")
    Truncate(sourceIds, keep);
    Truncate(targetIds, keep);
    Truncate(sourceLocators, keep);
    Truncate(targetLocators, keep);
    commands.run(kMarkingDeleteMarkers);
    _publish(commands, sink);
}

void KMarkingStep::redo(KMarkingCommands& commands, KMessageSink& sink) {
    // Guard (behaviour note "Marking: a tool command run by hand")
    if (!recorded) return;
    // Kept on purpose (behaviour note "Marking: redo takes the names at the current end")
    const int last = targetIds.length() - 1;
    lastSourceLocator = NameAt(sourceLocators, last);
    lastTargetLocator = NameAt(targetLocators, last);
    commands.run(kMarkingDeleteMarkers);
    sourceIds.push_back(closestSourceId);
    sourceLocators.push_back(lastSourceLocator);
    targetIds.push_back(closestTargetId);
    targetLocators.push_back(lastTargetLocator);
    _publish(commands, sink);
}

}  // namespace Kavrin
