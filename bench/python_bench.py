"""Benchmarks of the Python package (not tests): medians of several runs.

  PYTHONPATH=build/python /usr/bin/python3 bench/python_bench.py [build]

1. one transfer pose through Python on one and two engine threads, 10,000 target vertices (a 100 x 100
   grid onto itself scaled); BM_TransferSolvePoseGrid in bench/transfer_bench.cpp builds the same
   grid by the same arithmetic and times the same pose in C++:
     build/bench/kavrin_bench --benchmark_filter=SolvePoseGrid --benchmark_repetitions=10
2. a batch of 100 delta-mush frames through Python against 100 calls of the command line;
3. two threads evaluating (each its own DeltaMush, one engine thread) at once against one thread.
"""

import os
import statistics
import subprocess
import sys
import tempfile
import threading
import time

import numpy as np

import kavrin

BUILD = sys.argv[1] if len(sys.argv) > 1 else "build"
KAVRIN = os.path.join(BUILD, "apps", "kavrin", "kavrin")


def grid(n):
    """(n + 1)^2 points with a smooth bump, n^2 quads: BM_TransferSolvePoseGrid's grid, float for float."""
    t = np.arange(n + 1) / n
    u, v = (a.ravel() for a in np.meshgrid(t, t))
    points = np.stack([u, 0.8 * u * (1 - u) * v * (1 - v), v], 1)
    i = np.arange(n)[:, None] * (n + 1) + np.arange(n)[None, :]
    return points.astype(np.float32), np.stack([i, i + 1, i + n + 2, i + n + 1], -1).reshape(-1, 4)


def median(f, runs=7):
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        f()
        times.append(time.perf_counter() - start)
    return statistics.median(times)


def per_call(f, calls, runs=10):
    """The best and the median over runs of the mean time of one call in a run of calls (as Google
    Benchmark's repetitions report them)."""
    times = []
    for _ in range(runs):
        start = time.perf_counter()
        for _ in range(calls):
            f()
        times.append((time.perf_counter() - start) / calls)
    return min(times), statistics.median(times)


def main():
    points, faces = grid(99)  # 10,000 vertices
    pose = points.copy()
    pose[:, 1] += 0.3 * pose[:, 0] ** 2
    markers = np.array([[0, 0], [99, 99], [9900, 9900], [9999, 9999], [5000, 5000]])
    for threads in (1, 2):
        transfer = kavrin.Transfer((points, faces), (points * 1.5, faces), markers, mode="same", iterations=1,
                                   threads=threads)
        best, middle = per_call(lambda: transfer.deform(pose), 300)
        print(f"transfer pose, {len(points)} vertices, {threads} thread(s), Python: best {1000 * best:.3f} ms, "
              f"median {1000 * middle:.3f} ms")

    poses = np.array([points + np.float32(0.001 * k) * points[:, [1, 0, 2]] for k in range(100)])
    with tempfile.TemporaryDirectory() as d:
        kavrin.write_obj(f"{d}/rest.obj", points, faces)
        for k in range(100):
            kavrin.write_obj(f"{d}/p{k}.obj", poses[k], faces)

        def cli():
            for k in range(100):
                subprocess.run([KAVRIN, "deltamush", "--rest", f"{d}/rest.obj", f"{d}/p{k}.obj", "-o",
                                f"{d}/o{k}.obj"], check=True, capture_output=True)

        def python():
            kavrin.DeltaMush((points, faces), iterations=15).deform(poses)

        print(f"100 delta-mush frames: Python {median(python, 3):.2f} s, 100 kavrin calls {median(cli, 3):.2f} s")

    engines = [kavrin.DeltaMush((points, faces), iterations=15, threads=1) for _ in range(2)]
    one = median(lambda: engines[0].deform(poses), 3)

    def two():
        threads = [threading.Thread(target=e.deform, args=(poses,)) for e in engines]
        for t in threads:
            t.start()
        for t in threads:
            t.join()

    print(f"100 delta-mush frames, one engine thread each: one Python thread {one:.2f} s, two at once "
          f"{median(two, 3):.2f} s")


if __name__ == "__main__":
    main()
