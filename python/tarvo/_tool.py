"""The command tarvo: starts the tool that lies in the package."""

from __future__ import annotations

import os
import sys
from pathlib import Path


def main() -> None:
    tool = Path(__file__).parent / "bin" / "tarvo"
    if not tool.is_file():
        sys.exit(f"tarvo: the tool is missing, it was left out when the package was built: {tool}")
    os.execv(tool, [sys.argv[0], *sys.argv[1:]])
