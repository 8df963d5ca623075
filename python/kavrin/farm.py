"""The independent work of many shots on a dask.distributed cluster.

Each function takes a ``distributed.Client`` (connected to your scheduler, or a ``LocalCluster``)
and runs one task per shot (and per target or wrapped mesh). The rig (the meshes and settings an
engine is built from) is sent to every worker once as arrays; each worker builds the engine once,
the first time it needs it, and keeps it for the later shots; only arrays travel. A shot is a
batch of poses ``(frames, n, 3)``, or the path of a point cache (.pc2, .mdd) or OBJ file that the
workers can read. With ``out`` (a format string with ``{shot}``, and ``{target}`` or ``{mesh}``)
each result is written by its worker as a point cache there and the path is returned; otherwise
the arrays come back. Results match those of the engine run in one process bit for bit.
"""

import collections
import threading
from typing import Dict, Mapping, Optional, Tuple, Union

import numpy as np

import kavrin

Shot = Union[np.ndarray, str]

# Engines built on this worker, by rig; the last few rigs used are kept.
_ENGINES: "collections.OrderedDict[str, object]" = collections.OrderedDict()
_ENGINES_KEPT = 8
_LOCK = threading.Lock()


def _engine(key: str, kind: str, rig: dict):
    """This worker's engine of the rig (built the first time), the last few kept."""
    with _LOCK:
        engine = _ENGINES.get(key)
        if engine is not None:
            _ENGINES.move_to_end(key)
            return engine
    built = getattr(kavrin, kind)(**rig)
    with _LOCK:
        _ENGINES[key] = built
        while len(_ENGINES) > _ENGINES_KEPT:
            _ENGINES.popitem(last=False)
    return built


def _run(key: str, kind: str, rig: dict, shot: Shot, out: Optional[str]):
    """One task on a worker: the shot's poses deformed, returned or written to out."""
    poses = kavrin.read_poses(shot) if isinstance(shot, str) else shot
    result = _engine(key, kind, rig).deform(poses)
    if out is None:
        return result
    kavrin.write_poses(out, result)
    return out


def _paths(rigs: Mapping[str, dict], shots: Mapping[str, Shot], out: Optional[str],
           field: str) -> Dict[Tuple[str, str], Optional[str]]:
    """Where each (shot, rig) result goes: nowhere without out, else a point cache, each its own."""
    paths: Dict[Tuple[str, str], Optional[str]] = {}
    owner: Dict[str, str] = {}
    for name in rigs:
        for shot in shots:
            if out is None:
                paths[(shot, name)] = None
                continue
            try:
                paths[(shot, name)] = path = out.format(shot=shot, **{field: name})
            except (KeyError, IndexError, ValueError) as e:
                raise kavrin.InputError(f"out: {out} is not a format of {{shot}} and {{{field}}} ({e!r})") from None
            # Guard (behaviour note "Python: farm outputs checked before any work")
            if not path.lower().endswith((".pc2", ".mdd")):
                raise kavrin.InputError(f"out: {path} is not a point cache (the name must end in .pc2 or .mdd)")
            label = shot if len(rigs) == 1 else f"{shot} ({name})"
            if path in owner:
                raise kavrin.InputError(f"out: the results of {owner[path]} and {label} would both be {path}")
            owner[path] = label
    return paths


def _submit(client, kind: str, rigs: Mapping[str, dict], shots: Mapping[str, Shot], out: Optional[str],
            field: str) -> Dict[Tuple[str, str], object]:
    """Every (shot, rig) task on the cluster, each rig sent to every worker once; their results."""
    from dask.base import tokenize
    paths = _paths(rigs, shots, out, field)
    futures = {}
    for name, rig in rigs.items():
        key = f"kavrin-{kind}-{tokenize(rig)}"
        # Decision (behaviour note "Python: the farm builds each engine once per worker")
        [rig_future] = client.scatter([rig], broadcast=True, hash=False)
        for shot, poses in shots.items():
            futures[(shot, name)] = client.submit(_run, key, kind, rig_future, poses, paths[(shot, name)], pure=False,
                                                  key=f"{key}-{shot}")
    results = client.gather(list(futures.values()))
    return dict(zip(futures.keys(), results))


def transfer(client, source_rest, targets: Mapping[str, tuple], markers: Mapping[str, np.ndarray],
             shots: Mapping[str, Shot], fixed: Optional[Mapping[str, tuple]] = None, mode: str = "different",
             iterations: int = 5, threads: int = 1, out: Optional[str] = None) -> Dict[Tuple[str, str], object]:
    """Transfers every shot's source poses onto every target: ``{(shot, target): result}``.

    ``targets`` and ``markers`` (and ``fixed``) map a target's name to its mesh and its marker
    pairs; the rest as for :class:`kavrin.Transfer`.
    """
    rigs = {name: dict(source_rest=source_rest, target=target, markers=markers[name],
                       fixed=None if fixed is None else fixed.get(name), mode=mode, iterations=iterations,
                       threads=threads)
            for name, target in targets.items()}
    return _submit(client, "Transfer", rigs, shots, out, "target")


def wrap(client, driver, meshes: Mapping[str, tuple], shots: Mapping[str, Shot], threads: int = 1,
         out: Optional[str] = None) -> Dict[Tuple[str, str], object]:
    """Makes every mesh follow every shot's driver poses: ``{(shot, mesh): result}``."""
    rigs = {name: dict(driver=driver, mesh=mesh, threads=threads) for name, mesh in meshes.items()}
    return _submit(client, "Wrap", rigs, shots, out, "mesh")


def deltamush(client, rest, shots: Mapping[str, Shot], iterations: int = 15, envelope: float = 1.0,
              threads: int = 1, out: Optional[str] = None) -> Dict[str, object]:
    """Delta mush on every shot's poses of one mesh: ``{shot: result}``."""
    rigs = {"rest": dict(rest=rest, iterations=iterations, envelope=envelope, threads=threads)}
    results = _submit(client, "DeltaMush", rigs, shots, out, "mesh")
    return {shot: result for (shot, _), result in results.items()}
