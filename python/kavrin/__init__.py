"""Kavrin's mesh-deformation engines on NumPy arrays.

Every engine of the ``kavrin`` command line is a class here, holding the engine's state:
:class:`DeltaMush`, :class:`Transfer`, :class:`Wrap`, :class:`Jiggle`, :class:`Relax`,
:class:`Offset`. Meshes are ``(points, faces)``: points an ``(n, 3)`` float32 or float64 array,
faces an ``(m, k)`` integer array or a list of polygons. Evaluations take one pose ``(n, 3)`` or a
batch ``(frames, n, 3)``, run without the interpreter (other Python threads go on meanwhile) and
return float32. Bindings are data (dicts of arrays) that :func:`save_binding` and
:func:`load_binding` keep in ``.npz`` files. Bad input raises :class:`InputError` (a
``ValueError``), a failed run :class:`EngineError`, each with the command line's one-line message.
See docs/python.md.
"""

import os
import tempfile
from typing import Dict, List, Optional, Sequence, Tuple, Union

import numpy as np

from ._kavrin import (BINDING_FORMAT, DeltaMush, EngineError, EngineWarning, InputError, Jiggle, Offset, Relax,
                      Transfer, Wrap, __version__, read_markers, read_values)
from . import _kavrin, farm

__all__ = [
    "__version__", "BINDING_FORMAT", "InputError", "EngineError", "EngineWarning",
    "DeltaMush", "Transfer", "Wrap", "Jiggle", "Relax", "Offset",
    "read_obj", "write_obj", "read_markers", "read_values",
    "read_pc2", "write_pc2", "read_mdd", "write_mdd", "read_poses", "write_poses",
    "save_binding", "load_binding",
]

Faces = Union[np.ndarray, List[List[int]]]


# Decision (behaviour note "Python: writes are atomic")
def _write_atomically(path: str, data: bytes) -> None:
    """Writes data as the file at path through a temporary file beside it, so that a failed write
    leaves whatever was there before."""
    path = os.fspath(path)
    folder = os.path.dirname(os.path.abspath(path))
    fd, temporary = tempfile.mkstemp(dir=folder, prefix="." + os.path.basename(path) + ".kavrin-")
    try:
        with os.fdopen(fd, "wb") as f:
            f.write(data)
        if os.path.exists(path):
            os.chmod(temporary, os.stat(path).st_mode & 0o7777)
        else:
            os.chmod(temporary, 0o666 & ~_umask())
        os.replace(temporary, path)
    except BaseException:
        if os.path.exists(temporary):
            os.unlink(temporary)
        raise


def _umask() -> int:
    """The process's file-creation mask (read by setting it and putting it back)."""
    mask = os.umask(0)
    os.umask(mask)
    return mask


def read_obj(path: str, uvs: bool = False):
    """Reads an OBJ file with the strict reader of the command line.

    Returns ``(points, faces)``: points float32 ``(n, 3)`` in file order, faces an int32 ``(m, k)``
    array when every face has k corners, else a list of lists (zero-based). With ``uvs=True`` also
    one texture coordinate per vertex, float32 ``(n, 2)`` (that of its first face corner; (0, 0)
    for a vertex without one), as ``kavrin offset`` samples them.
    """
    return _kavrin._read_obj(os.fspath(path), uvs)


def write_obj(path: str, points: np.ndarray, faces: Faces) -> None:
    """Writes points and faces as an OBJ file (the shortest text that reads back as the same
    float32), through a temporary file: a failed write leaves the old file as it was."""
    _write_atomically(path, _kavrin._format_obj(points, faces))


def read_pc2(path: str) -> Tuple[np.ndarray, float, float]:
    """Reads a PC2 point cache: ``(frames, start_frame, sample_rate)``, frames float32
    ``(samples, n, 3)``. The header is checked strictly (signature, version 1, counts that fill
    the file exactly, finite values)."""
    _require_extension(path, ".pc2")
    frames, start, rate, _ = _kavrin._read_point_cache(os.fspath(path))
    return frames, start, rate


