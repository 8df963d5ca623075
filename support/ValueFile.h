#pragma once
// Per-vertex value files (paint maps, weights): one value a line, the n-th value belongs to vertex
// n - 1. Blank lines and comments (from '#' to the end of the line) are skipped.

#include <string>
#include <string_view>

#include "FileError.h"
#include "InputChecks.h"
#include "KArray.h"

namespace Kavrin {

// Reads the values. Each line holds exactly one finite number within the range of a float (and
// within range, when given). With expectedCount >= 0 the file must hold exactly that many values.
// Throws KFileError naming the file and the line (or the counts) on anything else.
KArray<double> ReadValues(const std::string& path, int expectedCount, const KValueRange* range = nullptr);

// The same on text already in memory; name stands for the file in messages.
KArray<double> ParseValues(std::string_view text, const std::string& name, int expectedCount,
                           const KValueRange* range = nullptr);

// Writes one value a line with enough digits to read the same double back. Throws KFileError,
// writing nothing, when a value is not finite or beyond the range of a float (ReadValues would
// refuse the file), and when the file cannot be written.
void WriteValues(const std::string& path, const KArray<double>& values);

// The text WriteValues writes. Throws KFileError (without a file name) as WriteValues does.
std::string FormatValues(const KArray<double>& values);

}  // namespace Kavrin
