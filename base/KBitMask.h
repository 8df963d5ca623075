#pragma once
// Bit tricks on the small masks the tree searches keep (one bit per child or lane).

namespace Kavrin {

// Index of the lowest set bit of a non-zero mask.
inline int LowestBit(int mask) {
#if defined(__GNUC__)
    return __builtin_ctz(static_cast<unsigned>(mask));
#else
    int i = 0;
    while (!(mask & (1 << i))) ++i;
    return i;
#endif
}

}  // namespace Kavrin
