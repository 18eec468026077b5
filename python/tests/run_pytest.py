"""Runs the Python module's pytest suite for CTest, or reports it skipped (a line starting with
"SKIPPED: ", which CTest looks for) when a module it needs is not installed.

Usage: run_pytest.py MODULE[,MODULE...] [PYTEST ARGUMENTS...]
"""

import importlib
import sys


def main():
    needed, arguments = sys.argv[1].split(","), sys.argv[2:]
    missing = []
    for name in ["pytest"] + needed:
        try:
            importlib.import_module(name)
        except ImportError:
            missing.append(name)
    if missing:
        print(f"SKIPPED: needs the Python modules {', '.join(missing)} (scripts/install-deps.sh python)")
        return 0
    import pytest

    return pytest.main(arguments)


if __name__ == "__main__":
    sys.exit(main())
