#include "Arrays.h"

#include <cmath>
#include <cstring>

#include "TextFields.h"

namespace KavrinPython {

namespace {

std::string Shape(const py::array& a) {
    std::string s = "(";
    for (py::ssize_t d = 0; d < a.ndim(); ++d) s += (d ? ", " : "") + std::to_string(a.shape(d));
    return s + (a.ndim() == 1 ? ",)" : ")");
}

std::string DtypeName(const py::array& a) { return py::str(a.dtype()).cast<std::string>(); }

py::array AsArray(py::handle values, const std::string& name) {
    try {
        return py::array::ensure(values);
    } catch (const py::error_already_set&) {
    }
    throw KInputError(name + ": expected an array, not " + py::str(py::type::of(values)).cast<std::string>());
}

// Element i of a (in C order) as NumPy prints it: the value itself, whatever its dtype.
std::string ElementText(const py::array& a, py::ssize_t i) {
    return py::str(a.attr("flat")[py::int_(i)]).cast<std::string>();
}

bool IsInteger(const py::array& a) {
    const char kind = a.dtype().kind();
    return kind == 'i' || kind == 'u';
}

}  // namespace

// Guard (behaviour note "Python: arrays checked before any engine runs")
Points::Points(py::handle values, const std::string& name, bool batch, int vertices, const std::string& restName)
    : _name(name) {
    py::array a = AsArray(values, name);
    const char kind = a.dtype().kind();
    if (kind != 'f' || (a.itemsize() != 4 && a.itemsize() != 8))
        throw KInputError(name + ": expected float32 or float64 coordinates, not " + DtypeName(a));
    const bool single = a.ndim() == 2, several = batch && a.ndim() == 3;
    if ((!single && !several) || a.shape(a.ndim() - 1) != 3 || a.size() / 3 > 0x7fffffff)
        throw KInputError(name + ": expected an (n, 3) array" + (batch ? " or a batch (frames, n, 3)" : "") +
                          ", not an array of shape " + Shape(a));
    if (several && a.shape(0) == 0) throw KInputError(name + ": the batch has no frames");
    _batch = several;
    _double = a.itemsize() == 8;
    _frames = several ? static_cast<int>(a.shape(0)) : 1;
    _count = static_cast<int>(a.shape(a.ndim() - 2));
    if (vertices >= 0) RequireVertexCount(_count, name, vertices, restName);
    if (_double)
        _array = py::array_t<double, py::array::c_style>::ensure(a);
    else
        _array = py::array_t<float, py::array::c_style>::ensure(a);
}

void Points::requireComputable() const {
    for (int f = 0; f < _frames; ++f) {
        const std::string name = _batch ? _name + "[" + std::to_string(f) + "]" : _name;
        const size_t at = 3 * static_cast<size_t>(_count) * static_cast<size_t>(f);
        if (_double)
            RequireComputablePoints(static_cast<const double*>(_array.data()) + at, _count, name);
        else
            RequireComputablePoints(static_cast<const float*>(_array.data()) + at, _count, name);
    }
}

void Points::frame(int f, KVectorArray& out) const {
    out.setLength(_count, false);
    const size_t at = 3 * static_cast<size_t>(_count) * static_cast<size_t>(f);
    if (!_double) {
        std::memcpy(static_cast<void*>(out.data()), static_cast<const float*>(_array.data()) + at,
                    sizeof(KVector) * _count);
        return;
    }
    const double* p = static_cast<const double*>(_array.data()) + at;
    for (int v = 0; v < _count; ++v)
        out[v] =
            KVector(static_cast<float>(p[3 * v]), static_cast<float>(p[3 * v + 1]), static_cast<float>(p[3 * v + 2]));
}

py::array_t<float> Points::like(int count) const {
    if (_batch)
        return py::array_t<float>({static_cast<py::ssize_t>(_frames), static_cast<py::ssize_t>(count), py::ssize_t(3)});
    return py::array_t<float>({static_cast<py::ssize_t>(count), py::ssize_t(3)});
}

void Faces(py::handle faces, int vertices, const std::string& name, KPolyMesh& mesh) {
    mesh.faceCounts.clear();
    mesh.faceVertices.clear();
    if (py::isinstance<py::array>(faces)) {
        py::array a = py::reinterpret_borrow<py::array>(faces);
        if (!IsInteger(a)) throw KInputError(name + ": expected integer vertex indices, not " + DtypeName(a));
        if (a.ndim() != 2 || a.shape(1) < 3)
            throw KInputError(name + ": expected an (m, k) array of faces with k >= 3, or a list of polygons, not an "
                                     "array of shape " + Shape(a));
        py::array_t<long long, py::array::c_style | py::array::forcecast> wide(a);
        const long long* v = wide.data();
        const int k = static_cast<int>(a.shape(1));
        for (py::ssize_t f = 0; f < a.shape(0); ++f) {
            mesh.faceCounts.push_back(k);
            for (int c = 0; c < k; ++c) {
                const long long index = v[f * k + c];
                // Unsigned indices beyond the signed range wrap to negative ones: refused too.
                if (index < 0 || index >= vertices)
                    throw KInputError(name + ": face " + std::to_string(f) + " names vertex " +
                                      ElementText(a, f * k + c) + ", but the mesh has " + std::to_string(vertices) +
                                      " vertices");
                mesh.faceVertices.push_back(static_cast<int>(index));
            }
        }
    } else {
        if (!py::isinstance<py::sequence>(faces) || py::isinstance<py::str>(faces))
            throw KInputError(name + ": expected an (m, k) array of faces or a list of polygons");
        int f = 0;
        for (py::handle polygon : faces) {
            if (!py::isinstance<py::sequence>(polygon) || py::isinstance<py::str>(polygon))
                throw KInputError(name + ": face " + std::to_string(f) + " is not a sequence of vertex indices");
            int corners = 0;
            for (py::handle index : polygon) {
                if (!py::isinstance<py::int_>(index) &&
                    !(py::isinstance<py::array>(index) && IsInteger(py::reinterpret_borrow<py::array>(index))))
                    throw KInputError(name + ": face " + std::to_string(f) + " holds " +
                                      py::repr(index).cast<std::string>() + ", not a vertex index");
                long long v = -1;
                try {
                    v = index.cast<long long>();
                } catch (const py::cast_error&) {  // beyond 64 bits: left at -1, refused below
                }
                if (v < 0 || v >= vertices)
                    throw KInputError(name + ": face " + std::to_string(f) + " names vertex " +
                                      py::str(index).cast<std::string>() + ", but the mesh has " +
                                      std::to_string(vertices) + " vertices");
                mesh.faceVertices.push_back(static_cast<int>(v));
                ++corners;
            }
            mesh.faceCounts.push_back(corners);
            ++f;
        }
    }
    RequireValidFaces(mesh, name);
}

KPolyMesh Mesh(py::handle mesh, const std::string& name) {
    if (!py::isinstance<py::sequence>(mesh) || py::isinstance<py::str>(mesh) || py::len(mesh) != 2)
        throw KInputError(name + ": expected a mesh as (points, faces)");
    py::sequence parts = py::reinterpret_borrow<py::sequence>(mesh);
    const Points points(parts[0], name + " points", false);
    if (points.count() == 0) throw KInputError(name + ": no vertices");
    points.requireComputable();
    KPolyMesh m;
    points.frame(0, m.points);
    Faces(parts[1], m.numVertices(), name + " faces", m);
    return m;
}

py::object FacesObject(const KPolyMesh& mesh) {
    const int n = mesh.numFaces();
    bool uniform = n > 0;
    for (int f = 1; uniform && f < n; ++f) uniform = mesh.faceCounts[f] == mesh.faceCounts[0];
    if (uniform) {
        py::array_t<int> a({static_cast<py::ssize_t>(n), static_cast<py::ssize_t>(mesh.faceCounts[0])});
        std::memcpy(a.mutable_data(), mesh.faceVertices.data(), sizeof(int) * mesh.faceVertices.size());
        return std::move(a);
    }
    py::list faces;
    int at = 0;
    for (int f = 0; f < n; ++f) {
        py::list polygon;
        for (int c = 0; c < mesh.faceCounts[f]; ++c) polygon.append(mesh.faceVertices[at++]);
        faces.append(polygon);
    }
    return std::move(faces);
}

void CopyPoints(const KVectorArray& points, float* out) {
    std::memcpy(out, points.data(), sizeof(KVector) * points.size());
}

py::array_t<float> PointsArray(const KVectorArray& points) {
    py::array_t<float> a({static_cast<py::ssize_t>(points.length()), py::ssize_t(3)});
    CopyPoints(points, a.mutable_data());
    return a;
}

KArray<double> Values(py::handle values, int vertices, const KValueRange* range, const std::string& name) {
    py::array a = AsArray(values, name);
    if (a.dtype().kind() != 'f' && !IsInteger(a))
        throw KInputError(name + ": expected numbers, not " + DtypeName(a));
    if (a.ndim() != 1) throw KInputError(name + ": expected a 1-D array, not an array of shape " + Shape(a));
    py::array_t<double, py::array::c_style | py::array::forcecast> d(a);
    KArray<double> out(static_cast<int>(d.size()));
    std::memcpy(out.data(), d.data(), sizeof(double) * d.size());
    RequireValues(out.data(), out.length(), vertices, range, name);
    return out;
}

py::array_t<int> Integers(py::handle values, const std::string& name, int lowest, int highest) {
    py::array a = AsArray(values, name);
    if (!IsInteger(a)) throw KInputError(name + ": expected integers, not " + DtypeName(a));
    py::array_t<long long, py::array::c_style | py::array::forcecast> wide(a);
    py::array_t<int> out(std::vector<py::ssize_t>(a.shape(), a.shape() + a.ndim()));
    for (py::ssize_t i = 0; i < wide.size(); ++i) {
        const long long v = wide.data()[i];
        if (v < lowest || v > highest)
            throw KInputError(name + ": " + ElementText(a, i) + " at position " + std::to_string(i) +
                              " is outside " + std::to_string(lowest) + " to " + std::to_string(highest));
        out.mutable_data()[i] = static_cast<int>(v);
    }
    return out;
}

py::array_t<double> Reals(py::handle values, const std::string& name, int columns, bool finite) {
    py::array a = AsArray(values, name);
    if (a.dtype().kind() != 'f' && !IsInteger(a)) throw KInputError(name + ": expected numbers, not " + DtypeName(a));
    if (columns == 0 ? a.ndim() != 1 : (a.ndim() != 2 || (columns > 0 && a.shape(1) != columns) || a.size() == 0))
        throw KInputError(name + ": expected an array of shape " +
                          (columns == 0 ? std::string("(n,)")
                                        : columns < 0 ? std::string("(height, width)")
                                                      : "(n, " + std::to_string(columns) + ")") +
                          ", not " + Shape(a));
    py::array_t<double, py::array::c_style | py::array::forcecast> d(a);
    for (py::ssize_t i = 0; finite && i < d.size(); ++i)
        if (!std::isfinite(d.data()[i]))
            throw KInputError(name + ": the value at position " + std::to_string(i) + " is not finite");
    return d;
}

double Number(py::handle value, const std::string& name) {
    if (!py::isinstance<py::str>(value) && !py::isinstance<py::bytes>(value)) try {
            return py::float_(py::reinterpret_borrow<py::object>(value)).cast<double>();
        } catch (const py::error_already_set&) {
        }
    throw KInputError(name + ": expected a number, not " + py::str(py::type::of(value)).cast<std::string>());
}

int WholeNumber(py::handle value, const std::string& name) {
    const double v = Number(value, name);
    if (!(v >= -0x7fffffff && v <= 0x7fffffff) || v != std::floor(v))
        throw KInputError(name + ": " + NumberText(v) + " is not a whole number");
    return static_cast<int>(v);
}

py::object Item(const py::dict& binding, const char* key, const std::string& kind) {
    if (!binding.contains(key)) throw KInputError(kind + " binding: it has no '" + key + "'");
    return binding[key];
}

void PythonSink::forward() {
    py::object warn = py::module_::import("warnings").attr("warn");
    py::object logger = py::module_::import("logging").attr("getLogger")("kavrin");
    for (const Entry& e : entries) {
        if (e.kind == Entry::kWarning)
            warn(e.text, py::module_::import("kavrin._kavrin").attr("EngineWarning"), 2);
        else if (e.kind == Entry::kError)
            logger.attr("error")(e.text);
        else
            logger.attr("info")(e.text);
    }
    entries.clear();
}

}  // namespace KavrinPython
