// kavrin.Relax: the relaxation deformer bound to a rest mesh, on point arrays.

#include <cfloat>
#include <cmath>
#include <memory>

#include "Engine.h"
#include "RelaxRun.h"
#include "TextFields.h"

namespace KavrinPython {

namespace {

class Relax {
public:
    Relax(py::handle rest, py::handle binding, int iterations, py::handle stiffness, bool scaleSafe,
          py::handle colliders, py::handle colliderMaps, int collisionSteps, bool collisions, py::handle weights,
          double envelope, int threads)
        : _rest(Mesh(rest, "rest")) {
        const int nv = _rest.numVertices();
        // The command line's ranges (behaviour note "Relaxation options on the command line").
        _settings.iterations = CountInRange(iterations, 0, 10000, "iterations");
        _settings.scaleSafe = scaleSafe;
        _settings.collisions = collisions;
        _settings.collisionSteps = CountInRange(collisionSteps, 1, 10000, "collision_steps");
        _settings.envelope = static_cast<float>(InRange(envelope, kEnvelopeLowest, kEnvelopeHighest, "envelope"));
        const KValueRange unit{0.0, 1.0};
        if (py::isinstance<py::float_>(stiffness) || py::isinstance<py::int_>(stiffness))
            _stiffness.setLengthWithValue(nv, InRange(stiffness.cast<double>(), 0, 1, "stiffness"));
        else
            _stiffness = Values(stiffness, nv, &unit, "stiffness");
        if (!weights.is_none()) {
            _weights = Values(weights, nv, nullptr, "weights");
            _settings.weights = &_weights;
        }
        std::vector<KPolyMesh> meshes;
        for (py::handle c : colliders) meshes.push_back(Mesh(c, "colliders[" + std::to_string(meshes.size()) + "]"));
        std::vector<KArray<double> > maps;
        for (py::handle c : colliderMaps)
            maps.push_back(Values(c, nv, &unit, "collider_maps[" + std::to_string(maps.size()) + "]"));
        if (maps.size() > meshes.size())
            throw KInputError("collider_maps: " + std::to_string(maps.size()) + " collider maps for " +
                              std::to_string(meshes.size()) + " colliders");
        CountInRange(threads, 0, kMaxThreads, "threads");
        const KRelaxationBindingData data = binding.is_none() ? KRelaxationBindingData() : Stored(binding);
        {
            py::gil_scoped_release release;
            _run.reset(binding.is_none() ? new RelaxRun(_rest, threads) : new RelaxRun(_rest, data, threads));
        }
        _run->setStiffness(_stiffness);
        for (size_t c = 0; c < meshes.size(); ++c) _run->addCollider(meshes[c], c < maps.size() ? &maps[c] : nullptr);
    }

    py::array_t<float> deform(py::handle points) {
        const Points in(points, "points", true, _rest.numVertices(), "rest");
        return EvaluateFrames(in, _rest, _pose, _rest.numVertices(), _lock, _sink,
                              [&](int, const KPolyMesh& pose) { return _run->relax(pose, _settings); });
    }

    py::dict binding() const {
        const KRelaxationBindingData& d = _run->binding();
        const int nv = _rest.numVertices();
        py::array_t<int> counts(nv);
        std::vector<int> neighbours, ring;
        std::vector<double> heights(static_cast<size_t>(nv), 0.0), ratios, weights;
        for (int v = 0; v < nv; ++v) {
            // Lists past the stored ones read as empty, heights past them as 0.
            counts.mutable_at(v) = d.connVrtId.count(v);
            if (v < d.b.length()) heights[static_cast<size_t>(v)] = d.b[v];
            neighbours.insert(neighbours.end(), d.connVrtId.begin(v), d.connVrtId.end(v));
            ring.insert(ring.end(), d.connVrtIdNrmOrder.begin(v), d.connVrtIdNrmOrder.end(v));
            ratios.insert(ratios.end(), d.bScalable.begin(v), d.bScalable.end(v));
            weights.insert(weights.end(), d.meanValueWeight.begin(v), d.meanValueWeight.end(v));
        }
        py::dict b = NewBinding("relax");
        b["counts"] = counts;
        b["neighbours"] = py::array_t<int>(neighbours.size(), neighbours.data());
        b["ring"] = py::array_t<int>(ring.size(), ring.data());
        b["heights"] = py::array_t<double>(heights.size(), heights.data());
        b["ratios"] = py::array_t<double>(ratios.size(), ratios.data());
        b["weights"] = py::array_t<double>(weights.size(), weights.data());
        b["faces"] = FacesFingerprint(_rest);
        return b;
    }

private:
    // The stored lists of a saved binding, checked against the rest mesh.
    KRelaxationBindingData Stored(py::handle binding) const {
        const std::string kind = "relax";
        const py::dict b = CheckBinding(binding, kind);
        RequireSameFaces(b, "faces", _rest, "rest", kind);
        const int nv = _rest.numVertices();
        const py::array_t<int> counts =
            Integers(Item(b, "counts", kind), kind + " binding: counts", 0, kRelaxMaxNeighbours);
        if (counts.ndim() != 1) throw KInputError(kind + " binding: counts must be a 1-D array");
        RequireVertexCount(static_cast<int>(counts.shape(0)), kind + " binding: counts", nv, "rest");
        size_t total = 0;
        for (int v = 0; v < nv; ++v) total += static_cast<size_t>(counts.at(v));
        const auto list = [&](const char* key, bool ids) -> py::array {
            const std::string name = kind + " binding: " + key;
            // Decision (behaviour note "Python: bindings that do not fit"): the engine's own NaN and
            // infinities (flat corners, vertical edges) are kept as it stores them.
            py::array a = ids ? py::array(Integers(Item(b, key, kind), name, 0, nv - 1))
                              : py::array(Reals(Item(b, key, kind), name, 0, false));
            if (a.ndim() != 1 || static_cast<size_t>(a.shape(0)) != total)
                throw KInputError(name + ": " + std::to_string(a.size()) + " entries, but counts add up to " +
                                  std::to_string(total));
            return a;
        };
        const py::array_t<int> neighbours = list("neighbours", true), ring = list("ring", true);
        const py::array_t<double> ratios = list("ratios", false), weights = list("weights", false);
        const py::array_t<double> heights = Reals(Item(b, "heights", kind), kind + " binding: heights", 0, false);
        RequireVertexCount(static_cast<int>(heights.shape(0)), kind + " binding: heights", nv, "rest");
        // Guard (behaviour note "Python: bindings that do not fit"): the engine keeps heights as floats.
        for (int v = 0; v < nv; ++v)
            if (std::isfinite(heights.at(v)) && std::fabs(heights.at(v)) > FLT_MAX)
                throw KInputError(kind + " binding: heights[" + std::to_string(v) + "]: " + NumberText(heights.at(v)) +
                                  " is beyond the range of a float");
        KRelaxationBindingData d;
        size_t at = 0;
        for (int v = 0; v < nv; ++v) {
            const int n = counts.at(v);
            d.connVrtId.append(neighbours.data() + at, n);
            d.connVrtIdNrmOrder.append(ring.data() + at, n);
            d.bScalable.append(ratios.data() + at, n);
            d.meanValueWeight.append(weights.data() + at, n);
            d.b.push_back(heights.at(v));
            at += static_cast<size_t>(n);
        }
        return d;
    }

