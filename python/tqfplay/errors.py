"""The package's exception."""


class TQFError(Exception):
    """A TQF file, stream or recording the library refused or cannot serve."""
