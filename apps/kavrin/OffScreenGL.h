#pragma once
// The software OpenGL that pictures are drawn with (Mesa's OSMesa), opened when the first picture
// is drawn rather than linked: loading it maps a renderer and its shader compiler, about 50 MB of
// memory that the commands drawing no picture would otherwise carry. Only the functions the
// pictures call are looked up; the headers give their types and constants.

#include <GL/osmesa.h>
#include <GL/gl.h>

namespace Kavrin {

#define KAVRIN_GL_FUNCTIONS(F)                                                                                        \
    F(OSMesaCreateContextExt) F(OSMesaMakeCurrent) F(OSMesaDestroyContext) F(glBegin) F(glClear) F(glClearColor)     \
    F(glColor3f) F(glColor3fv) F(glColorPointer) F(glDepthFunc) F(glDisable) F(glDrawArrays) F(glEnable)             \
    F(glEnableClientState) F(glEnd) F(glFinish) F(glLineWidth) F(glLoadIdentity) F(glMatrixMode) F(glOrtho)          \
    F(glShadeModel) F(glVertex2d) F(glVertexPointer) F(glViewport)

struct OffScreenGL {
#define KAVRIN_GL_MEMBER(name) decltype(&::name) name = nullptr;
    KAVRIN_GL_FUNCTIONS(KAVRIN_GL_MEMBER)
#undef KAVRIN_GL_MEMBER
};

// The functions, looked up on the first call (from any thread, once). Throws RunError saying what
// is missing when the library or one of them cannot be found.
const OffScreenGL& GL();

}  // namespace Kavrin
