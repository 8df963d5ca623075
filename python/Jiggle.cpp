// kavrin.Jiggle: secondary motion over the frames of an animation, on point arrays.

#include <cmath>
#include <memory>

#include "Engine.h"
#include "JiggleRun.h"

namespace KavrinPython {

namespace {

class Jiggle {
public:
    Jiggle(py::handle mesh, double stiffness, double damping, double normalStrength, double scale,
           double distanceLimit, double directionBias, double timeScale, int startFrame, bool moreAccurateTangent,
           py::handle stiffnessMap, py::handle dampingMap, py::handle normalStrengthMap, py::handle weights,
           double envelope, int threads)
        : _mesh(Mesh(mesh, "mesh")) {
        // The command line's ranges (behaviour note "kavrin jiggle: option ranges").
        KJiggleAttributes a;
        a.stiffness = static_cast<float>(InRange(stiffness, 0, 1, "stiffness"));
        a.damping = static_cast<float>(InRange(damping, 0, 1, "damping"));
        a.normalStrength = static_cast<float>(InRange(normalStrength, 0, 1, "normal_strength"));
        a.scale = static_cast<float>(InRange(scale, 0, kLargestCoordinate, "scale"));
        a.distanceLimit = static_cast<float>(InRange(distanceLimit, 0, kLargestCoordinate, "distance_limit"));
        a.directionBias = static_cast<float>(InRange(directionBias, -1, 1, "direction_bias"));
        a.timeScale = static_cast<float>(InRange(timeScale, 0, 1, "time_scale"));
        a.startFrame = CountInRange(startFrame, -1000000, 1000000, "start_frame");
        a.moreAccurateTangent = moreAccurateTangent;
        const int nv = _mesh.numVertices();
        const KValueRange unit{0.0, 1.0};
        const auto map = [nv, &unit](py::handle values, const char* name, bool& has, KArray<double>& out) {
            if (values.is_none()) return;
            out = Values(values, nv, &unit, name);
            has = true;
        };
        map(stiffnessMap, "stiffness_map", a.hasStiffnessMap, a.stiffnessMap);
        map(dampingMap, "damping_map", a.hasDampingMap, a.dampingMap);
        map(normalStrengthMap, "normal_strength_map", a.hasNormalStrengthMap, a.normalStrengthMap);
        KArray<float> w;
        if (!weights.is_none())
            for (double v : Values(weights, nv, nullptr, "weights")) w.push_back(static_cast<float>(v));
        _envelope = static_cast<float>(InRange(envelope, kEnvelopeLowest, kEnvelopeHighest, "envelope"));
        _run.reset(new JiggleRun(a, w, CountInRange(threads, 0, kMaxThreads, "threads")));
    }

    py::array_t<float> deform(py::handle points, py::handle times) {
        const Points in(points, "points", true, _mesh.numVertices(), "mesh");
        std::vector<double> at(static_cast<size_t>(in.frames()));
        if (times.is_none()) {
            for (int f = 0; f < in.frames(); ++f) at[f] = _next + f;
        } else if (!in.isBatch()) {
            at[0] = Number(times, "times");
        } else {
            const py::array_t<double> t = Reals(times, "times", 0);
            if (t.shape(0) != in.frames())
                throw KInputError("times: " + std::to_string(t.shape(0)) + " times for " + std::to_string(in.frames()) +
                                  " frames");
            std::copy(t.data(), t.data() + t.size(), at.begin());
        }
        for (size_t f = 0; f < at.size(); ++f)
            if (!std::isfinite(at[f]))
                throw KInputError("times: the time of frame " + std::to_string(f) + " is not finite");
        py::array_t<float> out =
            EvaluateFrames(in, _mesh, _pose, _mesh.numVertices(), _lock, _sink, [&](int f, const KPolyMesh& frame) {
                // Decision (behaviour note "Python: jiggle steps in the order given")
                return _run->deform(frame, at[static_cast<size_t>(f)], _envelope);
            });
        _next = at.back() + 1.0;
        return out;
    }

private:
    KPolyMesh _mesh;
    float _envelope = 1.0f;
    double _next = 0.0;  // the time of the next frame when none is given
    std::unique_ptr<JiggleRun> _run;
    KPolyMesh _pose;  // the frames' mesh, see EvaluateFrames
    std::mutex _lock;
    PythonSink _sink;
};

}  // namespace

void BindJiggle(py::module_& m) {
    py::class_<Jiggle>(m, "Jiggle",
                       R"(Secondary motion: the mesh lags behind its animation and overshoots it (``kavrin jiggle``).

The object holds the simulation: every call to ``deform`` steps on from where the last one
stopped. The first frame ever given starts the simulation and comes back unchanged.

Args:
    mesh: the mesh, ``(points, faces)`` (its faces give the normals; the points are not used).
    stiffness, damping, normal_strength: 0 to 1; scale, distance_limit: 0 to 1e9;
    direction_bias: -1 to 1; time_scale: 0 to 1; start_frame: frames at or before it stay as they are;
    more_accurate_tangent: snap flattened points back onto the surface.
    stiffness_map, damping_map, normal_strength_map: per-vertex factors, 0 to 1.
    weights: per-vertex paint weights; envelope: -2 to 2; threads: worker threads, 0 for all cores.
)")
        .def(py::init<py::handle, double, double, double, double, double, double, double, int, bool, py::handle,
                      py::handle, py::handle, py::handle, double, int>(),
             py::arg("mesh"), py::arg("stiffness") = 0.3, py::arg("damping") = 0.1, py::arg("normal_strength") = 1.0,
             py::arg("scale") = 1.0, py::arg("distance_limit") = 1.0, py::arg("direction_bias") = 0.0,
             py::arg("time_scale") = 1.0, py::arg("start_frame") = 0, py::arg("more_accurate_tangent") = false,
             py::arg("stiffness_map") = py::none(), py::arg("damping_map") = py::none(),
             py::arg("normal_strength_map") = py::none(), py::arg("weights") = py::none(), py::arg("envelope") = 1.0,
             py::arg("threads") = 0,
             "Checks the mesh, the settings and the maps; the first frame given to ``deform`` starts the simulation.")
        .def("deform", &Jiggle::deform, py::arg("points"), py::arg("times") = py::none(),
             R"(Steps through the frames in order: ``points`` is one frame ``(n, 3)`` or a batch
``(frames, n, 3)``, ``times`` the time of each (a number, or one per frame; default: the frames
after the last one given, 0, 1, 2, ... from the first call). Returns float32 of the same shape.)");
}

}  // namespace KavrinPython
