// Demo case: jiggle on a jelly ball that slides across and stops: its top trails behind while it
// moves, swings past its resting place when it stops, and settles. The paint weights grow from 0
// at the bottom to 1 at the top, so the ball shears instead of moving as a whole.

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "CommandSupport.h"
#include "Demo.h"
#include "JiggleRun.h"
#include "MeshGenerators.h"

namespace Kavrin {

void JiggleDemo(const std::string& folder, int threads) {
    const int moving = 12, frames = 40;
    const float travel = 4.0f;
    const KPolyMesh ball = MakeUVSphere(24, 32);
    std::printf("Jiggle: a jelly ball (%d vertices, weights 0 at the bottom to 1 at the top) slides %.0f units in %d "
                "frames, then stops; stiffness 0.3, damping 0.1, distance limit 1.\n",
                ball.numVertices(), travel, moving);

    // Vertex 0 is the top pole (+z).
    KArray<float> weights;
    for (const KVector& p : ball.points) weights.push_back(0.5f * (p.z + 1.0f));
    JiggleRun run(KJiggleAttributes(), weights, threads);
    double overshoot = 0.0, lagWhileMoving = 0.0;
    int overshootFrame = 0;
    double last = 0.0, total = 0.0;
    for (int f = 0; f <= frames; ++f) {
        // Eases in and out along x, then holds still.
        const float t = std::min(1.0f, static_cast<float>(f) / moving);
        const float x = travel * t * t * (3.0f - 2.0f * t);
        KPolyMesh frame = ball;
        for (KVector& p : frame.points) p.x += x;
        const double start = DemoClock();
        KPolyMesh result = frame;
        result.points = run.deform(frame, static_cast<double>(f), 1.0f);
        total += DemoClock() - start;
        const double offset = result.points[0].x - frame.points[0].x;
        if (f <= moving) lagWhileMoving = std::min(lagWhileMoving, offset);
        if (f > moving && offset > overshoot) {
            overshoot = offset;
            overshootFrame = f;
        }
        last = offset;
        if (f % 4 == 0) {
            char name[64];
            std::snprintf(name, sizeof(name), "jiggle-frame%02d.obj", f);
            SaveMesh(DemoPath(folder, name), frame);
            std::snprintf(name, sizeof(name), "jiggle-frame%02d-result.obj", f);
            SaveMesh(DemoPath(folder, name), result);
        }
    }
    std::printf("  while moving, the top trails its animated place by up to %.3f (the lag the jiggle adds); the ball "
                "stops at frame %d\n",
                -lagWhileMoving, moving);
    std::printf("  the top swings %.3f past its resting place at frame %d (the overshoot); at frame %d it is %.4f off "
                "(settling: smaller is better)\n",
                overshoot,
                overshootFrame, frames, last);
    std::printf("  %.3f ms per frame -> jiggle-frameNN.obj / jiggle-frameNN-result.obj (every 4th frame)\n",
                total / (frames + 1));
}

}  // namespace Kavrin
