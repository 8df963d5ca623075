#include "KColliderPainting.h"

#include <cmath>

namespace Kavrin {

const char* const kInvalidColliderConnections = "Invalid collider connections.";

bool FindColliderIndex(const std::vector<KColliderTag>& tags, KMessageSink& sink, int& index) {
    for (const KColliderTag& tag : tags) {
        if (tag.connections != 1) {
            sink.error(kInvalidColliderConnections);
            continue;
        }
        if (tag.fromNode) {
            index = tag.logicalIndex;
            return true;
        }
    }
    return false;
}

void ColliderWeights(const std::vector<KMultiplierElement>& list, int index, KArray<double>& weights) {
    weights.clear();
    for (const KMultiplierElement& element : list) {
        double value = 0.0;
        for (const std::pair<int, double>& child : element.values)
            if (child.first == index) {
                value = child.second;
                break;
            }
        if (value == 0.0 || element.vertex < 0) continue;
        if (weights.length() <= element.vertex) weights.resize(static_cast<size_t>(element.vertex) + 1, 0.0);
        weights[element.vertex] = value;
    }
}

double ClampMultiplier(double painted) {
    // Guard (behaviour note "Relaxation: painted NaN").
    if (std::isnan(painted)) return 0.0;
    return painted < 0.0 ? 0.0 : (painted > 1.0 ? 1.0 : painted);
}

void PaintedMultiplierWrites(const KArray<double>& painted, const KArray<double>& stored,
                             std::vector<KMultiplierWrite>& writes) {
    writes.clear();
    for (int v = 0; v < painted.length(); ++v) {
        const double value = ClampMultiplier(painted[v]);
        const double old = v < stored.length() ? stored[v] : 0.0;
        if (value != old) writes.push_back(KMultiplierWrite{v, value});
    }
}

void MultiplierTable(const std::vector<KMultiplierElement>& list, int count, int numColliders,
                     KArray<double>& table) {
    const size_t rows = static_cast<size_t>(count > 0 ? count : 0), cols = static_cast<size_t>(numColliders > 0 ? numColliders : 0);
    table.assign(rows * cols, 0.0);
    for (const KMultiplierElement& element : list) {
        // Guard (behaviour note "Relaxation: multipliers outside the table").
        if (element.vertex < 0 || static_cast<size_t>(element.vertex) >= rows) continue;
        for (const std::pair<int, double>& child : element.values)
            if (child.first >= 0 && static_cast<size_t>(child.first) < cols)
                table[static_cast<size_t>(element.vertex) * cols + static_cast<size_t>(child.first)] = child.second;
    }
}

}  // namespace Kavrin
