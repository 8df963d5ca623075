"""The panel cannot be drawn without a window: its draw functions run against a layout that checks
every property and operator they name, with and without the kavrin package."""

import bpy
import pytest

from conftest import activate, grid, mesh_object


class Layout:
    """Takes what a panel draws and checks that each property and operator exists."""

    def __init__(self):
        self.labels = []

    def row(self, **_):
        return self

    column = row

    def label(self, text="", **_):
        self.labels.append(text)

    def prop(self, data, name, **_):
        assert name in data.bl_rna.properties, name

    def prop_search(self, data, name, search_data, search_name, **_):
        assert name in data.bl_rna.properties and search_name in search_data.bl_rna.properties, name

    def operator(self, idname, **_):
        group, name = idname.split(".")
        assert hasattr(getattr(bpy.ops, group), name), idname

    def template_list(self, list_type, list_id, data, name, active_data, active_name, **_):
        assert hasattr(bpy.types, list_type), list_type
        assert name in data.bl_rna.properties and active_name in active_data.bl_rna.properties


def draw(panel):
    layout = Layout()
    panel.draw(type("Panel", (), {"layout": layout})(), bpy.context)
    return layout.labels


@pytest.mark.parametrize("installed", [True, False])
def test_every_panel_draws(blend, addon, monkeypatch, installed):
    activate(mesh_object("lion", *grid(2)))
    panels = [c for c in addon.panel.classes if issubclass(c, bpy.types.Panel)]
    if not installed:
        monkeypatch.setattr(addon.engine, "kavrin", None)
        assert draw(addon.panel.KAVRIN_PT_main) == addon.engine.install_hint()
        assert not any(panel.poll(bpy.context) for panel in panels[1:])
        assert not bpy.ops.kavrin.bake_jiggle.poll()
        return
    assert all(panel.poll(bpy.context) for panel in panels[1:])
    for panel in panels:
        draw(panel)
