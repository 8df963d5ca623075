#include "Demo.h"

#include <algorithm>
#include <chrono>
#include <filesystem>

namespace Kavrin {

std::string DemoPath(const std::string& folder, const std::string& name) {
    return (std::filesystem::path(folder) / name).string();
}

double MaxDistance(const KVectorArray& a, const KVectorArray& b) {
    double worst = 0.0;
    for (int i = 0; i < a.length(); ++i) worst = std::max(worst, static_cast<double>((a[i] - b[i]).length()));
    return worst;
}

double Diagonal(const KPolyMesh& mesh) {
    if (mesh.points.empty()) return 0.0;
    KVector lo = mesh.points[0], hi = mesh.points[0];
    for (const KVector& p : mesh.points)
        for (int k = 0; k < 3; ++k) {
            lo[k] = std::min(lo[k], p[k]);
            hi[k] = std::max(hi[k], p[k]);
        }
    return (hi - lo).length();
}

int NearestVertex(const KPolyMesh& mesh, const KVector& p) {
    int best = 0;
    for (int i = 1; i < mesh.numVertices(); ++i)
        if ((mesh.points[i] - p).squaredLength() < (mesh.points[best] - p).squaredLength()) best = i;
    return best;
}

double DemoClock() {
    using namespace std::chrono;
    return duration<double, std::milli>(steady_clock::now().time_since_epoch()).count();
}

}  // namespace Kavrin
