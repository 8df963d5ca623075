// Marker drawing rendered for real in an off-screen OSMesa context: the pixels the point covers
// and their colour, near and far from the camera, and the OpenGL state left behind; the solid
// sphere against GLU's own, as OpenGL's feedback mode reports them.

#include <gtest/gtest.h>

#include <GL/osmesa.h>
#include <GL/gl.h>
#include <GL/glu.h>

#include <algorithm>
#include <array>
#include <functional>
#include <vector>

#include "KMarkerDrawing.h"

// OSMesa keeps a few driver allocations for the life of the process; they are not ours.
extern "C" const char* __lsan_default_suppressions() { return "leak:libOSMesa.so\n"; }

using namespace Kavrin;

namespace {

const int kSize = 64;

// A 64 x 64 RGBA context with a frustum of half-width 1 at distance 1: a point at depth d lands
// on window x = 32 (1 + x / d), y = 32 (1 + y / d), rows counted from the bottom.
struct OffScreen {
    std::vector<unsigned char> pixels = std::vector<unsigned char>(kSize * kSize * 4, 0);
    OSMesaContext context = OSMesaCreateContextExt(OSMESA_RGBA, 16, 0, 0, nullptr);
    OffScreen() {
        if (context && !OSMesaMakeCurrent(context, pixels.data(), GL_UNSIGNED_BYTE, kSize, kSize)) {
            OSMesaDestroyContext(context);
            context = nullptr;
        }
        if (!context) return;
        glViewport(0, 0, kSize, kSize);
        glMatrixMode(GL_PROJECTION);
        glFrustum(-1.0, 1.0, -1.0, 1.0, 1.0, 100.0);
        glMatrixMode(GL_MODELVIEW);
    }
    ~OffScreen() {
        if (context) OSMesaDestroyContext(context);
    }
    // Pixels whose colour is not the cleared black, as (x, y) with their RGBA.
    std::vector<std::array<int, 6>> lit() {
        glFinish();
        std::vector<std::array<int, 6>> out;
        for (int i = 0; i < kSize * kSize; ++i) {
            const unsigned char* p = &pixels[4 * i];
            if (p[0] || p[1] || p[2] || p[3]) out.push_back({i % kSize, i / kSize, p[0], p[1], p[2], p[3]});
        }
        return out;
    }
};

// What a drawing must leave as it found it: colour, point size, model-view matrix, both stack
// depths and the matrix mode.
std::vector<float> State() {
    std::vector<float> s(21);
    GLint i[3];
    glGetFloatv(GL_CURRENT_COLOR, &s[0]);
    glGetFloatv(GL_POINT_SIZE, &s[4]);
    glGetFloatv(GL_MODELVIEW_MATRIX, &s[5]);
    glGetIntegerv(GL_MODELVIEW_STACK_DEPTH, &i[0]);
    glGetIntegerv(GL_ATTRIB_STACK_DEPTH, &i[1]);
    glGetIntegerv(GL_MATRIX_MODE, &i[2]);
    s.insert(s.end(), {float(i[0]), float(i[1]), float(i[2])});
    return s;
}

// What a drawing sends down the pipeline, from OpenGL's feedback mode: per primitive its token and
// per vertex the window position, the colour lighting gives it (so the normal counts) and the
// texture coordinate.
std::vector<GLfloat> Feedback(const std::function<void()>& draw) {
    std::vector<GLfloat> buffer(1 << 20);
    glFeedbackBuffer(GLsizei(buffer.size()), GL_3D_COLOR_TEXTURE, buffer.data());
    glRenderMode(GL_FEEDBACK);
    draw();
    buffer.resize(std::max(glRenderMode(GL_RENDER), 0));
    return buffer;
}

}  // namespace

