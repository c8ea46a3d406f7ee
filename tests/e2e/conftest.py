"""The end-to-end fixtures, from the harness they share with the stress suite."""

from nightjar_harness import (broadcasts, client, daemon, logind, polkitd,  # noqa: F401
                              root, start_daemon, system_bus)
