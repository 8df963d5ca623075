"""Draws the active mesh's marker pairs in the 3D view: a dot on each paired vertex of the source
and the target, the selected pair larger and in red."""

import bpy

_handle = None
_shader = None


def _world_points(obj, indices):
    vertices = obj.data.vertices
    matrix = obj.matrix_world
    return [tuple(matrix @ vertices[i].co) for i in indices if i < len(vertices)]


def _draw():
    global _shader
    import gpu
    from gpu_extras.batch import batch_for_shader
    target = bpy.context.active_object
    if target is None or target.type != 'MESH' or not len(target.kavrin.pairs) or target.kavrin.source is None:
        return
    settings = target.kavrin
    source = settings.source
    if _shader is None:
        _shader = gpu.shader.from_builtin('3D_UNIFORM_COLOR')
    active = settings.active_pair
    others = [p for i, p in enumerate(settings.pairs) if i != active]
    chosen = [settings.pairs[active]] if 0 <= active < len(settings.pairs) else []
    gpu.state.depth_test_set('NONE')
    for group, size, colour in ((others, 6.0, (1.0, 0.8, 0.1, 1.0)), (chosen, 10.0, (1.0, 0.15, 0.1, 1.0))):
        points = (_world_points(source, [p.source for p in group]) + _world_points(target, [p.target for p in group]))
        if not points:
            continue
        gpu.state.point_size_set(size)
        batch = batch_for_shader(_shader, 'POINTS', {"pos": points})
        _shader.bind()
        _shader.uniform_float("color", colour)
        batch.draw(_shader)
    gpu.state.point_size_set(1.0)


def register():
    global _handle
    if not bpy.app.background:
        _handle = bpy.types.SpaceView3D.draw_handler_add(_draw, (), 'WINDOW', 'POST_VIEW')


def unregister():
    global _handle
    if _handle is not None:
        bpy.types.SpaceView3D.draw_handler_remove(_handle, 'WINDOW')
        _handle = None
