#include "Engine.h"

#include <cstdint>
#include <cstdio>

#include "RunError.h"
#include "TextFields.h"

namespace KavrinPython {

double InRange(double value, double lowest, double highest, const std::string& name) {
    if (!(value >= lowest && value <= highest))
        throw KInputError(name + ": " + NumberText(value) + " is outside " + RangeText(lowest, highest));
    return value;
}

int CountInRange(int value, int lowest, int highest, const std::string& name) {
    if (value < lowest || value > highest)
        throw KInputError(name + ": " + std::to_string(value) + " is outside " + RangeText(lowest, highest));
    return value;
}

std::string FacesFingerprint(const KPolyMesh& mesh) {
    // FNV-1a over the counts, then the vertices.
    uint64_t h = 1469598103934665603ull;
    const auto add = [&h](int v) {
        for (int b = 0; b < 4; ++b) {
            h ^= static_cast<uint64_t>((static_cast<uint32_t>(v) >> (8 * b)) & 0xff);
            h *= 1099511628211ull;
        }
    };
    add(mesh.numFaces());
    for (int c : mesh.faceCounts) add(c);
    for (int v : mesh.faceVertices) add(v);
    char text[17];
    std::snprintf(text, sizeof text, "%016llx", static_cast<unsigned long long>(h));
    return text;
}

py::dict NewBinding(const char* kind) {
    py::dict b;
    b["format"] = kBindingFormat;
    b["kind"] = kind;
    return b;
}

// Guard (behaviour note "Python: bindings that do not fit")
py::dict CheckBinding(py::handle binding, const std::string& kind) {
    if (!py::isinstance<py::dict>(binding))
        throw KInputError(kind + " binding: expected a dict (a binding, or what load_binding returns)");
    py::dict b = py::reinterpret_borrow<py::dict>(binding);
    const std::string what = py::str(Item(b, "kind", kind)).cast<std::string>();
    if (what != kind) throw KInputError(kind + " binding: this is a " + what + " binding");
    const int format = WholeNumber(Item(b, "format", kind), kind + " binding: format");
    if (format != kBindingFormat)
        throw KInputError(kind + " binding: format " + std::to_string(format) + "; this kavrin reads format " +
                          std::to_string(kBindingFormat));
    return b;
}

void RequireSameFaces(const py::dict& binding, const char* key, const KPolyMesh& mesh, const std::string& meshName,
                      const std::string& kind) {
    if (py::str(Item(binding, key, kind)).cast<std::string>() != FacesFingerprint(mesh))
        throw KInputError(kind + " binding: it was made for a mesh with other faces than " + meshName + "'s");
}

py::array_t<float> EvaluateFrames(const Points& points, const KPolyMesh& mesh, KPolyMesh& pose, int count,
                                  std::mutex& lock, PythonSink& sink,
                                  const std::function<KVectorArray(int, const KPolyMesh&)>& deform) {
    py::array_t<float> out = points.like(count);
    float* o = out.mutable_data();
    {
        // Decision (behaviour note "Python: evaluations run without the interpreter")
        py::gil_scoped_release release;
        EngineLock held(lock);
        points.requireComputable();
        // The faces are copied once per object; each frame then only writes the points.
        if (pose.faceCounts.length() != mesh.faceCounts.length()) pose = mesh;
        for (int f = 0; f < points.frames(); ++f) {
            points.frame(f, pose.points);
            const KVectorArray result = deform(f, pose);
            RequireFiniteResult(result, points.isBatch() ? "frame " + std::to_string(f) : "points", std::string(),
                                std::string());
            if (result.length() != count) throw KRunError("the engine returned a result of another size");
            CopyPoints(result, o + 3 * static_cast<size_t>(count) * static_cast<size_t>(f));
        }
    }
    sink.forward();
    return out;
}

}  // namespace KavrinPython
