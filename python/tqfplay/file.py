"""A TQF file, played by the library's file player."""

import ctypes
import math
import os
import threading

from ._container import FRAMES_PER_SECOND, KNOWN_CODECS, FileIndex
from ._library import PICTURE_CALLBACK, library
from .errors import ClosedOnExit, TQFError
from .picture import FRAME_SECONDS, Picture

# How far past the expected frame a picture's stamp is looked for, when a
# frame gave no picture (a decoder refused it).
STAMP_SEARCH = 300


class _FileSink:
    """The picture callback's side of a File: it numbers each picture and
    queues it. Holds nothing of the File, so that dropping the File closes it."""

    def __init__(self, lib, index):
        self.lib, self.index = lib, index
        self.queue = lib.new_queue()
        self.handle = None
        self.lock = threading.Lock()  # guards the two below
        self.next_index = index.first_key_frame() or 0
        self.pending_seek = None  # whole seconds, to seek to at the first picture
        self.delivered = False
        self.callback = PICTURE_CALLBACK(self._on_picture)

    def _on_picture(self, handle, data, size, width, height, stamp, _format, _rate, _user):
        self.lib.delivered_by_this_thread(self)
        with self.lock:
            self.delivered = True
            if self.pending_seek is not None:
                # The player has met its first key frame: the seek takes now,
                # and this picture is not the one after it.
                seconds, self.pending_seek = self.pending_seek, None
                self.lib.dll.TQ_SetPlayTime(handle, seconds)
                self.next_index = self.frame_after(seconds)
                return 0
            number = self._number(stamp)
            self.next_index = number + 1
        self.queue.put(Picture.copied_from(data, size, width, height, stamp, number))
        return 0

    def _number(self, stamp):
        """The frame's number: the next one, unless its stamp says a later one."""
        stamps, expected = self.index.stamps, self.next_index
        if expected < len(stamps) and stamps[expected] != stamp:
            for number in range(expected + 1, min(expected + STAMP_SEARCH, len(stamps))):
                if stamps[number] == stamp:
                    return number
        return expected

    def frame_after(self, seconds):
        """The first frame a seek to `seconds` delivers (the frame count past the end)."""
        return min(seconds * FRAMES_PER_SECOND + 1, self.index.frame_count)

    def _on_end(self):
        with self.lock:
            self.next_index = 0  # the player has rewound
        self.queue.end()


