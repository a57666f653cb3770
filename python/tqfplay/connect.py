"""A Stream fed from a served camera (tcp://HOST:PORT/N, as `tqfplay serve`
gives) or from any iterable of bytes, by a thread of its own."""

import socket
import threading
import urllib.parse

from ._container import header_block_size
from .errors import TQFError
from .stream import Stream

DEFAULT_PORT = 9000
READ_BYTES = 65536
HEAD_LIMIT = 4096


class _Reader:
    """Bytes from a source, with what was read past the header kept aside."""

    def __init__(self, chunks):
        self._chunks, self._spare = chunks, b""

    def take(self, size):
        """Exactly `size` bytes; TQFError if the source ends first."""
        while len(self._spare) < size:
            chunk = next(self._chunks, b"")
            if not chunk:
                raise TQFError(f"the source ended within its first {size} bytes")
            self._spare += bytes(chunk)
        taken, self._spare = self._spare[:size], self._spare[size:]
        return taken

    def rest(self):
        if self._spare:
            yield self._spare
        yield from self._chunks


def _socket_chunks(url, timeout):
    parts = urllib.parse.urlsplit(url)
    if parts.scheme not in ("tcp", "http") or not parts.hostname:
        raise TQFError(f"{url}: not a tcp://HOST:PORT[/N] address")
    port = parts.port or (DEFAULT_PORT if parts.scheme == "tcp" else 80)
    connection = socket.create_connection((parts.hostname, port), timeout=timeout)
    connection.settimeout(None)
    connection.sendall(f"GET {parts.path or '/'} HTTP/1.0\r\n\r\n".encode())
    head = b""
    while b"\r\n\r\n" not in head:
        chunk = connection.recv(1)  # byte by byte: the frames that follow stay unread
        if not chunk or len(head) > HEAD_LIMIT:
            connection.close()
            raise TQFError(f"{url}: no answer from a TQF camera")
        head += chunk
    status = head.split(b"\r\n", 1)[0].decode("latin-1")
    if status.split(" ")[1:2] != ["200"]:
        connection.close()
        raise TQFError(f"{url}: {status}")

    def chunks():
        with connection:
            while True:
                try:
                    data = connection.recv(READ_BYTES)
                except OSError:
                    return
                if not data:
                    return
                yield data

    return chunks(), connection


def connect(source, timeout=10.0):
    """A Stream fed, on a thread of its own, from `source`: a "tcp://HOST:PORT/N"
    address (or http://) or an iterable of bytes that starts with the header
    block. The stream is finished when the source ends; closing the stream
    ends the feeding."""
    connection = None
    if isinstance(source, str):
        chunks, connection = _socket_chunks(source, timeout)
    else:
        chunks = iter(source)
    reader = _Reader(chunks)
    try:
        first = reader.take(8)
        stream = Stream(first + reader.take(header_block_size(first) - 8))
    except BaseException:
        if connection is not None:
            connection.close()
        raise

    def feed():
        try:
            for chunk in reader.rest():
                stream.feed(chunk)
        except TQFError:
            return  # closed under the feeder
        stream.finish()

    feeder = threading.Thread(target=feed, name="tqfplay-connect", daemon=True)
    if connection is not None:
        def stop_feeder():
            try:
                connection.shutdown(socket.SHUT_RDWR)  # ends the feeder's recv
            except OSError:
                pass
            if feeder is not threading.current_thread():
                feeder.join()
        stream._on_close.append(stop_feeder)
    feeder.start()
    return stream
