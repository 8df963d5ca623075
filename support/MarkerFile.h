#pragma once
// Marker-pair files: the vertex pairs of a deformation transfer, one "source target" pair a line,
// zero-based vertex indices, in the order of the node's "vertCorres" list.

#include <string>
#include <string_view>

#include "FileError.h"
#include "KArray.h"

namespace Kavrin {

// Reads the pairs as a flat list: source index, target index, source index, ... Blank lines and
// comments (from '#' to the end of the line) are skipped. Every other line holds exactly two
// whole numbers. Throws KFileError naming the line on anything else, on an index outside
// [0, sourceVertices) or [0, targetVertices), on a source vertex marked twice (naming both
// lines), and on a file without pairs.
KIntArray ReadMarkers(const std::string& path, int sourceVertices, int targetVertices);

// The same on text already in memory; name stands for the file in messages.
KIntArray ParseMarkers(std::string_view text, const std::string& name, int sourceVertices, int targetVertices);

// Writes the pairs of a flat list, one "source target" line each. Throws KFileError when the
// list has an odd length, a negative index or a source vertex twice (nothing is written; the
// reader would refuse the file), or when the file cannot be written.
void WriteMarkers(const std::string& path, const KIntArray& pairs);

// The text WriteMarkers writes. Throws KFileError (without a file name) as WriteMarkers does.
std::string FormatMarkers(const KIntArray& pairs);

}  // namespace Kavrin
