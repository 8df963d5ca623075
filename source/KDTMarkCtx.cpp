#include "KDTMarkCtx.h"

#include <string>
#include <vector>

#include <maya/M3dView.h>
#include <maya/MArgParser.h>
#include <maya/MCursor.h>
#include <maya/MDagPathArray.h>
#include <maya/MFloatPoint.h>
#include <maya/MFloatVector.h>
#include <maya/MGlobal.h>
#include <maya/MPoint.h>
#include <maya/MPointArray.h>
#include <maya/MToolsInfo.h>

#include "KMayaBase.h"
#include "KMayaMessageSink.h"
#include "KPluginRegistration.h"

const MString KDTMarkCtx::name(Kavrin::kDTMarkContext.name);
const MString KDTMarkCtx::title(Kavrin::kMarkingTitle);
const MString KDTMarkCtx::helpTxt(Kavrin::kMarkingHelp);
const MString KDTMarkCtx::image("KDTMarkCtx.xpm");
const MString KDTMarkCtxToolCmd::name(Kavrin::kDTMarkContext.toolCommandName);

namespace {

// How loosely a click hits a mesh.
const float kHitTolerance = 1e-5f;

// The vertices of the mesh at path in world space; false when the mesh cannot be read.
bool WorldPoints(const MDagPath& path, Kavrin::KVectorArray& points) {
    MStatus status;
    MFnMesh mesh(path, &status);
    MPointArray world;
    if (status) status = mesh.getPoints(world, MSpace::kWorld);
    Kavrin::Copy(points, world);
    return status == MS::kSuccess;
}

// The engine's commands through the script interpreter. Results are read only where the
// engine asks for them.
class MayaCommands : public Kavrin::KMarkingCommands {
public:
    void run(const std::string& command) override { MGlobal::executeCommand(MString(command.c_str())); }
    std::vector<std::string> runForStrings(const std::string& command) override {
        MStringArray result;
        std::vector<std::string> out;
        if (MGlobal::executeCommand(MString(command.c_str()), result) != MS::kSuccess) return out;
        for (unsigned int i = 0; i < result.length(); ++i) out.push_back(result[i].asChar());
        return out;
    }
    Kavrin::KIntArray runForInts(const std::string& command) override {
        MIntArray result;
        Kavrin::KIntArray out;
        if (MGlobal::executeCommand(MString(command.c_str()), result) == MS::kSuccess) Kavrin::Copy(out, result);
        return out;
    }
};

MIntArray ToMaya(const Kavrin::KIntArray& from) {
    MIntArray to;
    for (int v : from) to.append(v);
    return to;
}

MStringArray ToMaya(const std::vector<std::string>& from) {
    MStringArray to;
    for (const std::string& s : from) to.append(MString(s.c_str()));
    return to;
}

std::vector<std::string> FromMaya(const MStringArray& from) {
    std::vector<std::string> to;
    for (unsigned int i = 0; i < from.length(); ++i) to.push_back(from[i].asChar());
    return to;
}

}  // namespace

// ---- KDTMarkCtx ------------------------------------------------------------------------------

KDTMarkCtx::KDTMarkCtx() {
    setTitleString(title);
    setImage(image, MPxContext::kImage1);
}

void KDTMarkCtx::getClassName(MString& className) const { className = name; }

void KDTMarkCtx::toolOnSetup(MEvent& event) {
    MPxContext::toolOnSetup(event);
    setHelpString(helpTxt);
    setCursor(MCursor::pencilCursor);

    MDagPathArray meshes;
    Kavrin::GetSelectedNodes(meshes, MFn::kMesh, true);
    Kavrin::KVectorArray source, target;
    const bool two = meshes.length() == 2;
    if (two) {
        _sourcePath = meshes[0];
        _targetPath = meshes[1];
        _sourceGrid = MFnMesh::autoUniformGridParams();
        _targetGrid = MFnMesh::autoUniformGridParams();
        // Decision (behaviour note "Marking: snapping in world space"): the vertices in world
        // space, where the click's hit point is; the markers then sit on them under the
        // untransformed VertexPicked.
        WorldPoints(_sourcePath, source);
        WorldPoints(_targetPath, target);
    } else {
        _sourcePath = MDagPath();
        _targetPath = MDagPath();
    }
    MayaCommands commands;
    Kavrin::KMayaMessageSink sink;
    Kavrin::ReportOutcome(_session.setUp(static_cast<int>(meshes.length()), two ? &source : nullptr,
                                         two ? &target : nullptr, commands, sink));
}

