"""Point caches next to the .blend file and the Mesh Cache modifiers that play them."""

import os

import bpy

from . import meshes
from .engine import Refusal, kavrin


def cache_path(obj, kind):
    """Where a bake of the object is written: `<blend name>-<object>-<kind>.pc2` beside the .blend."""
    # Decision (behaviour note "Blender: caches next to the saved .blend")
    if not bpy.data.filepath:
        raise Refusal("Save the .blend file first: Kavrin writes its caches next to it")
    folder, name = os.path.split(bpy.data.filepath)
    stem = os.path.splitext(name)[0]
    return os.path.join(folder, f"{stem}-{bpy.path.clean_name(obj.name)}-{kind}.pc2")


def write(obj, kind, frames, first_frame):
    """Writes the frames (frames, n, 3) as the object's cache of this kind (atomically: a failed
    write leaves the old cache) and makes the object play it; returns the file's path."""
    path = cache_path(obj, kind)
    kavrin.write_pc2(path, frames, start_frame=float(first_frame), sample_rate=1.0)
    play(obj, modifier_name(kind), path, first_frame)
    return path


def modifier_name(kind):
    return "Kavrin " + kind.replace("-", " ").title()


def play(obj, name, path, first_frame):
    """The object's Mesh Cache modifier of this name (made where Kavrin's reading of the stack
    stops when there is none yet), set to play the PC2 file from first_frame on."""
    modifier = obj.modifiers.get(name)
    # Decision (behaviour note "Blender: one cache modifier per bake")
    if modifier is None or modifier.type != 'MESH_CACHE':
        index = meshes.stop_index(obj, name)
        modifier = obj.modifiers.new(name, 'MESH_CACHE')
        with bpy.context.temp_override(object=obj):
            bpy.ops.object.modifier_move_to_index(modifier=modifier.name, index=index)
    modifier.cache_format = 'PC2'
    modifier.filepath = bpy.path.relpath(path)
    modifier.play_mode = 'SCENE'
    modifier.time_mode = 'FRAME'
    modifier.frame_start = first_frame
    modifier.frame_scale = 1.0
    modifier.deform_mode = 'OVERWRITE'
    modifier.interpolation = 'LINEAR'
    modifier.factor = 1.0
    return modifier
