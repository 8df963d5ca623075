"""The Kavrin panel in the 3D view's sidebar, for the active mesh."""

import bpy

from . import engine


class KAVRIN_UL_pairs(bpy.types.UIList):
    def draw_item(self, context, layout, data, item, icon, active_data, active_property, index=0, flt_flag=0):
        source = data.source.name if data.source is not None else "?"
        layout.label(text=f"{source} {item.source}  \u2192  {data.id_data.name} {item.target}", icon='DOT')


class _Panel:
    bl_space_type = 'VIEW_3D'
    bl_region_type = 'UI'
    bl_category = "Kavrin"

    @classmethod
    def poll(cls, context):
        obj = context.active_object
        return engine.kavrin is not None and obj is not None and obj.type == 'MESH'


class KAVRIN_PT_main(bpy.types.Panel):
    bl_space_type = 'VIEW_3D'
    bl_region_type = 'UI'
    bl_category = "Kavrin"
    bl_label = "Kavrin"

    def draw(self, context):
        layout = self.layout
        if engine.kavrin is None:
            column = layout.column(align=True)
            for line in engine.install_hint():
                column.label(text=line)
            return
        obj = context.active_object
        if obj is None or obj.type != 'MESH':
            layout.label(text="Make a mesh active")
            return
        layout.label(text=f"{obj.name} (kavrin {engine.kavrin.__version__})", icon='MESH_DATA')


class KAVRIN_PT_pairs(_Panel, bpy.types.Panel):
    bl_parent_id = "KAVRIN_PT_main"
    bl_label = "Marker Pairs"

    def draw(self, context):
        layout = self.layout
        settings = context.active_object.kavrin
        layout.prop(settings, "source")
        layout.label(text="Source and target (active) in Edit Mode:")
        row = layout.row()
        row.template_list("KAVRIN_UL_pairs", "", settings, "pairs", settings, "active_pair", rows=4)
        column = row.column(align=True)
        column.operator("kavrin.add_pair", icon='ADD', text="")
        column.operator("kavrin.remove_pair", icon='REMOVE', text="")
        column.operator("kavrin.clear_pairs", icon='X', text="")
        row = layout.row(align=True)
        row.operator("kavrin.add_pair")
        row = layout.row(align=True)
        row.operator("kavrin.import_pairs", icon='IMPORT', text="Import")
        row.operator("kavrin.export_pairs", icon='EXPORT', text="Export")


class KAVRIN_PT_transfer(_Panel, bpy.types.Panel):
    bl_parent_id = "KAVRIN_PT_main"
    bl_label = "Transfer"

    def draw(self, context):
        layout = self.layout
        settings = context.active_object.kavrin
        layout.prop(settings, "mode", expand=True)
        layout.prop(settings, "iterations")
        layout.operator("kavrin.transfer_shape_keys", icon='SHAPEKEY_DATA')
        layout.operator("kavrin.transfer_animation", icon='RENDER_ANIMATION')


class KAVRIN_PT_jiggle(_Panel, bpy.types.Panel):
    bl_parent_id = "KAVRIN_PT_main"
    bl_label = "Jiggle"
    bl_options = {'DEFAULT_CLOSED'}

    def draw(self, context):
        layout = self.layout
        layout.use_property_split = True
        obj = context.active_object
        settings = obj.kavrin.jiggle
        for name in ("stiffness", "damping", "normal_strength", "scale", "distance_limit", "direction_bias",
                     "time_scale", "start_frame", "more_accurate_tangent", "envelope"):
            layout.prop(settings, name)
        for name in ("stiffness_map", "damping_map", "normal_strength_map", "weights"):
            layout.prop_search(settings, name, obj, "vertex_groups")
        layout.operator("kavrin.bake_jiggle", icon='FORCE_HARMONIC')


class KAVRIN_PT_wrap(_Panel, bpy.types.Panel):
    bl_parent_id = "KAVRIN_PT_main"
    bl_label = "Wrap"
    bl_options = {'DEFAULT_CLOSED'}

    def draw(self, context):
        layout = self.layout
        layout.prop(context.active_object.kavrin.wrap, "driver")
        layout.operator("kavrin.bake_wrap", icon='MOD_MESHDEFORM')


class KAVRIN_PT_delta_mush(_Panel, bpy.types.Panel):
    bl_parent_id = "KAVRIN_PT_main"
    bl_label = "Delta Mush"
    bl_options = {'DEFAULT_CLOSED'}

    def draw(self, context):
        layout = self.layout
        settings = context.active_object.kavrin.delta_mush
        layout.prop(settings, "iterations")
        layout.prop(settings, "rest", expand=True)
        layout.operator("kavrin.bake_delta_mush", icon='MOD_SMOOTH')


classes = (KAVRIN_UL_pairs, KAVRIN_PT_main, KAVRIN_PT_pairs, KAVRIN_PT_transfer, KAVRIN_PT_jiggle, KAVRIN_PT_wrap,
           KAVRIN_PT_delta_mush)