void KDTMarkCtx::toolOffCleanup() { MPxContext::toolOffCleanup(); }

MStatus KDTMarkCtx::doPress(MEvent& event) { return _doPress(event); }
MStatus KDTMarkCtx::doDrag(MEvent& event) { return _doDrag(event); }
MStatus KDTMarkCtx::doRelease(MEvent& event) { return _doRelease(event); }

MStatus KDTMarkCtx::doPress(MEvent& event, MHWRender::MUIDrawManager& /*drawManager*/,
                            const MHWRender::MFrameContext& /*context*/) {
    return _doPress(event);
}
MStatus KDTMarkCtx::doDrag(MEvent& event, MHWRender::MUIDrawManager& /*drawManager*/,
                           const MHWRender::MFrameContext& /*context*/) {
    return _doDrag(event);
}
MStatus KDTMarkCtx::doRelease(MEvent& event, MHWRender::MUIDrawManager& /*drawManager*/,
                              const MHWRender::MFrameContext& /*context*/) {
    return _doRelease(event);
}

MStatus KDTMarkCtx::_doPress(MEvent& event) {
    short x = 0, y = 0;
    const bool read = _session.meshesSet() && event.getPosition(x, y) == MS::kSuccess;
    Kavrin::ReportOutcome(_session.press(read));
    return MS::kSuccess;
}

MStatus KDTMarkCtx::_doDrag(MEvent& event) {
    short x = 0, y = 0;
    event.getPosition(x, y);
    return MS::kSuccess;
}

bool KDTMarkCtx::_cast(const MDagPath& path, MMeshIsectAccelParams& grid, const double origin[3],
                       const double direction[3], float reach, Kavrin::KVector& hitPoint) const {
    MStatus status;
    MFnMesh mesh(path, &status);
    // Guard (behaviour note "Marking: a mesh deleted while the tool is active")
    if (!status) return false;
    MFloatPoint hit;
    float hitParam = 0.0f, bary1 = 0.0f, bary2 = 0.0f;
    int hitFace = -1, hitTriangle = -1;
    const bool found = mesh.closestIntersection(
        MFloatPoint(static_cast<float>(origin[0]), static_cast<float>(origin[1]), static_cast<float>(origin[2])),
        MFloatVector(static_cast<float>(direction[0]), static_cast<float>(direction[1]),
                     static_cast<float>(direction[2])),
        nullptr, nullptr, false, MSpace::kWorld, reach, false, &grid, hit, &hitParam, &hitFace, &hitTriangle,
        &bary1, &bary2, kHitTolerance, &status);
    if (!found || !status) return false;
    hitPoint = Kavrin::KVector(hit.x, hit.y, hit.z);
    return true;
}

MStatus KDTMarkCtx::_doRelease(MEvent& event) {
    if (!_session.pressValid()) return MS::kSuccess;
    short x = 0, y = 0;
    if (event.getPosition(x, y) != MS::kSuccess) return MS::kSuccess;

    MStatus status;
    M3dView view = M3dView::active3dView(&status);
    MPoint nearPoint, farPoint;
    if (status) status = view.viewToWorld(x, y, nearPoint, farPoint);
    // Guard (behaviour note "Marking: a click the view cannot turn into a ray").
    if (status != MS::kSuccess) {
        MGlobal::displayError(Kavrin::kMarkingNoRay);
        return MS::kSuccess;
    }
    const double nearH[4] = {nearPoint.x, nearPoint.y, nearPoint.z, nearPoint.w};
    const double farH[4] = {farPoint.x, farPoint.y, farPoint.z, farPoint.w};
    double origin[3], direction[3];
    // Decision (behaviour note "Marking: the ray crosses the whole view"): it reaches from the
    // near to the far clipping plane.
    const float reach = static_cast<float>(Kavrin::MarkingRay(nearH, farH, origin, direction));

    Kavrin::KMarkingHit hit;
    hit.source = _cast(_sourcePath, _sourceGrid, origin, direction, reach, hit.sourcePoint);
    hit.target = _cast(_targetPath, _targetGrid, origin, direction, reach, hit.targetPoint);

    MayaCommands commands;
    const Kavrin::KMarkingResult result = _session.release(hit, commands);
    Kavrin::ReportOutcome(result.outcome);
    if (!result.recordStep) return MS::kSuccess;

    KDTMarkCtxToolCmd* command = dynamic_cast<KDTMarkCtxToolCmd*>(newToolCommand());
    // Guard (behaviour note "Marking: no tool command to record")
    if (!command) return MS::kSuccess;
    const Kavrin::KMarkingStep step = _session.step();
    command->setFlag(step.flag);
    command->setClosestPtId(step.closestSourceId, step.closestTargetId);
    command->setMesh(step.sourcePoints, step.targetPoints);
    command->setVertexArray(ToMaya(step.sourceIds), ToMaya(step.targetIds));
    command->setLocatorArray(ToMaya(step.sourceLocators), ToMaya(step.targetLocators));
    command->setKDTNodeName(ToMaya(step.nodeNames));
    command->finalize();
    return MS::kSuccess;
}

