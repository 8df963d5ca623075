#include "ObjIO.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include <tiny_obj_loader.h>

namespace Kavrin {

namespace {

std::string firstLine(const std::string& text) {
    std::string line = text.substr(0, text.find('\n'));
    while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
    return line;
}

}  // namespace

KPolyMesh ReadObj(const std::string& path, KCornerUVs* uvs) {
    {
        std::ifstream probe(path);
        if (!probe) throw KFileError(path + ": cannot open the file");
    }
    tinyobj::ObjReaderConfig config;
    config.triangulate = false;
    config.vertex_color = false;
    tinyobj::ObjReader reader;
    if (!reader.ParseFromFile(path, config)) {
        const std::string why = firstLine(reader.Error());
        throw KFileError(path + ": not a readable OBJ file" + (why.empty() ? "" : " (" + why + ")"));
    }
    if (reader.Warning().find("invalid vertex index") != std::string::npos)
        throw KFileError(path + ": a face refers to a vertex that does not exist");

    const tinyobj::attrib_t& attrib = reader.GetAttrib();
    KPolyMesh mesh;
    const int nv = static_cast<int>(attrib.vertices.size() / 3);
    if (nv == 0) throw KFileError(path + ": no vertices");
    mesh.points.setLength(nv, false);
    for (int i = 0; i < nv; ++i)
        mesh.points[i] = KVector(attrib.vertices[3 * i], attrib.vertices[3 * i + 1], attrib.vertices[3 * i + 2]);

    const int nt = static_cast<int>(attrib.texcoords.size() / 2);
    if (uvs) {
        uvs->uvs.setLength(nt, false);
        for (int i = 0; i < nt; ++i) uvs->uvs[i] = KFloat2{attrib.texcoords[2 * i], attrib.texcoords[2 * i + 1]};
        uvs->corners.clear();
    }
    for (const tinyobj::shape_t& shape : reader.GetShapes()) {
        size_t at = 0;
        for (size_t f = 0; f < shape.mesh.num_face_vertices.size(); ++f) {
            const int count = static_cast<int>(shape.mesh.num_face_vertices[f]);
            if (count < 3) {
                std::ostringstream s;
                s << path << ": face " << mesh.numFaces() + 1 << " has fewer than three vertices";
                throw KFileError(s.str());
            }
            mesh.faceCounts.push_back(count);
            for (int k = 0; k < count; ++k) {
                const tinyobj::index_t& index = shape.mesh.indices[at + k];
                mesh.faceVertices.push_back(index.vertex_index);
                if (!uvs) continue;
                if (index.texcoord_index >= nt)
                    throw KFileError(path + ": a face refers to a texture coordinate that does not exist");
                uvs->corners.push_back(index.texcoord_index < 0 ? -1 : index.texcoord_index);
            }
            at += static_cast<size_t>(count);
        }
    }
    if (!mesh.valid()) throw KFileError(path + ": a face refers to a vertex that does not exist");
    return mesh;
}

void WriteObj(const std::string& path, const KPolyMesh& mesh) {
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (!file) throw KFileError(path + ": cannot write the file");
    // Nine significant digits give every float back exactly.
    for (const KVector& p : mesh.points) std::fprintf(file, "v %.9g %.9g %.9g\n", p.x, p.y, p.z);
    int at = 0;
    for (int count : mesh.faceCounts) {
        std::fputc('f', file);
        for (int k = 0; k < count; ++k) std::fprintf(file, " %d", mesh.faceVertices[at + k] + 1);
        std::fputc('\n', file);
        at += count;
    }
    const bool failed = std::ferror(file) != 0;
    if (std::fclose(file) != 0 || failed) throw KFileError(path + ": cannot write the file");
}

}  // namespace Kavrin
