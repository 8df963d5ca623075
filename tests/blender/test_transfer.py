"""Marker pairs picked in Edit Mode, shape keys and animation transferred, against the command line."""

import bmesh
import bpy
import numpy as np

import kavrin
from conftest import activate, add_key, animate, bent, evaluated, grid, mesh_object, run_kavrin

PAIRS = [(0, 0), (6, 9), (42, 90), (48, 99), (24, 50)]  # the corners and the middle of both grids


def pick(source, target, pairs):
    """Adds the pairs as an artist does: both meshes in Edit Mode, one vertex selected on each."""
    source.select_set(True)
    bpy.ops.object.mode_set(mode='EDIT')
    for s, t in pairs:
        for obj, index in ((source, s), (target, t)):
            bm = bmesh.from_edit_mesh(obj.data)
            for v in bm.verts:
                v.select = False
            bm.verts.ensure_lookup_table()
            bm.verts[index].select = True
            bmesh.update_edit_mesh(obj.data)
        bpy.ops.kavrin.add_pair()
    bpy.ops.object.mode_set(mode='OBJECT')


def rig(blend):
    source_points, source_faces = grid(6)
    target_points, target_faces = grid(9, size=1.5)
    source = mesh_object("cat", source_points, source_faces)
    target = mesh_object("lion", target_points, target_faces, location=(3, 0, 0))
    target_points[:, 1] += 0.2  # the target's mesh itself stands elsewhere too
    target.data.vertices.foreach_set("co", target_points.ravel())
    activate(target)
    pick(source, target, PAIRS)
    return source, target


def files(tmp_path, source, target):
    """The meshes and pairs as the command line reads them."""
    for obj in (source, target):
        points = np.empty(len(obj.data.vertices) * 3, np.float32)
        obj.data.vertices.foreach_get("co", points)
        kavrin.write_obj(tmp_path / f"{obj.name}.obj", points.reshape(-1, 3),
                         [list(p.vertices) for p in obj.data.polygons])
    bpy.ops.kavrin.export_pairs(filepath=str(tmp_path / "pairs.txt"))
    return ["--source-rest", tmp_path / "cat.obj", "--target", tmp_path / "lion.obj", "--markers", tmp_path / "pairs.txt"]


def shift(tmp_path):
    """Where the target stands: its first pair's vertex moves with the source's."""
    s, t = PAIRS[0]
    return kavrin.read_obj(tmp_path / "lion.obj")[0][t].astype(np.float64) - kavrin.read_obj(tmp_path / "cat.obj")[0][s]


def test_shape_keys_match_the_command_line(blend, tmp_path):
    source, target = rig(blend)
    points, _ = grid(6)
    for name, amount in (("bend", 0.8), ("curl", -0.5)):
        add_key(source, name, bent(points, amount))
    curl = source.data.shape_keys.key_blocks["curl"]
    curl.slider_min, curl.slider_max, curl.value = -1.0, 2.0, 1.5
    args = files(tmp_path, source, target)
    bpy.ops.kavrin.transfer_shape_keys()

    keys = target.data.shape_keys.key_blocks
    assert [k.name for k in keys] == ["Basis", "bend", "curl"]
    assert (keys["curl"].slider_min, keys["curl"].slider_max, keys["curl"].value) == (-1.0, 2.0, 1.5)
    for name, amount in (("bend", 0.8), ("curl", -0.5)):
        kavrin.write_obj(tmp_path / f"{name}.obj", bent(points, amount), grid(6)[1])
        run_kavrin("transfer", *args, tmp_path / f"{name}.obj", "-o", tmp_path / f"lion-{name}.obj")
        expected = kavrin.read_obj(tmp_path / f"lion-{name}.obj")[0] + shift(tmp_path)
        got = np.empty(len(keys[name].data) * 3, np.float32)
        keys[name].data.foreach_get("co", got)
        assert keys[name].relative_key == keys["Basis"]
        np.testing.assert_allclose(got.reshape(-1, 3), expected, rtol=0, atol=1e-6)

    # The pairs went out as a marker file, come back from it and are saved with the .blend file.
    assert (tmp_path / "pairs.txt").read_text().splitlines()[2:] == [f"{s} {t}" for s, t in PAIRS]
    bpy.ops.kavrin.clear_pairs()
    bpy.ops.kavrin.import_pairs(filepath=str(tmp_path / "pairs.txt"))
    bpy.ops.wm.save_mainfile()
    bpy.ops.wm.open_mainfile(filepath=str(blend))
    lion = bpy.data.objects["lion"]
    assert [(p.source, p.target) for p in lion.kavrin.pairs] == PAIRS and lion.kavrin.source.name == "cat"


def test_animation_matches_the_command_line_and_plays(blend, tmp_path):
    source, target = rig(blend)
    points, faces = grid(6)
    animate(add_key(source, "bend", bent(points, 0.8)), [0, 0.3, 1, 0.6, 0.2])
    args = files(tmp_path, source, target)
    kavrin.write_pc2(tmp_path / "cat.pc2", evaluated(source, range(1, 6)))
    activate(target)
    bpy.ops.kavrin.transfer_animation()

    run_kavrin("transfer", *args, tmp_path / "cat.pc2", "-o", tmp_path / "expected.pc2")
    expected = kavrin.read_pc2(tmp_path / "expected.pc2")[0] + shift(tmp_path)
    cache, start, _ = kavrin.read_pc2(tmp_path / "shot-lion-transfer.pc2")
    assert start == 1
    np.testing.assert_allclose(cache, expected, rtol=0, atol=1e-6)
    modifier = target.modifiers["Kavrin Transfer"]
    assert (modifier.type, modifier.filepath) == ('MESH_CACHE', "//shot-lion-transfer.pc2")
    np.testing.assert_allclose(evaluated(target, [4])[0], cache[3], rtol=0, atol=1e-6)
