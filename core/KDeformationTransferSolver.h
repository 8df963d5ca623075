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
// The stages live in their own units (KSourceFitting, KTrianglePairing, KTransferSystem, each
// solving through KSparseLeastSquares); this class is the node's state machine: it keeps the
// node's state between evaluations and decides which stage runs. The host
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
#include "KDeformationTransferMessages.h"
#include "KMessageSink.h"
#include "KOutcome.h"
#include "KSourceFitting.h"
#include "KTransferSystem.h"
#include "KTriMesh.h"

namespace Kavrin {

typedef KTuple<4, double> KDouble4;

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
    // A correspondence an earlier recalculation found for the same meshes and markers (its
    // triCorres() and fittedSource()), restored by a host that saved it: a recalculation in the
    // "Transfer" aim then builds the system from it instead of searching. Null: search.
    const KInt4Array* storedTriCorres = nullptr;
    const KVectorArray* storedFitted = nullptr;
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
    const KArray<KDouble4>& outPoints() const { return _out.points; }
    const KArray<KDouble3>& outNormals() const { return _out.normals; }
    const KIntArray& outNormalVerts() const { return _out.normalVerts; }

    // True once the transfer system is built and factored.
    bool ready() const { return _state.ready; }
    // One entry per target triangle: source triangle in field 0, count of valid fields in field 3.
    const KInt4Array& triCorres() const { return _state.triCorres; }
    // The translation removed from the last output points.
    const KVector& offset() const { return _out.offset; }
    int sourceFixedVertex() const { return _state.srcFixP; }
    int targetFixedVertex() const { return _state.trgFixP; }
    // The source rest pose of the last recalculation.
    const KTriMesh& referenceSource() const { return _state.refSrcMesh; }

    // The source as the last recalculation fitted it onto the target.
    const KVectorArray& fittedSource() const { return _state.fitted; }
    // Memory blocks held by the sparse-library contexts of the fit and of the kept system.
    long libraryObjects() const;

    // The clock of the progress lines' timestamps (standard time() when not set).
    void setClock(std::function<std::time_t()> clock);

private:
    // Everything a recalculation changes; committed only when the whole evaluation succeeds.
    struct State {
        KTriMesh refSrcMesh;
        KInt2Array vertCorres;
        KInt4Array triCorres;
        KVectorArray fitted;
        int srcFixP = 0;
        int trgFixP = 0;
        bool ready = false;
        std::unique_ptr<KTransferSystem> system;
    };
    // The output of one evaluation, swapped in on success.
    struct Output {
        KArray<KDouble4> points;
        KArray<KDouble3> normals;
        KIntArray normalVerts;
        KVector offset;
    };

    bool _recalculate(const KDeformationTransferInput& input, State& next, KDeformationTransferResult& result,
                      bool& fitted);
    bool _findTriangleCorrespondence(const KDeformationTransferInput& input, State& next, bool& fitted);
    bool _restoreCorrespondence(const KDeformationTransferInput& input, State& next);
    bool _transferPass(const KDeformationTransferInput& input, const State& state, const KVectorArray& source,
                       KDeformationTransferResult& result);
    bool _setOutPoints(const KTriMesh& target, const KVectorArray& source, const State& state);
    bool _setOutDeformedSource(const KVectorArray& fitted, const KTriMesh& target, const State& state);
    void _commit(State& next);
    void _fillOutputFlags(KDeformationTransferResult& result, const KTriMesh& copied) const;

    int _timestamp(std::string& text) const;
    void _progress(const std::string& message);
    bool _abort(const std::string& message, const std::string& libraryReport = std::string());

    KMessageSink* _sink = nullptr;
    int _threads = 0;
    std::string _failure;
    std::function<std::time_t()> _clock;

    short _aim = 0;
    short _calcMode = 0;
    short _iterCount = 0;

    // Kept between evaluations.
    State _state;
    Output _out;

    // Working data, kept so that its storage is reused.
    KSourceFitting _fitting;
    Output _next;
    KTriMesh _deformed;
};

}  // namespace Kavrin
