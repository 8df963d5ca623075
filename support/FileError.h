#pragma once

#include <stdexcept>
#include <string>

namespace Kavrin {

// A file that cannot be read or written, or whose contents are malformed. what() is one line that
// names the file and, where there is one, the line.
class KFileError : public std::runtime_error {
public:
    explicit KFileError(const std::string& message) : std::runtime_error(message) {}
};

}  // namespace Kavrin
