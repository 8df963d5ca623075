#pragma once
// Marker-pair files: the vertex pairs of a deformation transfer, one "source target" pair a line,
// zero-based vertex indices, in the order of the node's "vertCorres" list.

#include <string>

#include "KArray.h"
#include "FileError.h"

namespace Kavrin {

// Reads the pairs as a flat list: source index, target index, source index, ... Blank lines and
// lines starting with # are skipped. Throws KFileError naming the line on anything else, on an
// index outside [0, sourceVertices) or [0, targetVertices), and on a file without pairs.
KIntArray ReadMarkers(const std::string& path, int sourceVertices, int targetVertices);

}  // namespace Kavrin
