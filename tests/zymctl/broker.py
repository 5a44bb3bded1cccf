"""Programs that the tests of zymctl start, and what they print."""

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
        self.seen = 0  # of the log
        self.start()

    def start(self):
        """On the same port as before; the first time on a free one, which another may take first."""
        for _ in range(1 if self.port else 20):
            port = self.port or free_port()
            path = os.path.join(self.folder, "mosquitto.conf")
            with open(path, "w") as file:
                file.write("\n".join([f"listener {port} 127.0.0.1", f"user {os.environ.get('USER', 'root')}",
                                      "allow_anonymous true", "log_type all", *self.lines]) + "\n")
            self.log = os.path.join(self.folder, "log")
            with open(self.log, "w") as log:
                self.process = subprocess.Popen([os.environ["MOSQUITTO"], "-c", path], stdout=log, stderr=log)
            wait_until(lambda: self.logged(" running") or self.process.poll() is not None, "the broker starts")
            if self.process.poll() is None:
                self.port = port
                return
        raise AssertionError("no broker: " + open(self.log).read())

    def logged(self, text):
        with open(self.log, errors="replace") as log:
            return text in log.read()

    def forget_log(self):
        self.seen = os.path.getsize(self.log)

    def new_log(self):
        with open(self.log, "rb") as log:
            log.seek(self.seen)
            return log.read().decode(errors="replace")

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
        self.code = None
        self.errors = tempfile.TemporaryFile()
        if terminal:
            self.pid, self.output = pty.fork()
            if self.pid == 0:
                os.execve(ZYMCTL, [ZYMCTL, *arguments], environment)
        else:
            process = subprocess.Popen([ZYMCTL, *arguments], env=environment, stdin=subprocess.DEVNULL,
                                       stdout=subprocess.PIPE, stderr=self.errors)
            self.process, self.pid, self.output = process, process.pid, process.stdout.fileno()

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

    def expect(self, pattern):
        wait_until(lambda: (self.read() or True) and re.search(pattern, self.everything()), pattern)

    def everything(self):
        self.errors.seek(0)
        return (self.text + self.errors.read()).decode(errors="replace").replace("\r\n", "\n")

    def interrupt(self):
        if self.terminal:
            os.write(self.output, b"\x03")
        else:
            os.kill(self.pid, signal.SIGINT)

    def close_output(self):
        self.process.stdout.close()

    def wait(self):
        return os.waitstatus_to_exitcode(os.waitpid(self.pid, 0)[1])

    def end(self):
        """Reads to the end; the exit code."""
        wait_until(lambda: not self.read(), "the end of " + self.everything())
        self.code = self.wait()
        if not self.terminal:
            self.process.returncode = self.code
            self.process.stdout.close()
        else:
            os.close(self.output)
        return self.code

    def objects(self):
        return [json.loads(line) for line in self.text.decode().splitlines() if line.startswith("{")]


def zymctl(*arguments, **options):
    run = Zymctl(*arguments, **options)
    run.end()
    return run
