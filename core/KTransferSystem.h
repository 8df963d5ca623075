#pragma once
// The transfer system: built and factored once per recalculation, solved once per source pose.
// The unknowns are the target vertices and one fourth vertex per target triangle; the equations
// ask every target triangle's deformation T = V~ V^-1 (unit-normal frame, target rest pose) to
// equal that of its paired source triangle: 9 rows per pairing slot, or 9 rows of the identity for
// a triangle without a pair (count 0; a count below 0 gives no rows). As in the source fit, the
// three coordinates share the coefficients and are solved as three right-hand sides of one scalar
// system.
//
// The equations fix each connected part of the target only up to a translation. One vertex of
// each part (its lowest-numbered; a vertex in no triangle is a part of its own) stays at its rest
// position, which makes the normal equations positive definite; the host places the result by its
// fixed vertex afterwards.

#include <string>
#include <vector>

#include "KArray.h"
#include "KDenseMatrix.h"
#include "KSparseLeastSquares.h"
#include "KTriMesh.h"

namespace Kavrin {

class KTransferSystem {
public:
    // Builds and factors the system for the target rest pose and the pairing (one entry per target
    // triangle, naming triangles of restSource). False with failure() when the pairing does not
    // fit, a triangle spans no frame, or the system is singular; the object is then empty.
    bool build(const KTriMesh& restSource, const KTriMesh& target, const KInt4Array& triCorres, int threads);

    // The target's part of build() made beforehand: the anchors, the system's matrix and its
    // factorisation depend on the target alone when every triangle gives one block (every pairing
    // KTrianglePairing makes), so this may run beside the correspondence search. The next build()
    // with the same target and such a pairing adds only the source's part and reports what went
    // wrong here in its usual order; any other build() ignores it. False when the target could not
    // be factored (or its triangles name missing vertices: nothing is made then).
    bool prepareTarget(const KTriMesh& target, int threads);

    // Solves for the source pose (points of the rest source's vertices) and writes one point per
    // target vertex. target is this evaluation's target, which must still be the one built for.
    bool solve(const KVectorArray& posedSource, const KTriMesh& target, KVectorArray& targetPoints);

    bool built() const { return _built; }
    int targetVertices() const { return _nTV; }
    int targetTriangles() const { return _nTT; }
    // Rows of the system: 3 scalar rows (9 rows of the three coordinates) per block.
    int rows() const { return _ls.rows(); }
    // The target vertices kept at their rest position, one per connected part.
    const KIntArray& anchors() const { return _anchors; }

    const std::string& failure() const { return _failure; }
    const std::string& libraryReport() const { return _report; }
    long libraryObjects() const { return _ls.libraryObjects(); }
    // Bytes the sparse library holds for the factored system, and the most it held while building.
    size_t libraryBytes() const { return _ls.libraryBytes(); }
    size_t libraryPeakBytes() const { return _ls.libraryPeakBytes(); }

private:
    bool _fail(const std::string& message);
    bool _sparseFailed(const KSparseStatus& status);
    // Whether a triangle spans no frame (the failure is then set).
    bool _unusable(const char* mesh, const KVector* p, const KInt3& t, int index);
    bool _targetUnusable(const KTriMesh& target);
    // The target's part: anchors, rows (one block per triangle without a pairing), the matrix and
    // its factorisation.
    bool _factorTarget(const KTriMesh& target, const KInt4Array* triCorres, int threads);

    enum Prepared { kNotPrepared, kFactored, kUnusableTarget, kSingularTarget };
    Prepared _prepared = kNotPrepared;
    KInt3Array _preparedTriangles;  // the triangles prepareTarget() was given, until build()

    bool _built = false;
    int _threads = 0;
    int _nTV = 0, _nTT = 0, _nFree = 0;
    KInt4Array _triCorres;
    KInt3Array _sourceTriangles;
    std::vector<KMatrix3d> _restInverse;  // per source triangle, unit-normal frame
    KVectorArray _restTarget;
    KIntArray _column;   // per target vertex; -1 for an anchor
    KIntArray _anchors;
    KIntArray _firstRow;  // per target triangle, its first scalar row
    // The anchors' share of a row, moved to the right-hand side; rows in increasing order.
    struct AnchorRow {
        int row;
        double value[3];
    };
    std::vector<AnchorRow> _anchorRows;
    std::vector<double> _rhs, _atb, _x;
    KSparseLeastSquares _ls{KSparseLeastSquares::kSimplicial};
    std::string _failure, _report;
};

}  // namespace Kavrin
