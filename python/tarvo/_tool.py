"""The command tarvo: starts the tool that lies in the package."""

from __future__ import annotations

import os
import sys
from pathlib import Path


def tool_path() -> Path:
    """Where the tool is. Raises RuntimeError if the package was built without it."""
    tool = Path(__file__).parent / "bin" / "tarvo"
    if not tool.is_file():
        raise RuntimeError(f"the tool is missing, it was left out when the package was built: {tool}")
    return tool


def main() -> None:
    try:
        os.execv(tool_path(), [sys.argv[0], *sys.argv[1:]])
    except RuntimeError as error:
        sys.exit(f"tarvo: {error}")
