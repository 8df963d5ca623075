#include "TransferRun.h"

#include "CommandSupport.h"

namespace Kavrin {

namespace {

// Remembers whether an error went by, passing everything on.
class ErrorWatch : public KMessageSink {
public:
    explicit ErrorWatch(KMessageSink& inner) : _inner(inner) {}
    void error(const std::string& message) override {
        _last = message;
        _inner.error(message);
    }
    void warning(const std::string& message) override { _inner.warning(message); }
    void output(const std::string& text) override { _inner.output(text); }
    const std::string& lastError() const { return _last; }

private:
    KMessageSink& _inner;
    std::string _last;
};

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
    ErrorWatch watch(sink);
    const KDeformationTransferResult result = _solver.compute(_input, watch);
    if (!watch.lastError().empty() || result.status != KDeformationTransferResult::kSuccess || !_solver.ready())
        throw RunError("building the transfer failed" +
                       (watch.lastError().empty() ? std::string() : ": " + watch.lastError()));
    _input.reCalculate = false;
}

KVectorArray TransferRun::transfer(const KPolyMesh& pose) {
    _input.sourceMesh.points = pose.points;
    ErrorWatch watch(_sink);
    const KDeformationTransferResult result = _solver.compute(_input, watch);
    if (!watch.lastError().empty() || result.status != KDeformationTransferResult::kSuccess ||
        result.output != KDeformationTransferResult::kFromTarget)
        throw RunError("the transfer solve failed" +
                       (watch.lastError().empty() ? std::string() : ": " + watch.lastError()));
    return narrow(_solver.outPoints());
}

KVectorArray TransferRun::FitSource(const KPolyMesh& sourceRest, const KPolyMesh& target,
                                    const TransferSettings& settings, KMessageSink& sink) {
    KDeformationTransferInput input;
    fillInput(input, sourceRest, target, settings, KDeformationTransferSolver::kSourceToTarget);
    KDeformationTransferSolver solver;
    ErrorWatch watch(sink);
    const KDeformationTransferResult result = solver.compute(input, watch);
    if (!watch.lastError().empty() || result.status != KDeformationTransferResult::kSuccess ||
        result.output != KDeformationTransferResult::kFromSource)
        throw RunError("fitting the source failed" +
                       (watch.lastError().empty() ? std::string() : ": " + watch.lastError()));
    return narrow(solver.outPoints());
}

}  // namespace Kavrin
