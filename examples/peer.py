#!/usr/bin/python3
"""A peer of libzym-mqtt in Python, with paho-mqtt 1.6 or 2. docs/wire-format.md describes the messages.

    peer.py localhost:1883 device plant/tank      what the other commands need, until its input ends
    peer.py localhost:1883 discover plant/tank
    peer.py localhost:1883 read plant/tank/status
    peer.py localhost:1883 call plant/tank/double '{"number": 21}'
"""
import base64
import json
import queue
import sys
import threading
import time
import uuid

import paho.mqtt.client as mqtt

TIMEOUT_S = 5
DISCONNECTED, CONNECTED, CONNECTION_LOST = 1, 2, 3  # states of a communication status
SUCCESS, TOO_LARGE = 1, 17  # codes of a reply; those of a service begin at 16


def level(identifier):
    """An identifier as one level of a topic."""
    return base64.urlsafe_b64encode(identifier.bytes).rstrip(b"=").decode()


def parse(payload):
    """The object in a payload. If a key occurs twice, the first one counts."""
    document = json.loads(payload.decode(errors="replace"),
                          object_pairs_hook=lambda members: {**dict(members), **dict(reversed(members))})
    if not isinstance(document, dict):
        raise ValueError("not an object")
    return document


def integer(document, key, bits):
    value = document[key]
    if type(value) is not int or not 0 <= value < 2**bits:  # true is no integer, and neither is 7.0
        raise ValueError(f"{key} is not an integer of {bits} bits")
    return value


class Peer:
    """A client of the broker. It calls functions on a thread of its own; they must not wait for it."""

    def __init__(self, host, port, on_connected=lambda peer: None, will=None):
        """Connects. `on_connected` is called after each connect; a will is a topic and a document."""
        def on_connect(_client, _data, _flags, result, *_):
            if result == 0:
                on_connected(self)
                connected.set()
        connected = threading.Event()
        self._id = level(uuid.uuid4())
        version = [mqtt.CallbackAPIVersion.VERSION2] if hasattr(mqtt, "CallbackAPIVersion") else []
        self._client = mqtt.Client(*version, client_id=self._id)
        self._client.on_connect = on_connect
        self._client.suppress_exceptions = True  # what cannot be read is dropped, and logged:
        self._client.enable_logger()
        if will:
            self._client.will_set(will[0], json.dumps(will[1]), qos=2, retain=True)
        self._client.connect(host, port, keepalive=30)
        self._client.loop_start()
        if not connected.wait(TIMEOUT_S):
            raise TimeoutError("the broker does not accept the connection")

    def close(self):
        self._client.disconnect()
        self._client.loop_stop()

    def publish(self, topic, document, retain=True):
        return self._client.publish(topic, json.dumps(document), qos=2, retain=retain)

    def subscribe(self, pattern, receive):
        """Calls receive(topic, document) for each document on these topics: one function per pattern."""
        self._client.message_callback_add(pattern, lambda _client, _data, message: (
            message.payload and receive(message.topic, parse(message.payload))))
        self._client.subscribe(pattern)

    def read(self, topic, accept=lambda document: True, when_subscribed=lambda: None):
        """Waits for a document on a topic that is accepted, and returns it."""
        documents = queue.Queue()
        self.subscribe(topic, lambda _, document: accept(document) and documents.put(document))
        when_subscribed()
        try:
            return documents.get(timeout=TIMEOUT_S)
        except queue.Empty:
            raise TimeoutError(f"nothing came on {topic}") from None
        finally:
            self._client.unsubscribe(topic)

    def discover(self, base):
        """The entities that are linked on a topic: their identifications, by their topics."""
        topics = [link["@id"] for link in self.read(base)["members"]]
        return {topic: self.read(f"{topic}/identification") for topic in topics}

    def call(self, service, name, payload):
        """Sends a request, one at a time, and returns the reply. `service`: base[/server][/sub-path]."""
        request_id = uuid.uuid4().int % 2**32
        request = {"$reqId": request_id, **payload}
        return self.read(
            f"{service}/{name}?=/{self._id}",
            lambda reply: integer(reply, "$reqId", 32) == request_id and integer(reply, "$err", 8) >= 0,
            lambda: self.publish(f"{service}/{name}??/{self._id}", request, retain=False))

    def serve(self, service, name, answer):
        """Answers requests: answer(request) returns the code and the payload of the reply."""
        def on_request(topic, request):
            reply = {"$reqId": integer(request, "$reqId", 32)}
            reply["$err"], payload = answer(request)
            client = topic.rsplit("/", 1)[1]
            self.publish(f"{service}/{name}?=/{client}", {**reply, **payload, **reply}, retain=False)
        self.subscribe(f"{service}/{name}??/+", on_request)


def double(request):
    number = integer(request, "number", 32)
    return (SUCCESS, {"number": 2 * number}) if number < 1000 else (TOO_LARGE, {})


def device(host, port, base):
    def on_connected(peer):
        peer.serve(base, "double", double)
        peer.serve(f"{base}/{level(sensor)}", "timeSync", lambda request: (
            SUCCESS, {"client": request["client"], "ref": time.time()}))
        peer.publish(f"{base}/status", {"operating": 1, "health": 3})
        peer.publish(f"{base}/sensor/identification", {"uuid": str(sensor), "name": "sensor"})
        peer.publish(base, {"members@count": 1, "members": [{"@id": f"{base}/sensor"}]})
        peer.publish(status, {"state": CONNECTED, "since": time.time()})
    status, sensor = f"{base}/communication", uuid.UUID(int=31)
    peer = Peer(host, port, on_connected, will=(status, {"state": CONNECTION_LOST, "since": None}))
    sys.stdin.read()
    peer.publish(status, {"state": DISCONNECTED, "since": time.time()}).wait_for_publish(TIMEOUT_S)
    peer.close()


def main(broker, command, topic, payload="{}"):
    host, port = broker.split(":")
    if command == "device":
        return device(host, int(port), topic)
    peer = Peer(host, int(port))
    commands = {"discover": lambda: peer.discover(topic), "read": lambda: peer.read(topic),
                "call": lambda: peer.call(*topic.rsplit("/", 1), json.loads(payload))}
    print(json.dumps(commands[command]()))
    peer.close()


if __name__ == "__main__":
    main(*sys.argv[1:]) if len(sys.argv) in (4, 5) else sys.exit(__doc__)
