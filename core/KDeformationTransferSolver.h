#pragma once
// Deformation transfer: carries the deformation of a source mesh onto a target mesh of the same
// or of a different topology.
//
// A recalculation fits a working copy of the source onto the target (iterated sparse least
// squares with marker pins, smoothness, identity and closest-point terms), pairs every target
// triangle with one source triangle and, in the "Transfer" aim, builds and factors the transfer
// system once. Every later evaluation solves that factored system for the current source pose:
// one right-hand side, one sparse product and one solve.
//
// The engine keeps the node's state between evaluations and decides which stage runs. The host
// layer reads its plugs into KDeformationTransferInput, calls compute() and writes back what the
// result asks for. A failed evaluation's message comes back in the result's outcome; the messages
// the node shows and goes on after, and the progress lines, go through KMessageSink.
//
// Use from a command line: one compute() with reCalculate true on the rest source (the build),
// then one compute() with reCalculate false per source pose; each such call writes the deformed
// target into outPoints(). The build call also ends in a transfer pass, but that one solves for
// the fitted source still held in the working copy, so its output is not a pose of the target.

#include <ctime>
#include <functional>
#include <memory>
#include <string>

#include "KArray.h"
#include "KDenseMatrix.h"
#include "KDeformationTransferMessages.h"
#include "KMessageSink.h"
#include "KOutcome.h"
#include "KTriMesh.h"

struct cholmod_common_struct;
struct cholmod_triplet_struct;
struct cholmod_sparse_struct;
struct cholmod_dense_struct;

namespace Kavrin {

typedef KTuple<4, double> KDouble4;

class KDeformationTransferSolver;

// The error handler installed in every solver's sparse-library context. It makes the stage of the
// solver running on this thread give up with "cholmod error!" (and the library's line as output);
// it never ends the process.
void cholmod_error_handler(int status, const char* file, int line, const char* message);

// What the node reads from its plugs at one evaluation.
struct KDeformationTransferInput {
    bool reCalculate = false;  // "reCalculate"
    short aim = 1;             // "aim": 1 "Source To Target", 2 "Transfer", 3 "Wrap Deformer"
    short calcMode = 1;        // "calcMode": 1 "Same Topology", 2 "Different Topology"
    short iterCount = 5;       // "iterCount", read as a 16-bit value (larger values wrap)
    KTriMesh sourceMesh;       // "sourceMesh", object space
    KTriMesh targetMesh;       // "targetMesh", object space
    KIntArray vertCorres;      // "vertCorres": source index, target index, source index, ...
    KIntArray srcFixPNum;      // "srcFixPNum": element 0 is the source fixed vertex
    KIntArray trgFixPNum;      // "trgFixPNum": element 0 is the target fixed vertex
    int threads = 0;           // team size of the parallel loops; 0 or less: the OpenMP default
};

// What the node writes back after one evaluation.
struct KDeformationTransferResult {
    // Whether "outputMesh" gets new data, and which input mesh that data copies.
    enum Output { kNoOutput, kFromSource, kFromTarget };

    // Deformed when "outputMesh" is written, untouched when it is not; failed when compute
    // returns a failure (a guard or the sparse library stopped a stage, or a transfer pass without
    // correspondences, a warning).
    KOutcome outcome = KOutcome::Untouched();
    Output output = kNoOutput;
    // With an output: whether outPoints() / the normal arrays fit the copied mesh (one point per
    // vertex; as many normals as vertex ids, every id a vertex of it). An array that does not fit
    // is not applied and the copy keeps its own points or normals.
    bool setPoints = false;
    bool setNormals = false;
    // Whether "reCalculate" is written, and the value to write.
    bool writeReCalculate = false;
    bool reCalculate = false;
};

class KDeformationTransferSolver {
public:
    enum Aim { kSourceToTarget = 1, kTransfer = 2, kWrapDeformer = 3 };
    enum CalcMode { kSameTopology = 1, kDifferentTopology = 2 };

    KDeformationTransferSolver();
    ~KDeformationTransferSolver();
    KDeformationTransferSolver(const KDeformationTransferSolver&) = delete;
    KDeformationTransferSolver& operator=(const KDeformationTransferSolver&) = delete;

    // One evaluation of the node's output mesh. A failed evaluation leaves every output and the
    // stored state as they were before the call.
    KDeformationTransferResult compute(const KDeformationTransferInput& input, KMessageSink& sink);

    // The next output mesh: points (x, y, z, w = 1), vertex normals and their vertex ids.
    const KArray<KDouble4>& outPoints() const { return _outPoints; }
    const KArray<KDouble3>& outNormals() const { return _outNormals; }
    const KIntArray& outNormalVerts() const { return _outNormalVerts; }

