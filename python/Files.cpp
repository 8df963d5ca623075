// The strict file readers and the writers' formats, for the package's read_* and write_*
// functions (which write the bytes themselves, atomically).

#include "Engine.h"
#include "MarkerFile.h"
#include "ObjIO.h"
#include "PointCache.h"
#include "ValueFile.h"
#include "VertexNormalsUVs.h"

namespace KavrinPython {

namespace {

py::tuple ReadMesh(const std::string& path, bool withUvs) {
    KCornerUVs corners;
    const KPolyMesh mesh = ReadObj(path, withUvs ? &corners : nullptr);
    if (!withUvs) return py::make_tuple(PointsArray(mesh.points), FacesObject(mesh));
    const KVertexUVs uvs = VertexUVs(mesh, corners);
    py::array_t<float> u({static_cast<py::ssize_t>(uvs.uvs.length()), py::ssize_t(2)});
    std::copy(&uvs.uvs.data()->v[0], &uvs.uvs.data()->v[0] + 2 * uvs.uvs.size(), u.mutable_data());
    return py::make_tuple(PointsArray(mesh.points), FacesObject(mesh), u);
}

py::bytes FormatMesh(py::handle points, py::handle faces) {
    const Points p(points, "points", false);
    KPolyMesh mesh;
    p.frame(0, mesh.points);
    Faces(faces, mesh.numVertices(), "faces", mesh);
    try {
        return py::bytes(FormatObj(mesh));
    } catch (const KFileError& e) {
        throw KInputError(e.what());
    }
}

py::tuple ReadCache(const std::string& path) {
    const KPointCache cache = ReadPointCache(path);
    py::array_t<float> frames({static_cast<py::ssize_t>(cache.frames()), static_cast<py::ssize_t>(cache.points),
                               py::ssize_t(3)});
    std::copy(cache.xyz.begin(), cache.xyz.end(), frames.mutable_data());
    py::array_t<float> times(static_cast<py::ssize_t>(cache.times.size()), cache.times.data());
    return py::make_tuple(frames, cache.startFrame, cache.sampleRate, times);
}

py::bytes FormatCache(py::handle frames, const std::string& format, double start, double rate, py::handle times) {
    const Points p(frames, "frames", true);
    if (!p.isBatch()) throw KInputError("frames: expected a batch (frames, n, 3)");
    KPointCache cache;
    cache.points = p.count();
    KVectorArray frame;
    for (int f = 0; f < p.frames(); ++f) {
        p.frame(f, frame);
        for (const KVector& v : frame) cache.xyz.insert(cache.xyz.end(), {v.x, v.y, v.z});
    }
    cache.startFrame = static_cast<float>(start);
    cache.sampleRate = static_cast<float>(rate);
    if (!times.is_none()) {
        const py::array_t<double> t = Reals(times, "times", 0);
        cache.times.assign(t.data(), t.data() + t.size());
    }
    try {
        return py::bytes(FormatPointCache(cache, format == "mdd" ? KPointCacheFormat::kMDD : KPointCacheFormat::kPC2));
    } catch (const KFileError& e) {
        throw KInputError(e.what());
    }
}

py::array_t<int> ReadMarkerPairs(const std::string& path, int sourceVertices, int targetVertices) {
    const KIntArray pairs = ReadMarkers(path, sourceVertices, targetVertices);
    py::array_t<int> out({static_cast<py::ssize_t>(pairs.length() / 2), py::ssize_t(2)});
    std::copy(pairs.begin(), pairs.end(), out.mutable_data());
    return out;
}

py::array_t<double> ReadValueFile(const std::string& path, int count, py::handle lowest, py::handle highest) {
    if (lowest.is_none() != highest.is_none()) throw KInputError("give both lowest and highest, or neither");
    const KValueRange range{lowest.is_none() ? 0.0 : lowest.cast<double>(),
                            highest.is_none() ? 0.0 : highest.cast<double>()};
    const KArray<double> values = ReadValues(path, count, lowest.is_none() ? nullptr : &range);
    return py::array_t<double>(static_cast<py::ssize_t>(values.length()), values.data());
}

}  // namespace

void BindFiles(py::module_& m) {
    m.def("_read_obj", &ReadMesh, py::arg("path"), py::arg("uvs"));
    m.def("_format_obj", &FormatMesh, py::arg("points"), py::arg("faces"));
    m.def("_read_point_cache", &ReadCache, py::arg("path"));
    m.def("_format_point_cache", &FormatCache, py::arg("frames"), py::arg("format"), py::arg("start_frame"),
          py::arg("sample_rate"), py::arg("times"));
    m.def("read_markers", &ReadMarkerPairs, py::arg("path"), py::arg("source_vertices"), py::arg("target_vertices"),
          R"(The marker pairs of a file (one "source target" pair a line, zero-based) as a (k, 2) int32 array,
checked against the meshes' vertex counts.)");
    m.def("read_values", &ReadValueFile, py::arg("path"), py::arg("count") = -1, py::arg("lowest") = py::none(),
          py::arg("highest") = py::none(),
          R"(The per-vertex values of a file (one number a line) as float64; with count >= 0 there must be that
many, with lowest and highest each must lie between them.)");
}

}  // namespace KavrinPython
