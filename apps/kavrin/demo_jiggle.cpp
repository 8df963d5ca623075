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
#include "ValueFile.h"

namespace Kavrin {

void JiggleDemo(DemoReport& demo) {
    const int moving = 12, frames = 40;
    const float travel = 4.0f;
    const KPolyMesh ball = MakeUVSphere(24, 32);
    demo.title("Jiggle: a jelly ball (%d vertices, weights 0 at the bottom to 1 at the top) slides %.0f units in %d "
               "frames, then stops; stiffness 0.3, damping 0.1, distance limit 1.",
               ball.numVertices(), travel, moving);

    // Vertex 0 is the top pole (+z).
    KArray<float> weights;
    KArray<double> written;
    for (const KVector& p : ball.points) {
        weights.push_back(0.5f * (p.z + 1.0f));
        written.push_back(weights.back());
    }
    try {
        WriteValues(demo.path("jiggle-weights.txt"), written);
    } catch (const KFileError& e) {
        throw RunError(e.what());
    }
    JiggleRun run(KJiggleAttributes(), weights, demo.threads());
    double overshoot = 0.0, lagWhileMoving = 0.0;
    int overshootFrame = 0;
    double last = 0.0, total = 0.0;
    std::vector<KPolyMesh> animated, jiggled;
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
        char name[64];
        std::snprintf(name, sizeof(name), "jiggle-frame%02d.obj", f);
        SaveMesh(demo.path(name), frame);
        std::snprintf(name, sizeof(name), "jiggle-frame%02d-result.obj", f);
        SaveMesh(demo.path(name), result);
        animated.push_back(frame);
        jiggled.push_back(result);
    }
    demo.line("while moving, the top trails its animated place by up to %.3f (the lag the jiggle adds); the ball "
              "stops at frame %d",
              -lagWhileMoving, moving);
    demo.line("the top swings %.3f past its resting place at frame %d (the overshoot); at frame %d it is %.4f off "
              "(settling: smaller is better)",
              overshoot, overshootFrame, frames, last);
    demo.line("%.3f ms per frame -> jiggle-frame00-result.obj ... jiggle-frame%02d-result.obj (the weights are in "
              "jiggle-weights.txt)",
              total / (frames + 1), frames);
    char frame[32];
    std::snprintf(frame, sizeof(frame), "jiggle-frame%02d", overshootFrame);
    const std::string result = frame + std::string("-result.obj");
    demo.picture("jiggle.png", {{frame + std::string(".obj"), &animated[overshootFrame]}, {result, &jiggled[overshootFrame]}},
                 {frame + std::string(".obj"), &animated[overshootFrame]}, true,
                 "Frame " + std::to_string(overshootFrame) +
                     ", just after the ball stops. Left: the animated ball; right: jiggled, its top swinging on");
}

}  // namespace Kavrin