// ---- KDTMarkCtxCmd ---------------------------------------------------------------------------

KDTMarkCtxCmd::KDTMarkCtxCmd() : _context(nullptr) {}

void* KDTMarkCtxCmd::creator() { return new KDTMarkCtxCmd(); }

MPxContext* KDTMarkCtxCmd::makeObj() {
    _context = new KDTMarkCtx();
    return _context;
}

MStatus KDTMarkCtxCmd::appendSyntax() { return MS::kSuccess; }

MStatus KDTMarkCtxCmd::doEditFlags() {
    MStatus status;
    parser(&status);
    if (_context) MToolsInfo::setDirtyFlag(*_context);
    return status;
}

MStatus KDTMarkCtxCmd::doQueryFlags() {
    MStatus status;
    parser(&status);
    return status;
}

// ---- KDTMarkCtxToolCmd -----------------------------------------------------------------------

KDTMarkCtxToolCmd::KDTMarkCtxToolCmd() { setCommandString(name); }

void* KDTMarkCtxToolCmd::creator() { return new KDTMarkCtxToolCmd(); }

MSyntax KDTMarkCtxToolCmd::newSyntax() { return MSyntax(); }

bool KDTMarkCtxToolCmd::isUndoable() const { return true; }

MStatus KDTMarkCtxToolCmd::doIt(const MArgList& /*args*/) { return redoIt(); }

MStatus KDTMarkCtxToolCmd::redoIt() {
    MayaCommands commands;
    Kavrin::KMayaMessageSink sink;
    _step.redo(commands, sink);
    return MS::kSuccess;
}

MStatus KDTMarkCtxToolCmd::undoIt() {
    MayaCommands commands;
    Kavrin::KMayaMessageSink sink;
    _step.undo(commands, sink);
    return MS::kSuccess;
}

MStatus KDTMarkCtxToolCmd::finalize() {
    MArgList command;
    command.addArg(commandString());
    return MPxToolCommand::doFinalize(command);
}

void KDTMarkCtxToolCmd::setFlag(const bool& flag) {
    _step.recorded = true;
    _step.flag = flag;
}

void KDTMarkCtxToolCmd::setClosestPtId(const int& source, const int& target) {
    _step.closestSourceId = source;
    _step.closestTargetId = target;
}

void KDTMarkCtxToolCmd::setMesh(const std::shared_ptr<const Kavrin::KVectorArray>& source,
                                const std::shared_ptr<const Kavrin::KVectorArray>& target) {
    _step.sourcePoints = source;
    _step.targetPoints = target;
}

void KDTMarkCtxToolCmd::setVertexArray(const MIntArray& source, const MIntArray& target) {
    Kavrin::Copy(_step.sourceIds, source);
    Kavrin::Copy(_step.targetIds, target);
}

void KDTMarkCtxToolCmd::setLocatorArray(const MStringArray& source, const MStringArray& target) {
    _step.sourceLocators = FromMaya(source);
    _step.targetLocators = FromMaya(target);
}

void KDTMarkCtxToolCmd::setKDTNodeName(const MStringArray& names) { _step.nodeNames = FromMaya(names); }
