"""A live TQF stream: a header block, then bytes fed in pieces of any size."""

import ctypes
import os
import threading

from ._container import FRAME_HEAD, FRAME_SYNC, KEY_FLAG, VIDEO_STREAM
from ._library import PICTURE_CALLBACK, library
from .errors import ClosedOnExit, TQFError
from .picture import Picture

# Pictures a decoder may hold back for reordering, and never give out without
# a flush: the last fed frame's picture may come while these stay behind.
REORDER_LIMIT = 16


class _FedFrames:
    """Counts the whole video frames fed, from the first key frame on, and keeps
    the last one's stamp: what the pictures must reach before the iteration of
    a finished stream ends. Frames are found by their sync word and stepped
    over by their length, as the library's parser finds them."""

    def __init__(self):
        self.count = 0
        self.last_stamp = None
        self._head = bytearray()  # the bytes of a frame head not yet complete
        self._skip = 0  # payload bytes still to step over
        self._keyed = False

    def feed(self, data):
        view, position = memoryview(data), 0
        while position < len(view):
            if self._skip:
                step = min(self._skip, len(view) - position)
                self._skip -= step
                position += step
                continue
            take = min(FRAME_HEAD - len(self._head), len(view) - position)
            self._head += view[position:position + take]
            position += take
            if len(self._head) == FRAME_HEAD:
                self._take_head()

    def _take_head(self):
        head = bytes(self._head)
        if head[:4] != FRAME_SYNC:
            found = head.find(FRAME_SYNC, 1)
            self._head = bytearray(head[found:] if found > 0 else head[-3:])
            return
        self._head.clear()
        info = int.from_bytes(head[4:8], "little")
        self._skip = info >> 12
        if info & 0xF == VIDEO_STREAM:
            self._keyed = self._keyed or bool(info & KEY_FLAG)
            if self._keyed:
                self.count += 1
                self.last_stamp = int.from_bytes(head[8:12], "little")


class _StreamSink:
    """The picture callback's side of a Stream; holds nothing of the Stream,
    so that dropping the Stream closes it."""

    def __init__(self, lib):
        self.queue = lib.new_queue()
        self.lock = threading.Lock()  # guards the four below
        self.fed = _FedFrames()
        self.pictures = 0
        self.last_stamp = None  # of the last picture
        self.finished = False
        self.callback = PICTURE_CALLBACK(self._on_picture)

    def _on_picture(self, _handle, data, size, width, height, stamp, _format, _rate, _user):
        self.queue.put(Picture.copied_from(data, size, width, height, stamp))
        with self.lock:
            self.pictures += 1
            self.last_stamp = stamp
            self.end_if_all_out()
        return 0

    def end_if_all_out(self):
        fed = self.fed
        if self.finished and (fed.count == 0 or (self.last_stamp == fed.last_stamp and
                                                 self.pictures + REORDER_LIMIT >= fed.count)):
            self.queue.end()


class Stream(ClosedOnExit):
    """A live stream's player, opened on the stream's header block. Feed it
    with feed() from any thread and iterate it for pictures. finish() says no
    more bytes come: the iteration then ends after the picture of the last
    frame fed. close() ends it at once."""

    def __init__(self, header):
        self._lib = library()
        self._sink = _StreamSink(self._lib)
        self._handle = None  # guarded by the sink's lock once open
        self._recording = False
        self._on_close = []  # what else ends with the stream (a feeder's socket)
        header = bytes(header)
        handle = ctypes.c_int32(-1)
        with self._lib.table_writer():
            if self._lib.dll.TQ_OpenStream(header, len(header), ctypes.byref(handle)) != 0:
                raise TQFError(f"not a TQF stream header the player accepts ({len(header)} bytes)")
        self._handle = handle.value
        self._lib.opened(self)
        self._lib.dll.TQ_Play(self._handle, self._sink.callback, 0)

    def _open_handle(self, action):
        if self._handle is None:
            raise TQFError(f"{action}: the stream is closed")
        return self._handle

    def feed(self, data):
        """Feeds bytes (any bytes-like object) of the stream, cut anywhere.
        TQFError once the stream is closed or finished."""
        data = bytes(data)
        sink = self._sink
        with sink.lock:
            handle = self._open_handle("feed")
            if sink.finished:
                raise TQFError("feed: the stream is finished")
            sink.fed.feed(data)
            if self._lib.dll.TQ_InputData(handle, data, len(data)) != 0:
                raise TQFError("feed: the player refused the bytes")

    def finish(self):
        """No more bytes: the iteration ends once the last frame fed is shown,
        at once if no key frame was fed."""
        with self._sink.lock:
            self._sink.finished = True
            self._sink.end_if_all_out()

    def __iter__(self):
        while True:
            picture = self._sink.queue.get()
            if picture is None:
                return
            yield picture

    def record(self, path):
        """Records the video frames fed from now on to a new TQF file at `path`,
        from the next key frame on; a recording to another path is closed first."""
        with self._sink.lock:
            handle = self._open_handle("record")
            if self._lib.dll.TQ_StartRecord(handle, os.fsencode(path)) != 0:
                raise TQFError(f"record: the player refused {os.fspath(path)!r}")
            self._recording = True

    def stop_record(self):
        """Writes out the frames fed so far and closes the recording's file."""
        with self._sink.lock:
            handle = self._open_handle("stop_record")
            if self._recording:
                self._lib.dll.TQ_StopRecord(handle)
                self._recording = False

    def close(self):
        """Ends the stream at once: frames still queued in the player are
        dropped, a recording is closed. Safe to call more than once."""
        with self._sink.lock:
            handle, self._handle = self._handle, None
        if handle is None:
            return
        self._sink.queue.close()
        with self._lib.table_writer():
            self._lib.dll.TQ_CloseStream(handle)
        for action in self._on_close:
            action()

    def __del__(self):
        if getattr(self, "_handle", None) is not None:
            self.close()
