"""The stress suite runs on the end-to-end fixtures: tests/e2e's conftest, imported, not copied."""

import importlib.util
import sys
from pathlib import Path

E2E = Path(__file__).resolve().parents[1] / "e2e"
sys.path.insert(0, str(E2E))
_spec = importlib.util.spec_from_file_location("e2e_fixtures", E2E / "conftest.py")
_fixtures = importlib.util.module_from_spec(_spec)
_spec.loader.exec_module(_fixtures)
root, system_bus, start_daemon = _fixtures.root, _fixtures.system_bus, _fixtures.start_daemon
