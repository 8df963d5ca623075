"""Meshes out of Blender as the engines take them: points as float32 (n, 3) arrays, faces as the
mesh's own polygons (zero-based vertex indices), and the deformed mesh sampled frame by frame."""

import contextlib

import numpy as np

from .engine import Refusal

# Modifier types that move vertices without adding, removing or renumbering any. Kavrin reads a
# mesh as its own vertices deformed by its shape keys and the modifiers of this kind at the top
# of its stack; it stops at the first other modifier (Subdivision, Mirror, Geometry Nodes, ...).
KEEPS_VERTICES = {
    'ARMATURE', 'CAST', 'CLOTH', 'CORRECTIVE_SMOOTH', 'CURVE', 'DATA_TRANSFER', 'DISPLACE', 'HOOK',
    'LAPLACIANDEFORM', 'LAPLACIANSMOOTH', 'LATTICE', 'MESH_CACHE', 'MESH_DEFORM', 'NORMAL_EDIT',
    'SHRINKWRAP', 'SIMPLE_DEFORM', 'SMOOTH', 'SOFT_BODY', 'SURFACE_DEFORM', 'UV_PROJECT', 'UV_WARP',
    'VERTEX_WEIGHT_EDIT', 'VERTEX_WEIGHT_MIX', 'VERTEX_WEIGHT_PROXIMITY', 'WARP', 'WAVE',
    'WEIGHTED_NORMAL',
}


def require_mesh(obj, role):
    if obj is None:
        raise Refusal(f"No {role} is set")
    if obj.type != 'MESH':
        raise Refusal(f"The {role} {obj.name} is not a mesh")
    return obj


def faces(mesh):
    """The polygons of a mesh: an (m, k) int32 array when all have k corners, else a list."""
    count = len(mesh.polygons)
    starts = np.empty(count, np.int32)
    totals = np.empty(count, np.int32)
    mesh.polygons.foreach_get("loop_start", starts)
    mesh.polygons.foreach_get("loop_total", totals)
    corners = np.empty(len(mesh.loops), np.int32)
    mesh.loops.foreach_get("vertex_index", corners)
    if count == 0:
        return np.zeros((0, 3), np.int32)
    if (totals == totals[0]).all():
        return corners[starts[:, None] + np.arange(totals[0])]
    return [corners[s:s + t].tolist() for s, t in zip(starts, totals)]


def points_of(collection, count):
    """The "co" of every item of a collection (vertices, shape key points) as (count, 3) float32."""
    points = np.empty(count * 3, np.float32)
    collection.foreach_get("co", points)
    return points.reshape(count, 3)


def basis(obj):
    """The rest shape of a mesh object: its basis shape key, or its vertices without shape keys."""
    mesh = obj.data
    if mesh.shape_keys is not None:
        return points_of(mesh.shape_keys.reference_key.data, len(mesh.vertices))
    return points_of(mesh.vertices, len(mesh.vertices))


def stop_index(obj, cache_name=None):
    """Where Kavrin's reading of the object's modifier stack stops: at its own cache modifier
    named cache_name (a bake reads what comes before it) or the first modifier that may change the
    vertices, whichever comes first. A new cache modifier goes there too."""
    # Decision (behaviour note "Blender: a mesh is read up to its first modifier that may renumber it")
    for i, modifier in enumerate(obj.modifiers):
        if (modifier.type == 'MESH_CACHE' and modifier.name == cache_name) or modifier.type not in KEEPS_VERTICES:
            return i
    return len(obj.modifiers)


@contextlib.contextmanager
def stopped_stack(obj, cache_name=None):
    """Hides the object's modifiers from stop_index() on in the viewport while the block samples
    it, and shows them as they were afterwards."""
    hidden = [m for m in list(obj.modifiers)[stop_index(obj, cache_name):] if m.show_viewport]
    for modifier in hidden:
        modifier.show_viewport = False
    try:
        yield
    finally:
        for modifier in hidden:
            modifier.show_viewport = True


