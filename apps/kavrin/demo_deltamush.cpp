// Demo case: delta mush cleaning up a rough skin. A bumpy tube is skinned to two bones meeting at
// an elbow with a short falloff, the way a quick bind looks: bent, the skin creases on the
// outside of the elbow, folds into itself on the inside and stretches across the joint. Delta
// mush smooths that away at the joint, keeps the bumps, and leaves the straight parts alone.

#include <algorithm>
#include <cmath>

#include "CommandSupport.h"
#include "DeltaMushRun.h"
#include "Demo.h"

namespace Kavrin {

namespace {

const double kPi = 3.14159265358979323846;

// A closed tube along x from -length/2 to length/2 of radius 1: rings x segments quads between
// two polygon caps, wound outwards, with a knit of small bumps as surface detail. Vertex s of
// ring r has index r * segments + s.
KPolyMesh BumpyTube(int rings, int segments, double length) {
    KPolyMesh tube;
    for (int r = 0; r < rings; ++r) {
        const double x = length * (static_cast<double>(r) / (rings - 1) - 0.5);
        for (int s = 0; s < segments; ++s) {
            const double a = 2.0 * kPi * s / segments;
            const double radius = 1.0 + 0.03 * std::sin(8.0 * a) * std::sin(3.0 * kPi * x);
            tube.points.push_back(KVector(static_cast<float>(x), static_cast<float>(radius * std::cos(a)),
                                          static_cast<float>(radius * std::sin(a))));
        }
    }
    for (int r = 0; r + 1 < rings; ++r)
        for (int s = 0; s < segments; ++s) {
            const int a = r * segments + s, b = r * segments + (s + 1) % segments;
            tube.faceCounts.push_back(4);
            for (int v : {a, b, b + segments, a + segments}) tube.faceVertices.push_back(v);
        }
    tube.faceCounts.push_back(segments);
    for (int s = segments - 1; s >= 0; --s) tube.faceVertices.push_back(s);
    tube.faceCounts.push_back(segments);
    for (int s = 0; s < segments; ++s) tube.faceVertices.push_back((rings - 1) * segments + s);
    return tube;
}

// Linear-blend skinning onto two bones meeting at the origin: the forearm (x > 0) turns by
// `twist` about its own axis, then lifts by `bend` about the y axis; a vertex's weight for the
// forearm rises smoothly from 0 to 1 over -falloff < x < falloff.
KPolyMesh SkinAtElbow(const KPolyMesh& rest, double bend, double twist, double falloff) {
    const double cb = std::cos(bend), sb = std::sin(bend), ct = std::cos(twist), st = std::sin(twist);
    KPolyMesh pose = rest;
    for (KVector& p : pose.points) {
        const double t = std::min(1.0, std::max(0.0, (p.x + falloff) / (2.0 * falloff)));
        const double w = t * t * (3.0 - 2.0 * t);
        const double y = ct * p.y - st * p.z, z = st * p.y + ct * p.z;  // twisted
        const double x = cb * p.x - sb * z;
        const double lifted = sb * p.x + cb * z;
        p = KVector(static_cast<float>((1.0 - w) * p.x + w * x), static_cast<float>((1.0 - w) * p.y + w * y),
                    static_cast<float>((1.0 - w) * p.z + w * lifted));
    }
    return pose;
}

// The largest ratio of an edge's length in pose to its length in rest.
double LargestStretch(const KPolyMesh& rest, const KPolyMesh& pose) {
    double largest = 0.0;
    int first = 0;
    for (int f = 0; f < rest.numFaces(); ++f) {
        const int n = rest.faceCounts[f];
        for (int c = 0; c < n; ++c) {
            const int a = rest.faceVertices[first + c], b = rest.faceVertices[first + (c + 1) % n];
            largest = std::max(largest, static_cast<double>((pose.points[a] - pose.points[b]).length() /
                                                            (rest.points[a] - rest.points[b]).length()));
        }
        first += n;
    }
    return largest;
}

}  // namespace

void DeltaMushDemo(DemoReport& demo) {
    const int rings = 80, segments = 40, iterations = 15;
    const double length = 8.0, falloff = 0.1, twist = 40.0;
    const KPolyMesh rest = BumpyTube(rings, segments, length);
    SaveMesh(demo.path("deltamush-rest.obj"), rest);
    demo.title("Delta mush: a tube (%d vertices, %g long, radius 1) with surface bumps, skinned to two bones meeting "
               "at an elbow with a %g falloff (linear blend); the forearm turns %g degrees; %d sweeps.",
               rest.numVertices(), length, falloff, twist, iterations);

    DeltaMushRun run(rest, iterations, demo.threads());
    // The rest shape itself must come back unchanged: smoothing removes the bumps and the deltas
    // put them back.
    demo.line("rest pose reproduced: largest distance from the rest mesh %.2g (smaller is better, 0 is exact)",
              MaxDistance(run.deform(rest, 1.0f), rest.points));

    for (int degrees : {60, 110}) {
        const KPolyMesh pose = SkinAtElbow(rest, degrees * kPi / 180.0, twist * kPi / 180.0, falloff);
        const double start = DemoClock();
        KPolyMesh result = pose;
        result.points = run.deform(pose, 1.0f);
        const double ms = DemoClock() - start;
        const std::string name = "deltamush-elbow" + std::to_string(degrees);
        SaveMesh(demo.path(name + ".obj"), pose);
        SaveMesh(demo.path(name + "-result.obj"), result);
        // Away from the elbow both bones move rigidly: nothing there is an artefact.
        double away = 0.0;
        for (int i = 0; i < rest.numVertices(); ++i)
            if (std::abs(rest.points[i].x) > 2.0f)
                away = std::max(away, static_cast<double>((result.points[i] - pose.points[i]).length()));
        demo.line("elbow %3d deg: %5.2f ms; the skin stretches up to %.2f times its rest length, after delta mush %.2f "
                  "(smaller is better, 1 is unstretched) -> %s-result.obj",
                  degrees, ms, LargestStretch(rest, pose), LargestStretch(rest, result), name.c_str());
        demo.line("elbow %3d deg: farther than 2 from the elbow, delta mush moves the skin by at most %.2g (smaller is "
                  "better)",
                  degrees, away);
        if (degrees == 110)
            demo.picture("deltamush.png", {{name + ".obj", &pose}, {name + "-result.obj", &result}},
                         {name + ".obj", &pose}, true,
                         "Left: the skinned pose, creased and folded at the elbow; right: after delta mush");
    }
}

}  // namespace Kavrin
