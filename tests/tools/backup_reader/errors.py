"""The one kind of failure of the reader."""


class BackupError(Exception):
    """A backup, or one entry of it, that cannot be read; the message says why."""
