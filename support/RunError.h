#pragma once

#include <stdexcept>
#include <string>

namespace Kavrin {

// An engine that failed on input it accepted (a singular system, a bind that cannot be made):
// what() is the engine's own one-line message.
class KRunError : public std::runtime_error {
public:
    explicit KRunError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace Kavrin
