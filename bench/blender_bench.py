"""Benchmarks of the Blender add-on inside Blender (not tests): medians of several runs.

  blender -b --factory-startup --python bench/blender_bench.py -- [build [cat-lion folder [runs]]]

(defaults: build, ../shared/data/cat-lion, 3). Uses the build tree's package (<build>/python) and
the add-on of the source tree.

1. "Transfer Animation": 100 frames of the cat (shape keys keyed so that the frames run through
   the nine cat poses) onto the lion, with the 55 pairs of data/cat-lion/markers.txt: the fit,
   the factorisation, sampling 100 frames, 100 solves, the cache written;
2. "Bake Jiggle": 100 frames of a 317 x 317 grid (100,489 vertices) bent back and forth;
   beside it, how long Blender alone takes to evaluate those 100 frames and hand out the points.
"""

import os
import statistics
import sys
import tempfile
import time

root = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
args = sys.argv[sys.argv.index("--") + 1:] if "--" in sys.argv else []
build = args[0] if args else os.path.join(root, "build")
data = args[1] if len(args) > 1 else os.path.join(root, "..", "shared", "data", "cat-lion")
runs = int(args[2]) if len(args) > 2 else 3
sys.path[:0] = [os.path.join(build, "python"), os.path.join(root, "blender")]

import addon_utils  # noqa: E402
import bpy  # noqa: E402
import numpy as np  # noqa: E402

import kavrin  # noqa: E402

FRAMES = 100


def mesh_object(name, points, faces):
    mesh = bpy.data.meshes.new(name)
    mesh.from_pydata(np.asarray(points).tolist(), [], np.asarray(faces).tolist())
    obj = bpy.data.objects.new(name, mesh)
    bpy.context.scene.collection.objects.link(obj)
    return obj


def keyed(obj, poses, weights):
    """Shape keys for the poses, their values keyed on every frame from weights (frames, poses)."""
    obj.shape_key_add(name="Basis", from_mix=False)
    for k, pose in enumerate(poses):
        key = obj.shape_key_add(name=f"pose{k + 1}", from_mix=False)
        key.data.foreach_set("co", np.asarray(pose, np.float32).ravel())
        for frame, value in enumerate(weights[:, k], start=1):
            key.value = value
            key.keyframe_insert("value", frame=frame)


def new_scene(folder):
    bpy.ops.wm.read_homefile(use_empty=True)
    scene = bpy.context.scene
    scene.frame_start, scene.frame_end = 1, FRAMES
    bpy.ops.wm.save_as_mainfile(filepath=os.path.join(folder, "bench.blend"))


def activate(obj):
    bpy.context.view_layer.objects.active = obj
    obj.select_set(True)


def median(operator):
    times = []
    for _ in range(runs):
        bpy.context.scene.frame_set(1)
        start = time.perf_counter()
        assert operator() == {'FINISHED'}
        times.append(time.perf_counter() - start)
    return statistics.median(times), times


def cat_lion(folder):
    new_scene(folder)
    cat = mesh_object("cat", *kavrin.read_obj(os.path.join(data, "cat-reference.obj")))
    lion = mesh_object("lion", *kavrin.read_obj(os.path.join(data, "lion-reference.obj")))
    poses = [kavrin.read_obj(os.path.join(data, f"cat-0{k}.obj"))[0] for k in range(1, 10)]
    # Frame f lies between two consecutive poses: the frames run through all nine.
    t = np.linspace(0, len(poses) - 1, FRAMES)
    weights = np.maximum(0, 1 - np.abs(t[:, None] - np.arange(len(poses))[None, :]))
    keyed(cat, poses, weights)
    activate(lion)
    lion.kavrin.source = cat
    bpy.ops.kavrin.import_pairs(filepath=os.path.join(root, "data", "cat-lion", "markers.txt"))
    return median(bpy.ops.kavrin.transfer_animation), (len(cat.data.vertices), len(lion.data.vertices))


def jiggle(folder):
    new_scene(folder)
    n = 316
    u, v = np.meshgrid(np.linspace(0, 1, n + 1), np.linspace(0, 1, n + 1))
    points = np.stack([u.ravel(), v.ravel(), 0.02 * np.sin(9 * u.ravel())], 1).astype(np.float32)
    i = np.arange(n)[:, None] * (n + 1) + np.arange(n)[None, :]
    faces = np.stack([i, i + 1, i + n + 2, i + n + 1], -1).reshape(-1, 4)
    sheet = mesh_object("sheet", points, faces)
    bend = points.copy()
    bend[:, 2] += 0.5 * bend[:, 0] ** 2
    keyed(sheet, [bend], (0.5 - 0.5 * np.cos(np.linspace(0, 4 * np.pi, FRAMES)))[:, None])
    activate(sheet)
    sheet.kavrin.jiggle.normal_strength = 0.5
    return median(bpy.ops.kavrin.bake_jiggle), len(points), median(lambda: evaluate(sheet))[0]


def evaluate(obj):
    """What any bake costs in Blender itself: every frame evaluated and its points copied out."""
    points = np.empty(len(obj.data.vertices) * 3, np.float32)
    for frame in range(1, FRAMES + 1):
        bpy.context.scene.frame_set(frame)
        evaluated = obj.evaluated_get(bpy.context.evaluated_depsgraph_get())
        evaluated.to_mesh().vertices.foreach_get("co", points)
        evaluated.to_mesh_clear()
    return {'FINISHED'}


addon_utils.enable("kavrin_blender", default_set=False)
with tempfile.TemporaryDirectory() as folder:
    if os.path.exists(os.path.join(data, "cat-reference.obj")):
        (m, times), (nc, nl) = cat_lion(folder)
        print(f"transfer animation, {FRAMES} frames cat ({nc}) -> lion ({nl}): median {m:.2f} s "
              f"({', '.join(f'{t:.2f}' for t in times)})")
    else:
        print(f"no cat and lion meshes in {data}: the transfer is not measured")
    (m, times), n, blender = jiggle(folder)
    print(f"bake jiggle, {FRAMES} frames of {n} vertices: median {m:.2f} s ({', '.join(f'{t:.2f}' for t in times)}); "
          f"Blender evaluating the frames alone: median {blender:.2f} s")
print("load average:", " ".join(f"{x:.2f}" for x in os.getloadavg()))
