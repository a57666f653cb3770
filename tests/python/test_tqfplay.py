import logging
import os
import random
import re
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest
import tqfplay
from conftest import PACKAGE, SAMPLE, TOOL, os_threads, run_tool, y4m_pictures

FPS = 25


def stream_chunks(path, seed):
    data = path.read_bytes()
    header = int.from_bytes(data[4:8], "little") + 8
    rng, position, chunks = random.Random(seed), header, []
    while position < len(data):
        size = rng.randint(1, 20000)
        chunks.append(data[position:position + size])
        position += size
    return data[:header], chunks


def test_file_gives_the_tools_pictures_in_order(sample_pictures, caplog):
    caplog.set_level(logging.DEBUG, logger="tqfplay")
    with tqfplay.open(SAMPLE) as f:
        assert (f.width, f.height, f.codec) == (640, 352, "H264")
        assert f.duration == pytest.approx(len(sample_pictures) / FPS)
        pictures = list(f)
        assert f.position == 0  # played to the end, and rewound
        again = next(iter(f))  # a new loop plays from the start
    assert [p.index for p in pictures] == list(range(len(sample_pictures)))
    for picture, reference in zip(pictures, sample_pictures):
        assert np.array_equal(picture.data, reference)
        assert picture.y.shape == (352, 640) and picture.v.shape == (176, 320)
    assert again.index == 0 and np.array_equal(again.data, sample_pictures[0])
    assert "PostMessage(): wnd=0, msg=0" in caplog.messages


def test_seek_and_time_ranges_follow_the_players_rules(sample_pictures):
    after_seek = y4m_pictures(run_tool("play", SAMPLE, "--start", 2, "--y4m", "-").stdout)
    with tqfplay.open(SAMPLE) as f:
        f.seek(2)  # before the first picture: taken once the first key frame is met
        assert f.position == pytest.approx(51 / FPS)
        seeked = [p for _, p in zip(range(10), f)]
        ranged = list(f.frames(start=1.5, stop=3, step=2))
        assert f.position == pytest.approx(3)
        backwards = list(f.frames(start=0.2, stop=0.4))
        f.seek(1000)
        assert list(f) == []
    assert [p.index for p in seeked] == list(range(51, 61))
    for picture, reference in zip(seeked, after_seek):
        assert np.array_equal(picture.data, reference)
    assert [p.index for p in ranged] == list(range(38, 75, 2))
    assert [p.index for p in backwards] == list(range(5, 10))
    for picture in ranged + backwards:
        assert np.array_equal(picture.data, sample_pictures[picture.index])


def test_stream_fed_in_random_chunks_from_another_thread(sample_pictures, tmp_path):
    header, chunks = stream_chunks(SAMPLE, seed=7)
    stream = tqfplay.Stream(header)
    stream.record(tmp_path / "python.tqf")

    def feed():
        for chunk in chunks:
            stream.feed(chunk)
        stream.finish()

    feeder = threading.Thread(target=feed)
    feeder.start()
    pictures = list(stream)
    feeder.join()
    stream.stop_record()
    stream.close()
    assert len(pictures) == len(sample_pictures)
    for picture, reference in zip(pictures, sample_pictures):
        assert picture.index is None and np.array_equal(picture.data, reference)
    run_tool("stream", SAMPLE, "--record", tmp_path / "tool.tqf")
    assert (tmp_path / "python.tqf").read_bytes() == (tmp_path / "tool.tqf").read_bytes()


