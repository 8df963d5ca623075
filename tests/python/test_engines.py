"""Every engine from Python against the command line on the same files (bit for bit), the batch
path against frame by frame, and the round trips of every binding and point cache."""

import struct

import numpy as np
import pytest

import kavrin
from conftest import bends, bumpy, grid, run_kavrin

REST = grid(8)
POSES = bends(bumpy(REST[0]))


def engines(tmp):
    """Per engine: the Python object, the command line's arguments (before the poses), the poses
    and what a batch and a fresh object need."""
    points, faces = REST
    rest = (bumpy(points), faces)
    kavrin.write_obj(tmp / "rest.obj", *rest)
    poses = bends(rest[0])
    target = (rest[0] * np.float32(1.5), faces)
    kavrin.write_obj(tmp / "target.obj", *target)
    markers = np.array([[0, 0], [8, 8], [40, 40], [72, 72], [80, 80]], np.int32)
    (tmp / "markers.txt").write_text("".join(f"{s} {t}\n" for s, t in markers))
    cage = grid(4, 1.2, -0.1)
    cage = (cage[0] - np.float32([0.1, 0, 0.1]), cage[1])
    kavrin.write_obj(tmp / "cage.obj", *cage)
    cage_poses = bends(cage[0])
    return {
        "deltamush": (lambda: kavrin.DeltaMush(rest, iterations=5),
                      ["deltamush", "--rest", "rest.obj", "--iterations", 5], poses),
        "transfer": (lambda: kavrin.Transfer(rest, target, markers, mode="same", iterations=2),
                     ["transfer", "--source-rest", "rest.obj", "--target", "target.obj", "--markers", "markers.txt",
                      "--mode", "same", "--iterations", 2], poses),
        "wrap": (lambda: kavrin.Wrap(cage, rest), ["wrap", "--driver", "cage.obj", "--mesh", "rest.obj"], cage_poses),
        "jiggle": (lambda: kavrin.Jiggle(rest, stiffness=0.2, damping=0.05),
                   ["jiggle", "--topology", "rest.obj", "--stiffness", 0.2, "--damping", 0.05],
                   np.concatenate([rest[0][None], poses, poses[-1:], poses[-1:]])),
        "relax": (lambda: kavrin.Relax(rest, iterations=4, stiffness=0.1, scale_safe=True),
                  ["relax", "--rest", "rest.obj", "--iterations", 4, "--stiffness", 0.1, "--scale-safe"], poses),
        "offset": (lambda: kavrin.Offset(rest, red=0.5, scale=0.2),
                   ["offset", "--topology", "rest.obj", "--red", 0.5, "--scale", 0.2], poses),
    }


@pytest.mark.parametrize("name", ["deltamush", "transfer", "wrap", "jiggle", "relax", "offset"])
def test_engine_matches_the_command_line_and_its_own_frame_by_frame_path(tmp_path, name):
    make, args, poses = engines(tmp_path)[name]
    kavrin.write_pc2(tmp_path / "poses.pc2", poses)
    run_kavrin(*args, "poses.pc2", "-o", "out.pc2", cwd=tmp_path)
    expected, start, rate = kavrin.read_pc2(tmp_path / "out.pc2")
    assert (start, rate) == (0.0, 1.0)
    batch = make().deform(poses)
    assert batch.dtype == np.float32 and batch.shape == expected.shape
    np.testing.assert_array_equal(batch, expected)
    one_by_one = make()
    frames = np.array([one_by_one.deform(p.astype(np.float64)) for p in poses])
    np.testing.assert_array_equal(frames, batch)