TEST(MarkerDrawing, SolidSphereIsWhatGluSphereDrawsWithTheQuadricSettingsTheMarkerHad) {
    OffScreen gl;
    if (!gl.context) GTEST_SKIP() << "OSMesa could not create an off-screen context";
    glTranslatef(0.1f, -0.2f, -3.0f);
    glRotatef(30.0f, 1.0f, 0.5f, 0.0f);
    glEnable(GL_LIGHTING);
    glEnable(GL_LIGHT0);
    GLUquadric* quadric = gluNewQuadric();
    ASSERT_NE(quadric, nullptr);
    gluQuadricDrawStyle(quadric, GLU_FILL);
    gluQuadricNormals(quadric, GLU_SMOOTH);
    gluQuadricTexture(quadric, GL_TRUE);
    const struct {
        double radius;
        int slices, stacks;
        bool drawn;
    } rows[] = {{0.5, 2, 1, true},   {1.0, 4, 3, true},   {0.8, 24, 12, true}, {0.0, 6, 3, true},
                {-0.5, 8, 4, false}, {1.0, 1, 4, false}, {1.0, 8, 0, false}};
    for (const auto& r : rows) {
        const std::vector<GLfloat> glu = Feedback([&] { gluSphere(quadric, r.radius, r.slices, r.stacks); });
        const std::vector<GLfloat> ours = Feedback([&] { DrawSolidSphere(r.radius, r.slices, r.stacks); });
        EXPECT_EQ(!glu.empty(), r.drawn) << r.slices << " x " << r.stacks;
        ASSERT_EQ(ours.size(), glu.size()) << r.slices << " x " << r.stacks;
        for (size_t i = 0; i < glu.size(); ++i)
            ASSERT_NEAR(ours[i], glu[i], 1e-4) << r.slices << " x " << r.stacks << ", value " << i;
    }
    gluDeleteQuadric(quadric);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
}

TEST(MarkerDrawing, FivePixelPointOfItsColourNearAndFarAndTheStateLeftAsFound) {
    OffScreen gl;
    if (!gl.context) GTEST_SKIP() << "OSMesa could not create an off-screen context";
    // Window (36.5, 24.5) is the centre of pixel (36, 24): the point covers columns 34-38 and
    // rows 22-26. The model-view moves everything 1 unit away, so the marker's own position is
    // applied in that space.
    glTranslatef(0.0f, 0.0f, -1.0f);
    const struct {
        float x, y, z;  // in the model-view space; depth is 1 - z
        float r, g, b;
        std::array<int, 4> rgba;
    } rows[] = {{0.28125f, -0.46875f, -1.0f, 1.0f, 0.0f, 0.0f, {255, 0, 0, 255}},            // depth 2
                {7.03125f, -11.71875f, -49.0f, 0.2f, 0.6f, 1.0f, {51, 153, 255, 255}}};  // depth 50
    for (const auto& r : rows) {
        glClear(GL_COLOR_BUFFER_BIT);
        DrawMarkerPoint(r.x, r.y, r.z, r.r, r.g, r.b);
        const std::vector<std::array<int, 6>> lit = gl.lit();
        ASSERT_EQ(lit.size(), 25u) << "depth " << 1.0f - r.z;
        for (const auto& p : lit) {
            EXPECT_TRUE(p[0] >= 34 && p[0] <= 38 && p[1] >= 22 && p[1] <= 26) << p[0] << ", " << p[1];
            EXPECT_EQ((std::array<int, 4>{p[2], p[3], p[4], p[5]}), r.rgba);
        }
    }

    glColor4f(0.25f, 0.5f, 0.75f, 0.5f);
    glPointSize(2.0f);
    glTranslatef(0.5f, 0.25f, -3.0f);
    const std::vector<float> before = State();
    DrawMarkerPoint(1.0f, 2.0f, 3.0f, 0.0f, 1.0f, 0.0f);
    EXPECT_EQ(glGetError(), static_cast<GLenum>(GL_NO_ERROR));
    EXPECT_EQ(State(), before);
    EXPECT_EQ(before[4], 2.0f);
}
