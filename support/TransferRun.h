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
    // Refuses vertices the engine cannot place: one in no face of the source that no marker pins,
    // and (for a transfer, not only a fit) any in no face of the target.
    static void RefuseUnplaceable(const KPolyMesh& source, const std::string& sourceName, const KPolyMesh& target,
                                  const std::string& targetName, const KIntArray& markers, bool transfer);

    // Fits the source onto the target, pairs their triangles and factors the transfer system; with
    // a stored pairing and fitted source (pairing() and fittedSource() of an earlier run on the same
    // meshes and settings) it factors the system from them instead of searching again. Throws
    // KRunError when the engine reports an error.
    TransferRun(const KPolyMesh& sourceRest, const KPolyMesh& target, const TransferSettings& settings,
                KMessageSink& sink, const KInt4Array* storedPairing = nullptr,
                const KVectorArray* storedFitted = nullptr);

    // The target deformed as the source is in pose (same vertices and faces as the rest source).
    KVectorArray transfer(const KPolyMesh& pose);

    // The triangle pairing: per target triangle, its source triangle in field 0 (-1 for none).
    const KInt4Array& pairing() const { return _solver.triCorres(); }
    // The source fitted onto the target by the correspondence search.
    const KVectorArray& fittedSource() const { return _solver.fittedSource(); }

    // The source as fitted onto the target by the correspondence search ("Source To Target").
    static KVectorArray FitSource(const KPolyMesh& sourceRest, const KPolyMesh& target,
                                  const TransferSettings& settings, KMessageSink& sink);

private:
    KDeformationTransferInput _input;
    KDeformationTransferSolver _solver;
    KMessageSink& _sink;
};

}  // namespace Kavrin
