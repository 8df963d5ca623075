// Demo case: a detailed sheet wrapped to a coarse cage lying under it, the cage then pushed up by
// a dome, rippled and bent.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>

#include "CommandSupport.h"
#include "Demo.h"
#include "KTriMeshDistTree.h"
#include "MeshGenerators.h"
#include "WrapRun.h"

namespace Kavrin {

namespace {

// Smallest and largest distance of the points to the cage's surface.
void CageDistances(const KPolyMesh& cage, const KVectorArray& points, double& lo, double& hi) {
    KTriMesh triangles;
    cage.triangulate(triangles);
    const KTriMeshDistTree tree(triangles, 10, 10);
    lo = std::numeric_limits<double>::infinity();
    hi = 0.0;
    for (const KVector& p : points) {
        KVector closest;
        int triangle = -1;
        if (!tree.getClosestPoint(p, closest, triangle, 1e30f)) continue;
        const double d = (p - closest).length();
        lo = std::min(lo, d);
        hi = std::max(hi, d);
    }
}

}  // namespace

void WrapDemo(DemoReport& demo) {
    const int n = 200, cageN = 24;
    const float gap = 0.3f;
    const KPolyMesh sheet = MakeDetailedGrid(n, 10.0f);
    KPolyMesh cage = MakeDetailedGrid(cageN, 11.0f);
    for (KVector& p : cage.points) p.z = -gap;
    SaveMesh(demo.path("wrap-sheet.obj"), sheet);
    SaveMesh(demo.path("wrap-cage.obj"), cage);
    demo.title("Wrap: a %d x %d sheet (%d vertices) with surface bumps, bound %.1f under it to a %d x %d cage "
               "(%d vertices).",
               n, n, sheet.numVertices(), gap, cageN, cageN, cage.numVertices());

    KRecordingSink sink;  // the bind's trace line is the node's, not the demo's
    double start = DemoClock();
    WrapRun run(cage, sheet, demo.threads(), sink);
    demo.line("bind: %.1f ms", DemoClock() - start);
    const KVectorArray same = run.deform(cage);
    double lo, hi;
    CageDistances(cage, sheet.points, lo, hi);
    demo.line("unchanged cage: largest distance from the bound sheet %.2g (smaller is better, 0 is exact); the "
              "sheet lies %.3f to %.3f from the cage",
              MaxDistance(same, sheet.points), lo, hi);

    struct Pose {
        const char* name;
        KPolyMesh cage;
    };
    Pose poses[] = {{"dome", cage}, {"ripple", cage}, {"bend45", BendAroundY(cage, 0.785398f)}};
    for (KVector& p : poses[0].cage.points) p.z += 2.0f * std::exp(-(p.x * p.x + p.y * p.y) / 8.0f);
    for (KVector& p : poses[1].cage.points) p.z += 0.5f * std::sin(0.8f * p.x);
    KPolyMesh dome;
    for (const Pose& pose : poses) {
        start = DemoClock();
        KPolyMesh result = sheet;
        result.points = run.deform(pose.cage);
        const double ms = DemoClock() - start;
        const std::string cageFile = std::string("wrap-cage-") + pose.name + ".obj";
        const std::string name = std::string("wrap-sheet-") + pose.name + ".obj";
        SaveMesh(demo.path(cageFile), pose.cage);
        SaveMesh(demo.path(name), result);
        CageDistances(pose.cage, result.points, lo, hi);
        demo.line("%-6s: %5.2f ms, the sheet lies %.3f to %.3f from the cage (closer to the rest's range is "
                  "better) -> %s",
                  pose.name, ms, lo, hi, name.c_str());
        if (&pose == &poses[0]) dome = result;
    }
    demo.picture("wrap.png", {{"wrap-cage-dome.obj", &poses[0].cage}, {"wrap-sheet-dome.obj", &dome}},
                 {"wrap-sheet.obj", &sheet}, true,
                 "Left: the cage pushed up by a dome; right: the sheet following it, coloured by how far it moved from "
                 "where it was bound");
}

}  // namespace Kavrin
