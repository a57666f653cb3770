"""From the library's threads to the Python thread: a bounded queue of
pictures that the picture callback fills and the iteration empties.

The callback runs on a thread of the library. When the queue is full it waits
for room, which for a file slows the player down (it decodes the next frame
only after the callback returns) and for a stream leaves frames in the
library's queue, where its own rule drops the oldest. Closing or discarding
wakes a waiting callback, which then drops its picture, so that a close (which
waits for the callback in progress) can never wait for the consumer.
"""

import collections
import threading

QUEUE_PICTURES = 8


class PictureQueue:
    def __init__(self, must_give_way, capacity=QUEUE_PICTURES):
        self._must_give_way = must_give_way  # true while the callback must not wait
        self._capacity = capacity
        self._cond = threading.Condition()
        # Guarded by _cond:
        self._items = collections.deque()
        self._ended = False  # no picture will come until restart()
        self._closed = False  # none will ever come; put() drops
        self._accepting = True  # false while a seek is under way: put() drops

    def put(self, picture):
        """From the callback: waits for room; False when the picture was dropped."""
        with self._cond:
            while (len(self._items) >= self._capacity and self._accepting and not self._closed
                   and not self._must_give_way()):
                self._cond.wait()
            if self._closed or not self._accepting:
                return False
            self._items.append(picture)
            self._cond.notify_all()
            return True

    def get(self, timeout=None):
        """The next picture, or None once ended (or when `timeout` passes)."""
        with self._cond:
            self._cond.wait_for(lambda: self._items or self._ended or self._closed, timeout)
            if not self._items:
                return None
            picture = self._items.popleft()
            self._cond.notify_all()
            return picture

    def end(self):
        with self._cond:
            self._ended = True
            self._cond.notify_all()

    def discard(self):
        """Drops what is queued and whatever the callback brings until restart()."""
        with self._cond:
            self._accepting = False
            self._items.clear()
            self._cond.notify_all()

    def has_ended(self):
        with self._cond:
            return self._ended

    def wake(self):
        """Makes a waiting callback look at its conditions again."""
        with self._cond:
            self._cond.notify_all()

    def restart(self):
        with self._cond:
            self._accepting, self._ended = True, False

    def close(self):
        with self._cond:
            self._closed = True
            self._items.clear()
            self._cond.notify_all()
