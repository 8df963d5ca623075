"""Deformation transfer from the source onto the target (the active mesh, which holds the pairs):
its shape keys once, or its animation over the scene's frame range into a point cache."""

import bpy
import numpy as np

from . import meshes, pairs
from .bakes import Bake, object_mode_mesh
from .engine import KavrinOperator, Refusal, kavrin


def _ready(cls, context):
    if not object_mode_mesh(cls, context):
        return False
    if context.active_object.kavrin.source is None:
        cls.poll_message_set("Set the source of the active mesh (Marker Pairs)")
        return False
    return True


def build(target):
    """The transfer from the target's source onto it, built from its pairs, and the translation that
    keeps the result where the target stands: the engine places the target's fixed vertex (the
    first pair's) on the source pose's, and the shift moves it back by the target's rest offset."""
    settings = target.kavrin
    source = meshes.require_mesh(settings.source, f"source of {target.name}")
    if len(settings.pairs) == 0:
        raise Refusal(f"{target.name} has no marker pairs with {source.name}: add some first")
    markers = pairs.markers(target)
    source_rest, target_rest = meshes.basis(source), meshes.basis(target)
    transfer = kavrin.Transfer((source_rest, meshes.faces(source.data)), (target_rest, meshes.faces(target.data)),
                               markers, mode=settings.mode.lower(), iterations=settings.iterations)
    # Decision (behaviour note "Blender: transferred shapes stay where the target stands")
    s, t = markers[0]
    shift = target_rest[t].astype(np.float64) - source_rest[s]
    return source, transfer, shift


def _shifted(points, shift):
    return (points + shift).astype(np.float32)


class KAVRIN_OT_transfer_shape_keys(KavrinOperator, bpy.types.Operator):
    bl_idname = "kavrin.transfer_shape_keys"
    bl_label = "Transfer Shape Keys"
    bl_description = ("Make on the active mesh one shape key per shape key of its source (same names, relative "
                      "to the basis), carried over through the marker pairs")
    ready = classmethod(_ready)

    def run(self, context):
        target = context.active_object
        source = meshes.require_mesh(target.kavrin.source, f"source of {target.name}")
        keys = source.data.shape_keys
        shapes = [] if keys is None else [k for k in keys.key_blocks if k != keys.reference_key]
        if not shapes:
            raise Refusal(f"{source.name} has no shape keys besides its basis")
        basis = target.data.shape_keys.reference_key if target.data.shape_keys else None
        # Guard (behaviour note "Blender: a shape key named like the target's basis")
        clash = next((k.name for k in shapes if basis is not None and k.name == basis.name), None)
        if clash is not None:
            raise Refusal(f"A shape key of {source.name} is named \"{clash}\" like the basis of {target.name}: "
                          f"rename one of them")
        source, transfer, shift = build(target)
        count = len(source.data.vertices)
        results = []
        with meshes.Progress(context, len(shapes)) as progress:
            for key in shapes:
                results.append(_shifted(transfer.deform(meshes.points_of(key.data, count)), shift))
                progress.step()
        # Everything is computed: only now does the target change.
        if basis is None:
            basis = target.shape_key_add(name="Basis", from_mix=False)
        for key, points in zip(shapes, results):
            # Decision (behaviour note "Blender: transferred keys replace keys of the same name")
            made = target.data.shape_keys.key_blocks.get(key.name) or target.shape_key_add(name=key.name, from_mix=False)
            made.data.foreach_set("co", points.ravel())
            made.relative_key = basis
            made.slider_min = -10.0  # the lowest Blender takes: the new maximum may lie below the old minimum
            made.slider_max, made.slider_min = key.slider_max, key.slider_min
            made.value = key.value
        target.data.update()
        return f"Transferred {len(shapes)} shape keys from {source.name} onto {target.name}"


class KAVRIN_OT_transfer_animation(Bake, bpy.types.Operator):
    bl_idname = "kavrin.transfer_animation"
    bl_label = "Transfer Animation"
    bl_description = ("Carry the source's deformed mesh, frame by frame over the scene's frame range, onto the "
                      "active mesh as a point cache next to the .blend file, played by a Mesh Cache modifier")
    kind = "transfer"
    ready = classmethod(_ready)

    def compute(self, context, target, frames, progress):
        source, transfer, shift = build(target)
        [(poses, _)] = meshes.sample(context, [(source, None)], frames, progress)
        return _shifted(self.deform_each(transfer, poses, progress), shift)


classes = (KAVRIN_OT_transfer_shape_keys, KAVRIN_OT_transfer_animation)
