#pragma once
// Per-vertex value files (paint maps, weights): one value a line, the line's number less one is the
// vertex index. Blank lines and lines starting with # are skipped.

#include <string>

#include "FileError.h"
#include "KArray.h"

namespace Kavrin {

// Reads the values. Each line holds exactly one finite number within the range of a float.
// With expectedCount >= 0 the file must hold exactly that many values. Throws KFileError naming
// the file and the line (or the counts) on anything else.
KArray<double> ReadValues(const std::string& path, int expectedCount);

// Writes one value a line with enough digits to read the same double back. Throws KFileError when
// the file cannot be written.
void WriteValues(const std::string& path, const KArray<double>& values);

}  // namespace Kavrin
