#pragma once
// Fixed-function OpenGL drawing of the marker locator, shared by Maya's legacy viewport and the
// Viewport 2.0 draw override. Host-free: it needs only a current OpenGL context (compatibility
// profile), so it is tested off screen.

namespace Kavrin {

// Screen size of a marker in pixels, whatever its distance from the camera.
const float kMarkerPointSize = 5.0f;

// Draws one kMarkerPointSize-pixel point of colour (r, g, b) and alpha 1 at (x, y, z) in the
// current model-view space. Every OpenGL attribute and the current matrix are restored
// afterwards.
void DrawMarkerPoint(float x, float y, float z, float r, float g, float b);

}  // namespace Kavrin
