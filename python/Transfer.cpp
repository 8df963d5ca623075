// kavrin.Transfer: deformation transfer from a source onto a target, on point arrays.

#include <memory>

#include "Engine.h"
#include "TransferRun.h"

namespace KavrinPython {

namespace {

class Transfer {
public:
    Transfer(py::handle sourceRest, py::handle target, py::handle markers, py::handle fixed, const std::string& mode,
             int iterations, int threads)
        : _source(Mesh(sourceRest, "source_rest")), _target(Mesh(target, "target")) {
        settle(markers, fixed, mode, iterations, threads);
        build(nullptr, nullptr);
    }

    static std::unique_ptr<Transfer> FromBinding(py::handle sourceRest, py::handle target, py::handle binding,
                                                 int threads) {
        const std::string kind = "transfer";
        std::unique_ptr<Transfer> t(new Transfer(Mesh(sourceRest, "source_rest"), Mesh(target, "target")));
        const py::dict b = CheckBinding(binding, kind);
        RequireSameFaces(b, "source_faces", t->_source, "source_rest", kind);
        RequireSameFaces(b, "target_faces", t->_target, "target", kind);
        t->settle(Item(b, "markers", kind), Item(b, "fixed", kind), py::str(Item(b, "mode", kind)),
                  WholeNumber(Item(b, "iterations", kind), kind + " binding: iterations"), threads);
        KTriMesh source, targetTriangles;
        t->_source.triangulate(source);
        t->_target.triangulate(targetTriangles);
        const py::array_t<int> pairs =
            Integers(Item(b, "pairs", kind), kind + " binding: pairs", -1, source.numTriangles() - 1);
        if (pairs.ndim() != 1 || pairs.shape(0) != targetTriangles.numTriangles())
            throw KInputError(kind + " binding: pairs holds " + std::to_string(pairs.size()) + " entries for " +
                              std::to_string(targetTriangles.numTriangles()) + " target triangles");
        KInt4Array pairing;
        pairing.setLength(static_cast<int>(pairs.shape(0)), false);
        for (int i = 0; i < pairing.length(); ++i) {
            const int s = pairs.at(i);
            pairing[i] = KInt4{s, -1, -1, s >= 0 ? 1 : 0};
        }
        const Points fitted(Item(b, "fitted_source", kind), kind + " binding: fitted_source", false,
                            t->_source.numVertices(), "source_rest");
        fitted.requireComputable();
        KVectorArray fittedPoints;
        fitted.frame(0, fittedPoints);
        t->build(&pairing, &fittedPoints);
        return t;
    }

    py::array_t<float> deform(py::handle poses) {
        const Points in(poses, "points", true, _source.numVertices(), "source_rest");
        return EvaluateFrames(in, _source, _pose, _target.numVertices(), _lock, _sink,
                              [&](int, const KPolyMesh& pose) { return _run->transfer(pose); });
    }

    py::array_t<int> pairing() const {
        const KInt4Array& p = _run->pairing();
        py::array_t<int> out(static_cast<py::ssize_t>(p.length()));
        for (int i = 0; i < p.length(); ++i) out.mutable_at(i) = p[i][3] > 0 ? p[i][0] : -1;
        return out;
    }
    py::array_t<float> fittedSource() const { return PointsArray(_run->fittedSource()); }

    py::dict binding() const {
        py::dict b = NewBinding("transfer");
        b["pairs"] = pairing();
        b["fitted_source"] = fittedSource();
        py::array_t<int> markers({static_cast<py::ssize_t>(_settings.markers.length() / 2), py::ssize_t(2)});
        std::copy(_settings.markers.begin(), _settings.markers.end(), markers.mutable_data());
        b["markers"] = markers;
        b["fixed"] = py::array_t<int>(2, std::vector<int>{_settings.fixedSource, _settings.fixedTarget}.data());
        b["mode"] = _settings.mode == KDeformationTransferSolver::kSameTopology ? "same" : "different";
        b["iterations"] = static_cast<int>(_settings.iterations);
        b["source_faces"] = FacesFingerprint(_source);
        b["target_faces"] = FacesFingerprint(_target);
        return b;
    }

private:
    Transfer(KPolyMesh source, KPolyMesh target) : _source(std::move(source)), _target(std::move(target)) {}

