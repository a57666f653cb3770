"""The package's exception, and what its players share."""


class TQFError(Exception):
    """A TQF file, stream or recording the library refused or cannot serve."""


class ClosedOnExit:
    """A player as a context manager: `with` closes it."""

    def __enter__(self):
        return self

    def __exit__(self, *_exception):
        self.close()
