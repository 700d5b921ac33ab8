"""A pseudo terminal for a program that wants one."""

from __future__ import annotations

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time
import unittest
from collections.abc import Sequence
from typing import Any

DEADLINE = 30
NO_TERMINAL = "no terminal can be had here"


class Terminal:
    """Runs a program with a controlling terminal of its own, 80 columns wide.

    Where no terminal can be had, as in some containers, the test is skipped.
    streams: which of 0, 1 and 2 are the terminal; the others are what `options` says.
    """

    def __init__(self, command: Sequence[str], streams: Sequence[int] = (0, 1, 2), columns: int = 80,
                 **options: Any) -> None:
        try:
            self._master, slave = pty.openpty()
            fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        except OSError as error:
            raise unittest.SkipTest(f"{NO_TERMINAL}: {error}") from error
        names = ("stdin", "stdout", "stderr")
        options = {name: subprocess.DEVNULL for name in names} | {names[number]: slave for number in streams} | options
        # The slave stays open here: its settings outlive the program, to be looked at.
        self._slave = slave
        self.shown = b""
        self.process = subprocess.Popen(
            command, start_new_session=True, preexec_fn=lambda: fcntl.ioctl(slave, termios.TIOCSCTTY, 0),
            pass_fds=(slave,), **options)

    def __enter__(self) -> Terminal:
        return self

    def __exit__(self, *_: object) -> None:
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            if stream:
                stream.close()
        os.close(self._slave)
        os.close(self._master)

    def echoes(self) -> bool:
        return bool(termios.tcgetattr(self._slave)[3] & termios.ECHO)

    def type(self, text: bytes) -> None:
        os.write(self._master, text)

    def read(self, timeout: float) -> bool:
        """Takes over what was shown within the time; false when there was nothing."""
        ready, _, _ = select.select([self._master], [], [], timeout)
        if ready:
            self.shown += os.read(self._master, 65536)
        return bool(ready)

    def wait_for(self, pattern: bytes) -> None:
        end = time.monotonic() + DEADLINE
        while not re.search(pattern, self.shown):
            if time.monotonic() > end:
                raise AssertionError(f"{pattern!r} does not show in {self.shown!r}")
            self.read(0.1)

    def wait_without_echo(self) -> None:
        end = time.monotonic() + DEADLINE
        while self.echoes():
            if time.monotonic() > end:
                raise AssertionError("the terminal still echoes")
            self.read(0.05)

    def finish(self) -> int:
        """Waits for the end and takes over the rest of what was shown; gives the exit status."""
        end = time.monotonic() + DEADLINE
        while self.process.poll() is None:
            if time.monotonic() > end:
                self.process.send_signal(signal.SIGKILL)
                raise AssertionError(f"it does not end; it shows {self.shown!r}")
            self.read(0.05)
        while self.read(0):
            pass
        return self.process.returncode
