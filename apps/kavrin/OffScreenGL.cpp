#include "OffScreenGL.h"

#include <dlfcn.h>

#include <mutex>
#include <string>

#include "CommandSupport.h"

namespace Kavrin {

namespace {

const char kLibrary[] = "libOSMesa.so.8";

struct Loaded {
    OffScreenGL functions;
    std::string error;
};

Loaded Load() {
    Loaded loaded;
    // Kept open for the life of the process: contexts and drivers live in it.
    void* library = dlopen(kLibrary, RTLD_NOW | RTLD_LOCAL);
    if (!library) {
        const char* why = dlerror();
        loaded.error = std::string("cannot open ") + kLibrary + ", Mesa's off-screen OpenGL (" +
                       (why ? why : "not found") + "; Debian installs it with libosmesa6)";
        return loaded;
    }
#define KAVRIN_GL_LOOKUP(name)                                                                       \
    loaded.functions.name = reinterpret_cast<decltype(&::name)>(dlsym(library, #name));            \
    if (!loaded.functions.name && loaded.error.empty())                                            \
        loaded.error = std::string(kLibrary) + " has no function " #name;
    KAVRIN_GL_FUNCTIONS(KAVRIN_GL_LOOKUP)
#undef KAVRIN_GL_LOOKUP
    return loaded;
}

}  // namespace

const OffScreenGL& GL() {
    static std::once_flag once;
    static Loaded loaded;
    std::call_once(once, [] { loaded = Load(); });
    // Guard (behaviour note "kavrin render: no off-screen OpenGL")
    if (!loaded.error.empty()) throw RunError(loaded.error);
    return loaded.functions;
}

}  // namespace Kavrin
