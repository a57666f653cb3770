#!/usr/bin/python3
"""The Python package against the C tool on one 720p25 H.264 file (2 Mbit/s,
a key frame every 2 s, made with the ffmpeg tool and `tqfplay import`).

Throughput: pictures a second through `for p in tqfplay.open(f)`, numpy
planes copied out of each callback, against `tqfplay play FILE` (the same
decode, no output). The two run in turn, seven pairs, and the ratio is taken
pair by pair, its median quoted: pairing keeps the ratio steady on a machine
whose speed drifts. Memory: resident memory of the Python
loop over a 10-minute file (the clip ten times over), sampled every 1,000
pictures: its growth from the second sample (the queue full) to the last.

Usage: bench/bench_python.py [BUILD_FOLDER]   (default build)
"""

import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
BUILD = Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build").resolve()
os.environ.setdefault("TQFPLAY_LIBRARY", str(BUILD / "libTQFPlay.so.1"))
sys.path.insert(0, str(ROOT / "python"))
import tqfplay  # noqa: E402

TOOL = BUILD / "tqfplay"
MEDIA = BUILD / "media" / "bench"
CLIP_ARGS = ("-f lavfi -i testsrc2=size=1280x720:rate=25 -frames:v 1500 -c:v libx264 -b:v 2M "
             "-g 50 -bf 0 -pix_fmt yuv420p -f h264").split()


def media(name, repeats=1):
    """A TQF file made once: the clip by ffmpeg as raw H.264, `repeats` times
    over, then `tqfplay import`."""
    tqf, clip = MEDIA / f"{name}.tqf", MEDIA / "python_720p25_2M.h264"
    if not tqf.exists():
        MEDIA.mkdir(parents=True, exist_ok=True)
        if not clip.exists():
            subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", *CLIP_ARGS, str(clip)], check=True)
        h264 = MEDIA / f"{name}.h264"
        h264.write_bytes(clip.read_bytes() * repeats)
        subprocess.run([str(TOOL), "import", "-y", str(h264), str(tqf)], check=True, capture_output=True)
    return tqf


PAIRS = 7


def timed(action):
    start = time.perf_counter()
    action()
    return time.perf_counter() - start


def python_loop(path):
    count = 0
    with tqfplay.open(path) as f:
        for picture in f:
            count += picture.y.shape[0] > 0
    return count


def resident_kib():
    with open("/proc/self/status") as status:
        return next(int(line.split()[1]) for line in status if line.startswith("VmRSS:"))


def main():
    clip = media("python_720p25_2M_1min")
    frames = tqfplay.open(clip).frame_count
    pairs = [(timed(lambda: subprocess.run([str(TOOL), "play", str(clip)], check=True, capture_output=True)),
              timed(lambda: python_loop(clip))) for _ in range(PAIRS)]
    tool = statistics.median(c for c, _ in pairs)
    ours = statistics.median(p for _, p in pairs)
    ratio = statistics.median(c / p for c, p in pairs)
    print(f"bench_python: 1280x720 H.264, {frames} frames, median of {PAIRS} pairs")
    print(f"  tqfplay play (C)       {tool:7.3f} s  {frames / tool:7.1f} pictures/s")
    print(f"  for p in tqfplay.open  {ours:7.3f} s  {frames / ours:7.1f} pictures/s")
    print(f"  Python/C rate          {ratio:7.3f}  (target >= 0.90; pairs from "
          f"{min(c / p for c, p in pairs):.3f} to {max(c / p for c, p in pairs):.3f})")

    long = media("python_720p25_2M_10min", repeats=10)
    samples = []
    with tqfplay.open(long) as f:
        for picture in f:
            if picture.index % 1000 == 0:
                samples.append(resident_kib())
    # The first sample comes before the picture queue has filled: growth is
    # counted from the second, 1,000 pictures in.
    growth = samples[-1] - samples[1]
    print(f"memory over {f.duration / 60:.1f} min ({len(samples)} samples): first {samples[0] / 1024:.1f} MiB, "
          f"after 1,000 pictures {samples[1] / 1024:.1f} MiB, last {samples[-1] / 1024:.1f} MiB, most "
          f"{max(samples) / 1024:.1f} MiB; growth since 1,000 pictures {growth} KiB, "
          f"{growth * 1024 / max(1, f.frame_count - 1000):.1f} bytes a picture")


if __name__ == "__main__":
    main()
