"""What the package reads of TQF bytes itself: the header block and the frame
index of a file. The library's exports give neither the picture size before the
first picture nor a frame count, a frame's number or its key flag, so the
package indexes a file the way the library's reader does: records stepped over
by their lengths, then frames found by their sync word and stepped over by their
payload length; garbage is skipped to the next sync word, and a frame is indexed
only when at least one byte of the file follows it.
"""

import mmap
import struct
from array import array

from .errors import TQFError

FRAME_SYNC = b"\x55\xaa\xa5\x5a"
FRAME_HEAD = 12  # sync, info, stamp
MAX_RECORDS = 16
KEY_FLAG = 0x100
VIDEO_STREAM = 0
FRAMES_PER_SECOND = 25
KNOWN_CODECS = ("H264", "G264", "H265", "HEVC", "AVS0", "JPEG")


def fourcc(value):
    return struct.pack("<I", value).decode("latin-1")


def header_block_size(first_eight):
    """The size of the header block whose first eight bytes are given."""
    if len(first_eight) < 8 or first_eight[:4] != b"TQF0":
        raise TQFError("not a TQF stream: no \"TQF0\" header")
    return struct.unpack_from("<I", first_eight, 4)[0] + 8


class FileIndex:
    """Record 0 and the video frames of a TQF file."""

    def __init__(self, path):
        with open(path, "rb") as f:
            try:
                view = mmap.mmap(f.fileno(), 0, prot=mmap.PROT_READ)
            except ValueError:  # an empty file cannot be mapped
                raise TQFError(f"{path}: not a TQF file (empty)") from None
        with view:
            self._read_header(view, path)
            self._index_frames(view)

    def _read_header(self, view, path):
        size = len(view)
        count = struct.unpack_from("<I", view, 12)[0] if size >= 16 else 0
        if not 1 <= count <= MAX_RECORDS:
            raise TQFError(f"{path}: not a TQF file")
        position = 16
        for number in range(count):
            if position + 8 > size:
                raise TQFError(f"{path}: not a TQF file (its header is cut short)")
            kind, length = struct.unpack_from("<II", view, position)
            if number == 0:
                if length not in (40, 44) or position + 8 + length > size:
                    raise TQFError(f"{path}: not a TQF file (no video record)")
                self.codec = fourcc(kind)
                self.width, self.height = struct.unpack_from("<ii", view, position + 12)
            position += 8 + length
        self.frames_start = position

    def _index_frames(self, view):
        self.stamps = array("I")
        self.keys = array("B")
        size, position = len(view), self.frames_start
        while True:
            if view[position:position + 4] != FRAME_SYNC:
                position = view.find(FRAME_SYNC, position)
                if position < 0:
                    return
            position += 4
            if position + 8 > size:
                return
            info, stamp = struct.unpack_from("<II", view, position)
            position += 8 + (info >> 12)
            if position >= size:
                return
            if info & 0xF == VIDEO_STREAM:
                self.stamps.append(stamp)
                self.keys.append(1 if info & KEY_FLAG else 0)

    @property
    def frame_count(self):
        return len(self.stamps)

    def first_key_frame(self):
        """The number of the first key frame, or None."""
        try:
            return self.keys.index(1)
        except ValueError:
            return None