class File(ClosedOnExit):
    """A TQF file open for playing: see tqfplay.open."""

    def __init__(self, path):
        self.path = os.fspath(path)
        self._index = FileIndex(self.path)
        if self._index.codec not in KNOWN_CODECS:
            raise TQFError(f"{self.path}: no decoder for the video codec '{self._index.codec}'")
        self._lib = library()
        self._open_player()

    def _open_player(self):
        self._sink = _FileSink(self._lib, self._index)
        self._held = None  # a picture taken from the queue and not yet returned
        self._playing = False
        handle = ctypes.c_int32(-1)
        with self._lib.table_writer():
            if self._lib.dll.TQ_OpenFile(os.fsencode(self.path), ctypes.byref(handle)) != 0:
                raise TQFError(f"{self.path}: the player refused the file "
                               f"({self._index.codec} {self.width}x{self.height})")
        self._sink.handle = handle.value
        self._lib.watch_for_end(self._sink)
        self._lib.opened(self)

    # Properties.
    width = property(lambda self: self._index.width)
    height = property(lambda self: self._index.height)
    codec = property(lambda self: self._index.codec)
    frame_count = property(lambda self: self._index.frame_count, doc="video frames")
    duration = property(lambda self: self._index.frame_count * FRAME_SECONDS, doc="seconds, 40 ms a frame")

    @property
    def position(self):
        """The time, in seconds, of the next picture the iteration gives."""
        if self._held is not None:
            return self._held.time
        return self._sink.next_index * FRAME_SECONDS

    def seek(self, seconds):
        """Moves to whole `seconds` as the file player does: the frame at that
        time (25 a second) is decoded and not shown, and the next picture is
        the frame after it. Past the end, the iteration ends at once."""
        if seconds < 0:
            raise ValueError("seek: seconds must not be negative")
        handle, whole = self._handle(), int(seconds)
        self._held = None
        with self._sink.lock:
            if not self._sink.delivered:  # the walk to the first key frame comes first
                self._sink.pending_seek = whole
                self._sink.next_index = self._sink.frame_after(whole)
                return
        self._sink.queue.discard()  # wakes the callback, which drops its picture
        self._lib.dll.TQ_Stop(handle)
        self._playing = False
        self._lib.dll.TQ_SetPlayTime(handle, whole)  # waits for the pass in progress
        with self._sink.lock:
            self._sink.next_index = self._sink.frame_after(whole)
        self._sink.queue.restart()

    def __iter__(self):
        return self.frames()

    def frames(self, start=None, stop=None, step=1):
        """The pictures whose time t is start <= t < stop, every `step`-th of
        them. With no start, from where the file is; with no stop, to its end."""
        if step < 1:
            raise ValueError("frames: step must be at least 1")
        first = 0 if start is None else max(0, math.ceil(start * FRAMES_PER_SECOND - 1e-9))
        end = None if stop is None else math.ceil(stop * FRAMES_PER_SECOND - 1e-9)
        if start is not None:
            self._go_to_frame(first)
        taken = 0
        try:
            while True:
                picture = self._next_picture()
                if picture is None:
                    return
                if picture.index < first:
                    continue
                if end is not None and picture.index >= end:
                    self._held = picture  # the next iteration's first
                    return
                if taken % step == 0:
                    yield picture
                taken += 1
        finally:
            self._pause()

    def _go_to_frame(self, frame):
        if frame == 0:
            self._reopen()
        else:
            # The seek lands on a second's frame and shows the one after it.
            self.seek((frame - 1) // FRAMES_PER_SECOND)

    def _next_picture(self):
        if self._held is not None:
            picture, self._held = self._held, None
            return picture
        if self._sink.index.first_key_frame() is None:
            return None  # the player would walk forever and show nothing
        if not self._playing:
            handle = self._handle()
            # A pass that ended the file may still be running; it holds the
            # player's lock, which a seek to where the player stands (a no-op)
            # waits for, so that its "not playing" cannot undo this play.
            if self._sink.queue.has_ended():
                self._lib.dll.TQ_SetPlayTime(handle, 0)
            self._sink.queue.restart()
            self._lib.dll.TQ_Play(handle, self._sink.callback, 0)
            self._playing = True
        picture = self._sink.queue.get()
        if picture is None:
            self._playing = False
        return picture

    def _pause(self):
        if self._sink.handle is not None and self._playing:
            self._lib.dll.TQ_Stop(self._sink.handle)
            self._playing = False

    def _reopen(self):
        """Back to the first frame: a new player, since a seek never shows frame 0."""
        self.close()
        self._open_player()

    def _handle(self):
        if self._sink.handle is None:
            raise TQFError(f"{self.path}: the file is closed")
        return self._sink.handle

    def close(self):
        """Ends playing and frees the player. Safe to call more than once."""
        sink = self._sink
        if sink.handle is None:
            return
        sink.queue.close()  # a callback waiting for room gives up its picture
        with self._lib.table_writer():
            self._lib.dll.TQ_CloseFile(sink.handle)
        self._lib.forget(sink)
        sink.handle = None
        self._playing = False

    def __del__(self):
        if getattr(self, "_sink", None) is not None:
            self.close()

    def __repr__(self):
        return (f"<tqfplay.File {self.path!r} {self.codec} {self.width}x{self.height} "
                f"{self.duration:.2f} s>")


def open(path):  # noqa: A001 - the package's entry point, as io.open is
    """Opens the TQF file at `path`. FileNotFoundError and the other OSErrors
    for a file that cannot be read; TQFError for one that is no TQF file or
    that the player refuses."""
    return File(path)
