"""Renders the pictures of docs/blender.md inside Blender, headless (Workbench), from scenes that
the add-on itself works on: run by tools/blender-pictures.sh.

  blender -b --factory-startup --python tools/blender_pictures.py -- BUILD CAT_LION_FOLDER OUT_FOLDER
"""

import colorsys
import math
import os
import sys
import tempfile

build, data, out = sys.argv[sys.argv.index("--") + 1:]
root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path[:0] = [os.path.join(build, "python"), os.path.join(root, "blender")]

import addon_utils  # noqa: E402
import bpy  # noqa: E402
import numpy as np  # noqa: E402
from mathutils import Vector  # noqa: E402

import kavrin  # noqa: E402

GREY, ORANGE, BLUE = (0.62, 0.62, 0.62, 1), (0.95, 0.55, 0.2, 1), (0.35, 0.55, 0.85, 1)


def new_scene(folder, frames):
    bpy.ops.wm.read_homefile(use_empty=True)
    scene = bpy.context.scene
    scene.frame_start, scene.frame_end = 1, frames
    bpy.ops.wm.save_as_mainfile(filepath=os.path.join(folder, "pictures.blend"))
    return scene


def mesh_object(name, points, faces, rotate_up=False):
    mesh = bpy.data.meshes.new(name)
    mesh.from_pydata(np.asarray(points).tolist(), [], np.asarray(faces).tolist() if not isinstance(faces, list)
                     else faces)
    obj = bpy.data.objects.new(name, mesh)
    if rotate_up:  # the cat and lion files are y-up, their length along z: stand them up along x
        obj.rotation_euler = (math.pi / 2, 0, math.pi / 2)
    bpy.context.scene.collection.objects.link(obj)
    return obj


def activate(obj):
    bpy.context.view_layer.objects.active = obj


def keyed(obj, name, points, values):
    if obj.data.shape_keys is None:
        obj.shape_key_add(name="Basis", from_mix=False)
    key = obj.shape_key_add(name=name, from_mix=False)
    key.data.foreach_set("co", np.asarray(points, np.float32).ravel())
    for frame, value in enumerate(values, start=1):
        key.value = value
        key.keyframe_insert("value", frame=frame)
    return key


def snapshot(obj, offset, colour):
    """A still copy of the object as Blender shows it now (modifiers and caches applied), moved."""
    evaluated = obj.evaluated_get(bpy.context.evaluated_depsgraph_get())
    mesh = bpy.data.meshes.new_from_object(evaluated)
    mesh.polygons.foreach_set("use_smooth", [True] * len(mesh.polygons))
    copy = bpy.data.objects.new(obj.name + "-still", mesh)
    copy.matrix_world = obj.matrix_world
    copy.location += Vector(offset)
    copy.color = colour
    copy["still"] = True
    bpy.context.scene.collection.objects.link(copy)
    return copy


def dot(position, radius, colour):
    bpy.ops.mesh.primitive_uv_sphere_add(segments=12, ring_count=6, radius=radius, location=position)
    sphere = bpy.context.active_object
    sphere.color = colour
    sphere["still"] = True
    return sphere


def render(name, view=(0.35, -1.0, 0.35), size=(720, 300)):
    """Renders the still copies (and dots) from the view direction into OUT/name, framing them."""
    scene = bpy.context.scene
    bpy.context.view_layer.update()  # the still copies' matrices
    shown = [o for o in scene.objects if o.get("still")]
    for obj in scene.objects:
        obj.hide_render = obj not in shown
    corners = np.array([obj.matrix_world @ Vector(c) for obj in shown for c in obj.bound_box])
    low, high = corners.min(0), corners.max(0)
    centre = (low + high) / 2
    camera = bpy.data.objects.new("camera", bpy.data.cameras.new("camera"))
    scene.collection.objects.link(camera)
    direction = -Vector(view).normalized()  # view: from the objects towards the camera
    camera.location = Vector(centre) - direction * 50
    camera.rotation_euler = direction.to_track_quat('-Z', 'Y').to_euler()
    camera.data.type = 'ORTHO'
    camera.data.clip_end = 200
    # Frame the box: its extent across the view, with a margin.
    right = direction.cross(Vector((0, 0, 1))).normalized()
    up = right.cross(direction)
    across = [(corners - centre) @ np.array(axis) for axis in (right, up)]
    width, height = (2 * np.abs(a).max() for a in across)
    camera.data.ortho_scale = 1.08 * max(width, height * size[0] / size[1])
    scene.camera = camera
    scene.render.engine = 'BLENDER_WORKBENCH'
    scene.display.shading.light = 'STUDIO'
    scene.display.shading.color_type = 'OBJECT'
    scene.display.shading.show_cavity = True
    scene.display.render_aa = '8'
    scene.render.resolution_x, scene.render.resolution_y = size
    scene.render.resolution_percentage = 100
    scene.render.film_transparent = False
    world = bpy.data.worlds.new("world")
    world.color = (0.93, 0.93, 0.93)
    scene.world = world
    scene.view_settings.view_transform = 'Standard'
    scene.render.image_settings.color_mode = 'RGB'
    scene.render.image_settings.compression = 100
    scene.render.filepath = os.path.join(out, name)
    bpy.ops.render.render(write_still=True)
    print("pictures:", name)


