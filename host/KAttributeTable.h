#pragma once
// A node type's attributes as plain data: one row per attribute in the order the node adds them
// (long and short name, type, default, limits, flags, the compound a child belongs to), the
// outputs each input affects, and the commands that make maps paintable. The Maya layer creates,
// adds and connects the attributes from the table (base/maya, AddAttributes); the tests check
// every table without Maya.

#include <cstddef>

namespace Kavrin {

enum class KAttributeType {
    kBool,
    kInt,
    kFloat,
    kDouble,
    kFloat3,  // three float children named <long>X/Y/Z, <short>X/Y/Z
    kColour,  // three float children used as a colour
    kEnum,
    kTime,
    kMatrix,
    kMesh,
    kIntArray,
    kDoubleArray,
    kVectorArray,
    kCompound,  // its children are the rows naming it as parent
    kMessage,
};

// An enumeration's field and its index.
struct KEnumField {
    const char* name;
    int index;
};

// One attribute. Built with the factories below and the chained setters, for example
// IntAttr("iterations", 10).min(0).softMax(30).
struct KAttributeRow {
    enum Flag : unsigned {
        kHidden = 1u << 0,
        kArray = 1u << 1,
        kNotKeyable = 1u << 2,
        kStorable = 1u << 3,  // set explicitly (every creator makes its attribute storable anyway)
        kCached = 1u << 4,
        kChannelBox = 1u << 5,
        kPaintable = 1u << 6,  // made paintable for the node type (withdrawn again at unload)
    };
    enum Limit : unsigned { kMin = 0, kMax = 1, kSoftMin = 2, kSoftMax = 3 };

    const char* longName;
    const char* shortName;
    KAttributeType type;
    // Numeric, enum and time rows: defaults[0]. Float3 rows: all three children. Colour rows:
    // (r, g, b) when hasDefault, otherwise the creator's default.
    double defaults[3];
    bool hasDefault;
    unsigned flags;
    double limits[4];    // indexed by Limit
    unsigned limitsSet;  // bit i: limits[i] is set
    const char* parent;  // the compound this row is a child of; null at the top level
    const KEnumField* fields;
    int numFields;

    constexpr bool has(Flag f) const { return (flags & f) != 0; }
    constexpr bool hasLimit(Limit l) const { return (limitsSet & (1u << l)) != 0; }

    KAttributeRow hidden() const { return with(kHidden); }
    KAttributeRow array() const { return with(kArray); }
    KAttributeRow notKeyable() const { return with(kNotKeyable); }
    KAttributeRow storable() const { return with(kStorable); }
    KAttributeRow cached() const { return with(kCached); }
    KAttributeRow channelBox() const { return with(kChannelBox); }
    KAttributeRow paintable() const { return with(kPaintable); }
    KAttributeRow min(double v) const { return limit(kMin, v); }
    KAttributeRow max(double v) const { return limit(kMax, v); }
    KAttributeRow softMin(double v) const { return limit(kSoftMin, v); }
    KAttributeRow softMax(double v) const { return limit(kSoftMax, v); }
    KAttributeRow childOf(const char* compound) const {
        KAttributeRow r = *this;
        r.parent = compound;
        return r;
    }
    KAttributeRow shortNamed(const char* name) const {
        KAttributeRow r = *this;
        r.shortName = name;
        return r;
    }

private:
    KAttributeRow with(Flag f) const {
        KAttributeRow r = *this;
        r.flags |= f;
        return r;
    }
    KAttributeRow limit(Limit l, double v) const {
        KAttributeRow r = *this;
        r.limits[l] = v;
        r.limitsSet |= 1u << l;
        return r;
    }
};

// Rows whose short name is the long name unless shortNamed() says otherwise.
inline KAttributeRow AttrRow(const char* name, KAttributeType type, double d0 = 0.0, double d1 = 0.0, double d2 = 0.0,
                             bool hasDefault = false) {
    return KAttributeRow{name, name, type, {d0, d1, d2}, hasDefault, 0u, {0, 0, 0, 0}, 0u, nullptr, nullptr, 0};
}
inline KAttributeRow BoolAttr(const char* name, bool d) {
    return AttrRow(name, KAttributeType::kBool, d ? 1 : 0, 0, 0, true);
}
inline KAttributeRow IntAttr(const char* name, int d) { return AttrRow(name, KAttributeType::kInt, d, 0, 0, true); }
inline KAttributeRow FloatAttr(const char* name, double d) {
    return AttrRow(name, KAttributeType::kFloat, d, 0, 0, true);
}
inline KAttributeRow DoubleAttr(const char* name, double d) {
    return AttrRow(name, KAttributeType::kDouble, d, 0, 0, true);
}
inline KAttributeRow Float3Attr(const char* name, double d) {
    return AttrRow(name, KAttributeType::kFloat3, d, d, d, true);
}
inline KAttributeRow ColourAttr(const char* name) { return AttrRow(name, KAttributeType::kColour); }
inline KAttributeRow ColourAttr(const char* name, double r, double g, double b) {
    return AttrRow(name, KAttributeType::kColour, r, g, b, true);
}
template <std::size_t N>
KAttributeRow EnumAttr(const char* name, int d, const KEnumField (&fields)[N]) {
    KAttributeRow r = AttrRow(name, KAttributeType::kEnum, d, 0, 0, true);
    r.fields = fields;
    r.numFields = static_cast<int>(N);
    return r;
}
inline KAttributeRow TimeAttr(const char* name, double d) {
    return AttrRow(name, KAttributeType::kTime, d, 0, 0, true);
}
inline KAttributeRow MatrixAttr(const char* name) { return AttrRow(name, KAttributeType::kMatrix); }
inline KAttributeRow MeshAttr(const char* name) { return AttrRow(name, KAttributeType::kMesh); }
inline KAttributeRow IntArrayAttr(const char* name) { return AttrRow(name, KAttributeType::kIntArray); }
inline KAttributeRow DoubleArrayAttr(const char* name) { return AttrRow(name, KAttributeType::kDoubleArray); }
inline KAttributeRow VectorArrayAttr(const char* name) { return AttrRow(name, KAttributeType::kVectorArray); }
inline KAttributeRow CompoundAttr(const char* name) { return AttrRow(name, KAttributeType::kCompound); }
inline KAttributeRow MessageAttr(const char* name) { return AttrRow(name, KAttributeType::kMessage); }

// attributeAffects(from, to). Names are the node's own attributes or the deformer's inherited
// "inputGeom" and "outputGeom".
struct KAffects {
    const char* from;
    const char* to;
};

// Everything a node type's initialize declares.
struct KAttributeTable {
    const char* nodeType;  // "KDeltaMush"
    const char* source;    // named by initialize-time error reports: "source/KDeltaMush"
    const KAttributeRow* rows;
    int numRows;
    const KAffects* affects;
    int numAffects;
    // Run in order after the attributes are added, echo and undo off.
    const char* const* paintCommands;
    int numPaintCommands;
};

}  // namespace Kavrin
