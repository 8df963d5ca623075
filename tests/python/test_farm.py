"""kavrin.farm on a local cluster of two worker processes: the same results, bit for bit, as the
engines in this process."""

import numpy as np
import pytest

import kavrin
from conftest import bends, bumpy, grid

distributed = pytest.importorskip("distributed")
pytestmark = pytest.mark.filterwarnings("ignore:make_current is deprecated:DeprecationWarning")


@pytest.fixture(scope="module")
def client():
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None) as cluster:
        with distributed.Client(cluster) as c:
            yield c


def test_transfer_wrap_and_deltamush_shots_match_one_process(client, tmp_path):
    points, faces = grid(8)
    rest = (bumpy(points), faces)
    shots = {f"shot{k}": bends(rest[0], k + 1) * np.float32(1 + 0.1 * k) for k in range(3)}
    kavrin.write_pc2(tmp_path / "shot9.pc2", shots["shot2"])
    targets = {"big": (rest[0] * np.float32(1.5), faces), "flat": (rest[0] * np.float32([1, 0.5, 1]), faces)}
    markers = {name: np.array([[0, 0], [8, 8], [72, 72], [80, 80]]) for name in targets}
    results = kavrin.farm.transfer(client, rest, targets, markers, dict(shots, shot9=str(tmp_path / "shot9.pc2")),
                                   mode="same", iterations=2)
    for name, target in targets.items():
        one = kavrin.Transfer(rest, target, markers[name], mode="same", iterations=2, threads=1)
        for shot, poses in shots.items():
            np.testing.assert_array_equal(results[(shot, name)], one.deform(poses))
        np.testing.assert_array_equal(results[("shot9", name)], one.deform(shots["shot2"]))

    cage = grid(4, 1.2, -0.1)
    written = kavrin.farm.wrap(client, cage, {"sheet": rest}, {"a": bends(cage[0])},
                               out=str(tmp_path / "{shot}-{mesh}.pc2"))
    assert written == {("a", "sheet"): str(tmp_path / "a-sheet.pc2")}
    np.testing.assert_array_equal(kavrin.read_pc2(tmp_path / "a-sheet.pc2")[0],
                                  kavrin.Wrap(cage, rest).deform(bends(cage[0])))

    mushed = kavrin.farm.deltamush(client, rest, shots, iterations=4)
    for shot, poses in shots.items():
        np.testing.assert_array_equal(mushed[shot], kavrin.DeltaMush(rest, iterations=4).deform(poses))
