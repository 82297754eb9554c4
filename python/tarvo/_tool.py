"""The command tarvo: starts the tool that lies in the package."""

from __future__ import annotations

import os
import sys
from pathlib import Path


def main() -> None:
    tool = Path(__file__).parent / "bin" / "tarvo"
    os.execv(tool, [sys.argv[0], *sys.argv[1:]])
