#pragma once
// Fixed-function OpenGL drawing of the marker locator in Maya's legacy viewport (Viewport 2.0
// draws it with the draw manager instead). Host-free: it needs only a current OpenGL context (compatibility
// profile), so it is tested off screen.

namespace Kavrin {

// Screen size of a marker in pixels, whatever its distance from the camera.
const float kMarkerPointSize = 5.0f;

// Draws one kMarkerPointSize-pixel point of colour (r, g, b) and alpha 1 at (x, y, z) in the
// current model-view space. Every OpenGL attribute and the current matrix are restored
// afterwards.
void DrawMarkerPoint(float x, float y, float z, float r, float g, float b);

// Draws a filled sphere of `radius` around the origin of the current model-view space, with unit
// normals and texture coordinates at its vertices: what gluSphere draws with a quadric set to
// GLU_FILL, GLU_SMOOTH and texture coordinates on, without GLU. `stacks` quad strips run from the
// pole at +z to the one at -z (t from 1 to 0), each around `slices` segments starting at +y
// (s from 1 to 0). Draws nothing for slices < 2, stacks < 1 or a negative or NaN radius. Leaves
// the last normal and texture coordinate current, as GLU does. Kept ready for solid marker shapes.
void DrawSolidSphere(double radius, int slices, int stacks);

}  // namespace Kavrin
