// Deformation transfer: the node's state machine, its output arrays and its messages.

#include "KDeformationTransferSolver.h"

#include "KThreads.h"
#include "KTrianglePairing.h"

namespace Kavrin {

namespace {

// Decision (behaviour note "Deformation transfer: light per-pose loops stay on one thread").
const int kOutputItemsPerThread = 16384;

}  // namespace

KDeformationTransferSolver::KDeformationTransferSolver() {}

KDeformationTransferSolver::~KDeformationTransferSolver() {}

void KDeformationTransferSolver::setClock(std::function<std::time_t()> clock) { _clock = std::move(clock); }

long KDeformationTransferSolver::libraryObjects() const {
    return _fitting.libraryObjects() + (_state.system ? _state.system->libraryObjects() : 0);
}

// ---------------------------------------------------------------------------------------------
// Messages

// Kept on purpose (behaviour note "Deformation transfer: stray 0 in progress lines").
int KDeformationTransferSolver::_timestamp(std::string& text) const {
    const std::time_t now = _clock ? _clock() : std::time(nullptr);
    std::tm local;
    localtime_r(&now, &local);
    char date[64];
    asctime_r(&local, date);
    text += "Current time: ";
    text += date;
    return 0;
}

void KDeformationTransferSolver::_progress(const std::string& message) {
    std::string text;
    const int code = _timestamp(text);
    text += std::to_string(code);
    text += message;
    text += "\n";
    if (_sink) _sink->output(text);
}

bool KDeformationTransferSolver::_abort(const std::string& message, const std::string& libraryReport) {
    // Guard (behaviour note "Deformation transfer: sparse-library errors never end the process").
    if (!libraryReport.empty() && _sink) _sink->output(libraryReport);
    _failure = message;
    return false;
}

// ---------------------------------------------------------------------------------------------
// Compute flow

KDeformationTransferResult KDeformationTransferSolver::compute(const KDeformationTransferInput& input,
                                                               KMessageSink& sink) {
    KDeformationTransferResult result;
    _sink = &sink;
    _threads = input.threads;
    _failure.clear();
    _aim = input.aim;
    _calcMode = input.calcMode;
    _iterCount = input.iterCount;

    // A recalculation works on a copy of the kept state, and the output is written aside: both
    // replace what is kept only when the evaluation as a whole succeeds.
    // Guard (behaviour note "Deformation transfer: a failed evaluation changes nothing").
    std::unique_ptr<State> next;
    bool ok = true;
    bool outputWritten = false;
    // The source of this evaluation's transfer pass: after a fit, the fitted working copy.
    const KVectorArray* source = &input.sourceMesh.points;
    if (input.reCalculate) {
        next.reset(new State);
        State& n = *next;
        n.refSrcMesh = _state.refSrcMesh;
        n.vertCorres = _state.vertCorres;
        n.triCorres = _state.triCorres;
        n.fitted = _state.fitted;
        n.srcFixP = _state.srcFixP;
        n.trgFixP = _state.trgFixP;
        n.ready = _state.ready;
        bool fitted = false;
        ok = _recalculate(input, n, result, fitted);
        outputWritten = ok && _aim == kSourceToTarget && fitted && _iterCount >= 1;
        // Decision (behaviour note "Deformation transfer: the recalculating evaluation's transfer pass").
        if (fitted) source = &n.fitted;
    }
    const State& state = next ? *next : _state;
    if (ok) {
        if (state.ready) {
            ok = _transferPass(input, state, *source, result);
            outputWritten = ok && result.output == KDeformationTransferResult::kFromTarget;
        } else if (_aim != kSourceToTarget) {
            sink.warning(kDtNoCorrespondences);
        }
    }

    if (!ok) {
        result = KDeformationTransferResult();
        result.outcome = KOutcome::Failed(_failure);
    } else {
        if (next) _commit(*next);
        if (outputWritten) std::swap(_out, _next);
        if (result.output == KDeformationTransferResult::kFromSource)
            _fillOutputFlags(result, input.sourceMesh);
        else if (result.output == KDeformationTransferResult::kFromTarget)
            _fillOutputFlags(result, input.targetMesh);
        if (!result.outcome.failed() && result.output != KDeformationTransferResult::kNoOutput)
            result.outcome = KOutcome::Deformed();
    }
    _sink = nullptr;
    return result;
}

void KDeformationTransferSolver::_commit(State& next) {
    _state.refSrcMesh = std::move(next.refSrcMesh);
    _state.vertCorres.swap(next.vertCorres);
    _state.triCorres.swap(next.triCorres);
    _state.fitted.swap(next.fitted);
    _state.srcFixP = next.srcFixP;
    _state.trgFixP = next.trgFixP;
    _state.ready = next.ready;
    // A new system replaces the kept one; a recalculation in another aim drops it.
    if (next.system || !next.ready) _state.system = std::move(next.system);
}

bool KDeformationTransferSolver::_recalculate(const KDeformationTransferInput& input, State& next,
                                              KDeformationTransferResult& result, bool& fitted) {
    if (input.srcFixPNum.empty())
        _sink->error(kDtNoSourceFixedPoint);
    else
        next.srcFixP = input.srcFixPNum[0];
    if (input.trgFixPNum.empty())
        _sink->error(kDtNoTargetFixedPoint);
    else
        next.trgFixP = input.trgFixPNum[0];

    const int n = input.vertCorres.length() / 2;
    if (n == 0) {
        // Kept on purpose (behaviour note "Deformation transfer: reCalculate stays set without pairs").
        _sink->error(kDtNoCorrespondences);
        return true;
    }
    next.vertCorres.clear();
    for (int i = 0; i < n; ++i) next.vertCorres.push_back(KInt2{input.vertCorres[2 * i], input.vertCorres[2 * i + 1]});

    if (_aim == kTransfer) {
        std::unique_ptr<KTransferSystem> system(new KTransferSystem);
        if (input.storedTriCorres) {
            if (!_restoreCorrespondence(input, next)) return false;
        } else {
            // Decision (behaviour note "Deformation transfer: the target's system factored beside the
            // search"): with a second thread, the target's factorisation runs beside the search (its
            // messages stay on the calling thread, thread 0 of the team).
            bool found = true;
            KTransferSystem* prepared = system.get();
#pragma omp parallel num_threads(2) if (ResolveThreads(_threads) > 1)
            {
                if (OmpThreadNum() == 0)
                    found = _findTriangleCorrespondence(input, next, fitted);
                else
                    prepared->prepareTarget(input.targetMesh, 1);
            }
            // Kept on purpose (behaviour note "Deformation transfer: a failed search still builds").
            if (!found) return false;
        }
        _progress(kDtBuildingMatrix);
        if (!system->build(next.refSrcMesh, input.targetMesh, next.triCorres, _threads))
            return _abort(system->failure(), system->libraryReport());
        next.system = std::move(system);
        next.ready = true;
        _progress(kDtMatrixCreated);
    } else {
        if (!_findTriangleCorrespondence(input, next, fitted)) return false;
        next.ready = false;
        // "Source To Target" has just written the fitted source aside; "Wrap Deformer" hands out
        // the arrays as earlier passes left them.
        result.output = KDeformationTransferResult::kFromSource;
    }
    result.writeReCalculate = true;
    result.reCalculate = false;
    return true;
}

// The correspondence search. Returns false only when the evaluation fails; a search that stops
// early (topology check, calcMode) returns true and leaves the pairing as it was.
bool KDeformationTransferSolver::_findTriangleCorrespondence(const KDeformationTransferInput& input, State& next,
                                                             bool& fitted) {
    _progress(kDtFindingCorrespondences);
    const KTriMesh& src = input.sourceMesh;
    const KTriMesh& trg = input.targetMesh;
    // Guard (behaviour note "Deformation transfer: meshes whose triangles name missing vertices").
    if (!src.indicesValid() || !trg.indicesValid())
        return _abort(DtMeshIndicesInvalid(src.indicesValid() ? "target" : "source"));
    next.refSrcMesh = src;

    if (src.numVertices() == trg.numVertices() && _calcMode != kSameTopology) {
        _sink->warning(kDtModeMayBeInaccurate);
    } else if (src.numVertices() != trg.numVertices() && _calcMode == kSameTopology) {
        _sink->error(kDtCheckCalcMode);
        return true;
    }

    const bool fitOk = _fitting.fit(src, trg, next.vertCorres, _iterCount, _threads, [this](int iteration) {
        _progress(kDtIterationCount + std::to_string(iteration));
    });
    if (!fitOk) return _abort(_fitting.failure(), _fitting.libraryReport());
    next.fitted = _fitting.points();
    fitted = true;
    if (_aim == kSourceToTarget) {
        // The fitted source is shown after every iteration; only the last one is seen.
        if (_iterCount >= 1 && !_setOutDeformedSource(next.fitted, trg, next)) return false;
        return true;
    }

    KTriMesh fittedMesh;
    fittedMesh.points = next.fitted;
    fittedMesh.triangles = src.triangles;
    if (!PairTriangles(fittedMesh, trg, _calcMode, _threads, next.triCorres)) {
        _sink->error(kDtInvalidCalcMode);
        return true;
    }
    if (_calcMode == kDifferentTopology) _progress(kDtCorrespondencesFound);
    return true;
}

// Decision (behaviour note "Deformation transfer: a restored correspondence")
bool KDeformationTransferSolver::_restoreCorrespondence(const KDeformationTransferInput& input, State& next) {
    const KTriMesh& src = input.sourceMesh;
    const KTriMesh& trg = input.targetMesh;
    // Guard (behaviour note "Deformation transfer: meshes whose triangles name missing vertices").
    if (!src.indicesValid() || !trg.indicesValid())
        return _abort(DtMeshIndicesInvalid(src.indicesValid() ? "target" : "source"));
    const int fittedPoints = input.storedFitted ? input.storedFitted->length() : 0;
    // Guard (behaviour note "Deformation transfer: a restored correspondence")
    if (fittedPoints != src.numVertices()) return _abort(DtStoredFitSize(fittedPoints, src.numVertices()));
    next.refSrcMesh = src;
    next.triCorres = *input.storedTriCorres;
    next.fitted = *input.storedFitted;
    return true;
}

bool KDeformationTransferSolver::_transferPass(const KDeformationTransferInput& input, const State& state,
                                               const KVectorArray& source, KDeformationTransferResult& result) {
    if (input.vertCorres.length() < 2) {
        result.outcome = KOutcome::Failed(kDtNoCorrespondences, KOutcome::kWarning);
        return true;
    }
    KTransferSystem* system = state.system ? state.system.get() : _state.system.get();
    if (!system) return _abort(DtSingular("transfer system", "the output was not written."));
    const KTriMesh& rest = state.refSrcMesh;
    const KTriMesh& src = input.sourceMesh;
    // Guard (behaviour note "Deformation transfer: source changed since the build").
    if (source.length() != rest.numVertices() || !(src.triangles == rest.triangles))
        return _abort(DtSourceChanged(source.length(), src.numTriangles(), rest.numVertices(), rest.numTriangles()));
    _deformed.triangles = input.targetMesh.triangles;
    if (!system->solve(source, input.targetMesh, _deformed.points))
        return _abort(system->failure(), system->libraryReport());
    if (!_setOutPoints(_deformed, source, state)) return false;
    result.output = KDeformationTransferResult::kFromTarget;
    return true;
}

void KDeformationTransferSolver::_fillOutputFlags(KDeformationTransferResult& result, const KTriMesh& copied) const {
    const int nv = copied.numVertices();
    result.setPoints = _out.points.length() == nv;
    bool normals = _out.normals.length() == _out.normalVerts.length();
    for (int i = 0; normals && i < _out.normalVerts.length(); ++i)
        normals = _out.normalVerts[i] >= 0 && _out.normalVerts[i] < nv;
    result.setNormals = normals;
}

// ---------------------------------------------------------------------------------------------
// Output arrays

bool KDeformationTransferSolver::_setOutPoints(const KTriMesh& target, const KVectorArray& source,
                                               const State& state) {
    const int nv = target.numVertices();
    // Guard (behaviour note "Deformation transfer: fixed vertices outside the meshes").
    if (state.trgFixP < 0 || state.trgFixP >= nv) return _abort(DtFixedVertexOutside("target", state.trgFixP, nv));
    if (state.srcFixP < 0 || state.srcFixP >= source.length())
        return _abort(DtFixedVertexOutside("source", state.srcFixP, source.length()));
    Output& out = _next;
    out.points.setLength(nv, false);
    out.normals.setLength(nv, false);
    out.normalVerts.setLength(nv, false);

    KVectorArray normals;
    target.getVertexNormals(normals, true);
    out.offset = target.points[state.trgFixP] - source[state.srcFixP];

    const KVector offset = out.offset;
    const KVector* points = target.points.data();
    const KVector* n = normals.data();
    KDouble4* op = out.points.data();
    KDouble3* on = out.normals.data();
    int* ids = out.normalVerts.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nv, kOutputItemsPerThread))
    for (int i = 0; i < nv; ++i) {
        const KVector p = points[i] - offset;
        op[i] = KDouble4{p.x, p.y, p.z, 1.0};
        on[i] = KDouble3{n[i].x, n[i].y, n[i].z};
        ids[i] = i;
    }
    return true;
}

bool KDeformationTransferSolver::_setOutDeformedSource(const KVectorArray& fitted, const KTriMesh& target,
                                                       const State& state) {
    const int nv = fitted.length();
    // Guard (behaviour note "Deformation transfer: fixed vertices outside the meshes").
    if (state.trgFixP < 0 || state.trgFixP >= target.numVertices())
        return _abort(DtFixedVertexOutside("target", state.trgFixP, target.numVertices()));
    if (state.srcFixP < 0 || state.srcFixP >= nv) return _abort(DtFixedVertexOutside("source", state.srcFixP, nv));
    // The normals are not touched: the output keeps those of the earlier pass.
    Output& out = _next;
    out.normals = _out.normals;
    out.normalVerts = _out.normalVerts;
    out.points.setLength(nv, false);
    out.offset = target.points[state.trgFixP] - fitted[state.srcFixP];
    const KVector offset = out.offset;
    const KVector* points = fitted.data();
    KDouble4* op = out.points.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nv, kOutputItemsPerThread))
    for (int i = 0; i < nv; ++i) {
        const KVector p = points[i] - offset;
        op[i] = KDouble4{p.x, p.y, p.z, 1.0};
    }
    return true;
}

}  // namespace Kavrin
