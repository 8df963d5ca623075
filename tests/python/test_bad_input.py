"""What never reaches an engine: each bad input and the exact one line it is refused with."""

import numpy as np
import pytest

import kavrin
from conftest import grid

POINTS, FACES = grid(2)  # 9 vertices, 4 quads
MESH = (POINTS, FACES)
NAN = POINTS.copy()
NAN[4, 1] = np.nan
HUGE = POINTS.astype(np.float64)
HUGE[2, 0] = 2e9
PAIRS = np.array([[0, 0], [8, 8]])


def dm(**kw):
    return kavrin.DeltaMush(MESH, **kw)


CASES = [
    (lambda: dm().deform(POINTS.astype(np.int64)), "points: expected float32 or float64 coordinates, not int64"),
    (lambda: dm().deform(POINTS[:, :2]), "points: expected an (n, 3) array or a batch (frames, n, 3), not an array "
                                         "of shape (9, 2)"),
    (lambda: dm().deform(POINTS[:5]), "points: 5 vertices, but rest has 9"),
    (lambda: dm().deform(np.stack([POINTS, NAN])), "points[1]: vertex 4 is at (0.5, nan, 0.5), which is not a finite "
                                                   "position"),
    (lambda: dm().deform(HUGE), "points: vertex 2 is at (2e9, 0, 0); coordinates outside -1e9 to 1e9 overflow the "
                                "engines' single-precision arithmetic"),
    (lambda: kavrin.DeltaMush((POINTS, FACES + 1)), "rest faces: face 3 names vertex 9, but the mesh has 9 vertices"),
    (lambda: kavrin.DeltaMush((POINTS, [[0, 1, 1]])), "rest faces: face 0 names vertex 1 twice"),
    (lambda: kavrin.DeltaMush((POINTS, [[0, 1]])), "rest faces: face 0 has 2 corners; a face needs 3 or more"),
    (lambda: kavrin.DeltaMush((POINTS, FACES.astype(float))), "rest faces: expected integer vertex indices, not "
                                                              "float64"),
    (lambda: kavrin.DeltaMush((POINTS, FACES[:1])), "rest: 5 vertices are in no face (2, 5, 6, 7, 8, counting from "
                                                    "0); delta mush has no edge to smooth such a vertex over and "
                                                    "would write it as NaN"),
    (lambda: kavrin.DeltaMush((np.zeros((0, 3)), [])), "rest: no vertices"),
    (lambda: kavrin.DeltaMush((POINTS, FACES.astype(np.uint64) + np.uint64(2**63))),
     "rest faces: face 0 names vertex 9223372036854775808, but the mesh has 9 vertices"),
    (lambda: dm(iterations=0), "iterations: 0 is outside 1 to 10000"),
    (lambda: dm(envelope=3), "envelope: 3 is outside -2 to 2"),
    (lambda: kavrin.Transfer(MESH, MESH, [[0, 0], [0, 3]]), "markers: source vertex 0 is marked by pairs 0 and 1"),
    (lambda: kavrin.Transfer(MESH, MESH, [[0, 9]]), "markers: 9 at position 1 is outside 0 to 8"),
    (lambda: kavrin.Transfer(MESH, MESH, PAIRS, fixed=(1, 12)), "fixed: target vertex 12 is outside the target mesh"),
    (lambda: kavrin.Transfer(MESH, grid(3), PAIRS, mode="same"), "mode 'same' needs meshes with the same vertices; "
                                                                 "the source has 9, the target 16"),
    (lambda: kavrin.Jiggle(MESH, stiffness_map=np.ones(8)), "stiffness_map: 8 values for 9 vertices"),
    (lambda: kavrin.Jiggle(MESH, damping_map=np.full(9, 1.5)), "damping_map[0]: 1.5 is outside 0 to 1"),
    (lambda: kavrin.Jiggle(MESH).deform(np.stack([POINTS] * 2), times=[0]), "times: 1 times for 2 frames"),
    (lambda: kavrin.Jiggle(MESH).deform(POINTS, "0"), "times: expected a number, not <class 'str'>"),
    (lambda: kavrin.Jiggle(MESH).deform(np.zeros((0, 9, 3))), "points: the batch has no frames"),
    (lambda: kavrin.Relax(MESH, collider_maps=[np.ones(9)]), "collider_maps: 1 collider maps for 0 colliders"),
    (lambda: kavrin.Offset(MESH), "give one of texture and red"),
    (lambda: kavrin.Offset(MESH, texture=np.ones((4, 4))), "uvs: a texture is sampled at each vertex's UV; give uvs "
                                                           "(n, 2)"),
    (lambda: kavrin.Wrap((POINTS, np.zeros((0, 3), int)), MESH), "driver: the driver has no faces to bind to"),
    (lambda: kavrin.Wrap.from_binding(MESH, MESH, kavrin.DeltaMush(MESH, iterations=1).binding),
     "wrap binding: this is a deltamush binding"),
    (lambda: kavrin.DeltaMush.from_binding(MESH, dict(dm().binding, delta=np.zeros((8, 3)))),
     "deltamush binding: delta: 8 vertices, but rest has 9"),
    (lambda: kavrin.DeltaMush.from_binding(MESH, dict(dm().binding, iterations="5")),
     "deltamush binding: iterations: expected a number, not <class 'str'>"),
    (lambda: kavrin.farm.deltamush(None, MESH, {"sh010": POINTS, "sh020": POINTS}, out="out.pc2"),
     "out: the results of sh010 and sh020 would both be out.pc2"),
    (lambda: kavrin.read_obj("missing.obj"), "missing.obj: cannot open the file (No such file or directory)"),
    (lambda: kavrin.load_binding("missing.npz"), "missing.npz: cannot open the file (No such file or directory)"),
]


@pytest.mark.parametrize("call, message", CASES, ids=[m[:40] for _, m in CASES])
def test_bad_input_is_one_exact_line(call, message):
    with pytest.raises(kavrin.InputError) as error:
        call()
    assert str(error.value) == message
    assert isinstance(error.value, ValueError)

