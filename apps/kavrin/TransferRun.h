#pragma once
// Deformation transfer driven the way the node is driven in Maya: one recalculation on the rest
// source, then one evaluation per source pose.

#include <string>

#include "KDeformationTransferSolver.h"
#include "KPolyMesh.h"

namespace Kavrin {

struct TransferSettings {
    KIntArray markers;  // source index, target index, source index, ... (the "vertCorres" order)
    int fixedSource = 0;
    int fixedTarget = 0;
    short mode = KDeformationTransferSolver::kDifferentTopology;
    short iterations = 5;
    int threads = 0;
};

class TransferRun {
public:
    // Fits the source onto the target, pairs their triangles and factors the transfer system.
    // Throws RunError when the engine reports an error.
    TransferRun(const KPolyMesh& sourceRest, const KPolyMesh& target, const TransferSettings& settings,
                KMessageSink& sink);

    // The target deformed as the source is in pose (same vertices and faces as the rest source).
    KVectorArray transfer(const KPolyMesh& pose);

    // The triangle pairing: per target triangle, its source triangle in field 0 (-1 for none).
    const KInt4Array& pairing() const { return _solver.triCorres(); }

    // The source as fitted onto the target by the correspondence search ("Source To Target").
    static KVectorArray FitSource(const KPolyMesh& sourceRest, const KPolyMesh& target,
                                  const TransferSettings& settings, KMessageSink& sink);

private:
    KDeformationTransferInput _input;
    KDeformationTransferSolver _solver;
    KMessageSink& _sink;
};

}  // namespace Kavrin
