// kavrin.Wrap: a mesh bound to the closest triangles of a driver, on point arrays.

#include <memory>

#include "Engine.h"
#include "WrapRun.h"

namespace KavrinPython {

namespace {

class Wrap {
public:
    Wrap(py::handle driver, py::handle mesh, int threads) : _driver(Mesh(driver, "driver")), _mesh(Mesh(mesh, "mesh")) {
        check(threads);
        {
            py::gil_scoped_release release;
            _run.reset(new WrapRun(_driver, _mesh, threads, _sink));
        }
        _sink.forward();
    }

    static std::unique_ptr<Wrap> FromBinding(py::handle driver, py::handle mesh, py::handle binding, int threads) {
        const std::string kind = "wrap";
        std::unique_ptr<Wrap> w(new Wrap(Mesh(driver, "driver"), Mesh(mesh, "mesh")));
        w->check(threads);
        const py::dict b = CheckBinding(binding, kind);
        RequireSameFaces(b, "driver_faces", w->_driver, "driver", kind);
        KTriMesh triangles;
        w->_driver.triangulate(triangles);
        const py::array_t<int> bound =
            Integers(Item(b, "triangles", kind), kind + " binding: triangles", 0, triangles.numTriangles() - 1);
        if (bound.ndim() != 1) throw KInputError(kind + " binding: triangles must be a 1-D array");
        RequireVertexCount(static_cast<int>(bound.shape(0)), kind + " binding: triangles", w->_mesh.numVertices(),
                           "mesh");
        const Points offsets(Item(b, "offsets", kind), kind + " binding: offsets", false, w->_mesh.numVertices(),
                             "mesh");
        offsets.requireComputable();
        KIntArray t(static_cast<int>(bound.shape(0)));
        std::copy(bound.data(), bound.data() + bound.size(), t.begin());
        KVectorArray o;
        offsets.frame(0, o);
        {
            py::gil_scoped_release release;
            w->_run.reset(new WrapRun(w->_driver, w->_mesh, t, o, threads, w->_sink));
        }
        w->_sink.forward();
        return w;
    }

    py::array_t<float> deform(py::handle poses) {
        const Points in(poses, "points", true, _driver.numVertices(), "driver");
        return EvaluateFrames(in, _driver, _pose, _mesh.numVertices(), _lock, _sink,
                              [&](int, const KPolyMesh& pose) { return _run->deform(pose); });
    }

    py::dict binding() const {
        py::dict b = NewBinding("wrap");
        const KIntArray& t = _run->boundTriangles();
        py::array_t<int> triangles(static_cast<py::ssize_t>(t.length()));
        std::copy(t.begin(), t.end(), triangles.mutable_data());
        b["triangles"] = triangles;
        b["offsets"] = PointsArray(_run->boundOffsets());
        b["driver_faces"] = FacesFingerprint(_driver);
        return b;
    }

private:
    Wrap(KPolyMesh driver, KPolyMesh mesh) : _driver(std::move(driver)), _mesh(std::move(mesh)) {}
    void check(int threads) {
        CountInRange(threads, 0, kMaxThreads, "threads");
        if (_driver.numFaces() == 0) throw KInputError("driver: the driver has no faces to bind to");
    }

    KPolyMesh _driver, _mesh;
    std::unique_ptr<WrapRun> _run;
    KPolyMesh _pose;  // the frames' mesh, see EvaluateFrames
    std::mutex _lock;
    PythonSink _sink;
};

}  // namespace

void BindWrap(py::module_& m) {
    py::class_<Wrap>(m, "Wrap", R"(A mesh that follows the closest triangles of a driver mesh (``kavrin wrap``).

Every vertex of ``mesh`` is bound where it lies to its closest triangle of the driver at rest,
with its offset from that triangle's plane; each driver pose then carries it.

Args:
    driver: the driver in its rest pose, ``(points, faces)``.
    mesh: the mesh that follows, ``(points, faces)``.
    threads: worker threads, 0 for all cores.
)")
        .def(py::init<py::handle, py::handle, int>(), py::arg("driver"), py::arg("mesh"), py::arg("threads") = 0,
             "Binds every vertex of ``mesh`` to its closest triangle of the driver at rest (the GIL is released).")
        .def_static("from_binding", &Wrap::FromBinding, py::arg("driver"), py::arg("mesh"), py::arg("binding"),
                    py::arg("threads") = 0,
                    R"(A Wrap that uses a saved binding (``Wrap.binding``) instead of binding again.)")
        .def("deform", &Wrap::deform, py::arg("points"),
             R"(The mesh following each driver pose: ``points`` is one driver pose ``(n, 3)`` or a batch
``(frames, n, 3)``; the result has the mesh's vertex count, float32.)")
        .def_property_readonly("binding", &Wrap::binding,
                               "The binding as data: each vertex's driver triangle and its offset.");
}

}  // namespace KavrinPython
