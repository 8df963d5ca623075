// Marker drawing rendered for real in an off-screen OSMesa context: the pixels the point covers
// and their colour, near and far from the camera, and the OpenGL state left behind.

#include <gtest/gtest.h>

#include <GL/osmesa.h>
#include <GL/gl.h>

#include <array>
#include <vector>

#include "KMarkerDrawing.h"

// OSMesa keeps a few driver allocations for the life of the process; they are not ours.
extern "C" const char* __lsan_default_suppressions() { return "leak:libOSMesa.so\n"; }

using namespace Kavrin;

namespace {

const int kSize = 64;

// A 64 x 64 RGBA context with a frustum of half-width 1 at distance 1: a point at depth d lands
// on window x = 32 (1 + x / d), y = 32 (1 + y / d), rows counted from the bottom.
class OffScreen {
public:
    OffScreen() : _pixels(kSize * kSize * 4, 0) {
        _context = OSMesaCreateContextExt(OSMESA_RGBA, 16, 0, 0, nullptr);
        if (_context && !OSMesaMakeCurrent(_context, _pixels.data(), GL_UNSIGNED_BYTE, kSize, kSize)) {
            OSMesaDestroyContext(_context);
            _context = nullptr;
        }
        if (!_context) return;
        glViewport(0, 0, kSize, kSize);
        glMatrixMode(GL_PROJECTION);
        glLoadIdentity();
        glFrustum(-1.0, 1.0, -1.0, 1.0, 1.0, 100.0);
        glMatrixMode(GL_MODELVIEW);
        glLoadIdentity();
    }
    ~OffScreen() {
        if (_context) OSMesaDestroyContext(_context);
    }
    bool ready() const { return _context != nullptr; }
    void clear() {
        glClearColor(0.0f, 0.0f, 0.0f, 0.0f);
        glClear(GL_COLOR_BUFFER_BIT);
    }
    // Pixels whose colour is not the cleared black, as (x, y) with their RGBA.
    std::vector<std::array<int, 6>> lit() {
        glFinish();
        std::vector<std::array<int, 6>> out;
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x) {
                const unsigned char* p = &_pixels[4 * (y * kSize + x)];
                if (p[0] || p[1] || p[2] || p[3]) out.push_back({x, y, p[0], p[1], p[2], p[3]});
            }
        return out;
    }

private:
    OSMesaContext _context = nullptr;
    std::vector<unsigned char> _pixels;
};

}  // namespace

TEST(MarkerDrawing, FivePixelPointOfItsColourNearAndFar) {
    OffScreen gl;
    if (!gl.ready()) GTEST_SKIP() << "OSMesa could not create an off-screen context";
    // Window (36.5, 24.5) is the centre of pixel (36, 24): the point covers columns 34-38 and
    // rows 22-26. The model-view moves everything 1 unit away, so the marker's own position is
    // applied in that space.
    glTranslatef(0.0f, 0.0f, -1.0f);
    const struct {
        float x, y, z;  // in the model-view space; depth is 1 - z
        float r, g, b;
        int red, green, blue;
    } rows[] = {{0.28125f, -0.46875f, -1.0f, 1.0f, 0.0f, 0.0f, 255, 0, 0},         // depth 2
                {7.03125f, -11.71875f, -49.0f, 0.2f, 0.6f, 1.0f, 51, 153, 255}};  // depth 50
    for (const auto& r : rows) {
        gl.clear();
        DrawMarkerPoint(r.x, r.y, r.z, r.r, r.g, r.b);
        const std::vector<std::array<int, 6>> lit = gl.lit();
        ASSERT_EQ(lit.size(), 25u) << "depth " << 1.0f - r.z;
        for (const auto& p : lit) {
            EXPECT_TRUE(p[0] >= 34 && p[0] <= 38 && p[1] >= 22 && p[1] <= 26) << p[0] << ", " << p[1];
            EXPECT_EQ((std::array<int, 4>{p[2], p[3], p[4], p[5]}), (std::array<int, 4>{r.red, r.green, r.blue, 255}));
        }
    }
}

TEST(MarkerDrawing, LeavesTheOpenGLStateAsItFoundIt) {
    OffScreen gl;
    if (!gl.ready()) GTEST_SKIP() << "OSMesa could not create an off-screen context";
    glColor4f(0.25f, 0.5f, 0.75f, 0.5f);
    glPointSize(2.0f);
    glTranslatef(0.5f, 0.25f, -3.0f);
    GLfloat colour[4], size = 0.0f, matrix[16];
    GLint depth = 0, attribDepth = 0, mode = 0;
    glGetFloatv(GL_CURRENT_COLOR, colour);
    glGetFloatv(GL_MODELVIEW_MATRIX, matrix);
    glGetIntegerv(GL_MODELVIEW_STACK_DEPTH, &depth);
    glGetIntegerv(GL_ATTRIB_STACK_DEPTH, &attribDepth);

    DrawMarkerPoint(1.0f, 2.0f, 3.0f, 0.0f, 1.0f, 0.0f);

    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    GLfloat after[4], afterMatrix[16];
    GLint afterDepth = 0, afterAttribDepth = 0;
    glGetFloatv(GL_CURRENT_COLOR, after);
    glGetFloatv(GL_POINT_SIZE, &size);
    glGetFloatv(GL_MODELVIEW_MATRIX, afterMatrix);
    glGetIntegerv(GL_MODELVIEW_STACK_DEPTH, &afterDepth);
    glGetIntegerv(GL_ATTRIB_STACK_DEPTH, &afterAttribDepth);
    glGetIntegerv(GL_MATRIX_MODE, &mode);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(after[i], colour[i]);
    for (int i = 0; i < 16; ++i) EXPECT_EQ(afterMatrix[i], matrix[i]);
    EXPECT_EQ(size, 2.0f);
    EXPECT_EQ(afterDepth, depth);
    EXPECT_EQ(afterAttribDepth, attribDepth);
    EXPECT_EQ(mode, GL_MODELVIEW);
}
