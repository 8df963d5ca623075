#include "KSparseLeastSquares.h"

#include <cholmod.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <sstream>

#include "KThreads.h"

namespace Kavrin {

namespace {

// The sparse library's error handler has no user pointer: each call into the library names the
// object it runs for on its own thread.
thread_local KSparseLeastSquares* tActive = nullptr;

class ActiveScope {
public:
    explicit ActiveScope(KSparseLeastSquares* ls) : _previous(tActive) { tActive = ls; }
    ~ActiveScope() { tActive = _previous; }
    ActiveScope(const ActiveScope&) = delete;
    ActiveScope& operator=(const ActiveScope&) = delete;

private:
    KSparseLeastSquares* _previous;
};

void ErrorHandler(int status, const char* file, int line, const char* message) {
    if (tActive) tActive->libraryError(status, file, line, message);
}

}  // namespace

// The context and the objects made in it: the normal matrix (its pattern fixed at analyse), the
// symbolic and numeric factor, and the solve's dense work objects.
// Guard (behaviour note "Deformation transfer: one sparse-library context per solver, nothing leaked").
struct KSparseLeastSquares::Library {
    cholmod_common cm;
    cholmod_sparse* normal = nullptr;
    cholmod_factor* factor = nullptr;
    cholmod_dense* rhs = nullptr;
    cholmod_dense* x = nullptr;
    cholmod_dense* y = nullptr;
    cholmod_dense* e = nullptr;