    KPolyMesh _rest;
    RelaxSettings _settings;
    KArray<double> _stiffness, _weights;
    std::unique_ptr<RelaxRun> _run;
    KPolyMesh _pose;  // the frames' mesh, see EvaluateFrames
    std::mutex _lock;
    PythonSink _sink;
};

}  // namespace

void BindRelax(py::module_& m) {
    py::class_<Relax>(m, "Relax", R"(The relaxation deformer bound to a rest mesh (``kavrin relax``).

Each pass moves every vertex towards the place its neighbour ring prescribes in the rest shape and
back by its stiffness; colliders push vertices out of meshes.

Args:
    rest: the rest mesh, ``(points, faces)``.
    iterations: passes, 0 to 10,000.
    stiffness: 0 to 1, one number or one value per vertex.
    scale_safe: heights that scale with the neighbours instead of the rest heights.
    colliders: collider meshes ``(points, faces)`` in the poses' space.
    collider_maps: per-vertex multipliers (0 to 1) of the colliders in order; a collider without
        a map pushes every vertex fully.
    collision_steps: collide after the first pass, every n-th pass and the last, 1 to 10,000.
    collisions: False ignores the colliders.
    weights: per-vertex deformer weights; envelope: -2 to 2 (0 leaves the poses untouched).
    threads: worker threads, 0 for all cores.
)")
        .def(py::init([](py::handle rest, int iterations, py::handle stiffness, bool scaleSafe, py::handle colliders,
                         py::handle colliderMaps, int collisionSteps, bool collisions, py::handle weights,
                         double envelope, int threads) {
                 return new Relax(rest, py::none(), iterations, stiffness, scaleSafe, colliders, colliderMaps,
                                  collisionSteps, collisions, weights, envelope, threads);
             }),
             py::arg("rest"), py::arg("iterations") = 10, py::arg("stiffness") = kRelaxDefaultStiffness,
             py::arg("scale_safe") = false, py::arg("colliders") = py::tuple(), py::arg("collider_maps") = py::tuple(),
             py::arg("collision_steps") = 1, py::arg("collisions") = true, py::arg("weights") = py::none(),
             py::arg("envelope") = 1.0, py::arg("threads") = 0,
             "Checks the arguments and binds to the rest mesh (per vertex: its neighbour ring, heights and weights).")
        .def_static(
            "from_binding",
            [](py::handle rest, py::handle binding, int iterations, py::handle stiffness, bool scaleSafe,
               py::handle colliders, py::handle colliderMaps, int collisionSteps, bool collisions, py::handle weights,
               double envelope, int threads) {
                if (binding.is_none()) throw KInputError("relax binding: expected a dict, not None");
                return new Relax(rest, binding, iterations, stiffness, scaleSafe, colliders, colliderMaps,
                                 collisionSteps, collisions, weights, envelope, threads);
            },
            py::arg("rest"), py::arg("binding"), py::arg("iterations") = 10,
            py::arg("stiffness") = kRelaxDefaultStiffness, py::arg("scale_safe") = false,
            py::arg("colliders") = py::tuple(), py::arg("collider_maps") = py::tuple(), py::arg("collision_steps") = 1,
            py::arg("collisions") = true, py::arg("weights") = py::none(), py::arg("envelope") = 1.0,
            py::arg("threads") = 0,
            R"(A Relax that uses a saved binding (``Relax.binding``) instead of binding again; the other
arguments as for the constructor.)")
        .def("deform", &Relax::deform, py::arg("points"),
             R"(The poses relaxed: ``points`` is one pose ``(n, 3)`` or a batch ``(frames, n, 3)``; float32.)")
        .def_property_readonly("binding", &Relax::binding,
                               "The binding as data: per vertex its neighbours (in polar and in ring order), "
                               "height, height ratios and mean-value weights, as flat arrays with counts.");
}

}  // namespace KavrinPython
