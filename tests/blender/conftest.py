"""Shared pieces of the add-on's tests: the add-on enabled from the source tree, an empty scene saved
in a temporary folder for each test, meshes built from arrays, and the kavrin command line."""

import os
import subprocess

import addon_utils
import bpy
import numpy as np
import pytest

import kavrin

KAVRIN = os.environ.get("KAVRIN_EXE", "")


@pytest.fixture(scope="session", autouse=True)
def addon():
    module = addon_utils.enable("kavrin_blender", default_set=True)
    # The add-on of the source tree on the build tree's package, not installed copies.
    assert module is not None and module.__file__.startswith(os.environ["KAVRIN_SOURCE_DIR"])
    assert kavrin.__file__.startswith(os.environ["KAVRIN_PYTHON_DIR"])
    yield module
    addon_utils.disable("kavrin_blender")


@pytest.fixture
def blend(tmp_path):
    """An empty scene, frames 1 to 5, saved as tmp_path/shot.blend (caches go next to it)."""
    bpy.ops.wm.read_homefile(use_empty=True)
    scene = bpy.context.scene
    scene.frame_start, scene.frame_end = 1, 5
    scene.frame_set(1)
    path = tmp_path / "shot.blend"
    bpy.ops.wm.save_as_mainfile(filepath=str(path))
    return path


def grid(n, size=1.0):
    """An n x n grid of quads in the xy plane, bumped so that it has detail: points, faces."""
    u, v = np.meshgrid(np.linspace(0, size, n + 1), np.linspace(0, size, n + 1))
    points = np.stack([u.ravel(), v.ravel(), 0.05 * np.sin(7 * u.ravel()) * np.cos(5 * v.ravel())], axis=1)
    i = np.arange(n)[:, None] * (n + 1) + np.arange(n)[None, :]
    faces = np.stack([i, i + 1, i + n + 2, i + n + 1], axis=-1).reshape(-1, 4)
    return points.astype(np.float32), faces


def bent(points, amount):
    out = points.copy()
    out[:, 2] += amount * out[:, 0] ** 2
    return out


def mesh_object(name, points, faces, location=(0, 0, 0)):
    mesh = bpy.data.meshes.new(name)
    mesh.from_pydata(points.tolist(), [], faces.tolist())
    obj = bpy.data.objects.new(name, mesh)
    obj.location = location
    bpy.context.scene.collection.objects.link(obj)
    return obj


def add_key(obj, name, points):
    if obj.data.shape_keys is None:
        obj.shape_key_add(name="Basis", from_mix=False)
    key = obj.shape_key_add(name=name, from_mix=False)
    key.data.foreach_set("co", points.astype(np.float32).ravel())
    return key


def animate(key, values):
    """Keys the shape key's value, one value per frame from frame 1."""
    for frame, value in enumerate(values, start=1):
        key.value = value
        key.keyframe_insert("value", frame=frame)


def evaluated(obj, frames, world=False):
    """The object's evaluated points over frames: (frames, n, 3) float32."""
    scene = bpy.context.scene
    out = []
    for frame in frames:
        scene.frame_set(frame)
        ob = obj.evaluated_get(bpy.context.evaluated_depsgraph_get())
        mesh = ob.to_mesh()
        p = np.empty(len(mesh.vertices) * 3, np.float32)
        mesh.vertices.foreach_get("co", p)
        ob.to_mesh_clear()
        out.append(p.reshape(-1, 3))
    return np.stack(out)


def activate(obj):
    for other in bpy.context.scene.objects:
        other.select_set(other == obj)
    bpy.context.view_layer.objects.active = obj


def run_kavrin(*args):
    if not KAVRIN:
        pytest.skip("KAVRIN_EXE is not set")
    done = subprocess.run([KAVRIN, *map(str, args)], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return done
