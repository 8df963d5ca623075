#pragma once
// The correspondence marking tool: the context KDTMarkCtx, its context command KDTMarkCtxCmd and
// its tool command KDTMarkCtxToolCmd. Everything the tool decides lives in
// Kavrin::KMarkingSession (the context) and Kavrin::KMarkingStep (one tool command); this layer
// reads the selection and the meshes, casts the click's ray at both meshes and runs the
// commands the engine asks for.

#include <memory>

#include <maya/MArgList.h>
#include <maya/MDagPath.h>
#include <maya/MEvent.h>
#include <maya/MFnMesh.h>
#include <maya/MFrameContext.h>
#include <maya/MIntArray.h>
#include <maya/MPxContext.h>
#include <maya/MPxContextCommand.h>
#include <maya/MPxToolCommand.h>
#include <maya/MString.h>
#include <maya/MStringArray.h>
#include <maya/MSyntax.h>
#include <maya/MUIDrawManager.h>

#include "KMarkingSession.h"

class KDTMarkCtx : public MPxContext {
public:
    KDTMarkCtx();

    void getClassName(MString& name) const override;
    void toolOnSetup(MEvent& event) override;
    void toolOffCleanup() override;

    MStatus doPress(MEvent& event) override;
    MStatus doDrag(MEvent& event) override;
    MStatus doRelease(MEvent& event) override;
    MStatus doPress(MEvent& event, MHWRender::MUIDrawManager& drawManager,
                    const MHWRender::MFrameContext& context) override;
    MStatus doDrag(MEvent& event, MHWRender::MUIDrawManager& drawManager,
                   const MHWRender::MFrameContext& context) override;
    MStatus doRelease(MEvent& event, MHWRender::MUIDrawManager& drawManager,
                      const MHWRender::MFrameContext& context) override;

    static const MString name;
    static const MString title;
    static const MString helpTxt;
    static const MString image;

private:
    MStatus _doPress(MEvent& event);
    MStatus _doDrag(MEvent& event);
    MStatus _doRelease(MEvent& event);
    // Whether the ray hits the mesh at path (world space) within reach, and where.
    bool _cast(const MDagPath& path, MMeshIsectAccelParams& grid, const double origin[3],
               const double direction[3], float reach, Kavrin::KVector& hitPoint) const;

    MDagPath _sourcePath, _targetPath;
    MMeshIsectAccelParams _sourceGrid, _targetGrid;
    Kavrin::KMarkingSession _session;
};

class KDTMarkCtxCmd : public MPxContextCommand {
public:
    KDTMarkCtxCmd();
    static void* creator();
    MPxContext* makeObj() override;
    MStatus appendSyntax() override;
    MStatus doEditFlags() override;
    MStatus doQueryFlags() override;

private:
    KDTMarkCtx* _context;  // owned by Maya
};

class KDTMarkCtxToolCmd : public MPxToolCommand {
public:
    KDTMarkCtxToolCmd();
    static void* creator();
    static MSyntax newSyntax();

    bool isUndoable() const override;
    MStatus doIt(const MArgList& args) override;
    MStatus redoIt() override;
    MStatus undoIt() override;
    MStatus finalize() override;

    // What the context hands over from the click that recorded this command.
    void setFlag(const bool& flag);
    void setClosestPtId(const int& source, const int& target);
    // The meshes' points, shared with the context rather than copied for every command.
    void setMesh(const std::shared_ptr<const Kavrin::KVectorArray>& source,
                 const std::shared_ptr<const Kavrin::KVectorArray>& target);
    void setVertexArray(const MIntArray& source, const MIntArray& target);
    void setLocatorArray(const MStringArray& source, const MStringArray& target);
    void setKDTNodeName(const MStringArray& names);

    static const MString name;

private:
    Kavrin::KMarkingStep _step;
};
