// kavrin.DeltaMush: delta mush bound to a rest mesh, on point arrays.

#include <memory>

#include "DeltaMushRun.h"
#include "Engine.h"

namespace KavrinPython {

namespace {

class DeltaMush {
public:
    DeltaMush(py::handle rest, int iterations, double envelope, int threads) : _rest(Mesh(rest, "rest")) {
        setUp(envelope, threads);
        CountInRange(iterations, 1, 10000, "iterations");
        DeltaMushRun::RefuseLooseVertices(_rest, "rest");
        _run.reset(new DeltaMushRun(_rest, iterations, threads));
    }

    static std::unique_ptr<DeltaMush> FromBinding(py::handle rest, py::handle binding, double envelope, int threads) {
        std::unique_ptr<DeltaMush> d(new DeltaMush(Mesh(rest, "rest")));
        d->setUp(envelope, threads);
        const py::dict b = CheckBinding(binding, "deltamush");
        RequireSameFaces(b, "faces", d->_rest, "rest", "deltamush");
        const int iterations =
            CountInRange(WholeNumber(Item(b, "iterations", "deltamush"), "deltamush binding: iterations"), 1, 10000,
                         "deltamush binding: iterations");
        const py::array_t<double> delta = Reals(Item(b, "delta", "deltamush"), "deltamush binding: delta", 3);
        RequireVertexCount(static_cast<int>(delta.shape(0)), "deltamush binding: delta", d->_rest.numVertices(),
                           "rest");
        KArray<KDouble3> deltas(static_cast<int>(delta.shape(0)));
        for (int i = 0; i < deltas.length(); ++i)
            deltas[i] = KDouble3{delta.at(i, 0), delta.at(i, 1), delta.at(i, 2)};
        d->_run.reset(new DeltaMushRun(deltas, iterations, threads));
        return d;
    }

    py::array_t<float> deform(py::handle points) {
        const Points in(points, "points", true, _rest.numVertices(), "rest");
        return EvaluateFrames(in, _rest, _pose, _rest.numVertices(), _lock, _sink,
                              [&](int, const KPolyMesh& pose) { return _run->deform(pose, _envelope); });
    }

    py::dict binding() {
        py::gil_scoped_release release;
        EngineLock held(_lock);
        const KArray<KDouble3>& deltas = _run->deltas();
        py::gil_scoped_acquire acquire;
        py::dict b = NewBinding("deltamush");
        b["iterations"] = _run->iterations();
        py::array_t<double> delta({static_cast<py::ssize_t>(deltas.length()), py::ssize_t(3)});
        for (int i = 0; i < deltas.length(); ++i)
            for (int k = 0; k < 3; ++k) delta.mutable_at(i, k) = deltas[i][k];
        b["delta"] = delta;
        b["faces"] = FacesFingerprint(_rest);
        return b;
    }

private:
    explicit DeltaMush(KPolyMesh rest) : _rest(std::move(rest)) {}
    void setUp(double envelope, int threads) {
        _envelope = static_cast<float>(InRange(envelope, kEnvelopeLowest, kEnvelopeHighest, "envelope"));
        CountInRange(threads, 0, kMaxThreads, "threads");
    }

    KPolyMesh _rest;
    float _envelope = 1.0f;
    std::unique_ptr<DeltaMushRun> _run;
    KPolyMesh _pose;  // the frames' mesh, see EvaluateFrames
    std::mutex _lock;
    PythonSink _sink;
};

}  // namespace

void BindDeltaMush(py::module_& m) {
    py::class_<DeltaMush>(m, "DeltaMush", R"(Delta mush bound to a rest mesh.

The rest mesh is smoothed ``iterations`` times over its polygon edges and every vertex keeps its
offset from the smoothed surface in a tangent frame; each pose is smoothed the same way and the
offsets are put back, so skinning artefacts go and detail stays (``kavrin deltamush``).

Args:
    rest: the rest mesh as ``(points, faces)``.
    iterations: smoothing sweeps, 1 to 10,000.
    envelope: on/off switch, -2 to 2: below 1e-30 the poses come back untouched.
    threads: worker threads, 0 for all cores.
)")
        .def(py::init<py::handle, int, double, int>(), py::arg("rest"), py::arg("iterations") = 15,
             py::arg("envelope") = 1.0, py::arg("threads") = 0,
             "Checks the rest mesh and the options; the first evaluation (or ``binding``) binds.")
        .def_static("from_binding", &DeltaMush::FromBinding, py::arg("rest"), py::arg("binding"),
                    py::arg("envelope") = 1.0, py::arg("threads") = 0,
                    R"(A DeltaMush that uses a saved binding (``DeltaMush.binding``) instead of binding again.

The binding must have been made on a rest mesh with these faces and vertex count.)")
        .def("deform", &DeltaMush::deform, py::arg("points"),
             R"(The poses after delta mush: ``points`` is one pose ``(n, 3)`` or a batch ``(frames, n, 3)``
(float32 or float64); the result is float32 of the same shape.)")
        .def_property_readonly("binding", &DeltaMush::binding,
                               R"(The binding as data: a dict with the sweep count and one delta per vertex.)");
}

}  // namespace KavrinPython
