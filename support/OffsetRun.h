#pragma once
// The offset deformer driven the way its node is driven in Maya, with the shading network
// replaced by what a file can give: the red channel of an image sampled at each vertex's UV, or
// one constant red for every vertex (the default surface shader's case).

#include <string>

#include "KOffsetSolver.h"
#include "KPolyMesh.h"
#include "ObjIO.h"
#include "TextureImage.h"

namespace Kavrin {

class OffsetRun {
public:
    // texture: sampled at every vertex's UV (kept by reference); null: every sample is `red`.
    // threads: for the texture sampling (0: all cores).
    OffsetRun(const KTextureImage* texture, float red, double scale, float envelope, int threads);

    // The points of mesh after the offset, with one UV and one paint weight per vertex (weights
    // empty: all 1). Every vertex is iterated, in vertex order, with its averaged normal. Throws
    // KRunError when the engine fails, with its message.
    KVectorArray deform(const KPolyMesh& mesh, const KArray<KFloat2>& uvs, const KFloatArray& weights);

private:
    const KTextureImage* _texture;
    float _red;
    double _scale;
    float _envelope;
    int _threads;
    KOffsetSolver _solver;
    KArray<KOffsetVertex> _vertices;
    KArray<KDouble3> _normals;
};


}  // namespace Kavrin
