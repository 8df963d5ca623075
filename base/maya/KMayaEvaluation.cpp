// What every node's evaluation shares: the evaluation context, a deformer output marked clean,
// the one-geometry rule and the iterator check before a write-back.

#include <maya/MArrayDataHandle.h>
#include <maya/MDGContext.h>
#include <maya/MPxDeformerNode.h>

#include "KMayaBase.h"

namespace Kavrin {

bool NormalContext(MDataBlock& block) { return block.context().isNormal(); }

void SetOutputClean(MDataBlock& block, unsigned int multiIndex) {
    MStatus status;
    MArrayDataHandle outputs = block.outputArrayValue(MPxDeformerNode::outputGeom, &status);
    if (status && outputs.jumpToElement(multiIndex)) outputs.outputValue().setClean();
}

bool RefuseOtherGeometry(const char* nodeType, unsigned int multiIndex) {
    // Decision (behaviour note "Maya layer: one geometry per deformer").
    if (multiIndex == 0) return false;
    MGlobal::displayError(OneGeometryText(nodeType, multiIndex).c_str());
    return true;
}

bool IndicesBelow(MItGeometry& iter, int count) {
    for (iter.reset(); !iter.isDone(); iter.next())
        if (iter.index() < 0 || iter.index() >= count) return false;
    return true;
}

}  // namespace Kavrin
