"""Each bake against the command line on the same frames, and the cache it leaves playing."""

import bpy
import numpy as np
import pytest

import kavrin
from conftest import activate, add_key, animate, bent, evaluated, grid, mesh_object, run_kavrin

FRAMES = range(1, 6)


def animated(name, n, size=1.0, location=(0, 0, 0), values=(0, 0.5, 1, 1, 1)):
    points, faces = grid(n, size)
    obj = mesh_object(name, points, faces, location)
    animate(add_key(obj, "bend", bent(points, 0.6)), values)
    kavrin.write_obj(f"{bpy.path.abspath('//')}{name}.obj", points, faces)
    return obj


def jiggle(tmp_path):
    obj = animated("belly", 12)
    group = obj.vertex_groups.new(name="soft")
    for vertex in obj.data.vertices:
        group.add([vertex.index], vertex.co.x, 'REPLACE')
    obj.kavrin.jiggle.stiffness, obj.kavrin.jiggle.damping, obj.kavrin.jiggle.weights = 0.4, 0.2, "soft"
    (tmp_path / "soft.txt").write_text("".join(f"{v.co.x!r}\n" for v in obj.data.vertices))
    kavrin.write_pc2(tmp_path / "in.pc2", evaluated(obj, FRAMES))
    return obj, ["jiggle", "--topology", tmp_path / "belly.obj", "--stiffness", 0.4, "--damping", 0.2,
                 "--weights", tmp_path / "soft.txt", tmp_path / "in.pc2"]


def wrap(tmp_path):
    # In world space: the mesh's object stands 0.3 above its mesh data, the cage 0.1 below the sheet.
    cage = animated("cage", 3, size=1.2, location=(-0.1, -0.1, 0.2), values=(0, 0.4, 0.8, 1, 0.2))
    obj = mesh_object("sheet", *grid(12), location=(0, 0, 0.3))
    obj.kavrin.wrap.driver = cage
    moved = evaluated(cage, FRAMES) + np.float32([-0.1, -0.1, 0.2])
    kavrin.write_obj(tmp_path / "cage-rest.obj", moved[0], grid(3, 1.2)[1])
    kavrin.write_obj(tmp_path / "sheet-rest.obj", grid(12)[0] + np.float32([0, 0, 0.3]), grid(12)[1])
    kavrin.write_pc2(tmp_path / "in.pc2", moved)
    return obj, ["wrap", "--driver", tmp_path / "cage-rest.obj", "--mesh", tmp_path / "sheet-rest.obj",
                 tmp_path / "in.pc2"]


def delta_mush(tmp_path):
    obj = animated("elbow", 12)
    obj.kavrin.delta_mush.iterations = 5
    kavrin.write_pc2(tmp_path / "in.pc2", evaluated(obj, FRAMES))
    obj.modifiers.new("Subdivision", 'SUBSURF')  # the bake reads before it, its cache goes before it
    return obj, ["deltamush", "--rest", tmp_path / "elbow.obj", "--iterations", 5, tmp_path / "in.pc2"]


@pytest.mark.parametrize("setup, operator, kind, world", [
    (jiggle, "bake_jiggle", "jiggle", (0, 0, 0)),
    (wrap, "bake_wrap", "wrap", (0, 0, 0.3)),
    (delta_mush, "bake_delta_mush", "delta-mush", (0, 0, 0)),
])
def test_bake_matches_the_command_line(blend, tmp_path, setup, operator, kind, world):
    obj, args = setup(tmp_path)
    activate(obj)
    bpy.context.scene.frame_set(1)  # the wrap binds here; the bake puts the scene back here
    getattr(bpy.ops.kavrin, operator)()
    assert bpy.context.scene.frame_current == 1

    run_kavrin(*args, "-o", tmp_path / "expected.pc2")
    expected = kavrin.read_pc2(tmp_path / "expected.pc2")[0] - np.float32(world)
    cache, start, _ = kavrin.read_pc2(tmp_path / f"shot-{obj.name}-{kind}.pc2")
    assert start == 1
    np.testing.assert_allclose(cache, expected, rtol=0, atol=1e-6)
    assert obj.modifiers[0].type == 'MESH_CACHE' and obj.modifiers[0].name.startswith("Kavrin ")
    for later in obj.modifiers[1:]:
        later.show_viewport = False
    np.testing.assert_allclose(evaluated(obj, [3])[0], cache[2], rtol=0, atol=1e-6)
