#!/usr/bin/python3
"""The GStreamer plugin against GStreamer's own MP4 elements, on the same
H.264: 10 minutes of 720p25 (2 Mbit/s, a key frame every 2 s, no B-frames)
made with the ffmpeg tool, imported as TQF and exported from that as MP4, so
both files hold the same access units.

Demux: `filesrc ! tqfdemux ! fakesink` against `filesrc ! qtdemux !
fakesink`, video only, no decoding. Mux: H.264 from the MP4 through
h264parse into tqfmux or mp4mux and a file; the shared upstream alone
(qtdemux, h264parse, fakesink) is timed too and taken off both. Each
pipeline runs five times, alternating; the medians and their ratios print.

Usage: bench/bench_gst.py [BUILD_FOLDER]   (default build)
"""

import os
import statistics
import subprocess
import sys
import time
from pathlib import Path

ROOT = Path(__file__).resolve().parents[1]
BUILD = Path(sys.argv[1] if len(sys.argv) > 1 else ROOT / "build").resolve()
MEDIA = BUILD / "media" / "bench"
RUNS = 5
CLIP_ARGS = ("-f lavfi -i testsrc2=size=1280x720:rate=25 -frames:v 15000 -c:v libx264 -b:v 2M "
             "-g 50 -bf 0 -pix_fmt yuv420p -f h264").split()


def media():
    """The same H.264 as TQF and as MP4, made once."""
    h264, tqf, mp4 = (MEDIA / f"gst_720p25_10min.{ext}" for ext in ("h264", "tqf", "mp4"))
    if not mp4.exists():
        MEDIA.mkdir(parents=True, exist_ok=True)
        subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-y", *CLIP_ARGS, str(h264)], check=True)
        tool = str(BUILD / "tqfplay")
        subprocess.run([tool, "import", "-y", str(h264), str(tqf)], check=True, capture_output=True)
        subprocess.run([tool, "export", "-y", str(tqf), str(mp4)], check=True, capture_output=True)
    return tqf, mp4


def run(pipeline):
    start = time.perf_counter()
    subprocess.run(["gst-launch-1.0", "-q", *pipeline.split()], check=True, stdout=subprocess.DEVNULL)
    return time.perf_counter() - start


def medians(pipelines):
    times = {name: [] for name in pipelines}
    for _ in range(RUNS):
        for name, pipeline in pipelines.items():
            times[name].append(run(pipeline))
    return {name: statistics.median(values) for name, values in times.items()}


def main():
    os.environ["GST_PLUGIN_PATH"] = str(BUILD / "gstreamer-1.0")
    tqf, mp4 = media()
    out = MEDIA / "gst_bench_out"
    au = "h264parse ! video/x-h264,stream-format=byte-stream,alignment=au"
    m = medians({
        "tqfdemux": f"filesrc location={tqf} ! tqfdemux name=d d.video ! fakesink",
        "qtdemux": f"filesrc location={mp4} ! qtdemux name=d d.video_0 ! fakesink",
        "upstream": f"filesrc location={mp4} ! qtdemux ! {au} ! fakesink",
        "tqfmux": f"filesrc location={mp4} ! qtdemux ! {au} ! tqfmux ! filesink location={out}.tqf",
        "mp4mux": f"filesrc location={mp4} ! qtdemux ! h264parse ! mp4mux ! filesink location={out}.mp4",
    })
    print(f"15,000 frames of 720p25 H.264, {tqf.stat().st_size / 2**20:.0f} MiB; medians of {RUNS} runs")
    print(f"demux  tqfdemux {m['tqfdemux']:.3f} s   qtdemux {m['qtdemux']:.3f} s   "
          f"speed {m['qtdemux'] / m['tqfdemux']:.2f}x qtdemux's")
    net_tqf, net_mp4 = m["tqfmux"] - m["upstream"], m["mp4mux"] - m["upstream"]
    print(f"mux    tqfmux {m['tqfmux']:.3f} s   mp4mux {m['mp4mux']:.3f} s   upstream alone {m['upstream']:.3f} s")
    print(f"       net of upstream: tqfmux {net_tqf:.3f} s   mp4mux {net_mp4:.3f} s   "
          f"speed {net_mp4 / net_tqf:.2f}x mp4mux's" if net_tqf > 0 else "       tqfmux costs nothing measurable")


if __name__ == "__main__":
    main()