def test_bad_input_raises(tmp_path):
    damaged = tmp_path / "damaged.tqf"
    damaged.write_bytes(b"TQF0" + bytes(range(60)))
    cases = [(tmp_path / "missing.tqf", FileNotFoundError), (tmp_path, IsADirectoryError),
             (damaged, tqfplay.TQFError)]
    for path, error in cases:
        with pytest.raises(error):
            tqfplay.open(path)
    with pytest.raises(tqfplay.TQFError, match="header"):
        tqfplay.Stream(SAMPLE.read_bytes()[:20])
    stream = tqfplay.Stream(stream_chunks(SAMPLE, 1)[0])
    stream.close()
    with pytest.raises(tqfplay.TQFError, match="closed"):
        stream.feed(b"\0" * 16)
    f = tqfplay.open(SAMPLE)
    f.close()
    with pytest.raises(tqfplay.TQFError, match="closed"):
        f.seek(1)


def test_breaking_out_early_leaves_no_thread_behind(sample_pictures):
    before = os_threads()
    for picture in tqfplay.open(SAMPLE):
        break  # the File goes with the loop
    assert os_threads(before) == before
    with tqfplay.open(SAMPLE) as a:
        pictures = iter(a)
        first = next(pictures)
        queue = a._sink.queue
        deadline = time.monotonic() + 30
        while len(queue._items) < queue._capacity and time.monotonic() < deadline:
            time.sleep(0.01)  # until a's callback waits for room, holding the player table
        with tqfplay.open(SAMPLE) as b:  # which this open needs
            assert np.array_equal(next(iter(b)).data, first.data)
        assert next(pictures).index == 1
    assert os_threads(before) == before


def test_connect_takes_a_served_camera(sample_pictures):
    server = subprocess.Popen([TOOL, "serve", SAMPLE, "--port", "0"], stderr=subprocess.PIPE, text=True)
    try:
        port = re.search(r":(\d+)", server.stderr.readline()).group(1)
        with pytest.raises(tqfplay.TQFError, match="404"):
            tqfplay.connect(f"tcp://127.0.0.1:{port}/9")
        before = os_threads()
        stream = tqfplay.connect(f"tcp://127.0.0.1:{port}/1")
        pictures = [p for _, p in zip(range(30), stream)]
        stream.close()
        assert os_threads(before) == before
    finally:
        server.terminate()
        server.wait()
    # From the first key frame after joining, the file's pictures in order.
    known = {p.tobytes(): i for i, p in enumerate(sample_pictures)}
    indexes = [known.get(p.data.tobytes()) for p in pictures]
    assert None not in indexes
    assert all((b - a) % len(sample_pictures) == 1 for a, b in zip(indexes, indexes[1:]))


def test_to_rgb_is_bt601_as_the_tools_stills(tmp_path):
    run_tool("play", SAMPLE, "--png", tmp_path, "--every", 100)
    still = sorted(tmp_path.glob("*.png"))[0]
    reference = subprocess.run(["ffmpeg", "-v", "error", "-i", still, "-f", "rawvideo", "-pix_fmt", "rgb24", "-"],
                               check=True, capture_output=True).stdout
    with tqfplay.open(SAMPLE) as f:
        rgb = next(iter(f)).to_rgb()
        bgr = next(iter(f.frames(start=0))).to_bgr()
    expected = np.frombuffer(reference, np.uint8).reshape(352, 640, 3)
    assert np.abs(rgb.astype(int) - expected).mean() < 2.0
    assert np.array_equal(bgr[..., ::-1], rgb)


def test_ctrl_c_ends_a_loop_cleanly():
    script = ("import sys, time, tqfplay\nf = tqfplay.open(sys.argv[1])\n"
              "for p in f:\n    print(p.index, flush=True)\n    time.sleep(0.05)\n")
    child = subprocess.Popen([sys.executable, "-c", script, SAMPLE], stdout=subprocess.PIPE,
                             stderr=subprocess.PIPE, text=True, env={**os.environ, "PYTHONPATH": str(PACKAGE)})
    try:
        assert child.stdout.readline() == "0\n"
        child.send_signal(signal.SIGINT)
        _, errors = child.communicate(timeout=30)
    finally:
        child.kill()
    assert child.returncode == -signal.SIGINT and errors.rstrip().endswith("KeyboardInterrupt")
