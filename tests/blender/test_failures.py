"""A failure is one error report (the engine's own message where the engine refuses), and the scene
and the files beside it stay as they were."""

import hashlib

import bpy
import numpy as np
import pytest

import kavrin
from conftest import activate, add_key, animate, bent, grid, mesh_object


def state(folder):
    """What a failed operator must not change: every object's shape keys, modifiers and pairs, the
    current frame, and the files beside the .blend (with their contents)."""
    objects = {obj.name: ([k.name for k in obj.data.shape_keys.key_blocks] if obj.data.shape_keys else [],
                          [(m.name, m.show_viewport) for m in obj.modifiers],
                          [(p.source, p.target) for p in obj.kavrin.pairs]) for obj in bpy.data.objects}
    files = {f.name: hashlib.sha1(f.read_bytes()).hexdigest() for f in folder.iterdir() if f.is_file()}
    return objects, bpy.context.scene.frame_current, files


def stale_pair():
    """A pair whose source vertex the source no longer has: the engine refuses the markers."""
    points, faces = grid(4)
    source = mesh_object("cat", points, faces)
    add_key(source, "bend", bent(points, 0.5))
    target = mesh_object("lion", points, faces)
    target.kavrin.source = source
    for s, t in ((0, 0), (99, 24)):
        pair = target.kavrin.pairs.add()
        pair.source, pair.target = s, t
    with pytest.raises(kavrin.InputError) as refused:
        kavrin.Transfer((points, faces), (points, faces), [(0, 0), (99, 24)])
    return target, "transfer_shape_keys", str(refused.value)


def loose_vertex():
    """A vertex in no face has nothing to smooth over: the engine refuses the rest mesh. The mesh
    already plays an earlier bake, which stays."""
    points, faces = grid(4)
    points = np.vstack([points, [[2, 2, 0]]]).astype(np.float32)
    obj = mesh_object("elbow", points, faces)
    animate(add_key(obj, "bend", bent(points, 0.5)), [0, 1, 0, 1, 0])
    obj.modifiers.new("Kavrin Delta Mush", 'MESH_CACHE')
    kavrin.write_pc2(bpy.path.abspath("//shot-elbow-delta-mush.pc2"), np.zeros((5, len(points), 3), np.float32))
    with pytest.raises(kavrin.InputError) as refused:
        kavrin.DeltaMush((points, faces))
    return obj, "bake_delta_mush", str(refused.value)


def missing_group():
    obj = mesh_object("belly", *grid(4))
    obj.kavrin.jiggle.stiffness_map = "soft"
    return obj, "bake_jiggle", "belly has no vertex group \"soft\""


@pytest.mark.parametrize("setup", [stale_pair, loose_vertex, missing_group])
def test_failure_reports_and_changes_nothing(blend, tmp_path, setup):
    obj, operator, message = setup()
    activate(obj)
    bpy.context.scene.frame_set(3)
    before = state(tmp_path)
    with pytest.raises(RuntimeError) as report:
        getattr(bpy.ops.kavrin, operator)()
    assert str(report.value).strip() == f"Error: {message}"
    assert state(tmp_path) == before


def test_unsaved_file_is_refused_before_any_work():
    bpy.ops.wm.read_homefile(use_empty=True)
    activate(mesh_object("belly", *grid(4)))
    with pytest.raises(RuntimeError, match="Error: Save the .blend file first: Kavrin writes its caches next to it"):
        bpy.ops.kavrin.bake_jiggle()
    assert not bpy.context.active_object.modifiers
