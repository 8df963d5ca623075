#pragma once
// What every engine class of the Python package shares: option ranges as the command line has
// them, the faces' fingerprint a binding carries, and the batch loop that runs without the
// interpreter.

#include <functional>
#include <string>

#include "Arrays.h"

namespace KavrinPython {

// The version of the bindings' layout (kavrin.BINDING_FORMAT), saved with every binding.
const int kBindingFormat = 1;

// value, unless it lies outside [lowest, highest]: "<name>: 3 is outside -2 to 2" (the command
// line's words).
double InRange(double value, double lowest, double highest, const std::string& name);
int CountInRange(int value, int lowest, int highest, const std::string& name);

// A fingerprint of a mesh's faces (their corner counts and vertices), as hexadecimal text.
std::string FacesFingerprint(const KPolyMesh& mesh);
// Starts a binding of kind for meshes whose faces it depends on.
py::dict NewBinding(const char* kind);
// Checks that binding is a dict of this kind and format; "<kind> binding: ..." otherwise.
py::dict CheckBinding(py::handle binding, const std::string& kind);
// Refuses a binding made for a mesh with other faces (key holds the fingerprint).
void RequireSameFaces(const py::dict& binding, const char* key, const KPolyMesh& mesh, const std::string& meshName,
                      const std::string& kind);

// Runs deform on every frame of points without the interpreter, one object's evaluations one at a
// time: first every frame is checked, then each is deformed into the returned array (count points a
// frame, the shape of points otherwise). deform(frame index, pose) returns the result, pose being
// mesh with the frame's points; pose is the object's own copy of mesh, kept between calls (guarded
// by lock) so that a frame costs no copy of the faces.
py::array_t<float> EvaluateFrames(const Points& points, const KPolyMesh& mesh, KPolyMesh& pose, int count,
                                  std::mutex& lock, PythonSink& sink,
                                  const std::function<KVectorArray(int, const KPolyMesh&)>& deform);

}  // namespace KavrinPython
