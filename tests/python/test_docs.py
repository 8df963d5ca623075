"""The examples of docs/python.md, run as written (in order, in one namespace) on the demo's files."""

import os
import re
import subprocess

import pytest

from conftest import KAVRIN

DOC = os.path.join(os.environ.get("KAVRIN_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", "..")),
                   "docs", "python.md")


@pytest.mark.filterwarnings("ignore:make_current is deprecated:DeprecationWarning")
def test_the_examples_of_docs_python_md_run_as_written(tmp_path, monkeypatch):
    if not KAVRIN:
        pytest.skip("KAVRIN_EXE is not set")
    subprocess.run([KAVRIN, "demo", "-o", "kavrin-demo"], cwd=tmp_path, check=True, capture_output=True)
    monkeypatch.chdir(tmp_path)
    blocks = re.findall(r"```python\n(.*?)```", open(DOC).read(), re.S)
    assert len(blocks) >= 8
    namespace = {}
    for block in blocks:
        exec(compile(block, DOC, "exec"), namespace)