def cat_lion(folder):
    """The cat and the lion with their pairs; shape keys; an animation carried over."""
    scene = new_scene(folder, 60)
    cat = mesh_object("cat", *kavrin.read_obj(os.path.join(data, "cat-reference.obj")), rotate_up=True)
    lion = mesh_object("lion", *kavrin.read_obj(os.path.join(data, "lion-reference.obj")), rotate_up=True)
    lion.location.x = 1.2
    poses = {k: kavrin.read_obj(os.path.join(data, f"cat-0{k}.obj"))[0] for k in (1, 3, 5, 7)}
    t = np.linspace(0, 3, 60)
    for i, (k, pose) in enumerate(poses.items()):
        keyed(cat, f"cat-0{k}", pose, np.maximum(0, 1 - np.abs(t - i)))
    activate(lion)
    lion.kavrin.source = cat
    bpy.ops.kavrin.import_pairs(filepath=os.path.join(root, "data", "cat-lion", "markers.txt"))

    # The pairs, one colour each, on the rest shapes.
    scene.frame_set(1)
    for key in cat.data.shape_keys.key_blocks:
        key.mute = key.name != "Basis"
    snapshot(cat, (0, 0, 0), GREY)
    snapshot(lion, (0, 0, 0), GREY)
    count = len(lion.kavrin.pairs)
    for i, pair in enumerate(lion.kavrin.pairs):
        colour = (*colorsys.hsv_to_rgb(i / count, 0.85, 0.95), 1)
        dot(cat.matrix_world @ cat.data.vertices[pair.source].co, 0.012, colour)
        dot(lion.matrix_world @ lion.data.vertices[pair.target].co, 0.012, colour)
    render("blender-pairs.png")
    clear_stills()
    activate(lion)

    # Shape keys: the cat's keys carried onto the lion, same names.
    bpy.ops.kavrin.transfer_shape_keys()
    for i, name in enumerate(("cat-03", "cat-07")):
        for obj in (cat, lion):
            for key in obj.data.shape_keys.key_blocks:
                key.mute = key.name not in ("Basis", name)
                key.value = 1.0
            obj.data.shape_keys.animation_data_clear()
        scene.frame_set(1)
        snapshot(cat, (2.4 * i, 0, 0), GREY)
        snapshot(lion, (2.4 * i, 0, 0), ORANGE)
    render("blender-shape-keys.png")
    clear_stills()


def animation(folder):
    """The cat's animation over the frame range carried onto the lion, played by its Mesh Cache."""
    scene = new_scene(folder, 60)
    cat = mesh_object("cat", *kavrin.read_obj(os.path.join(data, "cat-reference.obj")), rotate_up=True)
    lion = mesh_object("lion", *kavrin.read_obj(os.path.join(data, "lion-reference.obj")), rotate_up=True)
    lion.location.z = -0.6
    t = np.linspace(0, 3, 60)
    for i, k in enumerate((2, 4, 6, 8)):
        keyed(cat, f"cat-0{k}", kavrin.read_obj(os.path.join(data, f"cat-0{k}.obj"))[0], np.maximum(0, 1 - np.abs(t - i)))
    activate(lion)
    lion.kavrin.source = cat
    bpy.ops.kavrin.import_pairs(filepath=os.path.join(root, "data", "cat-lion", "markers.txt"))
    bpy.ops.kavrin.transfer_animation()
    for i, frame in enumerate((1, 20, 40, 60)):
        scene.frame_set(frame)
        snapshot(cat, (1.2 * i, 0, 0), GREY)
        snapshot(lion, (1.2 * i, 0, 0), ORANGE)
    render("blender-animation.png", size=(720, 360))


def clear_stills():
    for obj in [o for o in bpy.data.objects if o.get("still") or o.type == 'CAMERA']:
        bpy.data.objects.remove(obj)


def grid(n, size, z=0.0):
    u, v = np.meshgrid(np.linspace(-size / 2, size / 2, n + 1), np.linspace(-size / 2, size / 2, n + 1))
    points = np.stack([u.ravel(), v.ravel(), np.full(u.size, z)], 1).astype(np.float32)
    i = np.arange(n)[:, None] * (n + 1) + np.arange(n)[None, :]
    return points, np.stack([i, i + 1, i + n + 2, i + n + 1], -1).reshape(-1, 4)


