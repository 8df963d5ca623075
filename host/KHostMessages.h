#pragma once
// Fixed texts that the host layer writes.

#include <string>

namespace Kavrin {

// What a node's initialize writes to standard error when adding an attribute fails, before the
// failed status reports itself: a line break, the source ("source/KDeltaMush") and the line.
inline std::string ApiErrorText(const char* source, int line) {
    return "\nAPI error detected in " + std::string(source ? source : "") + " at line " + std::to_string(line) +
           "\n";
}

// A deformer that keeps the state of one geometry (a binding, a simulation) asked to deform
// another one: geometry is its index in the deformer's input list (1 or more).
inline std::string OneGeometryText(const char* nodeType, unsigned int geometry) {
    return std::string(nodeType ? nodeType : "") + ": a deformer of this type deforms one geometry; its geometry " +
           std::to_string(geometry) + " was left untouched. Give each mesh a deformer of its own.";
}

// Reported once for every child of a three-valued plug that cannot be read.
const char* const kGetAttr3Error = "Error@KGetAttr3(): Failed to get value of the plug.";

}  // namespace Kavrin
