"""Shared fixtures of the Python package's tests: the project's generated
media (tests/data) and the quil tool the results are compared with."""
import json
import os
import subprocess
import sys
from pathlib import Path

import pytest

ROOT = Path(__file__).resolve().parents[2]
DATA = Path(os.environ.get("QUIL_TEST_DATA", ROOT / "tests" / "data"))
EXAMPLES = Path(os.environ.get("QUIL_EXAMPLES", ROOT / "python" / "examples"))
TOOL = os.environ.get("QUIL_TOOL", "")

MEDIA = sorted(p for p in DATA.iterdir() if p.suffix in (".mp4", ".mov", ".3gp", ".3g2", ".m4a", ".m4v"))
GOOD = [p for p in MEDIA if not p.name.startswith("bad-")]


def run_tool(*args, check=True):
    """stdout of the quil tool; skips the test when the tool was not built."""
    if not TOOL or not os.path.exists(TOOL):
        pytest.skip("the quil tool is not built")
    done = subprocess.run([TOOL, *map(str, args)], capture_output=True, text=True, timeout=60)
    if check:
        assert done.returncode == 0, done.stderr
    return done


def tool_json(*args):
    return json.loads(run_tool(*args).stdout)


def python():
    return sys.executable