    explicit Library(bool supernodal) {
        cholmod_start(&cm);
        // The library prints nothing itself; its errors arrive through the handler.
        cm.print = 0;
        cm.error_handler = ErrorHandler;
        // Decision (behaviour note "Deformation transfer: Cholesky factorisation of the normal equations").
        cm.supernodal = supernodal ? CHOLMOD_SUPERNODAL : CHOLMOD_SIMPLICIAL;
#ifdef NSUPERNODAL
        // A CHOLMOD built without its Supernodal module (the plug-in's) factors every system simplicially.
        // Decision (behaviour note "Plug-in: simplicial factorisation only")
        cm.supernodal = CHOLMOD_SIMPLICIAL;
#endif
    }
    void freeObjects() {
        cholmod_free_sparse(&normal, &cm);
        cholmod_free_factor(&factor, &cm);
        cholmod_free_dense(&rhs, &cm);
        cholmod_free_dense(&x, &cm);
        cholmod_free_dense(&y, &cm);
        cholmod_free_dense(&e, &cm);
    }
    ~Library() {
        freeObjects();
        cholmod_finish(&cm);
    }
};

KSparseLeastSquares::KSparseLeastSquares(Method method) {
    ActiveScope scope(this);
    _lib.reset(new Library(method == kSupernodal));
}

KSparseLeastSquares::~KSparseLeastSquares() {
    ActiveScope scope(this);
    _lib.reset();
}

long KSparseLeastSquares::libraryObjects() const { return static_cast<long>(_lib->cm.malloc_count); }

size_t KSparseLeastSquares::libraryBytes() const { return _lib->cm.memory_inuse; }

size_t KSparseLeastSquares::libraryPeakBytes() const { return _lib->cm.memory_usage; }

void KSparseLeastSquares::libraryError(int status, const char* file, int line, const char* message) {
    // "Not positive definite" is the library's warning for a singular matrix; the status says so.
    if (status == CHOLMOD_NOT_POSDEF) return;
    if (!_libraryFailed) {
        std::ostringstream text;
        // Kept on purpose (behaviour note "Deformation transfer: address of stderr in the library's line").
        text << static_cast<const void*>(stderr) << ", cholmod error: file: " << (file ? file : "")
             << " line: " << line << " status: " << status << ": " << (message ? message : "") << "\n";
        _report = text.str();
    }
    _libraryFailed = true;
}

KSparseStatus KSparseLeastSquares::_status(bool libraryOk) {
    KSparseStatus s;
    if (_libraryFailed || !libraryOk || _lib->cm.status < CHOLMOD_OK) {
        s.code = KSparseStatus::kLibraryError;
        s.report = _report.empty() ? std::string("cholmod error: status ") + std::to_string(_lib->cm.status) + "\n"
                                   : _report;
    }
    _libraryFailed = false;
    _report.clear();
    return s;
}

KSparseStatus KSparseLeastSquares::analyse(int cols, const KIntArray& rowStart, const KIntArray& colIndex,
                                           int threads) {
    ActiveScope scope(this);
    cholmod_common* cm = &_lib->cm;
    _lib->freeObjects();
    _factored = false;
    _cols = cols;
    _threads = threads;
    _rowStart = rowStart;
    _colIndex = colIndex;
    _rows = rowStart.empty() ? 0 : rowStart.length() - 1;
    const int nRows = _rows;
    const int nnz = _colIndex.length();

    // A by columns; within a column the rows come in increasing order.
    _colStart.setLength(cols + 1, true);
    for (int q = 0; q < nnz; ++q) ++_colStart[_colIndex[q] + 1];
    for (int j = 0; j < cols; ++j) _colStart[j + 1] += _colStart[j];
    _colRow.setLength(nnz, false);
    _colPos.setLength(nnz, false);
    {
        KIntArray fill(_colStart);
        for (int r = 0; r < nRows; ++r)
            for (int q = _rowStart[r]; q < _rowStart[r + 1]; ++q) {
                const int at = fill[_colIndex[q]]++;
                _colRow[at] = r;
                _colPos[at] = q;
            }
    }

    // Pattern of the lower triangle of A^T A: column j holds the rows i >= j that share a row of
    // A with j, and always its diagonal (a column of A without entries then shows as singular).
    const int team = TeamFor(threads, cols);
    std::vector<int> counts(static_cast<size_t>(cols) + 1, 0);
    std::vector<std::vector<int>> marks(static_cast<size_t>(team), std::vector<int>(cols, -1));
    const int* rs = _rowStart.data();
    const int* ci = _colIndex.data();
    const int* cs = _colStart.data();
    const int* cr = _colRow.data();
#pragma omp parallel for schedule(static) num_threads(team)
    for (int j = 0; j < cols; ++j) {
        int* mark = marks[OmpThreadNum()].data();
        int n = 1;
        mark[j] = j;
        for (int p = cs[j]; p < cs[j + 1]; ++p) {
            const int r = cr[p];
            for (int q = rs[r]; q < rs[r + 1]; ++q) {
                const int i = ci[q];
                if (i > j && mark[i] != j) {
                    mark[i] = j;
                    ++n;
                }
            }
        }
        counts[j + 1] = n;
    }
    for (int j = 0; j < cols; ++j) counts[j + 1] += counts[j];
    const size_t total = static_cast<size_t>(counts[cols]);

    _lib->normal = cholmod_allocate_sparse(cols, cols, total, 1, 1, -1, CHOLMOD_REAL, cm);
    if (!_lib->normal) return _status(false);
    int* mp = static_cast<int*>(_lib->normal->p);
    int* mi = static_cast<int*>(_lib->normal->i);
    std::memset(_lib->normal->x, 0, total * sizeof(double));
    for (int j = 0; j <= cols; ++j) mp[j] = counts[j];
    for (auto& m : marks) std::fill(m.begin(), m.end(), -1);
#pragma omp parallel for schedule(static) num_threads(team)
    for (int j = 0; j < cols; ++j) {
        int* mark = marks[OmpThreadNum()].data();
        int at = mp[j];
        mi[at++] = j;
        mark[j] = j;
        for (int p = cs[j]; p < cs[j + 1]; ++p) {
            const int r = cr[p];
            for (int q = rs[r]; q < rs[r + 1]; ++q) {
                const int i = ci[q];
                if (i > j && mark[i] != j) {
                    mark[i] = j;
                    mi[at++] = i;
                }
            }
        }
        std::sort(mi + mp[j], mi + mp[j + 1]);
    }

    _lib->factor = cholmod_analyze(_lib->normal, cm);
    if (!_lib->factor) return _status(false);
    _work.assign(static_cast<size_t>(team), std::vector<double>(cols, 0.0));
    _valueCopy.assign(static_cast<size_t>(nnz), 0.0);
    _colValue.assign(static_cast<size_t>(nnz), 0.0);
    return _status(true);
}

void KSparseLeastSquares::_formNormalMatrix() {
    const int cols = _cols;
    const int team = static_cast<int>(_work.size());
    const int* rs = _rowStart.data();
    const int* ci = _colIndex.data();
    const int* cs = _colStart.data();
    const int* cr = _colRow.data();
    const double* cv = _colValue.data();
    const double* v = _valueCopy.data();
    const int* mp = static_cast<const int*>(_lib->normal->p);
    const int* mi = static_cast<const int*>(_lib->normal->i);
    double* mx = static_cast<double*>(_lib->normal->x);
    // Column j of A^T A sums, over the rows of A that hold j in increasing order, that row's
    // entries times its entry at j: the same order whatever the team.
    // Decision (behaviour note "Deformation transfer: parallel assembly, bit-identical").
#pragma omp parallel for schedule(static) num_threads(team)
    for (int j = 0; j < cols; ++j) {
        double* w = _work[OmpThreadNum()].data();
        for (int p = cs[j]; p < cs[j + 1]; ++p) {
            const int r = cr[p];
            const double a = cv[p];
            for (int q = rs[r]; q < rs[r + 1]; ++q) {
                const int i = ci[q];
                if (i >= j) w[i] += a * v[q];
            }
        }
        for (int p = mp[j]; p < mp[j + 1]; ++p) {
            mx[p] = w[mi[p]];
            w[mi[p]] = 0.0;
        }
    }
}

KSparseStatus KSparseLeastSquares::factor(const double* values) {
    ActiveScope scope(this);
    _factored = false;
    if (!_lib->factor) {
        KSparseStatus s;
        s.code = KSparseStatus::kLibraryError;
        s.report = "cholmod error: the normal equations were not analysed\n";
        return s;
    }
    if (!_lib->normal) {
        KSparseStatus s;
        s.code = KSparseStatus::kLibraryError;
        s.report = "cholmod error: the normal equations were kept for solves only\n";
        return s;
    }
    std::copy(values, values + _valueCopy.size(), _valueCopy.begin());
    const int nnz = static_cast<int>(_colValue.size());
    const double* byRows = _valueCopy.data();
    const int* position = _colPos.data();
    double* byColumns = _colValue.data();
#pragma omp parallel for schedule(static) num_threads(TeamFor(_threads, nnz))
    for (int p = 0; p < nnz; ++p) byColumns[p] = byRows[position[p]];
    _formNormalMatrix();
    cholmod_common* cm = &_lib->cm;
    const int ok = cholmod_factorize(_lib->normal, _lib->factor, cm);
    if (ok && cm->status == CHOLMOD_NOT_POSDEF) {
        // The factorisation stopped at column `minor` of the permuted matrix.
        KSparseStatus s;
        s.code = KSparseStatus::kSingular;
        const cholmod_factor* L = _lib->factor;
        const int minor = static_cast<int>(L->minor);
        s.column = (L->Perm && minor >= 0 && minor < _cols) ? static_cast<const int*>(L->Perm)[minor] : -1;
        _libraryFailed = false;
        _report.clear();
        cm->status = CHOLMOD_OK;
        return s;
    }
    KSparseStatus s = _status(ok != 0);
    _factored = s.ok();
    return s;
}

void KSparseLeastSquares::multiplyTransposed(const double* b, int nrhs, double* atb) const {
    // A product is a few operations per entry: a thread takes at least 65,536 entries.
    // Decision (behaviour note "Deformation transfer: light per-pose loops stay on one thread").
    const int team = TeamFor(_threads, static_cast<int>(_colValue.size()), 65536);
    const size_t nRows = static_cast<size_t>(rows());
    const int* cs = _colStart.data();
    const int* cr = _colRow.data();
    const double* cv = _colValue.data();
    const int cols = _cols;
    const size_t stride = static_cast<size_t>(cols);
    if (nrhs == 3) {
        const double* b0 = b;
        const double* b1 = b + nRows;
        const double* b2 = b + 2 * nRows;
#pragma omp parallel for schedule(static) num_threads(team)
        for (int j = 0; j < cols; ++j) {
            double s0 = 0.0, s1 = 0.0, s2 = 0.0;
            for (int p = cs[j]; p < cs[j + 1]; ++p) {
                const double a = cv[p];
                const int r = cr[p];
                s0 += a * b0[r];
                s1 += a * b1[r];
                s2 += a * b2[r];
            }
            atb[j] = s0;
            atb[stride + j] = s1;
            atb[2 * stride + j] = s2;
        }
        return;
    }
#pragma omp parallel for schedule(static) num_threads(team)
    for (int j = 0; j < cols; ++j) {
        for (int c = 0; c < nrhs; ++c) {
            const double* bc = b + c * nRows;
            double s = 0.0;
            for (int p = cs[j]; p < cs[j + 1]; ++p) s += cv[p] * bc[cr[p]];
            atb[c * stride + j] = s;
        }
    }
}

void KSparseLeastSquares::keepSolvesOnly() {
    ActiveScope scope(this);
    cholmod_free_sparse(&_lib->normal, &_lib->cm);
    KIntArray().swap(_rowStart);
    KIntArray().swap(_colIndex);
    KIntArray().swap(_colPos);
    std::vector<double>().swap(_valueCopy);
    std::vector<std::vector<double>>().swap(_work);
}

KSparseStatus KSparseLeastSquares::solveNormal(const double* atb, int nrhs, double* x) {
    ActiveScope scope(this);
    cholmod_common* cm = &_lib->cm;
    if (!_factored) {
        KSparseStatus s;
        s.code = KSparseStatus::kLibraryError;
        s.report = "cholmod error: the normal equations were not factored\n";
        return s;
    }
    Library& lib = *_lib;
    if (!lib.rhs || static_cast<int>(lib.rhs->ncol) != nrhs) {
        cholmod_free_dense(&lib.rhs, cm);
        lib.rhs = cholmod_allocate_dense(_cols, nrhs, _cols, CHOLMOD_REAL, cm);
        if (!lib.rhs) return _status(false);
    }
    std::copy(atb, atb + static_cast<size_t>(_cols) * nrhs, static_cast<double*>(lib.rhs->x));
    // The solution and the work objects are kept and reused from one solve to the next.
    const int ok = cholmod_solve2(CHOLMOD_A, lib.factor, lib.rhs, nullptr, &lib.x, nullptr, &lib.y, &lib.e, cm);
    if (!ok || !lib.x) return _status(false);
    const double* xs = static_cast<const double*>(lib.x->x);
    std::copy(xs, xs + static_cast<size_t>(_cols) * nrhs, x);
    return _status(true);
}

KSparseStatus KSparseLeastSquares::solve(const double* b, int nrhs, double* x) {
    std::vector<double> atb(static_cast<size_t>(_cols) * nrhs);
    multiplyTransposed(b, nrhs, atb.data());
    return solveNormal(atb.data(), nrhs, x);
}

}  // namespace Kavrin