def jiggle(folder):
    """A jelly ball slides and stops; its top (weight 1) trails and swings past."""
    scene = new_scene(folder, 24)
    bpy.ops.mesh.primitive_uv_sphere_add(segments=48, ring_count=24, radius=1)
    ball = bpy.context.active_object
    ball.name = "ball"
    group = ball.vertex_groups.new(name="top")
    for vertex in ball.data.vertices:
        group.add([vertex.index], float(np.clip((vertex.co.z + 1) / 2, 0, 1)) ** 2, 'REPLACE')
    for frame, x in ((1, 0.0), (10, 4.0)):
        ball.location.x = x
        ball.keyframe_insert("location", frame=frame)
    settings = ball.kavrin.jiggle
    settings.stiffness, settings.damping, settings.weights = 0.15, 0.05, "top"
    bpy.ops.kavrin.bake_jiggle()
    scene.frame_set(13)
    snapshot(ball, (-3.2, 0, 0), BLUE)
    ball.modifiers["Kavrin Jiggle"].show_viewport = False
    snapshot(ball, (-5.6, 0, 0), GREY)
    render("blender-jiggle.png", view=(0.0, -1.0, 0.2), size=(480, 260))


def wrap(folder):
    """A dense sheet bound to a coarse cage at frame 1 follows the cage bent up."""
    scene = new_scene(folder, 10)
    cage = mesh_object("cage", *grid(6, 2.4, z=-0.15))
    points = grid(6, 2.4, z=-0.15)[0]
    bend = points.copy()
    bend[:, 2] += 0.5 * np.sin(1.3 * bend[:, 0]) + 0.3 * bend[:, 1] ** 2
    keyed(cage, "bend", bend, np.linspace(0, 1, 10))
    sheet_points, sheet_faces = grid(80, 2.0)
    sheet_points[:, 2] += 0.03 * np.sin(12 * sheet_points[:, 0]) * np.sin(12 * sheet_points[:, 1])
    sheet = mesh_object("sheet", sheet_points, sheet_faces)
    sheet.kavrin.wrap.driver = cage
    activate(sheet)
    scene.frame_set(1)
    bpy.ops.kavrin.bake_wrap()
    for i, frame in enumerate((1, 10)):
        scene.frame_set(frame)
        snapshot(cage, (3.0 * i, 0, -0.05), GREY)
        snapshot(sheet, (3.0 * i, 0, 0), ORANGE)
    render("blender-wrap.png", view=(0.4, -1.0, 0.6), size=(640, 280))


def delta_mush(folder):
    """A ribbed tube bent rigidly at its middle (a crease) and the same after delta mush."""
    scene = new_scene(folder, 2)
    rings, sides = 60, 32
    angle = np.linspace(0, 2 * np.pi, sides, endpoint=False)
    x = np.linspace(-2, 2, rings)
    radius = 0.4 + 0.025 * np.cos(x * 18)[:, None]
    points = np.stack([np.repeat(x, sides), (radius * np.cos(angle)).ravel(), (radius * np.sin(angle)).ravel()], 1)
    faces = [[r * sides + s, r * sides + (s + 1) % sides, (r + 1) * sides + (s + 1) % sides, (r + 1) * sides + s]
             for r in range(rings - 1) for s in range(sides)]
    tube = mesh_object("tube", points.astype(np.float32), faces)
    bent = points.copy()
    right = bent[:, 0] > 0
    turn = np.radians(80)
    bent[right, 0], bent[right, 2] = (points[right, 0] * np.cos(turn) - points[right, 2] * np.sin(turn),
                                      points[right, 0] * np.sin(turn) + points[right, 2] * np.cos(turn))
    keyed(tube, "elbow", bent, [1, 1])
    tube.kavrin.delta_mush.iterations = 20
    activate(tube)
    bpy.ops.kavrin.bake_delta_mush()
    scene.frame_set(1)
    snapshot(tube, (3.2, 0, 0), ORANGE)
    tube.modifiers["Kavrin Delta Mush"].show_viewport = False
    snapshot(tube, (0, 0, 0), GREY)
    render("blender-delta-mush.png", view=(0.0, -1.0, 0.15), size=(560, 260))


addon_utils.enable("kavrin_blender", default_set=False)
os.makedirs(out, exist_ok=True)
with tempfile.TemporaryDirectory() as folder:
    if os.path.exists(os.path.join(data, "cat-reference.obj")):
        cat_lion(folder)
        animation(folder)
    else:
        print(f"pictures: no cat and lion meshes in {data}: the transfer pictures are kept as they are")
    jiggle(folder)
    wrap(folder)
    delta_mush(folder)
