#pragma once
// The attribute tables of the toolkit's seven node types (KAttributeTable.h), and the commands
// that take back at unload what a table made paintable at load.

#include <string>
#include <vector>

#include "KAttributeTable.h"

namespace Kavrin {

extern const KAttributeTable kDeformationTransferAttributeTable;
extern const KAttributeTable kDTPointAttributeTable;
extern const KAttributeTable kDeltaMushAttributeTable;
extern const KAttributeTable kWrapMeshDeformerAttributeTable;
extern const KAttributeTable kOffsetMeshDeformerAttributeTable;
extern const KAttributeTable kJiggleMeshDeformerAttributeTable;
extern const KAttributeTable kRelaxationMeshDeformerAttributeTable;

// The table of the node type with this name; null when there is none.
const KAttributeTable* AttributesOf(const char* nodeType);

// "makePaintable -rm <node type> <attribute>;" for every paintable row of the table, in order.
std::vector<std::string> WithdrawPaintableCommands(const KAttributeTable& table);

}  // namespace Kavrin
