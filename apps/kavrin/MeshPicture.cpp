#include "MeshPicture.h"


#include <algorithm>
#include <cmath>
#include <limits>

#include "CommandSupport.h"
#include "OffScreenGL.h"
#include "TextureImage.h"

// OSMesa keeps a few driver allocations for the life of the process; they are not ours. Under
// LeakSanitizer they are suppressed without the report of what was suppressed, which would break
// the tool's one-line standard error.
extern "C" const char* __lsan_default_suppressions() { return "leak:libOSMesa.so\n"; }
extern "C" const char* __lsan_default_options() { return "print_suppressions=0"; }

namespace Kavrin {

namespace {

// Each picture is drawn at this many times its size in both directions and averaged down, so
// that edges come out smooth.
const int kSupersample = 2;

struct V3 {
    double x, y, z;
};
V3 operator+(V3 a, V3 b) { return {a.x + b.x, a.y + b.y, a.z + b.z}; }
V3 operator-(V3 a, V3 b) { return {a.x - b.x, a.y - b.y, a.z - b.z}; }
V3 operator*(double s, V3 a) { return {s * a.x, s * a.y, s * a.z}; }
double Dot(V3 a, V3 b) { return a.x * b.x + a.y * b.y + a.z * b.z; }
V3 Cross(V3 a, V3 b) { return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x}; }
V3 Normalized(V3 a) {
    const double length = std::sqrt(Dot(a, a));
    return length > 0.0 ? (1.0 / length) * a : a;
}
V3 ToV3(const KVector& p) { return {p.x, p.y, p.z}; }

// The fixed camera: looking at the meshes from the front, 30 degrees to the right and 25
// degrees above, with the light from the upper left of the viewer.
struct Camera {
    V3 right, up, forward, light;
};

Camera MakeCamera(bool zUp) {
    const double azimuth = 30.0 * M_PI / 180.0, elevation = 25.0 * M_PI / 180.0;
    const double side = std::sin(azimuth) * std::cos(elevation), front = std::cos(azimuth) * std::cos(elevation);
    // The direction towards the camera; "front" is +z for y up and -y for z up.
    const V3 toCamera = zUp ? V3{side, -front, std::sin(elevation)} : V3{side, std::sin(elevation), front};
    const V3 worldUp = zUp ? V3{0, 0, 1} : V3{0, 1, 0};
    Camera camera;
    camera.forward = -1.0 * toCamera;
    camera.right = Normalized(Cross(camera.forward, worldUp));
    camera.up = Cross(camera.right, camera.forward);
    camera.light = Normalized(toCamera + 0.6 * camera.up - 0.4 * camera.right);
    return camera;
}

// The colour scale: grey for 0 (the colour of an uncoloured mesh), then yellow, orange and red
// for the range.
struct Stop {
    float t, rgb[3];
};
const Stop kScale[] = {{0.0f, {0.74f, 0.76f, 0.80f}},
                       {0.3f, {0.98f, 0.84f, 0.42f}},
                       {0.65f, {0.95f, 0.50f, 0.20f}},
                       {1.0f, {0.78f, 0.09f, 0.11f}}};
const int kStops = sizeof(kScale) / sizeof(kScale[0]);

void ScaleColour(float t, float rgb[3]) {
    t = std::min(1.0f, std::max(0.0f, t));
    int s = 1;
    while (s + 1 < kStops && t > kScale[s].t) ++s;
    const float f = (t - kScale[s - 1].t) / (kScale[s].t - kScale[s - 1].t);
    for (int c = 0; c < 3; ++c) rgb[c] = kScale[s - 1].rgb[c] + f * (kScale[s].rgb[c] - kScale[s - 1].rgb[c]);
}

// An OSMesa context drawing into memory (RGBA, rows from the bottom), current while it lives.
class OffScreen {
public:
    OffScreen(int width, int height) : pixels(static_cast<size_t>(width) * height * 4, 0) {
        _context = GL().OSMesaCreateContextExt(OSMESA_RGBA, 24, 0, 0, nullptr);
        // Guard (behaviour note "kavrin render: no off-screen OpenGL")
        if (!_context) throw RunError("cannot create an off-screen OpenGL context (OSMesa)");
        if (!GL().OSMesaMakeCurrent(_context, pixels.data(), GL_UNSIGNED_BYTE, width, height)) {
            GL().OSMesaDestroyContext(_context);
            throw RunError("cannot draw a picture of " + std::to_string(width) + " x " + std::to_string(height) +
                           " pixels off screen (OSMesa)");
        }
    }
    ~OffScreen() { GL().OSMesaDestroyContext(_context); }
    OffScreen(const OffScreen&) = delete;
    OffScreen& operator=(const OffScreen&) = delete;

