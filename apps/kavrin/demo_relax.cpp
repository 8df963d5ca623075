// Demo case: the relaxation deformer smooths a jittered sheet back to its rest shape, then keeps
// the sheet out of a ball pushed up into it.

#include <cmath>
#include <cstdio>

#include "CommandSupport.h"
#include "Demo.h"
#include "MeshGenerators.h"
#include "RelaxRun.h"

namespace Kavrin {

namespace {

// Vertices of points strictly inside the ball (centre c, radius r), and the deepest one's depth.
int Inside(const KVectorArray& points, const KVector& c, float r, double& deepest) {
    int n = 0;
    deepest = 0.0;
    for (const KVector& p : points) {
        const double d = r - (p - c).length();
        if (d > 1e-4) {
            ++n;
            deepest = std::max(deepest, d);
        }
    }
    return n;
}

double MeanDistance(const KVectorArray& a, const KVectorArray& b) {
    double sum = 0.0;
    for (int i = 0; i < a.length(); ++i) sum += (a[i] - b[i]).length();
    return a.empty() ? 0.0 : sum / a.length();
}

}  // namespace

void RelaxDemo(DemoReport& demo) {
    const int n = 120;
    const KPolyMesh rest = MakeDetailedGrid(n, 10.0f);
    SaveMesh(demo.path("relax-rest.obj"), rest);
    demo.title("Relaxation: a %d x %d sheet (%d vertices) with surface bumps.", n, n, rest.numVertices());
    RelaxRun run(rest, demo.threads());

    // A pose with every vertex jittered: the passes pull each vertex back to where its neighbours
    // say it belongs, restoring the bumps.
    KPolyMesh noisy = rest;
    unsigned int seed = 12345;
    auto jitter = [&seed]() {
        seed = seed * 1664525u + 1013904223u;
        return (static_cast<float>(seed >> 8) / 16777216.0f - 0.5f) * 0.04f;
    };
    for (KVector& p : noisy.points) p += KVector(jitter(), jitter(), jitter());
    RelaxSettings settings;
    settings.iterations = 20;
    double start = DemoClock();
    KPolyMesh smooth = noisy;
    smooth.points = run.relax(noisy, settings);
    double ms = DemoClock() - start;
    SaveMesh(demo.path("relax-noisy.obj"), noisy);
    SaveMesh(demo.path("relax-noisy-result.obj"), smooth);
    demo.line("jittered pose: mean distance from the rest shape %.3g, after %d passes %.3g (smaller is better; "
              "%.1f ms) -> relax-noisy-result.obj",
              MeanDistance(noisy.points, rest.points), settings.iterations, MeanDistance(smooth.points, rest.points),
              ms);
    demo.picture("relax.png", {{"relax-noisy.obj", &noisy}, {"relax-noisy-result.obj", &smooth}},
                 {"relax-rest.obj", &rest}, true,
                 "Left: the jittered pose; right: relaxed, both coloured by their distance from the rest shape");

    // A ball pushed up through the sheet from below: every vertex inside it is moved onto its
    // surface after each collision pass, and the relaxation spreads the dent around it.
    const float radius = 2.5f;
    const KVector centre(0.0f, 0.0f, -1.5f);
    KPolyMesh ball = MakeIcosphere(4);
    ScalePoints(ball, radius, radius, radius);
    for (KVector& p : ball.points) p += centre;
    SaveMesh(demo.path("relax-collider.obj"), ball);
    run.addCollider(ball, nullptr);
    settings.iterations = 10;
    settings.scaleSafe = true;
    double deepest = 0.0;
    const int before = Inside(rest.points, centre, radius * 0.98f, deepest);
    start = DemoClock();
    KPolyMesh pushed = rest;
    pushed.points = run.relax(rest, settings);
    ms = DemoClock() - start;
    SaveMesh(demo.path("relax-collide-result.obj"), pushed);
    double after = 0.0;
    const int left = Inside(pushed.points, centre, radius * 0.98f, after);
    demo.line("ball collider (%d triangles): %d vertices inside it (deepest %.3g), after %d passes with "
              "collisions %d (smaller is better; %.1f ms) -> relax-collide-result.obj",
              2 * ball.numVertices() - 4, before, deepest, settings.iterations, left, ms);
    demo.picture("relax-collider.png", {{"relax-collider.obj", &ball}, {"relax-collide-result.obj", &pushed}},
                 {"relax-rest.obj", &rest}, true,
                 "Left: the ball collider; right: the sheet kept out of it, coloured by how far it was pushed");
}

}  // namespace Kavrin
