import os
import subprocess
import sys
import time
from pathlib import Path

import numpy as np
import pytest

ROOT = Path(__file__).resolve().parents[2]
PACKAGE = ROOT / "python"
sys.path.insert(0, str(PACKAGE))
TOOL = os.environ.get("TQFPLAY_TOOL", str(ROOT / "build" / "tqfplay"))
SAMPLE = ROOT / "samples" / "demo.tqf"


def run_tool(*arguments, **options):
    return subprocess.run([TOOL, *map(str, arguments)], check=True, capture_output=True, **options)


def y4m_pictures(data):
    """The pictures of a YUV4MPEG2 stream, as flat uint8 arrays."""
    head, _, body = data.partition(b"\n")
    fields = dict((f[:1], f[1:]) for f in head.split()[1:])
    size = int(fields[b"W"]) * int(fields[b"H"]) * 3 // 2
    marker = len(b"FRAME\n")
    return [np.frombuffer(body, np.uint8, size, offset + marker)
            for offset in range(0, len(body), marker + size)]


@pytest.fixture(scope="session")
def sample_pictures():
    """The tool's pictures of the sample, from its first frame."""
    return y4m_pictures(run_tool("play", SAMPLE, "--y4m", "-").stdout)


def os_threads(expected=None):
    """The process's threads; given `expected`, once they are down to it (a
    joined thread leaves the kernel's list a moment after its join returns)."""
    deadline = time.monotonic() + 10
    while True:
        count = len(os.listdir("/proc/self/task"))
        if expected is None or count <= expected or time.monotonic() > deadline:
            return count
        time.sleep(0.01)