    std::vector<unsigned char> pixels;

private:
    OSMesaContext _context = nullptr;
};

// Triangles collected in window coordinates and drawn in batches, so that a mesh of millions of
// faces needs no copy of its own size.
class TriangleBatch {
public:
    TriangleBatch() {
        GL().glEnableClientState(GL_VERTEX_ARRAY);
        GL().glEnableClientState(GL_COLOR_ARRAY);
    }
    void corner(const V3& window, const float rgb[3], double shade) {
        _xyz.insert(_xyz.end(), {static_cast<float>(window.x), static_cast<float>(window.y), static_cast<float>(window.z)});
        for (int c = 0; c < 3; ++c)
            _rgb.push_back(static_cast<unsigned char>(std::lround(255.0 * std::min(1.0, rgb[c] * shade))));
        if (_rgb.size() >= 3 * kCorners) flush();
    }
    void flush() {
        if (_rgb.empty()) return;
        GL().glVertexPointer(3, GL_FLOAT, 0, _xyz.data());
        GL().glColorPointer(3, GL_UNSIGNED_BYTE, 0, _rgb.data());
        GL().glDrawArrays(GL_TRIANGLES, 0, static_cast<GLsizei>(_rgb.size() / 3));
        _xyz.clear();
        _rgb.clear();
    }

private:
    static const size_t kCorners = 3 * 65536;
    std::vector<float> _xyz;
    std::vector<unsigned char> _rgb;
};

// The colour bar from x0 to x1 between heights y0 and y1 (window pixels), outlined.
void DrawColourBar(double x0, double x1, double y0, double y1, double lineWidth) {
    GL().glDisable(GL_DEPTH_TEST);
    GL().glBegin(GL_QUAD_STRIP);
    for (const Stop& stop : kScale) {
        GL().glColor3fv(stop.rgb);
        const double x = x0 + stop.t * (x1 - x0);
        GL().glVertex2d(x, y0);
        GL().glVertex2d(x, y1);
    }
    GL().glEnd();
    GL().glLineWidth(static_cast<float>(lineWidth));
    GL().glColor3f(0.3f, 0.3f, 0.3f);
    GL().glBegin(GL_LINE_LOOP);
    GL().glVertex2d(x0, y0);
    GL().glVertex2d(x1, y0);
    GL().glVertex2d(x1, y1);
    GL().glVertex2d(x0, y1);
    GL().glEnd();
}

}  // namespace

