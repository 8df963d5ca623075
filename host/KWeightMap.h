#pragma once
// Painted per-vertex maps as the deformers read them.

namespace Kavrin {

// A map that could not be read, or that holds no values, was never painted: it becomes one 1.0
// per vertex. Returns true when values was replaced, so that the caller stores it back and the
// node keeps a full-weight map from then on; a stored map is used as it is (its length is the
// reader's business). DoubleArray offers length(), setLength(n) and operator[] (the host's
// double array does).
template <typename DoubleArray>
bool ResolveWeightMap(bool readOk, DoubleArray& values, int numVertices) {
    if (readOk && values.length() > 0) return false;
    // Guard (behaviour note "Maya layer: GetMapValuesOrFull with a negative vertex count").
    const unsigned int n = numVertices > 0 ? static_cast<unsigned int>(numVertices) : 0u;
    values.setLength(n);
    for (unsigned int i = 0; i < n; ++i) values[i] = 1.0;
    return true;
}

}  // namespace Kavrin
