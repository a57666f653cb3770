#!/usr/bin/python3
"""A camera for the tests: an RTSP server on loopback serving H.264 at
rtsp://127.0.0.1:PORT/cam. Prints the port it listens on, then serves until
killed or until its standard input closes."""
import sys
import threading

import gi

gi.require_version("Gst", "1.0")
gi.require_version("GstRtspServer", "1.0")
from gi.repository import GLib, Gst, GstRtspServer  # noqa: E402

CAMERA = ("( videotestsrc is-live=true pattern=ball ! "
          "video/x-raw,format=I420,width=320,height=240,framerate=25/1 ! "
          "x264enc speed-preset=ultrafast key-int-max=25 bframes=0 sliced-threads=false ! "
          "rtph264pay name=pay0 pt=96 config-interval=-1 )")


def main():
    Gst.init(None)
    server = GstRtspServer.RTSPServer()
    server.set_address("127.0.0.1")
    server.set_service("0")  # any free port
    factory = GstRtspServer.RTSPMediaFactory()
    factory.set_launch(CAMERA)
    factory.set_shared(True)
    server.get_mount_points().add_factory("/cam", factory)
    server.attach(None)
    print(server.get_bound_port(), flush=True)
    loop = GLib.MainLoop()
    # The test holds our standard input: when it goes, so do we.
    threading.Thread(target=lambda: (sys.stdin.read(), loop.quit()), daemon=True).start()
    loop.run()


if __name__ == "__main__":
    main()
