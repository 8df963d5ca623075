#pragma once
// Wrap: every point of a deformed geometry follows one triangle of a driver mesh.
//
// The bind attaches each point (in world space) to its closest driver triangle and stores its
// offset from its projection onto that triangle's plane. Every later evaluation projects the
// incoming point onto the plane of its triangle at the driver's current position, by barycentric
// weights computed in single precision, and adds the stored offset back. A triangle moving along
// its normal carries its points, a turn of its plane turns them, and sliding within its own
// plane leaves them where they are.
//
// The engine keeps the binding between evaluations and makes every decision: when to bind, when
// to load a stored binding, what fails. The node's attributes come in as plain values in
// KWrapBindingInput; the result says which of them to write back. KWrapBindingAttributes keeps
// those attributes in memory for hosts without a scene.

#include <string>

#include "KMessageSink.h"
#include "KOutcome.h"
#include "KTriMesh.h"

namespace Kavrin {

// Written to the engine's output once per bind: the value of "binding" as the bind read it.
extern const char* const kWrapBindTrace;  // "0\n"

// Failure messages.
extern const char* const kWrapDriverNoTriangles;
extern const char* const kWrapDriverBadTriangles;
extern const char* const kWrapNoStoredBinding;
// A point the bind finds no triangle for (its position is NaN or infinite, or it lies farther
// than 1e30 from the driver).
std::string WrapUnboundPointMessage(int point);
// The binding (held or stored) does not have one triangle and one offset per point.
std::string WrapBindingSizeMessage(int triangles, int offsets, int points);
// The binding names a triangle the current driver does not have.
std::string WrapBindingTriangleMessage(int triangle, int driverTriangles);

// One evaluation's inputs: the envelope, the driver, the deformed geometry's points and the
// node's attributes.
struct KWrapBindingInput {
    float envelope = 1.0f;
    // "driverMesh" as triangles; null when the attribute holds no mesh (the points are then left
    // as they are, without a message).
    const KTriMesh* driver = nullptr;
    // The deformed geometry's points in transform space, four doubles each (x, y, z, w), in the
    // iterator's order; pointCount of them.
    const double* points = nullptr;
    int pointCount = 0;
    // Local-to-world matrix of the deformed geometry (row-vector convention: world = p * M).
    double localToWorld[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    bool binding = false;  // "binding"
    // "bindTriangles" and "bindOffsets", the binding stored with the node: read by the host only
    // when KWrapBinding::storedBindingNeeded() says so; null when an attribute holds no data.
    const KIntArray* bindTriangles = nullptr;
    const KVectorArray* bindOffsets = nullptr;
    int threads = 0;  // team size of the parallel loops; 0 or less: the OpenMP default
};

// What the host writes back, in this order, after one evaluation.
struct KWrapBindingResult {
    KOutcome outcome;
    bool writeBindData = false;  // write boundTriangles() / boundOffsets() into "bindTriangles" / "bindOffsets"
    bool writeBinding = false;   // write true to "binding"
};

class KWrapBinding {
public:
    // False when the envelope switches the deformer off (below 1e-30); above that the result is
    // never blended.
    static bool Active(float envelope) { return !(envelope < 1e-30f); }

    // Whether evaluate(input) loads the stored binding, so that a host reads "bindTriangles" and
    // "bindOffsets" only then: "binding" is on and the engine holds no binding (a reopened scene).
    bool storedBindingNeeded(const KWrapBindingInput& input) const;

    // One evaluation. A bind leaves the points untouched (outcome kUntouched) and asks for the
    // binding to be stored; a reconstruction gives a deformed outcome with points() holding one
    // world-space point per input point. Failures leave the held binding as it was.
    KWrapBindingResult evaluate(const KWrapBindingInput& input, KMessageSink& sink);

    // The reconstructed points, world space, one per input point.
    const KVectorArray& points() const { return _wrapped; }
    // The binding held: per point its driver triangle and its offset from that triangle's plane.
    const KIntArray& boundTriangles() const { return _triangles; }
    const KVectorArray& boundOffsets() const { return _offsets; }
    bool hasBinding() const { return _haveBinding; }

    // The value written back for point idx: its reconstructed position with the current
    // homogeneous weight w, times the inverse local-to-world matrix.
    void objectPoint(int idx, double w, const double inverseMatrix[4][4], double out[4]) const;

private:
    KOutcome _bind(const KTriMesh& driver, const KWrapBindingInput& in);
    KOutcome _loadStored(const KTriMesh& driver, const KWrapBindingInput& in);
    void _reconstruct(const KTriMesh& driver, const KWrapBindingInput& in);

    bool _haveBinding = false;
    int _maxTriangle = -1;  // largest triangle index of the binding, checked against each driver
    KIntArray _triangles;
    KVectorArray _offsets;
    KVectorArray _wrapped;
};

// The wrap node's stored attributes held in memory, for running the engine without a scene (the
// command line, tests, benchmarks): evaluate() fills the input from them and writes back what the
// result asks for, as the node does with its data block.
struct KWrapBindingAttributes {
    bool binding = false;
    bool hasBindTriangles = false;
    KIntArray bindTriangles;
    bool hasBindOffsets = false;
    KVectorArray bindOffsets;

    // points: the deformed geometry in world space (w = 1, identity matrix).
    KWrapBindingResult evaluate(KWrapBinding& engine, const KTriMesh& driver, const KVectorArray& points,
                                float envelope, int threads, KMessageSink& sink);

private:
    std::vector<double> _points;  // the points as the host hands them over, kept for their storage
};

}  // namespace Kavrin
