// Demo case: a generated pattern image displacing a textured sphere along its normals.

#include <algorithm>
#include <cmath>
#include <cstdio>

#include "CommandSupport.h"
#include "Demo.h"
#include "OffsetRun.h"
#include "VertexNormalsUVs.h"

namespace Kavrin {

namespace {

const double kPi = 3.14159265358979323846;

// A unit latitude-longitude sphere (y up) of `rings` bands and `segments` columns, quads between
// triangle fans at the poles, wound outwards, with texture coordinates: u around the sphere, v
// from the south pole (0) to the north pole (1). The seam's vertices are shared; its texture
// coordinates are not (column 0 at u = 0 and column `segments` at u = 1).
void TexturedSphere(int rings, int segments, KPolyMesh& mesh, KCornerUVs& uvs) {
    mesh = KPolyMesh();
    uvs = KCornerUVs();
    mesh.points.push_back(KVector(0.0f, 1.0f, 0.0f));
    for (int r = 1; r < rings; ++r)
        for (int s = 0; s < segments; ++s) {
            const double theta = kPi * r / rings, phi = 2.0 * kPi * s / segments;
            mesh.points.push_back(KVector(static_cast<float>(std::sin(theta) * std::cos(phi)),
                                          static_cast<float>(std::cos(theta)),
                                          static_cast<float>(-std::sin(theta) * std::sin(phi))));
        }
    mesh.points.push_back(KVector(0.0f, -1.0f, 0.0f));
    const int south = mesh.numVertices() - 1;
    for (int r = 0; r <= rings; ++r)
        for (int s = 0; s <= segments; ++s)
            uvs.uvs.push_back(KFloat2{static_cast<float>(s) / segments, 1.0f - static_cast<float>(r) / rings});

    auto vertex = [&](int r, int s) { return r == 0 ? 0 : r == rings ? south : 1 + (r - 1) * segments + s % segments; };
    auto corner = [&](int r, int s) {
        mesh.faceVertices.push_back(vertex(r, s));
        uvs.corners.push_back(r * (segments + 1) + s);
    };
    for (int r = 0; r < rings; ++r)
        for (int s = 0; s < segments; ++s) {
            // Corners counter-clockwise seen from outside: down the column, across, back up; the
            // poles' bands are triangles.
            const int before = mesh.faceVertices.length();
            corner(r, s);
            corner(r + 1, s);
            if (r + 1 < rings) corner(r + 1, s + 1);
            if (r > 0) corner(r, s + 1);
            mesh.faceCounts.push_back(mesh.faceVertices.length() - before);
        }
}

// 12 x 6 smooth bumps, 0 at the poles and along the seam; green and blue carry other patterns,
// which the offset ignores.
std::vector<float> BumpPattern(int width, int height) {
    std::vector<float> pixels;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double u = (x + 0.5) / width, v = 1.0 - (y + 0.5) / height;
            const double red = (0.5 - 0.5 * std::cos(2.0 * kPi * 12.0 * u)) * (0.5 - 0.5 * std::cos(2.0 * kPi * 6.0 * v));
            pixels.push_back(static_cast<float>(red));
            pixels.push_back(static_cast<float>(u));
            pixels.push_back(static_cast<float>(1.0 - red));
        }
    return pixels;
}

}  // namespace

void OffsetDemo(DemoReport& demo) {
    const int rings = 128, segments = 256, width = 1024, height = 512;
    const double scale = 0.15;
    KPolyMesh sphere;
    KCornerUVs corners;
    TexturedSphere(rings, segments, sphere, corners);
    const std::string pattern = demo.path("offset-pattern.png");
    SaveText(pattern, EncodeImage(pattern, width, height, 3, BumpPattern(width, height), 8));
    SaveMesh(demo.path("offset-sphere.obj"), sphere, &corners);
    demo.title("Offset: a textured sphere (%d vertices, %d faces) and a %d x %d pattern image of 12 x 6 bumps "
               "(offset-pattern.png).",
               sphere.numVertices(), sphere.numFaces(), width, height);

    // The image as the command line reads it: the red channel of the 8-bit file.
    const KTextureImage image = ReadTextureRed(StagedFile(pattern));
    const KVertexUVs uvs = VertexUVs(sphere, corners);
    const KFloatArray weights;
    for (double s : {scale, -scale}) {
        OffsetRun run(&image, 0.0f, s, 1.0f, demo.threads());
        const double start = DemoClock();
        KPolyMesh result = sphere;
        result.points = run.deform(sphere, uvs.uvs, weights);
        const double ms = DemoClock() - start;
        // Every vertex must have moved by scale x red along its (unit) normal.
        double worst = 0.0, largest = 0.0;
        for (int i = 0; i < sphere.numVertices(); ++i) {
            const double moved = (result.points[i] - sphere.points[i]).length();
            const double expected = std::abs(s * image.sample(uvs.uvs[i][0], uvs.uvs[i][1]));
            worst = std::max(worst, std::abs(moved - expected));
            largest = std::max(largest, moved);
        }
        const char* name = s > 0 ? "offset-sphere-out.obj" : "offset-sphere-in.obj";
        SaveMesh(demo.path(name), result, &corners);
        demo.line("scale %+.2f: %6.2f ms, largest move %.3f, largest difference from scale x red %.2g (smaller is "
                  "better) -> %s",
                  s, ms, largest, worst, name);
        if (s > 0)
            demo.picture("offset.png", {{"offset-sphere.obj", &sphere}, {name, &result}}, {"offset-sphere.obj", &sphere},
                         false, "Left: the textured sphere; right: pushed out by 0.15 x the red of offset-pattern.png");
    }
}

}  // namespace Kavrin
