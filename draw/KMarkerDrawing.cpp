#include "KMarkerDrawing.h"

#include <GL/gl.h>

#include <cmath>
#include <initializer_list>
#include <vector>

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

void DrawSolidSphere(double radius, int slices, int stacks) {
    // Guard (behaviour note "Marker drawing: a sphere of bad dimensions")
    if (slices < 2 || stacks < 1 || !(radius >= 0.0)) return;
    const double pi = 3.14159265358979323846;
    // Around: the direction of each meridian in the xy plane, the last one the first again.
    std::vector<float> aroundX(slices + 1), aroundY(slices + 1);
    for (int i = 0; i < slices; ++i) {
        const double phi = 2.0 * pi * i / slices;
        aroundX[i] = static_cast<float>(std::sin(phi));
        aroundY[i] = static_cast<float>(std::cos(phi));
    }
    aroundX[slices] = aroundX[0];
    aroundY[slices] = aroundY[0];
    // Down: the distance from the axis and the height of each ring on the unit sphere; the
    // poles are points.
    std::vector<float> ringR(stacks + 1), ringZ(stacks + 1);
    for (int j = 0; j <= stacks; ++j) {
        const double theta = pi * j / stacks;
        ringR[j] = (j == 0 || j == stacks) ? 0.0f : static_cast<float>(std::sin(theta));
        ringZ[j] = static_cast<float>(std::cos(theta));
    }
    const float r = static_cast<float>(radius);
    for (int j = 0; j < stacks; ++j) {
        glBegin(GL_QUAD_STRIP);
        for (int i = 0; i <= slices; ++i) {
            const float s = 1.0f - static_cast<float>(i) / slices;
            for (const int ring : {j + 1, j}) {
                const float nx = aroundX[i] * ringR[ring], ny = aroundY[i] * ringR[ring], nz = ringZ[ring];
                glNormal3f(nx, ny, nz);
                glTexCoord2f(s, 1.0f - static_cast<float>(ring) / stacks);
                glVertex3f(r * nx, r * ny, r * nz);
            }
        }
        glEnd();
    }
}

}  // namespace Kavrin
