"""The kavrin package, when this Blender's Python can import it, and the one way every Kavrin
operator turns a failure into a report."""

import sys
import warnings

try:
    import kavrin
    MISSING = ""
except ImportError as error:  # the panel says how to install it instead
    kavrin = None
    MISSING = str(error)


class Refusal(Exception):
    """Something the add-on itself refuses before any change (no source, an unsaved file, ...)."""


def install_hint():
    """Lines the panel shows when the kavrin package is missing."""
    return [
        "The kavrin Python package is not installed",
        f"for this Blender's Python {sys.version_info.major}.{sys.version_info.minor}.",
        "From the Kavrin clone: bash tools/setup.sh",
        "(Debian's Blender), or build it for this",
        "Python: see docs/blender.md.",
    ]


def _failures():
    if kavrin is None:
        return (Refusal, OSError, MemoryError)
    return (Refusal, kavrin.InputError, kavrin.EngineError, OSError, MemoryError)


class KavrinOperator:
    """Mix-in for the Kavrin operators: `run(context)` does the work and returns a message for the
    status bar; every failure the engine, the readers, the file system or the add-on reports becomes
    one error report, and run() changes nothing before it cannot fail any more."""

    bl_options = {'REGISTER', 'UNDO'}

    @classmethod
    def poll(cls, context):
        if kavrin is None:
            cls.poll_message_set("The kavrin Python package is not installed (see the Kavrin panel)")
            return False
        return cls.ready(context)

    @classmethod
    def ready(cls, context):
        return True

    def execute(self, context):
        # Decision (behaviour note "Blender: one report per failure")
        try:
            with warnings.catch_warnings(record=True) as caught:
                warnings.simplefilter("always", kavrin.EngineWarning)
                message = self.run(context)
        except _failures() as error:
            self.report({'ERROR'}, one_line(error))
            return {'CANCELLED'}
        for warning in caught:
            if issubclass(warning.category, kavrin.EngineWarning):
                self.report({'WARNING'}, one_line(warning.message))
        if message:
            self.report({'INFO'}, message)
        return {'FINISHED'}


def one_line(error):
    if isinstance(error, MemoryError):
        return "Not enough memory for this mesh and frame range"
    text = str(error).strip() or type(error).__name__
    return " ".join(text.split())
