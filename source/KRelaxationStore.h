#pragma once
// The relaxation deformer's stored lists through the data block: the five binding lists and the
// collider multipliers. Compound arrays of arrays are read element by element (logical indices)
// and written with array builders.

#include <maya/MDataBlock.h>

#include <vector>

#include "KColliderPainting.h"
#include "KRelaxationBinding.h"

namespace KRelaxationStore {

// Reads the binding of vertices 0..count-1 (element v of each list by logical index; a missing
// element reads as an empty list, a missing height as 0).
void ReadBinding(MDataBlock& block, int count, Kavrin::KRelaxationBindingData& binding);

// Writes every list of the binding, replacing the stored arrays.
void WriteBinding(MDataBlock& block, const Kavrin::KRelaxationBindingData& binding);

// The elements of "mshColliderVrtMultList" with their "mshColliderVrtMult" children.
void ReadMultipliers(MDataBlock& block, std::vector<Kavrin::KMultiplierElement>& list);

}  // namespace KRelaxationStore
