#pragma once
// What the plug-in's registration needs of the marker locator, declared without KDTPoint.h:
// that header brings in M3dView.h and with it X11's macros (Status, None, Bool, Success), which
// break the headers included after it.

#include <maya/MObject.h>
#include <maya/MPxDrawOverride.h>
#include <maya/MStatus.h>

struct KDTPointClass {
    static void* creator();         // KDTPoint::creator
    static MStatus initialize();    // KDTPoint::initialize
    // KDrawOverride<KDTPoint>::Creator
    static MHWRender::MPxDrawOverride* drawOverrideCreator(const MObject& obj);
};
