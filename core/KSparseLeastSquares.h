#pragma once
// Sparse linear least squares, min |A X - B|, for a matrix A whose sparsity pattern stays while its
// values change (the fitting iterations, the poses of one transfer system). The normal equations
// A^T A X = A^T B are analysed once for the pattern (fill-reducing order, supernodal structure)
// and factored numerically with a supernodal Cholesky factorisation for each new set of values;
// one factorisation then solves any number of right-hand sides.
//
// The object owns its sparse-library context and every object made in it: nothing is shared
// between instances, nothing outlives the instance, and the library's errors come back as
// statuses (they never end the process). The normal matrix is formed column by column in a fixed
// order, so its values do not depend on the thread count.

#include <memory>
#include <string>
#include <vector>

#include "KArray.h"

namespace Kavrin {

struct KSparseStatus {
    enum Code {
        kOk,
        kSingular,     // the normal matrix is not positive definite; `column` says where it broke down
        kLibraryError  // the sparse library reported an error (out of memory, say); `report` holds its line
    };
    Code code = kOk;
    int column = -1;
    std::string report;

    bool ok() const { return code == kOk; }
    static KSparseStatus Ok() { return KSparseStatus(); }
};

class KSparseLeastSquares {
public:
    // Supernodal factorisation (dense blocks through BLAS) pays off where the factor is made once
    // per solve; the simplicial one analyses and factors quicker on mesh-shaped systems of this size
    // and solves quicker, which suits a factor kept for many solves. Built against a CHOLMOD without
    // the Supernodal module (the plug-in's), both factor simplicially.
    enum Method { kSupernodal, kSimplicial };

    explicit KSparseLeastSquares(Method method = kSupernodal);
    ~KSparseLeastSquares();
    KSparseLeastSquares(const KSparseLeastSquares&) = delete;
    KSparseLeastSquares& operator=(const KSparseLeastSquares&) = delete;

    // The pattern of A: `cols` columns and rowStart.length() - 1 rows; row r holds the columns
    // colIndex[rowStart[r] .. rowStart[r + 1]), each in [0, cols) and distinct within the row. The
    // pattern is kept and the normal equations are analysed. threads: team size of the parallel
    // loops (0: the OpenMP default).
    KSparseStatus analyse(int cols, const KIntArray& rowStart, const KIntArray& colIndex, int threads);

    // Factors A^T A for the values of A, one per pattern entry (in colIndex order).
    KSparseStatus factor(const double* values);

    // Frees what only factor() needs (A by rows, the normal matrix, its assembly's work space),
    // for a factor kept for solves alone: multiplyTransposed, solveNormal and solve go on working
    // with the last factorisation; factor() fails until the next analyse().
    void keepSolvesOnly();

    // A^T B for nrhs right-hand sides (B: rows() x nrhs, column-major; result cols() x nrhs), with
    // the values of the last factor().
    void multiplyTransposed(const double* b, int nrhs, double* atb) const;

    // X = (A^T A)^-1 atb with the last factorisation (atb and X: cols() x nrhs, column-major).
    KSparseStatus solveNormal(const double* atb, int nrhs, double* x);

    // X minimising |A X - B|: multiplyTransposed, then solveNormal.
    KSparseStatus solve(const double* b, int nrhs, double* x);

    int rows() const { return _rows; }
    int cols() const { return _cols; }
    bool factored() const { return _factored; }

    // Memory blocks the sparse-library context holds (a leak check for tests).
    long libraryObjects() const;
    // Bytes the sparse-library context holds now, and the most it has held (its own allocations,
    // which do not go through operator new).
    size_t libraryBytes() const;
    size_t libraryPeakBytes() const;

    // Called by the sparse library's error handler on the thread of the running call.
    void libraryError(int status, const char* file, int line, const char* message);

private:
    struct Library;
    KSparseStatus _status(bool libraryOk);
    void _formNormalMatrix();

    std::unique_ptr<Library> _lib;
    int _cols = 0;
    int _rows = 0;
    int _threads = 0;
    bool _factored = false;
    // A by rows (the caller's pattern) and by columns (row and value position per entry).
    KIntArray _rowStart, _colIndex;
    KIntArray _colStart, _colRow, _colPos;
    std::vector<double> _valueCopy;  // A's values by rows
    std::vector<double> _colValue;   // and by columns
    // Lower triangle of A^T A by columns: row indices, and per thread a dense accumulator.
    std::vector<std::vector<double>> _work;
    // The error the library reported during the running call.
    bool _libraryFailed = false;
    std::string _report;
};

}  // namespace Kavrin
