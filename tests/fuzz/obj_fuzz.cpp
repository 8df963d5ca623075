// libFuzzer target for the OBJ reader: any text either reads or is refused with a KFileError,
// and what reads is written back as text that reads to the same mesh and texture coordinates.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "ObjIO.h"

using namespace Kavrin;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    KPolyMesh mesh;
    KCornerUVs uvs;
    try {
        mesh = ParseObj(text, "fuzz.obj", &uvs);
    } catch (const KFileError&) {
        return 0;
    }
    if (!mesh.valid() || uvs.corners.length() != mesh.faceVertices.length()) std::abort();
    for (int c : uvs.corners)
        if (c < -1 || c >= uvs.uvs.length()) std::abort();
    const KPolyMesh back = ParseObj(FormatObj(mesh), "again.obj");
    if (back.faceCounts != mesh.faceCounts || back.faceVertices != mesh.faceVertices) std::abort();
    for (int i = 0; i < mesh.numVertices(); ++i)
        if (!(back.points[i] == mesh.points[i])) std::abort();
    return 0;
}