    // True once the transfer system is built and factored.
    bool ready() const { return _ready; }
    // One entry per target triangle: source triangle in field 0, count of valid fields in field 3.
    const KInt4Array& triCorres() const { return _triCorres; }
    // The translation removed from the last output points.
    const KVector& offset() const { return _offset; }
    int sourceFixedVertex() const { return _srcFixP; }
    int targetFixedVertex() const { return _trgFixP; }
    // The source rest pose of the last recalculation.
    const KTriMesh& referenceSource() const { return _refSrcMesh; }

    // The clock of the progress lines' timestamps (standard time() when not set).
    void setClock(std::function<std::time_t()> clock);

private:
    friend struct KDeformationTransferTestAccess;
    friend void cholmod_error_handler(int status, const char* file, int line, const char* message);
    struct Saved;

    // Compute flow.
    void _recalculate(const KDeformationTransferInput& input, KDeformationTransferResult& result);
    bool _transferPass(const KDeformationTransferInput& input, KDeformationTransferResult& result);
    void _fillOutputFlags(KDeformationTransferResult& result, const KTriMesh& copied) const;
    void _save();
    void _restore();
    void _dropSaved();

    // Messages.
    int _timestamp(std::string& text) const;
    void _progress(const std::string& message);
    // Stops the running stage: the evaluation fails with message and nothing it changed is kept.
    void _abort(const std::string& message);
    void _cholmodError(int status, const char* file, int line, const char* message);

    // Output arrays.
    void _setOutPoints();
    void _setOutDeformedSource();

    // Triangle correspondence.
    int _findTriangleCorrespondence();
    bool _prepareFitting(int& nFree, int& nAdj);
    bool _solveFitting(bool withClosest);
    int _pairTriangles();

    // Source-fitting system.
    void _createElementaryMatrix(const int& nTris, const KVectorArray& points, const KInt3Array& tris);
    void _appendSmoothTerm(const int& nTris, const int& nVerts, const KInt3Array& tris);
    void _appendIdentityTerm(const int& nTris, const int& nVerts, const KInt3Array& tris);
    void _appendClosestTerm(const int& nVerts);
    void _deformSource(const int& nTris, KVectorArray& points, const KInt3Array& tris);
    void _appendBlock(int t, const int& nVerts, const KInt3Array& tris, double weight);
    void _addToB(int row, double value);
    int CHOLMOD_entry(cholmod_triplet_struct* T, int row, int col, double value);
    cholmod_dense_struct* UMFPACK_leastSquare(cholmod_sparse_struct* A, cholmod_dense_struct* b);

    // Transfer system.
    int _createCoefficientMatrix();
    int _deformationTransfer();
    void _releaseSystem(cholmod_sparse_struct*& At, cholmod_sparse_struct*& AtA, void*& numeric);
    bool _systemIsSaved() const;

    // Sparse-library context.
    void _startCholmod();
    void _finishCholmod();
    bool _umfpackOk(int status, const char* system, const char* consequence);

    // Evaluation settings and messages.
    KMessageSink* _sink = nullptr;
    int _threads = 0;
    bool _aborted = false;
    std::string _failure;  // the message of the stage that gave up
    std::function<std::time_t()> _clock;

    // Meshes: the inputs of this evaluation and the rest pose of the last recalculation.
    KTriMesh _srcMesh;
    KTriMesh _trgMesh;
    KTriMesh _refSrcMesh;

    // Output arrays.
    KArray<KDouble4> _outPoints;
    KArray<KDouble3> _outNormals;
    KIntArray _outNormalVerts;

    // Cached node state.
    KInt2Array _vertCorres;
    KInt4Array _triCorres;
    short _aim = 0;
    short _calcMode = 0;
    short _iterCount = 0;
    int _srcFixP = 0;
    int _trgFixP = 0;
    KVector _offset;
    bool _ready = false;

    // Source-fitting data.
    KVectorArray _fixedPos;
    KCharArray _isFixed;
    KInt3Array _srcCols;
    KInt3Array _t2t;
    KArray<KMatrix94d> _elemMats;
    KArray<KDouble9> _elemConsts;
    KVectorArray _closestPts;
    double _wSmooth = 0.0;
    double _wIdentity = 0.0;
    double _wClosest = 0.0;
    int _nRows = 0;
    int _nCols = 0;
    int _row = 0;
    cholmod_triplet_struct* _T = nullptr;
    cholmod_dense_struct* _b = nullptr;
    cholmod_dense_struct* _x = nullptr;
    cholmod_sparse_struct* _A = nullptr;

    // Transfer system, kept from one build to the next, with the target vertex and triangle
    // counts it was built for.
    KInt3Array _trgCols;
    cholmod_sparse_struct* _At = nullptr;
    cholmod_sparse_struct* _AtA = nullptr;
    void* _Numeric = nullptr;
    int _sysTrgVerts = 0;
    int _sysTrgTris = 0;

    // This instance's sparse-library context.
    std::unique_ptr<cholmod_common_struct> _common;
    bool _cholmodStarted = false;

    // State before the running recalculation, restored when it fails.
    std::unique_ptr<Saved> _saved;
};

}  // namespace Kavrin
