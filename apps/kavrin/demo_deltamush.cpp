// Demo case: delta mush on a bumpy sheet bent around an axis.

#include <cstdio>

#include "CommandSupport.h"
#include "DeltaMushRun.h"
#include "Demo.h"
#include "MeshGenerators.h"

namespace Kavrin {

void DeltaMushDemo(const std::string& folder, int threads) {
    const int n = 200;
    const int iterations = 15;
    const KPolyMesh rest = MakeDetailedGrid(n, 10.0f);
    SaveMesh(DemoPath(folder, "deltamush-rest.obj"), rest);
    std::printf("Delta mush: a %d x %d sheet (%d vertices, %d quads) with surface bumps, %d sweeps.\n", n, n,
                rest.numVertices(), rest.numFaces(), iterations);

    DeltaMushRun run(rest, iterations, threads);
    // The rest shape itself must come back unchanged: smoothing removes the bumps and the deltas
    // put them back.
    const KVectorArray same = run.deform(rest, 1.0f);
    std::printf("  rest pose reproduced: largest distance from the rest mesh %.2g (the sheet is 10 wide; smaller is "
                "better, 0 is exact)\n",
                MaxDistance(same, rest.points));

    const float angles[] = {30.0f, 60.0f, 90.0f};
    for (float degrees : angles) {
        const KPolyMesh pose = BendAroundY(rest, degrees * 3.14159265f / 180.0f);
        const double start = DemoClock();
        KPolyMesh result = pose;
        result.points = run.deform(pose, 1.0f);
        const double ms = DemoClock() - start;
        char name[64];
        std::snprintf(name, sizeof(name), "deltamush-bend%02d.obj", static_cast<int>(degrees));
        SaveMesh(DemoPath(folder, name), pose);
        std::snprintf(name, sizeof(name), "deltamush-bend%02d-result.obj", static_cast<int>(degrees));
        SaveMesh(DemoPath(folder, name), result);
        // The bent pose has no skinning artefacts to remove, so a perfect result leaves it as it is.
        std::printf("  bend %3.0f deg: %6.2f ms, largest change to the cleanly bent sheet %.3g (smaller is better) "
                    "-> %s\n",
                    degrees, ms, MaxDistance(result.points, pose.points), name);
    }
}

}  // namespace Kavrin