def write_pc2(path: str, frames: np.ndarray, start_frame: float = 0.0, sample_rate: float = 1.0) -> None:
    """Writes frames ``(samples, n, 3)`` as a PC2 point cache (as Blender's Mesh Cache modifier
    reads it), atomically."""
    _require_extension(path, ".pc2")
    _write_atomically(path, _kavrin._format_point_cache(frames, "pc2", start_frame, sample_rate, None))


def read_mdd(path: str) -> Tuple[np.ndarray, np.ndarray]:
    """Reads an MDD point cache: ``(frames, times)``, frames float32 ``(frames, n, 3)``, times
    float32 seconds, one per frame."""
    _require_extension(path, ".mdd")
    frames, _, _, times = _kavrin._read_point_cache(os.fspath(path))
    return frames, times


def write_mdd(path: str, frames: np.ndarray, times: Optional[np.ndarray] = None) -> None:
    """Writes frames ``(frames, n, 3)`` as an MDD point cache with one time (seconds) per frame;
    default i / 24 for frame i. Atomically."""
    _require_extension(path, ".mdd")
    _write_atomically(path, _kavrin._format_point_cache(frames, "mdd", 0.0, 1.0, times))


def read_poses(path: str) -> np.ndarray:
    """The frames of a point cache (.pc2 or .mdd) as float32 ``(frames, n, 3)``, or the points of
    an OBJ file as a batch of one frame."""
    name = os.fspath(path).lower()
    if name.endswith(".pc2"):
        return read_pc2(path)[0]
    if name.endswith(".mdd"):
        return read_mdd(path)[0]
    return read_obj(path)[0][np.newaxis]


def write_poses(path: str, frames: np.ndarray) -> None:
    """Writes a batch of frames as a point cache, in the format the name's extension (.pc2, .mdd)
    names."""
    name = os.fspath(path).lower()
    if name.endswith(".pc2"):
        write_pc2(path, frames)
    elif name.endswith(".mdd"):
        write_mdd(path, frames)
    else:
        raise InputError(f"{path}: not a point cache (the name must end in .pc2 or .mdd)")


def _require_extension(path: str, extension: str) -> None:
    """Refuses a path whose name does not end in extension (any case)."""
    if not os.fspath(path).lower().endswith(extension):
        raise InputError(f"{path}: the name of a {extension[1:].upper()} file must end in {extension}")


def save_binding(path: str, binding: Dict[str, object]) -> None:
    """Saves a binding (``DeltaMush.binding``, ``Wrap.binding``, ``Relax.binding``,
    ``Transfer.binding``) as one ``.npz`` file, with its kind and format version, atomically."""
    if not isinstance(binding, dict) or "kind" not in binding or "format" not in binding:
        raise InputError(f"{path}: not a binding (a dict with its kind and format)")
    if not os.fspath(path).endswith(".npz"):
        raise InputError(f"{path}: the name of a binding file must end in .npz")
    import io
    buffer = io.BytesIO()
    np.savez(buffer, **{key: np.asarray(value) for key, value in binding.items()})
    _write_atomically(path, buffer.getvalue())


def load_binding(path: str) -> Dict[str, object]:
    """Loads a binding saved by :func:`save_binding`; a file of another format version, or not a
    binding, raises :class:`InputError`. Pass it to the class's ``from_binding``, which refuses it
    when it does not fit the meshes."""
    try:
        with np.load(os.fspath(path), allow_pickle=False) as data:
            binding = {key: data[key] for key in data.files}
    except FileNotFoundError:
        raise InputError(f"{path}: cannot open the file (No such file or directory)") from None
    except (OSError, ValueError) as e:
        raise InputError(f"{path}: not a binding file ({e})") from None
    if "kind" not in binding or "format" not in binding:
        raise InputError(f"{path}: not a binding file (it holds no kind and format)")
    if int(binding["format"]) != BINDING_FORMAT:
        raise InputError(f"{path}: binding format {int(binding['format'])}; this kavrin reads format {BINDING_FORMAT}")
    for key in ("kind", "mode", "faces", "source_faces", "target_faces", "driver_faces"):
        if key in binding:
            binding[key] = str(binding[key])
    for key in ("format", "iterations"):
        if key in binding:
            binding[key] = int(binding[key])
    return binding
