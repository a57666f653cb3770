#!/usr/bin/env python3
"""Draws the activity timeline of a TQF recording: when did something happen?

Each second of the recording gets the mean absolute luma difference between
consecutive pictures; the curve goes to a PNG with the busiest moments marked
and a thumbnail of each, and the moments are printed busiest first.
"""

import argparse
import math
import sys
from pathlib import Path

import numpy as np

try:
    import tqfplay
except ImportError:  # run from a checkout: the package sits in <repo>/python
    sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "python"))
    import tqfplay

import matplotlib

matplotlib.use("Agg")  # files only, no display needed
import matplotlib.pyplot as plt  # noqa: E402 - after the backend is chosen

# Seconds either side of a chosen moment that cannot be chosen again: a burst
# of motion that spans two seconds counts once.
NEIGHBOURHOOD = 2
THUMBNAIL_STEP = 4  # keep every 4th row and column of a moment's picture
TIME_SLACK = 1e-6  # picture times are index * 0.04 s, in binary floating point


class Timeline:
    """Activity per second, built in one pass over the pictures.

    Holds the previous picture's luma, the current second's busiest picture,
    and thumbnails only for the seconds that can still be among the top
    moments, so that memory does not grow with the recording's length."""

    def __init__(self, seconds, top):
        self.sums = np.zeros(seconds)
        self.counts = np.zeros(seconds, dtype=np.int64)
        # Each chosen moment rules out at most 2 * NEIGHBOURHOOD local maxima,
        # so the top moments are among this many best local maxima.
        self.kept = top * (2 * NEIGHBOURHOOD + 1)
        self.thumbnails = {}  # second -> downscaled RGB of its busiest picture
        self.previous = None  # int16 luma of the picture before
        self.second, self.best, self.best_score = None, None, -1.0

    def add(self, picture):
        luma = picture.y.astype(np.int16)
        if self.previous is not None:
            second = int(picture.time + TIME_SLACK)
            if second != self.second:
                self._close_second()
                self.second, self.best, self.best_score = second, None, -1.0
            score = float(np.abs(luma - self.previous).mean())
            self.sums[second] += score
            self.counts[second] += 1
            if score > self.best_score:
                self.best, self.best_score = picture, score
        self.previous = luma

    def finish(self):
        self._close_second()
        with np.errstate(invalid="ignore"):  # a second with no pictures stays NaN
            return self.sums / self.counts

    def _close_second(self):
        if self.best is not None:
            self.thumbnails[self.second] = self.best.to_rgb()[::THUMBNAIL_STEP, ::THUMBNAIL_STEP]
            self._prune()

    def _prune(self):
        """Drops the thumbnails of seconds that are past deciding and either no
        local maximum or below the `kept` best local maxima."""
        with np.errstate(invalid="ignore"):
            scores = self.sums / self.counts
        decided = [s for s in self.thumbnails if s < self.second - 1]
        maxima = set(local_maxima(scores, decided)[:self.kept])
        for second in decided:
            if second not in maxima:
                del self.thumbnails[second]


def local_maxima(scores, seconds):
    """The `seconds` with some activity and a score no lower than either
    neighbour's, busiest first. A still second is no moment worth showing."""
    def is_peak(s):
        around = scores[max(s - 1, 0):s + 2]
        return scores[s] > 0 and scores[s] >= np.nanmax(around)
    return sorted((s for s in seconds if is_peak(s)), key=lambda s: -scores[s])


def busiest_moments(scores, top):
    """Up to `top` local maxima, busiest first, none within NEIGHBOURHOOD of another."""
    chosen = []
    for second in local_maxima(scores, range(len(scores))):
        if all(abs(second - c) > NEIGHBOURHOOD for c in chosen):
            chosen.append(second)
            if len(chosen) == top:
                break
    return chosen


def clock(second):
    return f"{second // 3600:02d}:{second // 60 % 60:02d}:{second % 60:02d}"


def plot(path, scores, moments, thumbnails, out):
    figure = plt.figure(figsize=(10, 6), layout="constrained")
    rows = figure.add_gridspec(2, 1, height_ratios=(3, 1))
    curve = figure.add_subplot(rows[0])
    curve.plot(np.arange(len(scores)), scores, color="tab:blue")
    curve.plot(moments, scores[moments], "o", color="tab:red")
    for rank, second in enumerate(moments, 1):
        curve.annotate(f"{rank}", (second, scores[second]), textcoords="offset points",
                       xytext=(0, 6), ha="center", color="tab:red")
    curve.set(title=f"Activity of {Path(path).name}", xlabel="time (s)",
              ylabel="mean |luma difference|")
    curve.grid(alpha=0.3)
    strip = rows[1].subgridspec(1, max(len(moments), 1))
    for rank, second in enumerate(moments, 1):
        inset = figure.add_subplot(strip[rank - 1])
        inset.imshow(thumbnails[second])
        inset.set_title(f"{rank}. {clock(second)}", fontsize=9)
        inset.axis("off")
    figure.savefig(out, format="png")
    plt.close(figure)


def run(arguments):
    with tqfplay.open(arguments.file) as f:
        timeline = Timeline(max(math.ceil(f.duration), 1), arguments.top)
        for picture in f:
            timeline.add(picture)
    if timeline.second is None:
        raise tqfplay.TQFError(f"{arguments.file}: fewer than two pictures, nothing to compare")
    scores = timeline.finish()
    moments = busiest_moments(scores, arguments.top)
    out = arguments.out or Path(arguments.file).stem + "-activity.png"
    plot(arguments.file, scores, moments, timeline.thumbnails, out)
    for second in moments:
        print(f"{clock(second)}  {scores[second]:.1f}")
    print(f"wrote {out}", file=sys.stderr)


def positive(text):
    value = int(text)
    if value < 1:
        raise argparse.ArgumentTypeError("must be at least 1")
    return value


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("file", metavar="FILE.tqf", help="the recording")
    parser.add_argument("--out", metavar="PNG",
                        help="the picture to write (default: FILE-activity.png in the current folder)")
    parser.add_argument("--top", metavar="N", type=positive, default=3,
                        help="how many busiest moments to mark and print (default: 3)")
    arguments = parser.parse_args()
    try:
        run(arguments)
    except OSError as error:
        where = error.filename or arguments.file
        print(f"activity: {where}: {error.strerror or error}", file=sys.stderr)
        return 1
    except tqfplay.TQFError as error:
        print(f"activity: {error}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
