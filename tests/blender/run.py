"""Runs the add-on's tests inside Blender:

    blender -b --factory-startup --python tests/blender/run.py

with KAVRIN_PYTHON_DIR (the build tree's staged package, <build>/python), KAVRIN_EXE (the kavrin
built beside it) and KAVRIN_SOURCE_DIR set (ctest does this; tools/test.sh runs ctest). The add-on is
taken from the source tree's blender/ folder. Blender's exit status is pytest's."""

import os
import sys

here = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.environ["KAVRIN_PYTHON_DIR"])
sys.path.insert(0, os.path.join(os.environ["KAVRIN_SOURCE_DIR"], "blender"))

import pytest  # noqa: E402

sys.exit(pytest.main(["-q", "-p", "no:cacheprovider", here, *sys.argv[sys.argv.index("--") + 1:]]
                     if "--" in sys.argv else ["-q", "-p", "no:cacheprovider", here]))
