"""Loading libTQFPlay.so and the process-wide hooks every player shares.

The library is found, in this order: at TQFPLAY_LIBRARY; beside this package
(where `pip install ./python` copies it); where `make install` put it (noted in
_installed.py at install time); in the build folder of a checkout; by the
dynamic loader's own search.

The library's debug lines go to the `tqfplay` logger. One of them tells that a
file player has played its last frame ("PostMessage(): wnd=0, msg=0"); it is
written on that player's own thread, the one that delivers its pictures, so
the line is routed to the player whose picture that thread delivered last.
"""

import atexit
import contextlib
import ctypes
import logging
import os
import threading
import weakref
from pathlib import Path

from ._delivery import PictureQueue
from .errors import TQFError

logger = logging.getLogger("tqfplay")

LIBRARY_NAME = "libTQFPlay.so.1"
END_OF_FILE_LINE = "PostMessage(): wnd=0, msg=0"

PICTURE_CALLBACK = ctypes.CFUNCTYPE(
    ctypes.c_int32, ctypes.c_int32, ctypes.POINTER(ctypes.c_uint8), ctypes.c_int32,
    ctypes.c_int32, ctypes.c_int32, ctypes.c_uint32, ctypes.c_int32, ctypes.c_int32,
    ctypes.c_uint32)
DEBUG_SINK = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_void_p)

_HANDLE = ctypes.c_int32
_PROTOTYPES = {
    "TQ_Initial": [],
    "TQ_OpenFile": [ctypes.c_char_p, ctypes.POINTER(_HANDLE)],
    "TQ_CloseFile": [_HANDLE],
    "TQ_GetFileTime": [_HANDLE, ctypes.POINTER(ctypes.c_uint32)],
    "TQ_OpenStream": [ctypes.c_char_p, ctypes.c_uint32, ctypes.POINTER(_HANDLE)],
    "TQ_CloseStream": [_HANDLE],
    "TQ_InputData": [_HANDLE, ctypes.c_char_p, ctypes.c_int32],
    "TQ_Play": [_HANDLE, PICTURE_CALLBACK, ctypes.c_uint32],
    "TQ_Stop": [_HANDLE],
    "TQ_SetPlayTime": [_HANDLE, ctypes.c_int32],
    "TQ_GetPlayTime": [_HANDLE, ctypes.POINTER(ctypes.c_uint32)],
    "TQ_StartRecord": [_HANDLE, ctypes.c_char_p],
    "TQ_StopRecord": [_HANDLE],
    "TQ_SetDebugSink": [DEBUG_SINK, ctypes.c_void_p],
}


def _candidates():
    if os.environ.get("TQFPLAY_LIBRARY"):
        yield Path(os.environ["TQFPLAY_LIBRARY"])
        return
    here = Path(__file__).resolve().parent
    yield here / LIBRARY_NAME
    try:
        from ._installed import LIBRARY  # written by `make install`
        yield Path(LIBRARY)
    except ImportError:
        pass
    yield here.parent.parent / "build" / LIBRARY_NAME
    yield Path(LIBRARY_NAME)  # the loader's search


def _load():
    tried = []
    for path in _candidates():
        if path.parent != Path(".") and not path.exists():
            tried.append(str(path))
            continue
        try:
            return ctypes.CDLL(str(path))
        except OSError as error:
            tried.append(f"{path} ({error})")
    raise TQFError("libTQFPlay.so not found; looked at " + ", ".join(tried) +
                   "; set TQFPLAY_LIBRARY to its path")


class _Library:
    """The loaded library, its prototypes, and the routing of end-of-file lines."""

    def __init__(self):
        self.dll = _load()
        for name, arguments in _PROTOTYPES.items():
            function = getattr(self.dll, name)
            function.argtypes = arguments
            function.restype = ctypes.c_int32
        self._lock = threading.Lock()  # guards the four below
        self._last_player = {}  # delivering thread -> the player it served last
        self._unplaced = set()  # file players that have delivered nothing yet
        self._queues = weakref.WeakSet()  # every player's picture queue
        self._table_writers = 0  # threads in an open or a close
        self._open = weakref.WeakSet()  # Files and Streams not yet closed
        self._sink = DEBUG_SINK(self._on_debug_line)  # kept alive with the library
        self.dll.TQ_SetDebugSink(self._sink, None)
        self.dll.TQ_Initial()
        atexit.register(self._close_all)

    def opened(self, player):
        """Notes a File or Stream to close at exit. A callback that comes once
        the interpreter is finalising can never take the GIL again, and a close
        then would wait for it forever: so every player closes before that."""
        with self._lock:
            self._open.add(player)

    def _close_all(self):
        with self._lock:
            players = list(self._open)
        for player in players:
            player.close()

    def _on_debug_line(self, line, _context):
        text = line.decode("utf-8", "replace").rstrip("\n")
        logger.debug("%s", text)
        if text != END_OF_FILE_LINE:
            return
        with self._lock:
            player = self._last_player.get(threading.get_ident())
            # A player that never delivered cannot be told by its thread; with
            # one such player playing (the usual case) the line is its own.
            targets = [player] if player is not None else list(self._unplaced)
        for target in targets:
            target._on_end()

    def new_queue(self):
        queue = PictureQueue(self.table_writer_waits)
        with self._lock:
            self._queues.add(queue)
        return queue

    def table_writer_waits(self):
        return self._table_writers > 0

    @contextlib.contextmanager
    def table_writer(self):
        """Around an open or a close, which waits for the library's player
        table. A file's callback runs while it holds that table, so every
        callback waiting for room in its queue must give way (its queue takes
        the picture beyond its bound) or the open would wait for a consumer
        that may be this very thread."""
        with self._lock:
            self._table_writers += 1
            queues = list(self._queues)
        for queue in queues:
            queue.wake()
        try:
            yield
        finally:
            with self._lock:
                self._table_writers -= 1

    def delivered_by_this_thread(self, player):
        """Notes, from a picture callback, which player this thread serves."""
        ident = threading.get_ident()
        if self._last_player.get(ident) is not player:
            with self._lock:
                self._last_player[ident] = player
                self._unplaced.discard(player)

    def watch_for_end(self, player):
        with self._lock:
            self._unplaced.add(player)

    def forget(self, player):
        with self._lock:
            self._unplaced.discard(player)
            for ident in [i for i, p in self._last_player.items() if p is player]:
                del self._last_player[ident]


_instance = None
_instance_lock = threading.Lock()


def library():
    """The library, loaded and initialised on first use."""
    global _instance
    with _instance_lock:
        if _instance is None:
            _instance = _Library()
        return _instance
