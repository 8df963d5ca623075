#include "TransferRun.h"

#include "CommandSupport.h"

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

TransferRun::TransferRun(const KPolyMesh& sourceRest, const KPolyMesh& target, const TransferSettings& settings,
                         KMessageSink& sink)
    : _sink(sink) {
    fillInput(_input, sourceRest, target, settings, KDeformationTransferSolver::kTransfer);
    const KDeformationTransferResult result = _solver.compute(_input, sink);
    if (result.outcome.failed()) throw RunError("building the transfer failed: " + result.outcome.message);
    if (!_solver.ready()) throw RunError("building the transfer failed: no transfer system was built");
    _input.reCalculate = false;
}

KVectorArray TransferRun::transfer(const KPolyMesh& pose) {
    _input.sourceMesh.points = pose.points;
    const KDeformationTransferResult result = _solver.compute(_input, _sink);
    if (result.outcome.failed()) throw RunError("the transfer solve failed: " + result.outcome.message);
    if (result.output != KDeformationTransferResult::kFromTarget || !result.setPoints)
        throw RunError("the transfer solve failed: no output was produced");
    return narrow(_solver.outPoints());
}

KVectorArray TransferRun::FitSource(const KPolyMesh& sourceRest, const KPolyMesh& target,
                                    const TransferSettings& settings, KMessageSink& sink) {
    KDeformationTransferInput input;
    fillInput(input, sourceRest, target, settings, KDeformationTransferSolver::kSourceToTarget);
    KDeformationTransferSolver solver;
    const KDeformationTransferResult result = solver.compute(input, sink);
    if (result.outcome.failed()) throw RunError("fitting the source failed: " + result.outcome.message);
    if (result.output != KDeformationTransferResult::kFromSource || !result.setPoints)
        throw RunError("fitting the source failed: the fit produced no points");
    return narrow(solver.outPoints());
}

}  // namespace Kavrin
