"""What Kavrin keeps on an object (saved with the .blend file): the marker pairs with their source
and the settings of the transfer and of each bake."""

import bpy
from bpy.props import (BoolProperty, CollectionProperty, EnumProperty, FloatProperty, IntProperty,
                       PointerProperty, StringProperty)


def _other_mesh(settings, obj):
    return obj.type == 'MESH' and obj != settings.id_data


def _highlight(settings, context):
    from . import pairs
    pairs.highlight(settings.id_data)


class KavrinPair(bpy.types.PropertyGroup):
    source: IntProperty(name="Source vertex", min=0)
    target: IntProperty(name="Target vertex", min=0)


class KavrinJiggleSettings(bpy.types.PropertyGroup):
    # The node's attributes, under the names of kavrin.Jiggle's arguments.
    stiffness: FloatProperty(name="Stiffness", default=0.3, min=0.0, max=1.0,
                             description="How far towards the animated position the spring pulls per frame")
    damping: FloatProperty(name="Damping", default=0.1, min=0.0, max=1.0,
                           description="Share of the velocity lost per frame")
    normal_strength: FloatProperty(name="Normal Strength", default=1.0, min=0.0, max=1.0,
                                   description="How much of the lag along the surface normal is kept")
    scale: FloatProperty(name="Scale", default=1.0, min=0.0, max=1e9, description="Multiplies the distance limit")
    distance_limit: FloatProperty(name="Distance Limit", default=1.0, min=0.0, max=1e9,
                                  description="Farthest a vertex may lag from its animated position (times the scale)")
    direction_bias: FloatProperty(name="Direction Bias", default=0.0, min=-1.0, max=1.0,
                                  description="Positive pulls back vertices lagging behind the surface, negative pushes them")
    time_scale: FloatProperty(name="Time Scale", default=1.0, min=0.0, max=1.0, description="Time step per frame")
    start_frame: IntProperty(name="Start Frame", default=0, min=-1000000, max=1000000,
                             description="At or before this frame the mesh stays as animated and the simulation waits")
    more_accurate_tangent: BoolProperty(name="More Accurate Tangent", default=False,
                                        description="After flattening, snap each vertex back onto the surface")
    envelope: FloatProperty(name="Envelope", default=1.0, min=-2.0, max=2.0, description="Blends the jiggle in")
    # Paintable maps: vertex groups (no group: 1 on every vertex).
    stiffness_map: StringProperty(name="Stiffness Map", description="Vertex group scaling the stiffness per vertex")
    damping_map: StringProperty(name="Damping Map", description="Vertex group scaling the damping per vertex")
    normal_strength_map: StringProperty(name="Normal Strength Map",
                                        description="Vertex group scaling the normal strength per vertex")
    weights: StringProperty(name="Weights", description="Vertex group of the jiggle's weights (0 keeps the animation)")


class KavrinWrapSettings(bpy.types.PropertyGroup):
    driver: PointerProperty(name="Driver", type=bpy.types.Object, poll=lambda s, o: o.type == 'MESH' and o != s.id_data,
                            description="The mesh to follow (a cage, a body), bound at the current frame")


class KavrinDeltaMushSettings(bpy.types.PropertyGroup):
    iterations: IntProperty(name="Iterations", default=15, min=1, max=10000, description="Smoothing sweeps")
    rest: EnumProperty(name="Rest", default='BASIS', items=[
        ('BASIS', "Basis", "The mesh's basis shape (its vertices without shape keys)"),
        ('FIRST_FRAME', "First Frame", "The deformed mesh at the scene's first frame"),
    ])


class KavrinSettings(bpy.types.PropertyGroup):
    source: PointerProperty(name="Source", type=bpy.types.Object, poll=_other_mesh,
                            description="The mesh whose shape keys and animation are carried onto this one")
    pairs: CollectionProperty(type=KavrinPair)
    active_pair: IntProperty(name="Active pair", default=0, update=_highlight)
    mode: EnumProperty(name="Topology", default='DIFFERENT', items=[
        ('DIFFERENT', "Different", "The source and this mesh have different vertices"),
        ('SAME', "Same", "The source and this mesh share their vertices and faces"),
    ])
    iterations: IntProperty(name="Fit Iterations", default=5, min=0, max=30,
                            description="Closest-point iterations fitting the source onto this mesh")
    jiggle: PointerProperty(type=KavrinJiggleSettings)
    wrap: PointerProperty(type=KavrinWrapSettings)
    delta_mush: PointerProperty(type=KavrinDeltaMushSettings)


classes = (KavrinPair, KavrinJiggleSettings, KavrinWrapSettings, KavrinDeltaMushSettings, KavrinSettings)


def register():
    for cls in classes:
        bpy.utils.register_class(cls)
    bpy.types.Object.kavrin = PointerProperty(type=KavrinSettings)


def unregister():
    del bpy.types.Object.kavrin
    for cls in reversed(classes):
        bpy.utils.unregister_class(cls)
