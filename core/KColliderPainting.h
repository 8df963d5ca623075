#pragma once
// Painting a collider's multipliers through the relaxation deformer's one paintable collider map.
//
// The node keeps, per vertex v and collider index c, the multiplier
// "mshColliderVrtMultList"[v]."mshColliderVrtMult"[c]; a collider is known by the node connected
// into its "mshColliderTag" element. When a collider's transform is connected to "paintTrans",
// the node loads that collider's multipliers into "colliderMap" for the paint tool, and every
// change painted into "colliderMap" is written back, clamped to [0, 1]. These functions make
// those decisions; the node only reads and writes its plugs.

#include <string>
#include <vector>

#include "KArray.h"
#include "KMessageSink.h"

namespace Kavrin {

extern const char* const kInvalidColliderConnections;  // "Invalid collider connections."

// One "mshColliderTag" element as the node sees it.
struct KColliderTag {
    int logicalIndex = 0;
    int connections = 0;         // incoming connections of the element
    bool fromNode = false;       // its one source plug belongs to the node looked for
};

// The collider index of the node: the logical index of the first tag element (in physical order)
// whose one incoming connection comes from it. An element without exactly one incoming connection
// reports kInvalidColliderConnections through sink and is passed over. False when none matches.
bool FindColliderIndex(const std::vector<KColliderTag>& tags, KMessageSink& sink, int& index);

// One "mshColliderVrtMultList" element: its vertex (logical index) and its "mshColliderVrtMult"
// children as (logical index, value) pairs.
struct KMultiplierElement {
    int vertex = 0;
    std::vector<std::pair<int, double> > values;
};

// The multipliers of collider index for all vertices: weights[v] is the value of the child with
// logical index `index` of the element of vertex v, 0 where there is none. The array is only as
// long as the highest vertex with a non-zero multiplier (plus one).
void ColliderWeights(const std::vector<KMultiplierElement>& list, int index, KArray<double>& weights);

// A painted value as stored: clamped to [0, 1]; NaN gives 0.
double ClampMultiplier(double painted);

// What painting "colliderMap" changes: for each vertex v below painted.length(), the clamped
// value when it differs from stored (ColliderWeights of the collider; 0 past its end).
struct KMultiplierWrite {
    int vertex;
    double value;
};
void PaintedMultiplierWrites(const KArray<double>& painted, const KArray<double>& stored,
                             std::vector<KMultiplierWrite>& writes);

// The multiplier table of an evaluation: count rows of numColliders values, all 0, then every
// child (logical index c < numColliders) of every element (vertex v < count) of the list.
void MultiplierTable(const std::vector<KMultiplierElement>& list, int count, int numColliders,
                     KArray<double>& table);

}  // namespace Kavrin
