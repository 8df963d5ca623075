"""Marker pairs: picked in Edit Mode (one selected vertex on the source, one on the target),
listed on the target, read from and written to the marker files of `kavrin transfer --markers`."""

import os

import bmesh
import bpy
import numpy as np
from bpy_extras.io_utils import ExportHelper, ImportHelper

from . import meshes
from .engine import KavrinOperator, Refusal, kavrin


def _selected_vertex(obj):
    bm = bmesh.from_edit_mesh(obj.data)
    bm.verts.index_update()
    chosen = [v.index for v in bm.verts if v.select]
    if len(chosen) != 1:
        raise Refusal(f"Select exactly one vertex of {obj.name} ({len(chosen)} are selected)")
    return chosen[0]


def _vertex_count(obj):
    if obj.mode == 'EDIT':
        obj.update_from_editmode()
    return len(obj.data.vertices)


def _select_only(obj, index):
    """Selects the one vertex (in Edit Mode) so that the active pair shows on both meshes."""
    bm = bmesh.from_edit_mesh(obj.data)
    bm.verts.ensure_lookup_table()
    if index >= len(bm.verts):
        return
    for elements in (bm.faces, bm.edges, bm.verts):
        for element in elements:
            element.select = False
    bm.verts[index].select = True
    bm.select_history.clear()
    bm.select_history.add(bm.verts[index])
    bmesh.update_edit_mesh(obj.data, loop_triangles=False, destructive=False)


def highlight(target):
    settings = target.kavrin
    if not 0 <= settings.active_pair < len(settings.pairs):
        return
    pair = settings.pairs[settings.active_pair]
    for obj, index in ((settings.source, pair.source), (target, pair.target)):
        if obj is not None and obj.mode == 'EDIT':
            _select_only(obj, index)


def _target(context):
    obj = context.active_object
    return obj if obj is not None and obj.type == 'MESH' else None


class KAVRIN_OT_add_pair(KavrinOperator, bpy.types.Operator):
    bl_idname = "kavrin.add_pair"
    bl_label = "Add Pair"
    bl_description = ("Pair the one selected vertex of the source with the one selected vertex of the target "
                      "(the active mesh), both in Edit Mode")

    @classmethod
    def ready(cls, context):
        if context.mode != 'EDIT_MESH':
            cls.poll_message_set("Put the source and the target (active) in Edit Mode together")
            return False
        return True

    def run(self, context):
        target = context.edit_object
        others = [obj for obj in context.objects_in_mode if obj != target]
        if len(others) != 1:
            raise Refusal(f"Put exactly two meshes in Edit Mode, the source and the target (active); "
                          f"{len(others) + 1} are")
        source = others[0]
        settings = target.kavrin
        if len(settings.pairs) and settings.source not in (None, source):
            raise Refusal(f"The pairs of {target.name} are with {settings.source.name}: "
                          f"clear them to pair {target.name} with {source.name}")
        s, t = _selected_vertex(source), _selected_vertex(target)
        for pair in settings.pairs:
            # Guard (behaviour note "Blender: a source vertex in one pair only")
            if pair.source == s:
                raise Refusal(f"Vertex {s} of {source.name} is already paired with vertex {pair.target} "
                              f"of {target.name}")
        settings.source = source
        pair = settings.pairs.add()
        pair.source, pair.target = s, t
        settings.active_pair = len(settings.pairs) - 1
        return f"{len(settings.pairs)} pairs: added {source.name} {s}, {target.name} {t}"


class KAVRIN_OT_remove_pair(KavrinOperator, bpy.types.Operator):
    bl_idname = "kavrin.remove_pair"
    bl_label = "Remove Pair"
    bl_description = "Remove the selected pair"

    @classmethod
    def ready(cls, context):
        target = _target(context)
        return target is not None and 0 <= target.kavrin.active_pair < len(target.kavrin.pairs)

    def run(self, context):
        settings = _target(context).kavrin
        settings.pairs.remove(settings.active_pair)
        settings.active_pair = min(settings.active_pair, len(settings.pairs) - 1)
        return None


class KAVRIN_OT_clear_pairs(KavrinOperator, bpy.types.Operator):
    bl_idname = "kavrin.clear_pairs"
    bl_label = "Clear Pairs"
    bl_description = "Remove every pair"

    @classmethod
    def ready(cls, context):
        target = _target(context)
        return target is not None and len(target.kavrin.pairs) > 0

    def run(self, context):
        settings = _target(context).kavrin
        settings.pairs.clear()
        settings.active_pair = 0
        return None


class KAVRIN_OT_import_pairs(KavrinOperator, bpy.types.Operator, ImportHelper):
    bl_idname = "kavrin.import_pairs"
    bl_label = "Import Pairs"
    bl_description = ("Replace the pairs by those of a marker file (\"source target\" vertex indices a line, "
                      "as kavrin transfer --markers reads it)")
    filename_ext = ".txt"
    filter_glob: bpy.props.StringProperty(default="*.txt", options={'HIDDEN'})

    @classmethod
    def ready(cls, context):
        return _target(context) is not None

    def run(self, context):
        target = _target(context)
        settings = target.kavrin
        source = meshes.require_mesh(settings.source, f"source of {target.name} (set it first)")
        pairs = kavrin.read_markers(self.filepath, _vertex_count(source), _vertex_count(target))
        settings.pairs.clear()
        for s, t in pairs:
            pair = settings.pairs.add()
            pair.source, pair.target = int(s), int(t)
        settings.active_pair = 0
        return f"Read {len(pairs)} pairs from {os.path.basename(self.filepath)}"


class KAVRIN_OT_export_pairs(KavrinOperator, bpy.types.Operator, ExportHelper):
    bl_idname = "kavrin.export_pairs"
    bl_label = "Export Pairs"
    bl_description = "Write the pairs as a marker file for kavrin transfer --markers"
    filename_ext = ".txt"
    filter_glob: bpy.props.StringProperty(default="*.txt", options={'HIDDEN'})

    @classmethod
    def ready(cls, context):
        target = _target(context)
        return target is not None and len(target.kavrin.pairs) > 0

    def run(self, context):
        target = _target(context)
        settings = target.kavrin
        source = settings.source.name if settings.source is not None else "?"
        names = f"# source {source}, target {target.name}".replace("\n", " ")
        lines = [names, "# source vertex, target vertex (zero-based)"]
        lines += [f"{pair.source} {pair.target}" for pair in settings.pairs]
        kavrin._write_atomically(self.filepath, ("\n".join(lines) + "\n").encode())
        return f"Wrote {len(settings.pairs)} pairs to {os.path.basename(self.filepath)}"


def markers(target):
    """The target's pairs as the (k, 2) array kavrin.Transfer takes."""
    return np.array([(pair.source, pair.target) for pair in target.kavrin.pairs], np.int64).reshape(-1, 2)


classes = (KAVRIN_OT_add_pair, KAVRIN_OT_remove_pair, KAVRIN_OT_clear_pairs, KAVRIN_OT_import_pairs,
           KAVRIN_OT_export_pairs)