@pytest.mark.parametrize("name", ["deltamush", "transfer", "wrap", "relax"])
def test_binding_round_trip_gives_the_same_results(tmp_path, name):
    make, _, poses = engines(tmp_path)[name]
    engine = make()
    expected = engine.deform(poses)
    kavrin.save_binding(tmp_path / "b.npz", engine.binding)
    binding = kavrin.load_binding(tmp_path / "b.npz")
    assert binding["kind"] == name and binding["format"] == kavrin.BINDING_FORMAT
    points, faces = REST
    rest = (bumpy(points), faces)
    cls = type(engine)
    if name == "deltamush":
        again = cls.from_binding(rest, binding)
    elif name == "transfer":
        again = cls.from_binding(rest, (rest[0] * np.float32(1.5), faces), binding)
    elif name == "wrap":
        cage = grid(4, 1.2, -0.1)
        again = cls.from_binding((cage[0] - np.float32([0.1, 0, 0.1]), cage[1]), rest, binding)
    else:
        again = cls.from_binding(rest, binding, iterations=4, stiffness=0.1, scale_safe=True)
        # A flat mesh's corners hold the engine's own NaN weights, which its binding keeps.
        flat = kavrin.Relax(REST)
        np.testing.assert_array_equal(cls.from_binding(REST, flat.binding).deform(poses), flat.deform(poses))
    np.testing.assert_array_equal(again.deform(poses), expected)
    # A binding made for other faces is refused.
    other = (rest[0], np.roll(rest[1], 1, axis=1))
    with pytest.raises(kavrin.InputError, match="other faces"):
        if name == "transfer":
            cls.from_binding(rest, other, binding)
        elif name == "wrap":
            cls.from_binding(other, rest, binding)
        else:
            cls.from_binding(other, binding)


def test_point_caches_round_trip_and_pc2_has_the_layout_blender_reads(tmp_path):
    frames = bends(REST[0], 4)
    kavrin.write_pc2(tmp_path / "a.pc2", frames, start_frame=1001, sample_rate=0.5)
    data = (tmp_path / "a.pc2").read_bytes()
    assert data[:12] == b"POINTCACHE2\0"
    assert struct.unpack("<iiffi", data[12:32]) == (1, frames.shape[1], 1001.0, 0.5, 4)
    assert len(data) == 32 + frames.size * 4
    np.testing.assert_array_equal(np.frombuffer(data[32:], "<f4").reshape(frames.shape), frames)
    back, start, rate = kavrin.read_pc2(tmp_path / "a.pc2")
    np.testing.assert_array_equal(back, frames)
    assert (start, rate) == (1001.0, 0.5)
    kavrin.write_mdd(tmp_path / "a.mdd", frames, times=[0.0, 0.5, 1.0, 1.5])
    data = (tmp_path / "a.mdd").read_bytes()
    assert struct.unpack(">ii4f", data[:24]) == (4, frames.shape[1], 0.0, 0.5, 1.0, 1.5)
    back, times = kavrin.read_mdd(tmp_path / "a.mdd")
    np.testing.assert_array_equal(back, frames)
    np.testing.assert_array_equal(times, [0.0, 0.5, 1.0, 1.5])
    # The command line keeps a single input cache's timing.
    kavrin.write_obj(tmp_path / "rest.obj", *REST)
    run_kavrin("deltamush", "--rest", "rest.obj", "a.pc2", "-o", "out.pc2", cwd=tmp_path)
    assert kavrin.read_pc2(tmp_path / "out.pc2")[1:] == (1001.0, 0.5)
    points, faces = kavrin.read_obj(tmp_path / "rest.obj")
    np.testing.assert_array_equal(points, REST[0])
    np.testing.assert_array_equal(faces, REST[1])


def test_jiggle_steps_with_the_times_given():
    points, faces = REST
    frames = bends(points, 3)
    once = kavrin.Jiggle(REST).deform(frames, times=[0, 1, 2])
    stepped = kavrin.Jiggle(REST)
    parts = [stepped.deform(frames[0], 0.0), stepped.deform(frames[1:])]
    np.testing.assert_array_equal(np.concatenate([parts[0][None], parts[1]]), once)
    halved = kavrin.Jiggle(REST).deform(frames, times=[0, 0.5, 1])
    assert not np.array_equal(halved, once)
