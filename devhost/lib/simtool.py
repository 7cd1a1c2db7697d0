"""Entry of every simulated host tool in the sandbox.

Called as: simtool.py TOOL_FILE ARGV0 ARGS..., where TOOL_FILE is the installed file that was run
(it names the tool) and ARGV0 ARGS... the argument vector exactly as the caller wrote it."""

import importlib
import os
import sys

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))

from simtools import TOOLS  # noqa: E402
from simtools.common import run_tool  # noqa: E402


def find_tool(tool_file):
    """The tool's name (its base name, as slow/NAME uses it) and its implementation."""
    real = os.path.realpath(tool_file)
    for name, (paths, implementation) in TOOLS.items():
        if any(os.path.realpath(p) == real for p in paths):
            module, function = implementation.rsplit(".", 1)
            return os.path.basename(name), getattr(importlib.import_module("simtools." + module), function)
    return None, None


def main():
    if len(sys.argv) < 3:
        sys.stderr.write("usage: simtool.py TOOL_FILE ARGV0 [ARGS...]\n")
        return 2
    name, func = find_tool(sys.argv[1])
    if func is None:
        sys.stderr.write("devhost: %s is not a simulated tool\n" % sys.argv[1])
        return 127
    return run_tool(func, sys.argv[2:], name)


if __name__ == "__main__":
    sys.exit(main())
