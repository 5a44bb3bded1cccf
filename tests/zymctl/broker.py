"""Programs that the tests of zymctl start, and what they print."""

import fcntl
import json
import os
import pty
import re
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import termios
import time

ZYMCTL = os.environ["ZYMCTL"]
LIMIT = 60  # seconds, so generous that only a defect reaches it


def wait_until(condition, what):
    """Returns the first true value of the condition."""
    end = time.monotonic() + LIMIT
    while time.monotonic() < end:
        value = condition()
        if value:
            return value
        select.select([], [], [], 0.01)  # between two looks
    raise AssertionError("in vain: " + what)


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


class Broker:
    """A mosquitto on a port of the loopback address."""

    def __init__(self, *lines):
        self.folder = tempfile.mkdtemp()
        self.lines = lines
        self.port = None
        self.start()

    def start(self):
        """On the same port as before; the first time on a free one, which another may take first."""
        self.log = os.path.join(self.folder, "log")
        path = os.path.join(self.folder, "mosquitto.conf")
        for _ in range(1 if self.port else 20):
            port = self.port or free_port()
            with open(path, "w") as file:
                file.write("\n".join([f"listener {port} 127.0.0.1", f"user {os.environ.get('USER', 'root')}",
                                      "allow_anonymous true", "log_type all",
                                      "max_packet_size 2000000",  # as version 2.1 has it by itself
                                      *self.lines]) + "\n")
            with open(self.log, "w") as log:
                self.process = subprocess.Popen([os.environ["MOSQUITTO"], "-c", path], stdout=log, stderr=log)
            wait_until(lambda: " running" in self.logged() or self.process.poll() is not None, "the broker starts")
            if self.process.poll() is None:
                self.port = port
                return
        raise AssertionError("no broker: " + self.logged())

    def logged(self, since=0):
        """The log; its length is where a later look may begin."""
        with open(self.log, errors="replace") as log:
            return log.read()[since:]

    def kill(self):
        self.process.kill()
        self.process.wait()

    def close(self):
        self.kill()
        shutil.rmtree(self.folder)


class Zymctl:
    """One run, in a pipe or on a pseudo-terminal of its own, from which Ctrl-C comes."""

    def __init__(self, *arguments, port=None, terminal=False, **variables):
        environment = {name: value for name, value in os.environ.items()
                       if not name.startswith("ZYMCTL_") and name != "NO_COLOR"}
        environment.update({"ZYMCTL_HOST": "127.0.0.1", "ZYMCTL_PORT": str(port or 1),
                            "ZYMCTL_TIMEOUT": str(LIMIT), **variables})
        self.terminal = terminal
        self.text = b""
        self.errors = tempfile.TemporaryFile()
        self.output, end = pty.openpty() if terminal else os.pipe()
        streams = {"stdin": end, "stderr": end} if terminal else {"stdin": subprocess.DEVNULL, "stderr": self.errors}
        # Without a terminal of its own, Ctrl-C would not come from there.
        own = (lambda: fcntl.ioctl(0, termios.TIOCSCTTY, 0)) if terminal else None
        self.process = subprocess.Popen([ZYMCTL, *arguments], env=environment, stdout=end, start_new_session=terminal,
                                        preexec_fn=own, **streams)
        os.close(end)

    def read(self):
        """What has come; false at the end."""
        if select.select([self.output], [], [], 0.01)[0]:
            try:
                part = os.read(self.output, 65536)
            except OSError:  # a terminal without a program
                part = b""
            self.text += part
            return bool(part)
        return True

    def expect(self, pattern, more=lambda: ""):
        """Waits for it in the output, or else in more text."""
        wait_until(lambda: (self.read() or True) and re.search(pattern, self.everything() + more()), pattern)

    def everything(self):
        self.errors.seek(0)
        return (self.text + self.errors.read()).decode(errors="replace").replace("\r\n", "\n")

    def interrupt(self):
        if self.terminal:
            os.write(self.output, b"\x03")
        else:
            self.process.send_signal(signal.SIGINT)

    def kill(self):
        self.process.kill()
        self.process.wait()

    def end(self):
        """Reads to the end; the exit code."""
        wait_until(lambda: not self.read(), "the end of " + self.everything())
        os.close(self.output)
        self.code = self.process.wait()
        return self.code

    def objects(self):
        return [json.loads(line) for line in self.text.decode().splitlines() if line.startswith("{")]


def zymctl(*arguments, **options):
    run = Zymctl(*arguments, **options)
    run.end()
    return run