def deformed(obj, depsgraph, frame):
    """The object's deformed points (object space) and its world matrix, as the depsgraph holds
    them now."""
    evaluated = obj.evaluated_get(depsgraph)
    mesh = evaluated.to_mesh()
    try:
        count = len(obj.data.vertices)
        # Guard (behaviour note "Blender: the vertices must stay the mesh's")
        if len(mesh.vertices) != count:
            raise Refusal(f"{obj.name} has {len(mesh.vertices)} vertices at frame {frame} after its shape keys "
                          f"and modifiers, but its mesh has {count}: Kavrin needs the mesh's own vertices")
        return points_of(mesh.vertices, count), np.array(evaluated.matrix_world, np.float64)
    finally:
        evaluated.to_mesh_clear()


@contextlib.contextmanager
def kept_frame(scene):
    """Puts the scene back on the frame it was on when the block ends, however it ends."""
    frame, subframe = scene.frame_current, scene.frame_subframe
    try:
        yield
    finally:
        scene.frame_set(frame, subframe=subframe)


def sample(context, objects, frames, progress=None):
    """Steps the scene through frames (in order) and samples each (object, cache_name) of objects
    at each: a list, per object, of ((frames, n, 3) float32 points, (frames, 4, 4) world matrices).
    The caller holds the frame (kept_frame)."""
    # Decision (behaviour note "Blender: the frame and the modifiers are put back")
    scene = context.scene
    points = [np.empty((len(frames), len(obj.data.vertices), 3), np.float32) for obj, _ in objects]
    matrices = [np.empty((len(frames), 4, 4)) for _ in objects]
    with contextlib.ExitStack() as stack:
        for obj, cache_name in objects:
            stack.enter_context(stopped_stack(obj, cache_name))
        for i, frame in enumerate(frames):
            scene.frame_set(frame)
            depsgraph = context.evaluated_depsgraph_get()
            for k, (obj, _) in enumerate(objects):
                points[k][i], matrices[k][i] = deformed(obj, depsgraph, frame)
            if progress is not None:
                progress.step()
    return list(zip(points, matrices))


def to_world(points, matrices):
    """Points (frames, n, 3) in object space into world space by each frame's matrix."""
    out = np.empty(points.shape, np.float32)
    for i, m in enumerate(matrices):
        out[i] = points[i] if _identity(m) else points[i] @ m[:3, :3].T + m[:3, 3]
    return out


def to_object(points, matrices, name):
    """World-space points (frames, n, 3) back into the object's space at each frame."""
    linear = matrices[:, :3, :3]
    # Guard (behaviour note "Blender: a world matrix that cannot be inverted")
    if (np.abs(np.linalg.det(linear)) < 1e-12).any():
        raise Refusal(f"{name}'s world matrix is flat (a scale of 0) at some frame: its points cannot be put back")
    out = np.empty(points.shape, np.float32)
    for i, (m, inverse) in enumerate(zip(matrices, np.linalg.inv(linear))):
        out[i] = points[i] if _identity(m) else (points[i] - m[:3, 3]) @ inverse.T
    return out


def _identity(matrix):
    """An object at the origin, unrotated and unscaled (most deformed characters): nothing to do."""
    return np.array_equal(matrix, np.eye(4))


def group_values(obj, name):
    """A vertex group's weights per vertex (0 for vertices outside it), or None for no group."""
    if not name:
        return None
    group = obj.vertex_groups.get(name)
    if group is None:
        raise Refusal(f"{obj.name} has no vertex group \"{name}\"")
    index = group.index
    values = np.zeros(len(obj.data.vertices), np.float32)
    for vertex in obj.data.vertices:
        for element in vertex.groups:
            if element.group == index:
                values[vertex.index] = element.weight
                break
    return values


class Progress:
    """The window manager's progress indicator over a known number of steps."""

    def __init__(self, context, total):
        self.window_manager = context.window_manager
        self.total = max(total, 1)
        self.done = 0

    def __enter__(self):
        self.window_manager.progress_begin(0, self.total)
        return self

    def step(self):
        self.done += 1
        self.window_manager.progress_update(self.done)

    def __exit__(self, *exc):
        self.window_manager.progress_end()
        return False