    // The settings, checked as kavrin transfer checks its options and files.
    void settle(py::handle markers, py::handle fixed, const std::string& mode, int iterations, int threads) {
        const int ns = _source.numVertices(), nt = _target.numVertices();
        const py::array_t<int> pairs = Integers(markers, "markers", 0, std::max(ns, nt) - 1);
        if (pairs.ndim() != 2 || pairs.shape(1) != 2 || pairs.shape(0) < 1)
            throw KInputError("markers: expected (source, target) vertex pairs as a (k, 2) array with k >= 1");
        std::vector<int> pairOf(static_cast<size_t>(ns), -1);
        for (py::ssize_t i = 0; i < pairs.shape(0); ++i) {
            const int s = pairs.at(i, 0), t = pairs.at(i, 1);
            if (s >= ns || t >= nt)
                throw KInputError("markers: pair " + std::to_string(i) + " (" + std::to_string(s) + ", " +
                                  std::to_string(t) + ") names a vertex outside the meshes (source " +
                                  std::to_string(ns) + " vertices, target " + std::to_string(nt) + ")");
            // Decision (behaviour note "A source vertex marked twice")
            if (pairOf[static_cast<size_t>(s)] >= 0)
                throw KInputError("markers: source vertex " + std::to_string(s) + " is marked by pairs " +
                                  std::to_string(pairOf[static_cast<size_t>(s)]) + " and " + std::to_string(i));
            pairOf[static_cast<size_t>(s)] = static_cast<int>(i);
            _settings.markers.insert(_settings.markers.end(), {s, t});
        }
        _settings.fixedSource = _settings.markers[0];
        _settings.fixedTarget = _settings.markers[1];
        if (!fixed.is_none()) {
            const py::array_t<int> f = Integers(fixed, "fixed", 0, 0x7fffffff);
            if (f.size() != 2) throw KInputError("fixed: expected a (source, target) vertex pair");
            _settings.fixedSource = f.data()[0];
            _settings.fixedTarget = f.data()[1];
            if (_settings.fixedSource >= ns)
                throw KInputError("fixed: source vertex " + std::to_string(_settings.fixedSource) +
                                  " is outside the source mesh");
            if (_settings.fixedTarget >= nt)
                throw KInputError("fixed: target vertex " + std::to_string(_settings.fixedTarget) +
                                  " is outside the target mesh");
        }
        if (mode != "same" && mode != "different")
            throw KInputError("mode: '" + mode + "' is not same or different");
        _settings.mode = mode == "same" ? KDeformationTransferSolver::kSameTopology
                                        : KDeformationTransferSolver::kDifferentTopology;
        if (mode == "same" && ns != nt)
            throw KInputError("mode 'same' needs meshes with the same vertices; the source has " + std::to_string(ns) +
                              ", the target " + std::to_string(nt));
        _settings.iterations = static_cast<short>(CountInRange(iterations, 0, 30, "iterations"));
        _settings.threads = CountInRange(threads, 0, kMaxThreads, "threads");
        TransferRun::RefuseUnplaceable(_source, "source_rest", _target, "target", _settings.markers, true);
    }

    void build(const KInt4Array* pairing, const KVectorArray* fitted) {
        {
            py::gil_scoped_release release;
            _run.reset(new TransferRun(_source, _target, _settings, _sink, pairing, fitted));
        }
        _sink.forward();
    }

    KPolyMesh _source, _target;
    TransferSettings _settings;
    std::unique_ptr<TransferRun> _run;
    KPolyMesh _pose;  // the frames' mesh, see EvaluateFrames
    std::mutex _lock;
    PythonSink _sink;
};

}  // namespace

void BindTransfer(py::module_& m) {
    py::class_<Transfer>(m, "Transfer", R"(Deformation transfer from a source mesh onto a target mesh.

Building fits the source onto the target (pinned by the marker pairs), pairs every target
triangle with a source triangle and factors the transfer system once; each source pose is then
one solve (``kavrin transfer``).

Args:
    source_rest: the source in its rest pose, ``(points, faces)``.
    target: the target in its rest pose, ``(points, faces)``.
    markers: ``(k, 2)`` integer array of (source vertex, target vertex) pairs, zero-based.
    fixed: the (source, target) vertex pair that places the result; default the first marker pair.
    mode: ``"different"`` (default) or ``"same"`` when both meshes share their vertices.
    iterations: closest-point iterations of the fit, 0 to 30.
    threads: worker threads, 0 for all cores.
)")
        .def(py::init<py::handle, py::handle, py::handle, py::handle, const std::string&, int, int>(),
             py::arg("source_rest"), py::arg("target"), py::arg("markers"), py::arg("fixed") = py::none(),
             py::arg("mode") = "different", py::arg("iterations") = 5, py::arg("threads") = 0,
             "Checks the meshes and markers, then fits, pairs and factors once (the slow part; the GIL is released).")
        .def_static("from_binding", &Transfer::FromBinding, py::arg("source_rest"), py::arg("target"),
                    py::arg("binding"), py::arg("threads") = 0,
                    R"(A Transfer built from a saved correspondence (``Transfer.binding``) without fitting again.

The meshes must have the faces and vertex counts the binding was made with.)")
        .def("deform", &Transfer::deform, py::arg("points"),
             R"(The target deformed as the source is in each pose: ``points`` is one source pose ``(n, 3)``
or a batch ``(frames, n, 3)``; the result has the target's vertex count, float32.)")
        .def_property_readonly("pairing", &Transfer::pairing,
                               "The source triangle paired with each target triangle (-1: none), triangles "
                               "counted after splitting each polygon into a fan around its first corner.")
        .def_property_readonly("fitted_source", &Transfer::fittedSource,
                               "The source fitted onto the target by the correspondence search, float32 (n, 3).")
        .def_property_readonly("binding", &Transfer::binding,
                               "The correspondence as data: the pairing, the fitted source, the markers and "
                               "settings.");
}

}  // namespace KavrinPython
