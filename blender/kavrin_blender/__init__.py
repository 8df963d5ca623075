"""Kavrin in Blender: marker pairs between two meshes, shape keys and animation transferred between
meshes of different topology, and jiggle, wrap and delta mush baked into point caches that Mesh
Cache modifiers play. The engines are those of the kavrin Python package (`import kavrin`); the
add-on only moves data between Blender and them. See docs/blender.md."""

bl_info = {
    "name": "Kavrin",
    "author": "The Kavrin project",
    "version": (1, 0, 0),
    "blender": (3, 4, 0),
    "location": "3D View > Sidebar > Kavrin",
    "description": "Transfer shape keys and animation between different meshes; bake jiggle, wrap and delta mush",
    "category": "Animation",
}

import bpy  # noqa: E402

from . import bakes, overlay, pairs, panel, properties, transfer  # noqa: E402

_classes = pairs.classes + transfer.classes + bakes.classes + panel.classes


def register():
    properties.register()
    for cls in _classes:
        bpy.utils.register_class(cls)
    overlay.register()


def unregister():
    overlay.unregister()
    for cls in reversed(_classes):
        bpy.utils.unregister_class(cls)
    properties.unregister()
