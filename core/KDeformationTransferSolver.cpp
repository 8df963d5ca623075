// Deformation transfer: the compute flow of the node, its output arrays and its messages.

#include "KDeformationTransferInternal.h"

#include <cstdio>

#include "KThreads.h"

namespace Kavrin {

namespace {

thread_local KDeformationTransferSolver* tActiveSolver = nullptr;

}  // namespace

KActiveSolverScope::KActiveSolverScope(KDeformationTransferSolver* solver) : _previous(tActiveSolver) {
    tActiveSolver = solver;
}

KActiveSolverScope::~KActiveSolverScope() { tActiveSolver = _previous; }

void cholmod_error_handler(int status, const char* file, int line, const char* message) {
    if (tActiveSolver) tActiveSolver->_cholmodError(status, file, line, message);
}

// Everything a recalculation may change, kept so that a failed evaluation can put it back.
struct KDeformationTransferSolver::Saved {
    KTriMesh refSrcMesh;
    KArray<KDouble4> outPoints;
    KArray<KDouble3> outNormals;
    KIntArray outNormalVerts;
    KInt2Array vertCorres;
    KInt4Array triCorres;
    int srcFixP = 0;
    int trgFixP = 0;
    KVector offset;
    bool ready = false;
    int nRows = 0;
    int nCols = 0;
    KInt3Array trgCols;
    cholmod_sparse* At = nullptr;
    cholmod_sparse* AtA = nullptr;
    void* Numeric = nullptr;
    int sysTrgVerts = 0;
    int sysTrgTris = 0;
};

KDeformationTransferSolver::KDeformationTransferSolver() : _common(new cholmod_common) {}

KDeformationTransferSolver::~KDeformationTransferSolver() {
    KActiveSolverScope scope(this);
    _sink = nullptr;
    if (_saved) _restore();
    if (_cholmodStarted) {
        cholmod_common* cm = _common.get();
        cholmod_free_triplet(&_T, cm);
        cholmod_free_dense(&_b, cm);
        cholmod_free_dense(&_x, cm);
        cholmod_free_sparse(&_A, cm);
        _releaseSystem(_At, _AtA, _Numeric);
        cholmod_finish(cm);
    }
}

void KDeformationTransferSolver::setClock(std::function<std::time_t()> clock) { _clock = std::move(clock); }

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

void KDeformationTransferSolver::_abort(const std::string& message) {
    if (!_aborted) _failure = message;
    _aborted = true;
}

// Guard (behaviour note "Deformation transfer: sparse-library errors never end the process").
void KDeformationTransferSolver::_cholmodError(int status, const char* file, int line, const char* message) {
    // Kept on purpose (behaviour note "Deformation transfer: address of stderr in the library's line").
    if (_sink) _sink->output(DtCholmodReport(static_cast<const void*>(stderr), status, file, line, message));
    _abort(kDtCholmodError);
}

// ---------------------------------------------------------------------------------------------
// Compute flow

KDeformationTransferResult KDeformationTransferSolver::compute(const KDeformationTransferInput& input,
                                                               KMessageSink& sink) {
    KActiveSolverScope scope(this);
    KDeformationTransferResult result;
    _sink = &sink;
    _threads = input.threads;
    _aborted = false;
    _failure.clear();

    _aim = input.aim;
    _calcMode = input.calcMode;
    _iterCount = input.iterCount;
    _srcMesh = input.sourceMesh;
    _trgMesh = input.targetMesh;

    if (input.reCalculate) {
        _save();
        _recalculate(input, result);
    }

    if (!_aborted) {
        if (_ready) {
            _transferPass(input, result);
        } else if (_aim != kSourceToTarget) {
            sink.warning(kDtNoCorrespondences);
        }
    }

    if (_aborted) {
        // A guard or the sparse library stopped a stage: nothing of this evaluation is kept.
        if (_saved) _restore();
        result = KDeformationTransferResult();
        result.outcome = KOutcome::Failed(_failure);
    } else {
        if (_saved) _dropSaved();
        if (!result.outcome.failed() && result.output != KDeformationTransferResult::kNoOutput)
            result.outcome = KOutcome::Deformed();
    }
    _sink = nullptr;
    return result;
}

void KDeformationTransferSolver::_recalculate(const KDeformationTransferInput& input,
                                              KDeformationTransferResult& result) {
    if (input.srcFixPNum.empty())
        _sink->error(kDtNoSourceFixedPoint);
    else
        _srcFixP = input.srcFixPNum[0];
    if (input.trgFixPNum.empty())
        _sink->error(kDtNoTargetFixedPoint);
    else
        _trgFixP = input.trgFixPNum[0];

    const int n = input.vertCorres.length() / 2;
    if (n == 0) {
        // "reCalculate" stays set, so the next evaluation tries again.
        _sink->error(kDtNoCorrespondences);
        return;
    }
    _vertCorres.clear();
    for (int i = 0; i < n; ++i) _vertCorres.push_back(KInt2{input.vertCorres[2 * i], input.vertCorres[2 * i + 1]});

    if (_aim == kTransfer) {
        // A failed search does not stop the build: the system uses whatever _triCorres holds.
        _findTriangleCorrespondence();
        if (_aborted) return;
        _progress(kDtBuildingMatrix);
        _createCoefficientMatrix();
        if (_aborted) return;
        _progress(kDtMatrixCreated);
    } else {
        _findTriangleCorrespondence();
        if (_aborted) return;
        _ready = false;
        // "Source To Target" has just filled the output points; "Wrap Deformer" uses the arrays
        // as earlier passes left them.
        result.output = KDeformationTransferResult::kFromSource;
        _fillOutputFlags(result, input.sourceMesh);
    }
    result.writeReCalculate = true;
    result.reCalculate = false;
}

bool KDeformationTransferSolver::_transferPass(const KDeformationTransferInput& input,
                                               KDeformationTransferResult& result) {
    if (input.vertCorres.length() < 2) {
        result.outcome = KOutcome::Failed(kDtNoCorrespondences, KOutcome::kWarning);
        return false;
    }
    _deformationTransfer();
    if (_aborted) return false;
    _setOutPoints();
    if (_aborted) return false;
    result.output = KDeformationTransferResult::kFromTarget;
    _fillOutputFlags(result, input.targetMesh);
    return true;
}

void KDeformationTransferSolver::_fillOutputFlags(KDeformationTransferResult& result, const KTriMesh& copied) const {
    const int nv = copied.numVertices();
    result.setPoints = _outPoints.length() == nv;
    bool normals = _outNormals.length() == _outNormalVerts.length();
    for (int i = 0; normals && i < _outNormalVerts.length(); ++i)
        normals = _outNormalVerts[i] >= 0 && _outNormalVerts[i] < nv;
    result.setNormals = normals;
}

// ---------------------------------------------------------------------------------------------
// Keeping and restoring the state around a recalculation

void KDeformationTransferSolver::_save() {
    _saved.reset(new Saved);
    Saved& s = *_saved;
    s.refSrcMesh = _refSrcMesh;
    s.outPoints = _outPoints;
    s.outNormals = _outNormals;
    s.outNormalVerts = _outNormalVerts;
    s.vertCorres = _vertCorres;
    s.triCorres = _triCorres;
    s.srcFixP = _srcFixP;
    s.trgFixP = _trgFixP;
    s.offset = _offset;
    s.ready = _ready;
    s.nRows = _nRows;
    s.nCols = _nCols;
    s.trgCols = _trgCols;
    s.At = _At;
    s.AtA = _AtA;
    s.Numeric = _Numeric;
    s.sysTrgVerts = _sysTrgVerts;
    s.sysTrgTris = _sysTrgTris;
}

void KDeformationTransferSolver::_restore() {
    Saved& s = *_saved;
    // A system built during the failed evaluation is dropped; the kept one comes back.
    if (_At != s.At || _AtA != s.AtA || _Numeric != s.Numeric) _releaseSystem(_At, _AtA, _Numeric);
    _refSrcMesh = s.refSrcMesh;
    _outPoints = s.outPoints;
    _outNormals = s.outNormals;
    _outNormalVerts = s.outNormalVerts;
    _vertCorres = s.vertCorres;
    _triCorres = s.triCorres;
    _srcFixP = s.srcFixP;
    _trgFixP = s.trgFixP;
    _offset = s.offset;
    _ready = s.ready;
    _nRows = s.nRows;
    _nCols = s.nCols;
    _trgCols = s.trgCols;
    _At = s.At;
    _AtA = s.AtA;
    _Numeric = s.Numeric;
    _sysTrgVerts = s.sysTrgVerts;
    _sysTrgTris = s.sysTrgTris;
    _saved.reset();
}

bool KDeformationTransferSolver::_systemIsSaved() const { return _saved && _saved->At == _At; }

void KDeformationTransferSolver::_dropSaved() {
    Saved& s = *_saved;
    // The evaluation succeeded: a system it replaced is released now.
    if (_At != s.At || _AtA != s.AtA || _Numeric != s.Numeric) _releaseSystem(s.At, s.AtA, s.Numeric);
    _saved.reset();
}

// ---------------------------------------------------------------------------------------------
// Output arrays

void KDeformationTransferSolver::_setOutPoints() {
    const int nv = _trgMesh.numVertices();
    if (_trgFixP < 0 || _trgFixP >= nv) {
        _abort(DtFixedVertexOutside("target", _trgFixP, nv));
        return;
    }
    if (_srcFixP < 0 || _srcFixP >= _srcMesh.numVertices()) {
        _abort(DtFixedVertexOutside("source", _srcFixP, _srcMesh.numVertices()));
        return;
    }
    _outPoints.setLength(nv, false);
    _outNormals.setLength(nv, false);
    _outNormalVerts.setLength(nv, false);

    KVectorArray normals;
    _trgMesh.getVertexNormals(normals, true);
    _offset = _trgMesh.points[_trgFixP] - _srcMesh.points[_srcFixP];

    const KVector offset = _offset;
    const KVector* points = _trgMesh.points.data();
    const KVector* n = normals.data();
    KDouble4* out = _outPoints.data();
    KDouble3* outNormals = _outNormals.data();
    int* ids = _outNormalVerts.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nv))
    for (int i = 0; i < nv; ++i) {
        const KVector p = points[i] - offset;
        out[i] = KDouble4{p.x, p.y, p.z, 1.0};
        outNormals[i] = KDouble3{n[i].x, n[i].y, n[i].z};
        ids[i] = i;
    }
}

void KDeformationTransferSolver::_setOutDeformedSource() {
    const int nv = _srcMesh.numVertices();
    if (_trgFixP < 0 || _trgFixP >= _trgMesh.numVertices()) {
        _abort(DtFixedVertexOutside("target", _trgFixP, _trgMesh.numVertices()));
        return;
    }
    if (_srcFixP < 0 || _srcFixP >= nv) {
        _abort(DtFixedVertexOutside("source", _srcFixP, nv));
        return;
    }
    _outPoints.setLength(nv, false);
    _offset = _trgMesh.points[_trgFixP] - _srcMesh.points[_srcFixP];

    const KVector offset = _offset;
    const KVector* points = _srcMesh.points.data();
    KDouble4* out = _outPoints.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nv))
    for (int i = 0; i < nv; ++i) {
        const KVector p = points[i] - offset;
        out[i] = KDouble4{p.x, p.y, p.z, 1.0};
    }
}

}  // namespace Kavrin
