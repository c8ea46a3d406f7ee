"""The stress suite runs on the end-to-end harness and its fixtures."""

import sys
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "e2e"))
from nightjar_harness import root, start_daemon, system_bus  # noqa: E402,F401
