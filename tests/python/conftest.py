"""Shared pieces of the Python tests: generated meshes, and the kavrin command line to compare with.

Run against the build tree's package: PYTHONPATH=<build>/python, KAVRIN_EXE=<build>/apps/kavrin/kavrin
(tools/test.sh does this through ctest)."""

import os
import subprocess

import numpy as np
import pytest

KAVRIN = os.environ.get("KAVRIN_EXE", "")


def grid(n, size=1.0, height=0.0):
    """An n x n grid of quads in the xz plane: ((n + 1)^2, 3) points and (n^2, 4) faces."""
    u, v = np.meshgrid(np.linspace(0, size, n + 1), np.linspace(0, size, n + 1))
    points = np.stack([u.ravel(), np.full(u.size, height), v.ravel()], axis=1)
    i = np.arange(n)[:, None] * (n + 1) + np.arange(n)[None, :]
    faces = np.stack([i, i + 1, i + n + 2, i + n + 1], axis=-1).reshape(-1, 4)
    return points.astype(np.float32), faces.astype(np.int32)


def bumpy(points, amount=0.05, seed=1):
    return (points + np.random.default_rng(seed).normal(0, amount, points.shape)).astype(np.float32)


def bends(points, count=3):
    """count poses of the points bent up along x more and more: (count, n, 3) float32."""
    poses = []
    for k in range(1, count + 1):
        p = points.copy()
        p[:, 1] += 0.4 * k * p[:, 0] ** 2
        poses.append(p)
    return np.array(poses, dtype=np.float32)


def run_kavrin(*args, cwd=None):
    """Runs the command line; its results must succeed."""
    if not KAVRIN:
        pytest.skip("KAVRIN_EXE is not set")
    done = subprocess.run([KAVRIN, *map(str, args)], cwd=cwd, capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return done
