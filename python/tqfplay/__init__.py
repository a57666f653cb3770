"""TQF recordings and live streams as numpy pictures, over libTQFPlay.so.

    import tqfplay
    with tqfplay.open("camera.tqf") as f:
        for picture in f.frames(start=10, stop=20):
            gray = picture.y              # numpy, height x width
            rgb = picture.to_rgb()        # for matplotlib; to_bgr() for OpenCV

    stream = tqfplay.connect("tcp://camera:9000/1")
    for picture in stream: ...

Pictures arrive on the library's threads and reach the caller's thread through a
bounded queue: a slow consumer slows a file down, and on a live stream the
library drops the oldest frames. The library's debug lines go to the `tqfplay`
logger.
"""

from .connect import connect
from .errors import TQFError
from .file import File, open  # noqa: A004 - tqfplay.open, as io.open
from .picture import Picture
from .stream import Stream

__all__ = ["File", "Picture", "Stream", "TQFError", "connect", "open"]
__version__ = "0.1.0"
