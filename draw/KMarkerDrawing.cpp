#include "KMarkerDrawing.h"

#include <GL/gl.h>

namespace Kavrin {

void DrawMarkerPoint(float x, float y, float z, float r, float g, float b) {
    glPushAttrib(0xfffff);  // every attribute group
    glColor4f(r, g, b, 1.0f);
    glPushMatrix();
    glTranslatef(x, y, z);
    glPointSize(kMarkerPointSize);
    glBegin(GL_POINTS);
    glVertex3f(0.0f, 0.0f, 0.0f);
    glEnd();
    glPopMatrix();
    glPopAttrib();
}

}  // namespace Kavrin
