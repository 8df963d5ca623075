#pragma once
// The style code a locator's draw(style) receives when Viewport 2.0 draws it through a draw
// override: chosen from the DAG path's display override and the frame's display style.

namespace Kavrin {

// A DAG path's display override, as far as the style choice needs it.
struct KDisplayOverride {
    bool enabled;     // display overrides are enabled on the path
    bool visible;     // the override leaves the object visible
    bool shading;     // the override allows shading
    int displayType;  // 0 normal, 1 reference, 2 template
};

const int kDrawNothing = -1;

// Frame display-style values that select a style of their own (any other value gives 3).
const unsigned int kDisplayGouraudShaded = 1;
const unsigned int kDisplayTextured = 8;

// kDrawNothing when an enabled override hides the object. An enabled override that disallows
// shading or templates the object gives 3; otherwise the frame's display style decides:
// exactly gouraud-shaded gives 4, exactly textured gives 5, anything else 3.
inline int DrawStyleCode(const KDisplayOverride& o, unsigned int frameDisplayStyle) {
    if (o.enabled) {
        if (!o.visible) return kDrawNothing;
        if (!o.shading || o.displayType == 2) return 3;
    }
    if (frameDisplayStyle == kDisplayGouraudShaded) return 4;
    if (frameDisplayStyle == kDisplayTextured) return 5;
    return 3;
}

}  // namespace Kavrin
