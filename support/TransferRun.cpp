#include "TransferRun.h"

#include "InputChecks.h"
#include "RunError.h"

namespace Kavrin {

namespace {

KVectorArray narrow(const KArray<KDouble4>& points) {
    KVectorArray out(points.length());
    for (int i = 0; i < points.length(); ++i)
        out[i] = KVector(static_cast<float>(points[i][0]), static_cast<float>(points[i][1]),
                         static_cast<float>(points[i][2]));
    return out;
}

void fillInput(KDeformationTransferInput& input, const KPolyMesh& source, const KPolyMesh& target,
               const TransferSettings& settings, short aim) {
    source.triangulate(input.sourceMesh);
    target.triangulate(input.targetMesh);
    input.vertCorres = settings.markers;
    input.srcFixPNum = KIntArray{settings.fixedSource};
    input.trgFixPNum = KIntArray{settings.fixedTarget};
    input.calcMode = settings.mode;
    input.iterCount = settings.iterations;
    input.threads = settings.threads;
    input.aim = aim;
    input.reCalculate = true;
}

}  // namespace

void TransferRun::RefuseUnplaceable(const KPolyMesh& source, const std::string& sourceName, const KPolyMesh& target,
                                    const std::string& targetName, const KIntArray& markers, bool transfer) {
    // Decision (behaviour note "Vertices in no face")
    std::vector<int> unplaced;
    std::vector<char> marked(static_cast<size_t>(source.numVertices()), 0);
    for (int i = 0; i + 1 < markers.length(); i += 2)
        if (markers[i] >= 0 && markers[i] < source.numVertices()) marked[static_cast<size_t>(markers[i])] = 1;
    for (int v : LooseVertices(source))
        if (!marked[static_cast<size_t>(v)]) unplaced.push_back(v);
    RefuseLooseVertices(sourceName, unplaced,
                        "the fit cannot place such a vertex unless it is marked (its equations would be singular)");
    if (transfer)
        RefuseLooseVertices(targetName, LooseVertices(target),
                            "the transfer cannot place such a vertex (its equations would be singular)");
}

TransferRun::TransferRun(const KPolyMesh& sourceRest, const KPolyMesh& target, const TransferSettings& settings,
                         KMessageSink& sink, const KInt4Array* storedPairing, const KVectorArray* storedFitted)
    : _sink(sink) {
    fillInput(_input, sourceRest, target, settings, KDeformationTransferSolver::kTransfer);
    _input.storedTriCorres = storedPairing;
    _input.storedFitted = storedFitted;
    const KDeformationTransferResult result = _solver.compute(_input, sink);
    _input.storedTriCorres = nullptr;
    _input.storedFitted = nullptr;
    if (result.outcome.failed()) throw KRunError("building the transfer failed: " + result.outcome.message);
    if (!_solver.ready()) throw KRunError("building the transfer failed: no transfer system was built");
    _input.reCalculate = false;
}

KVectorArray TransferRun::transfer(const KPolyMesh& pose) {
    _input.sourceMesh.points = pose.points;
    const KDeformationTransferResult result = _solver.compute(_input, _sink);
    if (result.outcome.failed()) throw KRunError("the transfer solve failed: " + result.outcome.message);
    if (result.output != KDeformationTransferResult::kFromTarget || !result.setPoints)
        throw KRunError("the transfer solve failed: no output was produced");
    return narrow(_solver.outPoints());
}

KVectorArray TransferRun::FitSource(const KPolyMesh& sourceRest, const KPolyMesh& target,
                                    const TransferSettings& settings, KMessageSink& sink) {
    KDeformationTransferInput input;
    fillInput(input, sourceRest, target, settings, KDeformationTransferSolver::kSourceToTarget);
    KDeformationTransferSolver solver;
    const KDeformationTransferResult result = solver.compute(input, sink);
    if (result.outcome.failed()) throw KRunError("fitting the source failed: " + result.outcome.message);
    if (result.output != KDeformationTransferResult::kFromSource || !result.setPoints)
        throw KRunError("fitting the source failed: the fit produced no points");
    return narrow(solver.outPoints());
}

}  // namespace Kavrin
