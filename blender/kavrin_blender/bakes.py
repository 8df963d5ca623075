"""Bakes of the deformers on an animated mesh (the active object) over the scene's frame range,
each into a point cache next to the .blend file played by a Mesh Cache modifier. A bake reads the
mesh as its shape keys and modifiers leave it up to its own cache modifier."""

import os

import bpy
import numpy as np

from . import caches, meshes
from .engine import KavrinOperator, kavrin

JIGGLE_SETTINGS = ("stiffness", "damping", "normal_strength", "scale", "distance_limit", "direction_bias",
                   "time_scale", "start_frame", "more_accurate_tangent", "envelope")
JIGGLE_MAPS = ("stiffness_map", "damping_map", "normal_strength_map", "weights")


def object_mode_mesh(cls, context):
    """Whether an operator on the active mesh can run: a mesh is active, in Object Mode."""
    if context.mode != 'OBJECT':
        cls.poll_message_set("Switch to Object Mode")
        return False
    obj = context.active_object
    if obj is None or obj.type != 'MESH':
        cls.poll_message_set("Make a mesh active")
        return False
    return True


class Bake(KavrinOperator):
    """An operator that samples the scene's frame range and writes the active mesh's cache of its
    kind: compute(context, obj, frames, progress) gives the frames in the object's space."""
    kind = ""
    ready = classmethod(object_mode_mesh)

    def run(self, context):
        obj = context.active_object
        caches.cache_path(obj, self.kind)  # refuses an unsaved file before any work
        scene = context.scene
        frames = range(scene.frame_start, scene.frame_end + 1)
        with meshes.Progress(context, 2 * len(frames)) as progress, meshes.kept_frame(scene):
            result = self.compute(context, obj, frames, progress)
        path = caches.write(obj, self.kind, result, frames[0])
        return f"{self.bl_label}: {len(frames)} frames into {os.path.basename(path)}"

    @staticmethod
    def deform_each(engine, poses, progress, **each):
        out = None
        for i, pose in enumerate(poses):
            result = engine.deform(pose, **{name: values[i] for name, values in each.items()})
            if out is None:
                out = np.empty((len(poses),) + result.shape, np.float32)
            out[i] = result
            progress.step()
        return out


class KAVRIN_OT_bake_jiggle(Bake, bpy.types.Operator):
    bl_idname = "kavrin.bake_jiggle"
    bl_label = "Bake Jiggle"
    bl_description = ("Simulate jiggle on the animated mesh over the scene's frame range (in world space, one step "
                      "per frame) into a point cache played by a Mesh Cache modifier")
    kind = "jiggle"

    def compute(self, context, obj, frames, progress):
        settings = obj.kavrin.jiggle
        options = {name: getattr(settings, name) for name in JIGGLE_SETTINGS}
        options.update({name: meshes.group_values(obj, getattr(settings, name)) for name in JIGGLE_MAPS})
        [(poses, matrices)] = meshes.sample(context, [(obj, caches.modifier_name(self.kind))], frames, progress)
        # Decision (behaviour note "Blender: jiggle in world space")
        world = meshes.to_world(poses, matrices)
        jiggle = kavrin.Jiggle((world[0], meshes.faces(obj.data)), **options)
        jiggled = self.deform_each(jiggle, world, progress, times=np.array(frames, np.float64))
        return meshes.to_object(jiggled, matrices, obj.name)


class KAVRIN_OT_bake_wrap(Bake, bpy.types.Operator):
    bl_idname = "kavrin.bake_wrap"
    bl_label = "Bake Wrap"
    bl_description = ("Bind the active mesh to the driver where both stand at the current frame, then make it "
                      "follow the driver over the scene's frame range, into a point cache")
    kind = "wrap"

    def compute(self, context, obj, frames, progress):
        driver = meshes.require_mesh(obj.kavrin.wrap.driver, f"wrap driver of {obj.name}")
        stack = [(driver, None), (obj, caches.modifier_name(self.kind))]
        # Decision (behaviour note "Blender: wrap binds at the current frame, in world space")
        [(driver_rest, driver_matrix), (rest, matrix)] = meshes.sample(context, stack, [context.scene.frame_current])
        wrap = kavrin.Wrap((meshes.to_world(driver_rest, driver_matrix)[0], meshes.faces(driver.data)),
                           (meshes.to_world(rest, matrix)[0], meshes.faces(obj.data)))
        [(driver_poses, driver_matrices), (_, matrices)] = meshes.sample(context, stack, frames, progress)
        followed = self.deform_each(wrap, meshes.to_world(driver_poses, driver_matrices), progress)
        return meshes.to_object(followed, matrices, obj.name)


class KAVRIN_OT_bake_delta_mush(Bake, bpy.types.Operator):
    bl_idname = "kavrin.bake_delta_mush"
    bl_label = "Bake Delta Mush"
    bl_description = ("Smooth the animated mesh over the scene's frame range and put back the detail of its rest "
                      "shape (the basis or the first frame), into a point cache")
    kind = "delta-mush"

    def compute(self, context, obj, frames, progress):
        settings = obj.kavrin.delta_mush
        [(poses, _)] = meshes.sample(context, [(obj, caches.modifier_name(self.kind))], frames, progress)
        rest = meshes.basis(obj) if settings.rest == 'BASIS' else poses[0]
        mush = kavrin.DeltaMush((rest, meshes.faces(obj.data)), iterations=settings.iterations)
        return self.deform_each(mush, poses, progress)


classes = (KAVRIN_OT_bake_jiggle, KAVRIN_OT_bake_wrap, KAVRIN_OT_bake_delta_mush)
