#pragma once
// Collision passes of the relaxation deformer: vertices found inside a collider mesh are moved to
// its surface, as far as their multiplier for that collider says.
//
// A vertex is inside when a ray from it along the input mesh's vertex normal crosses the collider
// an odd number of times within the reach (the diagonal of the collider's box and the mesh's box
// added together); it then moves to the closest point of the collider's surface, or the
// multiplier's share of the way there. Colliders whose box misses the mesh's box cost nothing.
// Nothing is kept between evaluations except storage.

#include <vector>

#include "KArray.h"
#include "KTriMeshDistTree.h"

namespace Kavrin {

// One "mshCollider" element.
struct KRelaxationCollider {
    bool connected = true;           // its plug is connected; an unconnected element is skipped
    const KTriMesh* mesh = nullptr;  // world space; null when its data is not a mesh (skipped)
};

// An axis-aligned box; empty until a point is added.
struct KBox {
    double lo[3] = {0, 0, 0}, hi[3] = {0, 0, 0};
    bool empty = true;
    void expand(double x, double y, double z);
    // Inclusive overlap test (tolerance 0); false when either box is empty.
    bool intersects(const KBox& o) const;
    double width() const { return empty ? 0.0 : hi[0] - lo[0]; }
    double height() const { return empty ? 0.0 : hi[1] - lo[1]; }
    double depth() const { return empty ? 0.0 : hi[2] - lo[2]; }
};

class KRelaxationCollisions {
public:
    // Ray tolerance of the inside test.
    static const float kTolerance;

    // Sets up one evaluation: the box of the world-space input points, and for every collider its
    // box, reach and search tree. Colliders that are unconnected, not meshes or whose box misses
    // the mesh's box are skipped by every pass of the evaluation.
    void prepare(const KDouble3* worldPoints, int count, const KRelaxationCollider* colliders, int numColliders);

    // One collision pass over points (count of them), collider after collider in order. weights:
    // the deformer weights (null: all 1); a vertex below 0.001 is left alone. multipliers: count
    // rows of numColliders values (null: all 0). normals: the input mesh's unit vertex normals.
    // Vertices are independent within a collider, so the pass runs in parallel with the same
    // result as in order.
    void collide(KDouble3* points, int count, const float* weights, const double* multipliers,
                 const KVector* normals, int threads);

    // How many colliders the last prepare() kept active.
    int activeColliders() const;

private:
    struct Collider {
        bool active = false;
        float reach = 0.0f;
        float certRadius = 0.0f;  // the radius of the certificates (see RayMemo)
        KTriMeshDistTree tree{2, 20};
    };
    std::vector<Collider> _colliders;
    // Per vertex and collider in this evaluation, what spares later inside tests their ray cast:
    // the source of the last cast and whether it crossed an odd number of times (the same source
    // gives the same answer), and a certificate: the few leaves of the collider's tree that rays
    // from anywhere within certRadius of its anchor could meet, so that a source that stays that
    // close is cast against those leaves alone (none: it is outside without a cast).
    static const int kMemoLeaves = 6;
    struct RayMemo {
        KVector cast;    // x is NaN until the first cast
        KVector anchor;  // x is NaN when there is no certificate
        bool odd = false;
        bool tried = false;  // a certificate was tried at the last cast and failed
        int numLeaves = 0;
        KTriMeshDistTree::LeafRun leaves[kMemoLeaves] = {};
    };
    std::vector<RayMemo> _rayMemos;
    // The triangle of the last closest point found for each vertex and collider in this
    // evaluation (-1: none yet): the hint of the vertex's next search, which then starts with a
    // tight bound (the answer does not depend on it).
    std::vector<int> _lastTriangle;
    int _count = 0;
    int _numColliders = 0;  // the colliders of the last prepare()
};

}  // namespace Kavrin
