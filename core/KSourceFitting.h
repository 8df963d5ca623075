#pragma once
// The source fit of the correspondence search: a working copy of the source mesh is bent onto the
// target by iterated sparse least squares. Marker pairs pin source vertices onto target vertices;
// the other vertices, and one fourth vertex per triangle, are the unknowns. Three terms make up
// the system:
//   smooth    9 rows per neighbour pair (t, u): T_t - T_u = 0, weight ws;
//   identity  9 rows per triangle: T_t = I, weight wi;
//   closest   3 rows per free vertex: the vertex on its closest target point, weight wc (plus wa
//             for the anchor of a part without a pin);
// where T_t = V~ V^-1 is triangle t's deformation from the points of the previous solve (fitting
// frame). The three coordinates share every coefficient, so the system is held and solved as one
// scalar system with three right-hand sides: row 3p + k of the smooth term is column k of T for
// pair p, and the coordinates are the columns of the right-hand side and of the solution.

#include <functional>
#include <string>
#include <vector>

#include "KArray.h"
#include "KSparseLeastSquares.h"
#include "KTriMesh.h"

namespace Kavrin {

class KSourceFitting {
public:
    struct Weights {
        double smooth = 1.0;
        double identity = 0.01;
        double closest = 0.0;
        // Added to the closest row of the lowest vertex of every part without a pin, whose closest
        // point is then its own place: fit() sets 1 for the first solve, so that such a part (an
        // eye, a tooth) stays where it is rather than at a translation the system leaves open.
        double anchor = 0.0;
    };

    // The whole fit: the first solve without the closest term, the closest target points of the
    // result (computed once), the second solve with wc = 1, then wc = 10, 20, ... 10 x iterations,
    // each solve re-linearised around the previous one. iterationStarted(n) is called before the
    // solve of iteration n. False with failure() when the fit cannot run or is singular.
    bool fit(const KTriMesh& source, const KTriMesh& target, const KInt2Array& pairs, int iterations, int threads,
             const std::function<void(int)>& iterationStarted);

    // The stages of fit(), for callers that drive them one by one.
    // Pins the paired source vertices (a vertex named by several pairs once, at the target vertex of
    // its last pair), numbers the unknowns, finds the triangle neighbours and the anchors of the
    // parts without a pin, and analyses the system.
    bool prepare(const KTriMesh& source, const KTriMesh& target, const KInt2Array& pairs, int threads);
    // Values and right-hand sides for the current points(), closestPoints() and weights.
    bool assemble(const Weights& weights);
    // Factors, solves, and moves every free vertex of a triangle to its solution.
    bool solve();
    // The closest point on target of every current point (a vertex stays put when nothing is found).
    void findClosestPoints(const KTriMesh& target);

    // The source as fitted so far (the rest source after prepare()).
    const KVectorArray& points() const { return _points; }
    KVectorArray& closestPoints() { return _closest; }

    // The unknowns: free vertices in index order, then one fourth vertex per triangle (-1: pinned).
    int freeVertices() const { return _nFree; }
    // The lowest vertex of each connected part without a pin, in index order.
    const KIntArray& anchors() const { return _anchors; }
    int unknowns() const { return _ls.cols(); }
    int column(int vertex) const { return _column[vertex]; }
    int fourthColumn(int triangle) const { return _nFree + triangle; }
    bool pinned(int vertex) const { return _pinned[vertex] != 0; }
    // The neighbour pairs (t, slot) in row order: pair p holds rows 3p .. 3p + 2.
    int neighbourPairs() const { return _pairTri.length(); }

    // The scalar system as assembled: rows of the smooth term, then 3 identity rows per triangle,
    // then one closest row per free vertex; right-hand side of coordinate c.
    int rows() const { return _rowStart.length() - 1; }
    const KIntArray& rowStart() const { return _rowStart; }
    const KIntArray& colIndex() const { return _colIndex; }
    const std::vector<double>& values() const { return _values; }
    const double* rhs(int coordinate) const { return _rhs.data() + static_cast<size_t>(coordinate) * rows(); }

    const std::string& failure() const { return _failure; }
    // The sparse library's own line when it reported an error (empty otherwise).
    const std::string& libraryReport() const { return _report; }
    long libraryObjects() const { return _ls.libraryObjects(); }

private:
    bool _fail(const std::string& message);
    bool _sparseFailed(const KSparseStatus& status);

    int _threads = 0;
    KInt3Array _triangles;
    KVectorArray _points;
    KVectorArray _closest;
    KCharArray _pinned;
    KCharArray _used;  // per vertex: in some triangle
    KIntArray _anchors;
    KCharArray _anchored;  // per vertex: one of _anchors
    KVectorArray _pinPos;
    KIntArray _column;
    int _nFree = 0;
    // Neighbour pairs: triangle and neighbour, and the slot of each of the 8 frame vertices of the
    // two triangles in the pair's rows (-1: pinned).
    KIntArray _pairTri, _pairNbr;
    std::vector<KTuple<8, int>> _pairSlots;
    std::vector<KInt4> _triSlots;
    // Per triangle: coefficients (4 vertices x 3 columns of T) and the pinned vertices' constants.
    std::vector<KTuple<12, double>> _coef;
    std::vector<KDouble9> _const;
    KIntArray _rowStart, _colIndex;
    std::vector<double> _values, _rhs, _solution;
    KSparseLeastSquares _ls;
    std::string _failure, _report;
};

}  // namespace Kavrin
