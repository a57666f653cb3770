import subprocess
import sys

import pytest
from conftest import ROOT, run_tool

ACTIVITY = ROOT / "examples" / "python" / "activity.py"
# 12 s of a still grey picture; a white box crosses it during 3-4 s and 8-9 s.
SCENE = ("color=c=gray:size=640x352:rate=25:duration=12[still];"
         "color=c=white:size=80x80:rate=25:duration=12[box];"
         "[still][box]overlay=x='mod(t,1)*560':y=136:enable='gte(t,3)*lt(t,4)+gte(t,8)*lt(t,9)'")


def activity(*arguments, cwd=None):
    return subprocess.run([sys.executable, ACTIVITY, *map(str, arguments)], cwd=cwd,
                          capture_output=True, text=True, timeout=120)


def test_the_two_bursts_are_the_busiest_moments(tmp_path):
    h264 = tmp_path / "bursts.h264"
    subprocess.run(["ffmpeg", "-v", "error", "-nostdin", "-f", "lavfi", "-i", SCENE, "-c:v", "libx264",
                    "-g", "25", "-bf", "0", "-pix_fmt", "yuv420p", "-f", "h264", h264],
                   check=True, timeout=120)
    run_tool("import", h264, tmp_path / "bursts.tqf")
    done = activity("bursts.tqf", cwd=tmp_path)
    assert done.returncode == 0, done.stderr
    moments = [line.split() for line in done.stdout.splitlines()]
    assert sorted(clock for clock, _ in moments[:2]) == ["00:00:03", "00:00:08"]
    assert all(float(score) > 0 for _, score in moments)
    png = tmp_path / "bursts-activity.png"
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n" and png.name in done.stderr


@pytest.mark.parametrize("name, content", [("none.tqf", None), ("text.tqf", b"not a recording\n")])
def test_a_bad_file_is_one_line_and_exit_1(tmp_path, name, content):
    if content is not None:
        (tmp_path / name).write_bytes(content)
    done = activity(tmp_path / name, "--out", tmp_path / "out.png")
    assert done.returncode == 1 and done.stderr.count("\n") == 1 and name in done.stderr
    assert not (tmp_path / "out.png").exists()
