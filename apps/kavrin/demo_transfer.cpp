// Demo case: deformation transfer between two ellipsoids of unrelated triangulations.

#include <cstdio>
#include <string>

#include "CommandSupport.h"
#include "Demo.h"
#include "MarkerFile.h"
#include "MeshGenerators.h"
#include "TransferRun.h"

namespace Kavrin {

void TransferDemo(DemoReport& demo) {
    // A limb-like ellipsoid as a latitude-longitude sphere, and a slightly different one built
    // from a subdivided icosahedron: same kind of shape, unrelated triangles.
    KPolyMesh source = MakeUVSphere(24, 48);
    ScalePoints(source, 2.0f, 0.5f, 0.5f);
    KPolyMesh target = MakeIcosphere(4);
    ScalePoints(target, 2.0f, 0.55f, 0.45f);
    SaveMesh(demo.path("transfer-source-rest.obj"), source);
    SaveMesh(demo.path("transfer-target-rest.obj"), target);

    // Markers: the vertices nearest to the same landmarks on both shapes, starting with the tip
    // that the bends leave in place, which also serves as the fixed vertex.
    const KVector landmarks[] = {KVector(-2, 0, 0),     KVector(2, 0, 0),       KVector(0, 0.5f, 0),
                                 KVector(0, -0.5f, 0),  KVector(0, 0, 0.5f),    KVector(0, 0, -0.5f),
                                 KVector(1, 0.43f, 0),  KVector(1, -0.43f, 0),  KVector(-1, 0, 0.43f),
                                 KVector(-1, 0, -0.43f), KVector(1.5f, 0, 0.33f), KVector(-1.5f, 0.33f, 0)};
    TransferSettings settings;
    for (const KVector& l : landmarks) {
        settings.markers.push_back(NearestVertex(source, l));
        settings.markers.push_back(NearestVertex(target, l));
    }
    SaveText(demo.path("transfer-markers.txt"), FormatMarkers(settings.markers));
    settings.fixedSource = settings.markers[0];
    settings.fixedTarget = settings.markers[1];
    settings.threads = demo.threads();
    demo.title("Deformation transfer: source %d vertices (latitude-longitude), target %d vertices "
               "(subdivided icosahedron), %d marker pairs.",
               source.numVertices(), target.numVertices(), settings.markers.length() / 2);

    ConsoleSink sink("kavrin demo");
    const double start = DemoClock();
    TransferRun run(source, target, settings, sink);
    demo.line("correspondence and factorisation: %.2f s", (DemoClock() - start) / 1000.0);

    // The same bend applied to the target directly is what a perfect transfer would give.
    const double diag = Diagonal(target);
    const float angles[] = {30.0f, 60.0f, 90.0f};
    for (float degrees : angles) {
        const float radians = degrees * 3.14159265f / 180.0f;
        KPolyMesh result = target;
        const KPolyMesh pose = BendAroundY(source, radians);
        const double t0 = DemoClock();
        result.points = run.transfer(pose);
        const double ms = DemoClock() - t0;
        const KPolyMesh expected = BendAroundY(target, radians);
        double sum = 0.0;
        for (int i = 0; i < result.numVertices(); ++i) sum += (result.points[i] - expected.points[i]).length();
        char posed[64], name[64];
        std::snprintf(posed, sizeof(posed), "transfer-source-bend%02d.obj", static_cast<int>(degrees));
        SaveMesh(demo.path(posed), pose);
        std::snprintf(name, sizeof(name), "transfer-target-bend%02d.obj", static_cast<int>(degrees));
        SaveMesh(demo.path(name), result);
        demo.line("bend %3.0f deg: %5.2f ms, mean distance to the target bent directly %.2f%% of its size "
                  "(smaller is better) -> %s",
                  degrees, ms, 100.0 * sum / result.numVertices() / diag, name);
        if (degrees == 90.0f) {
            const std::string direct = "transfer-target-bend90-direct.obj";
            SaveMesh(demo.path(direct), expected);
            demo.picture("transfer.png", {{posed, &pose}, {name, &result}}, {direct, &expected}, true,
                         "Left: the source bent by 90 degrees; right: the target after the transfer, coloured by its "
                         "distance from the target bent directly (red: 5% of its length)",
                         0.2);
        }
    }
}

}  // namespace Kavrin
