// kavrin.Offset: vertices pushed along their normals by a texture's red channel, on point arrays.

#include <memory>

#include "Engine.h"
#include "OffsetRun.h"

namespace KavrinPython {

namespace {

class Offset {
public:
    Offset(py::handle mesh, py::handle texture, py::handle red, py::handle uvs, double scale, double envelope,
           py::handle weights, int threads)
        : _mesh(Mesh(mesh, "mesh")) {
        const int nv = _mesh.numVertices();
        if (texture.is_none() == red.is_none()) throw KInputError("give one of texture and red");
        const float r = red.is_none() ? 0.0f
                                      : static_cast<float>(InRange(Number(red, "red"), -kLargestCoordinate,
                                                                   kLargestCoordinate, "red"));
        if (py::isinstance<py::str>(texture)) {
            _texture = ReadTextureRed(texture.cast<std::string>());
        } else if (!texture.is_none()) {
            const py::array_t<double> t = Reals(texture, "texture", -1);
            RequireValues(t.data(), static_cast<int>(t.size()), -1, nullptr, "texture");
            _texture = KTextureImage(static_cast<int>(t.shape(1)), static_cast<int>(t.shape(0)),
                                     std::vector<float>(t.data(), t.data() + t.size()));
        }
        if (!texture.is_none()) {
            if (uvs.is_none()) throw KInputError("uvs: a texture is sampled at each vertex's UV; give uvs (n, 2)");
            const py::array_t<double> u = Reals(uvs, "uvs", 2);
            RequireValues(u.data(), static_cast<int>(u.size()), -1, nullptr, "uvs");
            RequireVertexCount(static_cast<int>(u.shape(0)), "uvs", nv, "mesh");
            _uvs.setLength(nv, false);
            for (int i = 0; i < nv; ++i)
                _uvs[i] = KFloat2{static_cast<float>(u.at(i, 0)), static_cast<float>(u.at(i, 1))};
        }
        if (!weights.is_none())
            for (double w : Values(weights, nv, nullptr, "weights")) _weights.push_back(static_cast<float>(w));
        _run.reset(new OffsetRun(texture.is_none() ? nullptr : &_texture, r,
                                 InRange(scale, -kLargestCoordinate, kLargestCoordinate, "scale"),
                                 static_cast<float>(InRange(envelope, kEnvelopeLowest, kEnvelopeHighest, "envelope")),
                                 CountInRange(threads, 0, kMaxThreads, "threads")));
    }

    py::array_t<float> deform(py::handle points) {
        const Points in(points, "points", true, _mesh.numVertices(), "mesh");
        return EvaluateFrames(in, _mesh, _pose, _mesh.numVertices(), _lock, _sink,
                              [&](int, const KPolyMesh& pose) { return _run->deform(pose, _uvs, _weights); });
    }

private:
    KPolyMesh _mesh;
    KTextureImage _texture;
    KArray<KFloat2> _uvs;
    KFloatArray _weights;
    std::unique_ptr<OffsetRun> _run;
    KPolyMesh _pose;  // the frames' mesh, see EvaluateFrames
    std::mutex _lock;
    PythonSink _sink;
};

}  // namespace

void BindOffset(py::module_& m) {
    py::class_<Offset>(
        m, "Offset",
        R"(Vertices pushed along their averaged normals by envelope x scale x red x weight (``kavrin offset``).

Args:
    mesh: the mesh, ``(points, faces)`` (its faces give the normals).
    texture: an image file's path (its red channel) or a 2-D float array of reds (row 0 at the top),
        sampled bilinearly at each vertex's UV, repeating; or
    red: one red for every vertex instead, -1e9 to 1e9.
    uvs: ``(n, 2)`` texture coordinates, one per vertex (needed with a texture).
    scale: distance per unit of red, -1e9 to 1e9; envelope: -2 to 2.
    weights: per-vertex weights; threads: worker threads, 0 for all cores.
)")
        .def(py::init<py::handle, py::handle, py::handle, py::handle, double, double, py::handle, int>(),
             py::arg("mesh"), py::arg("texture") = py::none(), py::arg("red") = py::none(), py::arg("uvs") = py::none(),
             py::arg("scale") = 1.0, py::arg("envelope") = 1.0, py::arg("weights") = py::none(), py::arg("threads") = 0,
             "Checks the mesh, the texture or red, the UVs and the weights, and reads an image file.")
        .def("deform", &Offset::deform, py::arg("points"),
             R"(The mesh displaced at each pose: ``points`` is ``(n, 3)`` or a batch ``(frames, n, 3)``; float32.)");
}

}  // namespace KavrinPython
