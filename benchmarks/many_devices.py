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
TICKS = os.sysconf("SC_CLK_TCK")
CONNECT_BATCH = 200


def text(value):
    return struct.pack(">H", len(value)) + value


def packet(kind, body):
    length, size = b"", len(body)
    while True:
        size, digit = divmod(size, 128)
        length += bytes([digit | (0x80 if size else 0)])
        if not size:
            return bytes([kind]) + length + body


def topic(number):
    return b"sim/%05d" % number


def hello(number):
    """CONNECT with a will, and SUBSCRIBE to the requests."""
    name = topic(number)
    connect = packet(0x10, text(b"MQTT") + b"\x04\x36\x02\x58" + text(name) + text(name + b"/status")
                     + text(b'{\n  "state": 3,\n  "since": null\n}'))
    return connect + packet(0x82, b"\0\1" + text(name + b"/draw??/+") + b"\0")


def status(number):
    return packet(0x33, text(topic(number) + b"/status") + b"\0\1"
                  + b'{\n  "state": 2,\n  "since": 1700000000.5\n}')


FORWARDED_SIZE = len(status(0)) - 2  # at QoS 0, without a packet identifier
PUBACK_SIZE = 4


class Broker:
    """A mosquitto of its own."""

    def __init__(self, folder, lines="", files=None):
        with socket.socket() as free:
            free.bind(("127.0.0.1", 0))
            self.port = free.getsockname()[1]
        config = os.path.join(folder, f"{self.port}.conf")
        with open(config, "w", encoding="ascii") as file:
            file.write(f"listener {self.port} 127.0.0.1\nallow_anonymous true\nuser root\nlog_dest none\n{lines}")

        def limit():
            if files:
                resource.setrlimit(resource.RLIMIT_NOFILE, (files, files))
        self.process = subprocess.Popen(["mosquitto", "-c", config], preexec_fn=limit,
                                        stderr=subprocess.DEVNULL,
                                        env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"})
        time.sleep(1)

    def processor_seconds(self):
        with open(f"/proc/{self.process.pid}/stat", encoding="ascii") as file:
            fields = file.read().rsplit(")", 1)[1].split()
        return (int(fields[11]) + int(fields[12])) / TICKS

    def memory_kib(self):
        with open(f"/proc/{self.process.pid}/status", encoding="ascii") as file:
            return int(next(line for line in file if line.startswith("VmRSS")).split()[1])


class Fleet:
    """The devices, spread over the brokers, and the panel."""

    def __init__(self, brokers):
        self.selector = selectors.EpollSelector()
        self.devices = []
        self.acknowledged = self.forwarded = 0
        self.panel = self.connect(brokers[-1], packet(0x10, text(b"MQTT") + b"\4\2\0\0" + text(b"panel"))
                                  + packet(0x82, b"\0\1" + text(b"sim/#") + b"\0"))
        for number in range(DEVICES):
            try:
                self.devices.append(self.connect(brokers[number % len(brokers)], hello(number)))
            except OSError:
                break
            if number % CONNECT_BATCH == 0:
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
        self.acknowledged = self.forwarded = 0

    def close(self):
        for connection in (self.panel, *self.devices):
            connection.close()
        self.selector.close()

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
                self.forwarded += size / FORWARDED_SIZE
            else:
                self.acknowledged += size / PUBACK_SIZE
        return bool(events)

    def publish(self, rate):
        """For four seconds. Returns how many were sent, acknowledged, and had reached the panel by then."""
        self.acknowledged = self.forwarded = 0
        messages = [status(number) for number in range(len(self.devices))]
        start, sent = time.monotonic(), 0
        while time.monotonic() - start < STEP_SECONDS:
            due = min(int((time.monotonic() - start) * rate), sent + 2000)
            for number in range(sent, due):
                try:
                    self.devices[number % len(self.devices)].send(messages[number % len(messages)])
                except BlockingIOError:
                    pass
            sent = max(sent, due)
            self.read(0 if due < (time.monotonic() - start) * rate else 0.001)
        self.read(0)
        return sent, self.acknowledged, self.forwarded


def descriptors(folder):
    broker = Broker(folder, files=1024)
    fleet = Fleet([broker])
    print(f"with the usual limit of 1024 open files: {len(fleet.devices)} devices connect", flush=True)
    end(fleet, [broker])


def end(fleet, brokers):
    fleet.close()
    for broker in brokers:
        broker.process.kill()
        broker.process.wait()


def load(title, brokers):
    before = [broker.memory_kib() for broker in brokers]
    start = time.monotonic()
    fleet = Fleet(brokers)
    print(f"{title}: {len(fleet.devices)} devices connected in {time.monotonic() - start:.1f} s")
    for index, broker in enumerate(brokers):
        share = len(fleet.devices) / len(brokers)
        print(f"  broker {index + 1}: {(broker.memory_kib() - before[index]) / share:.1f} KiB a device")
    for rate in RATES:
        used = [broker.processor_seconds() for broker in brokers]
        own = time.process_time()
        sent, acknowledged, forwarded = fleet.publish(rate)
        load_of = [100 * (broker.processor_seconds() - seconds) / STEP_SECONDS
                   for broker, seconds in zip(brokers, used)]
        print(f"  {rate} a second: sent {100 * sent / (rate * STEP_SECONDS):.0f} %, acknowledged "
              f"{100 * acknowledged / sent:.0f} %, at the panel {100 * forwarded / sent:.0f} %; processor: "
              + ", ".join(f"broker {i + 1} {percent:.0f} %" for i, percent in enumerate(load_of))
              + f", this program {100 * (time.process_time() - own) / STEP_SECONDS:.0f} %; memory "
              + ", ".join(f"{broker.memory_kib() // 1024} MiB" for broker in brokers), flush=True)
        if min(acknowledged, forwarded, rate * STEP_SECONDS) < 0.8 * sent or sent < 0.8 * rate * STEP_SECONDS:
            break
        fleet.settle()
    end(fleet, brokers)


def main():
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with tempfile.TemporaryDirectory() as folder:
        descriptors(folder)
        load("one broker", [Broker(folder)])
        first = Broker(folder)
        bridge = f"connection site\naddress 127.0.0.1:{first.port}\ntopic sim/# both 1\nnotifications false\n"
        load("two brokers", [first, Broker(folder, bridge)])


if __name__ == "__main__":
    main()
