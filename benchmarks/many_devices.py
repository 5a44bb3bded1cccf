#!/usr/bin/env python3
"""10,000 simulated devices at one mosquitto, and at two that a bridge joins: what reaches its limit first?

Usage: benchmarks/many_devices.py [DEVICES]

Each device has a connection with a will, a subscription for requests, and a retained status, which it
publishes at QoS 1 at a rate that doubles every four seconds. A panel at the last broker subscribes to
everything. A rate is too high when a fifth of its publications is not acknowledged or has not reached the
panel in time. Processor time and memory are the broker's own, from /proc. Needs a hard limit of
DEVICES + 100 open files.
"""

import os
import pathlib
import resource
import selectors
import socket
import struct
import subprocess
import sys
import tempfile
import time

DEVICES = int(sys.argv[1]) if len(sys.argv) > 1 else 10000
STEP_SECONDS = 4
RATES = [1000 * 2**i for i in range(8)]
PUBACK_SIZE = 4


def text(value):
    return struct.pack(">H", len(value)) + value


def packet(kind, body):
    return bytes([kind, len(body)]) + body # none is longer than 127 bytes


def hello(name, flags, will, subscription):
    """CONNECT and SUBSCRIBE."""
    return (packet(0x10, text(b"MQTT") + bytes([4, flags]) + b"\x02\x58" + text(name) + will)
            + packet(0x82, b"\0\1" + text(subscription) + b"\0"))


def hello_of_device(number):
    name = b"sim/%05d" % number
    will = text(name + b"/status") + text(b'{\n  "state": 3,\n  "since": null\n}')
    return hello(name, 0x36, will, name + b"/draw??/+")


def status(number):
    return packet(0x33, text(b"sim/%05d/status" % number) + b"\0\1"
                  + b'{\n  "state": 2,\n  "since": 1700000000.5\n}')


class Broker:
    """A mosquitto of its own."""

    def __init__(self, folder, lines="", files=None):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = free.getsockname()[1]
        config = pathlib.Path(folder, f"{self.port}.conf")
        config.write_text(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nuser root\nlog_dest none\n{lines}")
        limit = ["prlimit", f"--nofile={files}"] if files else []
        self.process = subprocess.Popen([*limit, "mosquitto", "-c", config], stderr=subprocess.DEVNULL,
                                        env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"})
        time.sleep(1)
        self.proc = pathlib.Path("/proc", str(self.process.pid))

    def processor_seconds(self):
        fields = (self.proc / "stat").read_text().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")

    def memory_kib(self):
        lines = (self.proc / "status").read_text().splitlines()
        return int(next(line for line in lines if line.startswith("VmRSS")).split()[1])


class Fleet:
    """The devices, spread over the brokers, and the panel."""

    def __init__(self, brokers):
        self.selector = selectors.EpollSelector()
        self.devices = []
        self.acknowledged = self.forwarded = 0
        self.panel = self.connect(brokers[-1], hello(b"panel", 2, b"", b"sim/#"))
        for number in range(DEVICES):
            try:
                self.devices.append(self.connect(brokers[number % len(brokers)], hello_of_device(number)))
            except OSError:
                break
            if number % 200 == 0:
                self.read(0)
        self.settle()

    def connect(self, broker, greeting):
        connection = socket.create_connection(("127.0.0.1", broker.port), timeout=5)
        connection.sendall(greeting)
        if not connection.recv(4): # CONNACK
            raise OSError("closed by the broker")
        connection.setblocking(False)
        self.selector.register(connection, selectors.EVENT_READ)
        return connection

    def settle(self):
        """Reads until nothing has come for half a second."""
        while self.read(0.5):
            pass

    def read(self, timeout):
        events = self.selector.select(timeout)
        for key, _ in events:
            try:
                size = len(key.fileobj.recv(1 << 18))
            except OSError:
                continue
            if size == 0: # closed by the broker
                self.selector.unregister(key.fileobj)
            elif key.fileobj is self.panel:
                self.forwarded += size / (len(status(0)) - 2) # at QoS 0, without a packet identifier
            else:
                self.acknowledged += size / PUBACK_SIZE
        return bool(events)

    def publish(self, rate):
        """For four seconds. Returns how many were sent, acknowledged, and had reached the panel by then."""
        self.acknowledged = self.forwarded = 0
        messages = [status(number) for number in range(len(self.devices))]
        start, sent, passed = time.monotonic(), 0, 0
        while passed < STEP_SECONDS:
            due = max(sent, min(int(passed * rate), sent + 2000))
            for number in range(sent, due):
                try:
                    self.devices[number % len(self.devices)].send(messages[number % len(messages)])
                except BlockingIOError:
                    pass
            sent, passed = due, time.monotonic() - start
            self.read(0 if due < passed * rate else 0.001)
        self.read(0)
        return sent, self.acknowledged, self.forwarded

    def close(self, brokers):
        for connection in (self.panel, *self.devices):
            connection.close()
        self.selector.close()
        for broker in brokers:
            broker.process.kill()
            broker.process.wait()


def load(title, brokers):
    before = [broker.memory_kib() for broker in brokers]
    start = time.monotonic()
    fleet = Fleet(brokers)
    memory = (f"{(broker.memory_kib() - kib) * len(brokers) / len(fleet.devices):.1f}"
              for broker, kib in zip(brokers, before))
    print(f"{title}: {len(fleet.devices)} devices connected in {time.monotonic() - start:.1f} s; "
          f"KiB of a broker for each of its devices: {', '.join(memory)}")
    for rate in RATES:
        used = [broker.processor_seconds() for broker in brokers]
        own = time.process_time()
        sent, acknowledged, forwarded = fleet.publish(rate)
        used = [f"{100 * (broker.processor_seconds() - seconds) / STEP_SECONDS:.0f} %"
                for broker, seconds in zip(brokers, used)]
        own = time.process_time() - own
        print(f"  {rate} a second: sent {100 * sent / (rate * STEP_SECONDS):.0f} %, acknowledged "
              f"{100 * acknowledged / sent:.0f} %, at the panel {100 * forwarded / sent:.0f} %; processor of each "
              f"broker {', '.join(used)}, of this program {100 * own / STEP_SECONDS:.0f} %; memory "
              + ", ".join(f"{broker.memory_kib() // 1024} MiB" for broker in brokers), flush=True)
        if min(acknowledged, forwarded) < 0.8 * sent or sent < 0.8 * rate * STEP_SECONDS:
            break
        fleet.settle()
    fleet.close(brokers)


def main():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with tempfile.TemporaryDirectory() as folder:
        limited = Broker(folder, files=1024)
        fleet = Fleet([limited])
        print(f"with the usual limit of 1024 open files: {len(fleet.devices)} devices connect", flush=True)
        fleet.close([limited])
        load("one broker", [Broker(folder)])
        first = Broker(folder)
        bridge = f"connection site\naddress 127.0.0.1:{first.port}\ntopic sim/# both 1\nnotifications false\n"
        load("two brokers", [first, Broker(folder, bridge)])


if __name__ == "__main__":
    main()