Picture DrawMeshes(const std::vector<const KPolyMesh*>& meshes, const PictureSettings& settings) {
    Picture picture;
    picture.width = settings.width;
    picture.height = settings.height;
    const int w = settings.width * kSupersample, h = settings.height * kSupersample;
    const Camera camera = MakeCamera(settings.zUp);

    // Each vertex's distance from the reference, for the meshes of the reference's vertex count.
    std::vector<std::vector<double> > distances(meshes.size());
    for (size_t k = 0; k < meshes.size(); ++k) {
        const KPolyMesh& mesh = *meshes[k];
        if (!settings.reference || settings.reference->numVertices() != mesh.numVertices()) continue;
        ++picture.coloured;
        for (int i = 0; i < mesh.numVertices(); ++i) {
            distances[k].push_back(std::sqrt(Dot(ToV3(mesh.points[i]) - ToV3(settings.reference->points[i]),
                                                 ToV3(mesh.points[i]) - ToV3(settings.reference->points[i]))));
            picture.largest = std::max(picture.largest, distances[k].back());
        }
    }
    if (picture.coloured > 0) picture.range = settings.range > 0.0 ? settings.range : picture.largest;

    // The box of all the meshes in the camera's frame: across, up and depth.
    const double inf = std::numeric_limits<double>::infinity();
    V3 lo{inf, inf, inf}, hi{-inf, -inf, -inf};
    for (const KPolyMesh* mesh : meshes)
        for (const KVector& p : mesh->points) {
            const V3 q{Dot(ToV3(p), camera.right), Dot(ToV3(p), camera.up), Dot(ToV3(p), camera.forward)};
            lo = {std::min(lo.x, q.x), std::min(lo.y, q.y), std::min(lo.z, q.z)};
            hi = {std::max(hi.x, q.x), std::max(hi.y, q.y), std::max(hi.z, q.z)};
        }
    if (lo.x > hi.x) lo = hi = V3{0, 0, 0};  // no points at all
    const V3 size = hi - lo;
    const double gap = 0.1 * std::max(size.x, size.y), slot = size.x + gap;
    const double n = static_cast<double>(meshes.size());
    const double rowWidth = n * size.x + (n - 1.0) * gap;

    // Decision (behaviour note "kavrin render: camera and layout")
    const double margin = 0.05 * std::min(w, h);
    const double barHeight = picture.coloured > 0 ? std::max(3.0 * kSupersample, 0.03 * h) : 0.0;
    const double bottom = margin + (barHeight > 0.0 ? barHeight + margin : 0.0), top = h - margin;
    double scale = std::min(rowWidth > 0.0 ? (w - 2.0 * margin) / rowWidth : inf,
                            size.y > 0.0 ? (top - bottom) / size.y : inf);
    if (!std::isfinite(scale) || scale <= 0.0) scale = 1.0;
    const double left = 0.5 * (w - rowWidth * scale), middle = 0.5 * (bottom + top);
    const double depthScale = size.z > 0.0 ? 0.98 / size.z : 0.0;

    OffScreen gl(w, h);
    GL().glViewport(0, 0, w, h);
    GL().glMatrixMode(GL_PROJECTION);
    GL().glLoadIdentity();
    GL().glOrtho(0.0, w, 0.0, h, 0.0, 1.0);  // window x and y in pixels, depth 0 (near) to 1 as -z
    GL().glMatrixMode(GL_MODELVIEW);
    GL().glLoadIdentity();
    GL().glClearColor(1.0f, 1.0f, 1.0f, 1.0f);
    GL().glClear(GL_COLOR_BUFFER_BIT | GL_DEPTH_BUFFER_BIT);
    GL().glEnable(GL_DEPTH_TEST);
    GL().glDepthFunc(GL_LESS);
    GL().glShadeModel(GL_SMOOTH);  // colours blend across a face; the shade is one per face

    TriangleBatch batch;
    std::vector<float> colours;
    std::vector<V3> window;
    for (size_t k = 0; k < meshes.size(); ++k) {
        const KPolyMesh& mesh = *meshes[k];
        const int count = mesh.numVertices();
        colours.assign(static_cast<size_t>(count) * 3, 0.0f);
        window.resize(static_cast<size_t>(count));
        for (int i = 0; i < count; ++i) {
            const float t = distances[k].empty() || picture.range <= 0.0
                                ? 0.0f
                                : static_cast<float>(distances[k][i] / picture.range);
            ScaleColour(t, &colours[3 * static_cast<size_t>(i)]);
            const V3 p = ToV3(mesh.points[i]);
            window[i] = {left + (Dot(p, camera.right) - lo.x + k * slot) * scale,
                         middle + (Dot(p, camera.up) - 0.5 * (lo.y + hi.y)) * scale,
                         -(0.01 + (Dot(p, camera.forward) - lo.z) * depthScale)};
        }
        int first = 0;
        for (int f = 0; f < mesh.numFaces(); ++f) {
            const int* v = mesh.faceVertices.data() + first;
            const int corners = mesh.faceCounts[f];
            first += corners;
            // The face's normal by Newell's method (right for any planar or near-planar polygon),
            // lit from both sides.
            V3 normal{0, 0, 0};
            for (int c = 0; c < corners; ++c) {
                const V3 a = ToV3(mesh.points[v[c]]), b = ToV3(mesh.points[v[(c + 1) % corners]]);
                normal = normal + Cross(a, b);
            }
            const double shade = 0.3 + 0.7 * std::abs(Dot(Normalized(normal), camera.light));
            for (int c = 1; c + 1 < corners; ++c)
                for (int corner : {v[0], v[c], v[c + 1]})
                    batch.corner(window[corner], &colours[3 * static_cast<size_t>(corner)], shade);
        }
    }
    batch.flush();
    if (picture.coloured > 0) DrawColourBar(0.3 * w, 0.7 * w, margin, margin + barHeight, kSupersample);
    GL().glFinish();

    // Each picture pixel is the mean of its kSupersample x kSupersample drawn pixels.
    picture.rgb.resize(static_cast<size_t>(settings.width) * settings.height * 3);
    const int samples = kSupersample * kSupersample;
    for (int y = 0; y < settings.height; ++y)
        for (int x = 0; x < settings.width; ++x)
            for (int c = 0; c < 3; ++c) {
                int sum = 0;
                for (int sy = 0; sy < kSupersample; ++sy)
                    for (int sx = 0; sx < kSupersample; ++sx) {
                        const size_t row = static_cast<size_t>(h - 1 - (y * kSupersample + sy));  // from the top
                        sum += gl.pixels[(row * w + x * kSupersample + sx) * 4 + c];
                    }
                picture.rgb[(static_cast<size_t>(y) * settings.width + x) * 3 + c] =
                    static_cast<unsigned char>((sum + samples / 2) / samples);
            }
    return picture;
}

void WritePicture(const std::string& path, const Picture& picture) {
    std::vector<float> values(picture.rgb.size());
    for (size_t i = 0; i < values.size(); ++i) values[i] = picture.rgb[i] / 255.0f;
    try {
        SaveText(path, EncodeImage(path, picture.width, picture.height, 3, values, 8));
    } catch (const KFileError& e) {
        throw RunError(e.what());
    }
}

}  // namespace Kavrin
