#pragma once
// The message a file reader or writer refuses with, for exact comparison in the reader tests.

#include <string>

#include "FileError.h"

namespace Kavrin {

// The message of the KFileError that f throws, or "(no error)".
template <class F>
std::string Refusal(F f) {
    try {
        f();
    } catch (const KFileError& e) {
        return e.what();
    }
    return "(no error)";
}

}  // namespace Kavrin
