// The compiled part of the kavrin package: the engines and the file formats on NumPy arrays.

#include "Arrays.h"
#include "Engine.h"
#include "FileError.h"
#include "RunError.h"

namespace KavrinPython {
void BindFiles(py::module_& m);
void BindDeltaMush(py::module_& m);
void BindTransfer(py::module_& m);
void BindWrap(py::module_& m);
void BindJiggle(py::module_& m);
void BindRelax(py::module_& m);
void BindOffset(py::module_& m);
}  // namespace KavrinPython

using namespace KavrinPython;

PYBIND11_MODULE(_kavrin, m) {
    m.doc() = "Kavrin's engines on NumPy arrays (the compiled part of the kavrin package).";
    m.attr("__version__") = KAVRIN_VERSION;
    m.attr("BINDING_FORMAT") = kBindingFormat;
    static py::exception<KInputError> inputError(m, "InputError", PyExc_ValueError);
    inputError.doc() = "Input an engine cannot use: a bad shape, dtype or value, a malformed file, meshes that do "
                       "not match. The message is the command line's one line.";
    static py::exception<KRunError> engineError(m, "EngineError", PyExc_RuntimeError);
    engineError.doc() = "An engine that failed on input it accepted (a singular system, a bind that cannot be made).";
    m.attr("EngineWarning") = py::reinterpret_steal<py::object>(
        PyErr_NewExceptionWithDoc("kavrin._kavrin.EngineWarning", "A warning an engine gave while it ran.",
                                  PyExc_UserWarning, nullptr));
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) std::rethrow_exception(p);
        } catch (const KFileError& e) {
            inputError(e.what());
        } catch (const KInputError& e) {
            inputError(e.what());
        } catch (const KRunError& e) {
            engineError(e.what());
        }
    });
    BindFiles(m);
    BindDeltaMush(m);
    BindTransfer(m);
    BindWrap(m);
    BindJiggle(m);
    BindRelax(m);
    BindOffset(m);
}
