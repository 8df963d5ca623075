#pragma once
// Pictures of meshes for `kavrin render` and the demo: the meshes side by side in a row, seen by
// a fixed camera from the front, a little to the right and above, flat shaded, drawn off screen
// with OSMesa (software OpenGL, no display needed). Meshes with as many vertices as a reference
// are coloured by how far each vertex lies from the reference's vertex of the same index, from
// grey (0) through yellow and orange to red (the range), with a colour bar along the bottom.

#include <string>
#include <vector>

#include "KPolyMesh.h"

namespace Kavrin {

// Picture sides accepted, in pixels.
constexpr int kPictureMinSize = 16;
constexpr int kPictureMaxSize = 2048;

struct PictureSettings {
    int width = 720;
    int height = 360;
    bool zUp = false;           // the meshes' up axis: +y (Maya) or +z
    double range = 0.0;         // the distance drawn red; 0: the largest distance of any vertex
    const KPolyMesh* reference = nullptr;  // colours meshes of its vertex count; null: none coloured
};

struct Picture {
    int width = 0, height = 0;
    std::vector<unsigned char> rgb;  // 8-bit RGB, row by row from the top row
    int coloured = 0;                // meshes coloured by their distance from the reference
    double range = 0.0;              // the distance drawn red (0 when none is coloured)
    double largest = 0.0;            // the largest distance of a coloured vertex
};

// Draws the meshes (valid faces, finite points) left to right. The camera frames all of them:
// every mesh keeps its place relative to the others except for a step of one slot to the right
// per mesh, a slot being as wide as all the meshes together, so a result and its pose stand
// side by side at the same height. Throws RunError when no off-screen OpenGL context can be made.
Picture DrawMeshes(const std::vector<const KPolyMesh*>& meshes, const PictureSettings& settings);

// Writes the picture as an 8-bit RGB PNG file. Throws RunError naming the file on failure.
void WritePicture(const std::string& path, const Picture& picture);

}  // namespace Kavrin
