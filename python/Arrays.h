#pragma once
// NumPy arrays in and out of the engines: every check an array passes before an engine sees it
// (shape, dtype, finite coordinates within the engines' range, face indices, per-vertex counts),
// with the command line's messages where the command line has the check.

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <mutex>
#include <string>

#include "InputChecks.h"
#include "KArray.h"
#include "KMessageSink.h"
#include "KPolyMesh.h"

namespace KavrinPython {

namespace py = pybind11;
using namespace Kavrin;

// Points as given: an (n, 3) array or a batch (frames, n, 3), float32 or float64, C order.
class Points {
public:
    // Checks the shape and dtype (a batch only when batch is true); with vertices >= 0 the count
    // must be that of restName's vertices. The values are checked by requireComputable().
    Points(py::handle values, const std::string& name, bool batch, int vertices = -1,
           const std::string& restName = std::string());

    bool isBatch() const { return _batch; }
    int frames() const { return _frames; }
    int count() const { return _count; }
    // Every frame within the engines' coordinates (needs no interpreter).
    void requireComputable() const;
    // Frame f, narrowed to single precision (needs no interpreter).
    void frame(int f, KVectorArray& out) const;
    // A new float32 array of this one's shape for `count` points a frame.
    py::array_t<float> like(int count) const;

private:
    py::array _array;
    std::string _name;
    bool _batch = false, _double = false;
    int _frames = 1, _count = 0;
};

// A mesh given as (points, faces): points an (n, 3) array, faces an (m, k) integer array (k >= 3)
// or a list of polygons. Checked as the OBJ reader and the command line check a file.
KPolyMesh Mesh(py::handle mesh, const std::string& name);
// Faces alone, for a mesh of `vertices` points.
void Faces(py::handle faces, int vertices, const std::string& name, KPolyMesh& mesh);
// The faces as Python sees them: an (m, k) int32 array when every face has k corners, else a
// list of lists.
py::object FacesObject(const KPolyMesh& mesh);
// An (n, 3) float32 array of points.
py::array_t<float> PointsArray(const KVectorArray& points);
void CopyPoints(const KVectorArray& points, float* out);

// Per-vertex values (a 1-D array or sequence of numbers), checked by RequireValues.
KArray<double> Values(py::handle values, int vertices, const KValueRange* range, const std::string& name);
// A 1-D or 2-D integer array, as int32, each value checked to lie in [lowest, highest].
py::array_t<int> Integers(py::handle values, const std::string& name, int lowest, int highest);
// A float array, as float64: 1-D (columns 0), (n, columns), or any non-empty 2-D shape (columns
// -1); every value finite unless finite is false.
py::array_t<double> Reals(py::handle values, const std::string& name, int columns, bool finite = true);
// A number (anything float() takes), or "<name>: expected a number, not <type>"; a whole one in
// the range of an int, or "<name>: 2.5 is not a whole number".
double Number(py::handle value, const std::string& name);
int WholeNumber(py::handle value, const std::string& name);

// An item of a binding (a dict), or an InputError naming it.
py::object Item(const py::dict& binding, const char* key, const std::string& kind);

// What an engine reports while it runs, kept and handed to Python once the interpreter is back:
// warnings as Python warnings, errors and output text to the "kavrin" logger.
class PythonSink : public KRecordingSink {
public:
    void forward();
};

// The lock an engine object takes for one evaluation: evaluations of one object run one after
// the other, evaluations of different objects at the same time.
using EngineLock = std::unique_lock<std::mutex>;

}  // namespace KavrinPython
