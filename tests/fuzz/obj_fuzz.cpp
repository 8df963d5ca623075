// libFuzzer target for the OBJ reader: any text either reads or is refused with a KFileError,
// what reads is written back as text that reads to the same mesh and texture coordinates, and
// what the fast path reads the strict parser reads the same.

#include <cstdint>
#include <cstdlib>
#include <string>

#include "ObjCommonReader.h"
#include "ObjIO.h"

using namespace Kavrin;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    KPolyMesh fast;
    KCornerUVs fastUVs;
    const bool common = KObjCommonReader::ReadText(text.data(), text.size(), fast, &fastUVs);
    KPolyMesh mesh;
    KCornerUVs uvs;
    try {
        mesh = ParseObjStrict(text, "fuzz.obj", &uvs);
    } catch (const KFileError&) {
        if (common) std::abort();
        return 0;
    }
    if (common && (fast.points != mesh.points || fast.faceCounts != mesh.faceCounts ||
                   fast.faceVertices != mesh.faceVertices || fastUVs.uvs != uvs.uvs || fastUVs.corners != uvs.corners))
        std::abort();
    if (!mesh.valid() || uvs.corners.length() != mesh.faceVertices.length()) std::abort();
    for (int c : uvs.corners)
        if (c < -1 || c >= uvs.uvs.length()) std::abort();
    const KPolyMesh back = ParseObj(FormatObj(mesh), "again.obj");
    if (back.faceCounts != mesh.faceCounts || back.faceVertices != mesh.faceVertices) std::abort();
    for (int i = 0; i < mesh.numVertices(); ++i)
        if (!(back.points[i] == mesh.points[i])) std::abort();
    return 0;
}
