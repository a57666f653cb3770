"""A decoded picture, copied out of the library's buffer."""

import ctypes

import numpy as np

FRAME_SECONDS = 0.04  # every time of the library counts 40 ms a frame


class Picture:
    """One picture: planar I420 as three numpy arrays.

    `y` is height x width, `u` and `v` height/2 x width/2, all uint8 views of
    one buffer of width * height * 3 / 2 bytes (`data`). `index` is the frame's
    number among the video frames of a file (None on a live stream), `stamp`
    the frame's stamp word as the source wrote it, `time` the index in seconds
    at 25 frames a second.
    """

    __slots__ = ("data", "width", "height", "stamp", "index", "y", "u", "v")

    def __init__(self, data, width, height, stamp, index=None):
        self.data, self.width, self.height = data, width, height
        self.stamp, self.index = stamp, index
        luma = width * height
        self.y = data[:luma].reshape(height, width)
        self.u = data[luma:luma * 5 // 4].reshape(height // 2, width // 2)
        self.v = data[luma * 5 // 4:].reshape(height // 2, width // 2)

    @classmethod
    def copied_from(cls, pointer, size, width, height, stamp, index=None):
        """A picture that owns a copy of `size` bytes at `pointer`."""
        data = np.empty(size, dtype=np.uint8)
        ctypes.memmove(data.ctypes.data, pointer, size)
        return cls(data, width, height, stamp, index)

    @property
    def time(self):
        return None if self.index is None else self.index * FRAME_SECONDS

    def to_rgb(self):
        """height x width x 3 uint8, BT.601 limited range, chroma repeated 2x2."""
        return self._convert(red_first=True)

    def to_bgr(self):
        """As to_rgb, in OpenCV's channel order."""
        return self._convert(red_first=False)

    def _convert(self, red_first):
        c = (self.y.astype(np.int32) - 16) * 298 + 128
        d = np.repeat(np.repeat(self.u.astype(np.int32) - 128, 2, axis=0), 2, axis=1)
        e = np.repeat(np.repeat(self.v.astype(np.int32) - 128, 2, axis=0), 2, axis=1)
        red = (c + 409 * e) >> 8
        green = (c - 100 * d - 208 * e) >> 8
        blue = (c + 516 * d) >> 8
        channels = (red, green, blue) if red_first else (blue, green, red)
        return np.clip(np.dstack(channels), 0, 255).astype(np.uint8)

    def __repr__(self):
        where = f"index={self.index}, " if self.index is not None else ""
        return f"<Picture {self.width}x{self.height} {where}stamp={self.stamp}>"
