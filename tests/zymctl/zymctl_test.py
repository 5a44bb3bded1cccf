"""Tests of zymctl. Each class is a test of ctest; the table says what each command prints."""

import os
import re
import subprocess
import tempfile
import unittest

from broker import Broker, LIMIT, Zymctl, wait_until, zymctl, ZYMCTL

DONE, FAILED, USAGE, NO_CONNECTION, NO_ANSWER, INTERRUPTED = 0, 1, 2, 3, 4, 130
SOURCES = os.environ["SOURCES"]
STATUS = '{"operating": 1, "health": 3}'
ENTITY = "plant/AAAAAAAAAAAAAAAAAAAAHw"  # of the identifier 31
LINKS = '{"members@count": 1, "members": [{"@id": "%s"}]}' % ENTITY
NAMED = '{"name": "tank", "manufacturer": "Pumps & Sons"}'


def plain(text):
    """What remains on a terminal, without colours and the screen's erasing: progress does not."""
    text = re.sub(r"\r\x1b\[K[^\r\n]*(?=\r\x1b\[K)", "", text)
    return re.sub(r"\r\x1b\[K|\x1b\[3?\dm|\x1b\[H\x1b\[2J|\^C", "", text)


class WithBroker(unittest.TestCase):
    """Has a broker, on which a device with one entity and the service `plant/draw` are."""

    def setUp(self):
        self.broker = Broker()
        self.addCleanup(lambda: self.broker.close())
        self.run_zymctl("set", "plant", LINKS)
        self.run_zymctl("set", ENTITY + "/identification", NAMED)
        self.run_zymctl("set", ENTITY + "/status", STATUS)
        self.run_zymctl("set", "plant/communication", '{"state": 2, "since": 0}')

    def run_zymctl(self, *arguments, code=DONE, **options):
        run = zymctl(*arguments, port=self.broker.port, **options)
        self.assertEqual(run.code, code, run.everything())
        return run

    def start(self, *arguments, **options):
        run = Zymctl(*arguments, port=self.broker.port, **options)
        self.addCleanup(run.kill)
        return run


# Arguments, exit code, what the text has, what the last object has with --json.
COMMANDS = [
    (["tree", "plant"], DONE, r"^plant  connected since 19(.*\n)*`-- " + ENTITY
     + r'  "tank", Pumps & Sons  operating 1, health 3$', {"topic": "plant"}),
    (["tree", "nothing", "--timeout", "1"], NO_ANSWER, "nothing is published on nothing", {"entities": []}),
    (["watch", "plant/#", "--count", "4"], DONE, r"^\d\d:\d\d:\d\d\.\d{3} " + ENTITY
     + r"/status \[retained\] operating 1, health 3$", {"messages": 4}),
    (["get", "plant"], DONE, "members@count", {"topic": "plant", "payload": LINKS}),
    (["get", "nothing", "--timeout", "1"], NO_ANSWER, "no value of nothing has arrived", None),
    (["set", "x", "é\n\x1b[1m", "--qos", "1"], DONE, "^$", {"topic": "x", "bytes": 7, "qos": 1, "retained": True}),
    (["get", "x"], DONE, None, {"payloadHex": "c3a90a1b5b316d"}),
    (["clear", "x"], DONE, "^$", {"cleared": True}),
    (["get", "x", "--timeout", "1"], NO_ANSWER, "no value", None),
    (["call", "plant", "draw", '{"a": {"b": [1, "}"]}, "c\\n": 2}', "--server", "31"], DONE,
     r'^{"\$reqId": \d+, "\$err": 1, "litres": 5}$', {"error": 1, "name": "SUCCESS"}),
    (["call", "plant", "refuse"], FAILED, r"APPLICATION \+ 1", {"error": 17}),
    (["call", "plant", "nobody", "--timeout", "1"], NO_ANSWER, "TIMEOUT", {"name": "TIMEOUT"}),
    (["bind", "plant", "--server", "9", "--timeout", "1"], NO_ANSWER, "no answer", {"bound": False, "error": 3}),
    (["time", "plant", "--server", "9", "--timeout", "1"], NO_ANSWER, "does not tell its time", None),
    (["check", "collection", "plant", "31"], DONE, "^check collection plant: passed$", {"passed": True}),
    (["check", "collection", "plant", "31", "32", "--timeout", "1"], FAILED, "plant: failed", {"passed": False}),
    (["check", "link", "plant", ENTITY], DONE, "plant: passed", {"check": "link", "passed": True}),
    (["check", "clean", "plant/#"], FAILED, "failed", {"check": "clean", "passed": False}),
    (["doctor"], DONE, r"(?s)Connected to .*, without TLS.*does not speak (TLS|it).*QoS 2: works"
     r".*\+: works.*#: works.*Discovery of entities: works.*1048576 bytes", {
         "connect": True, "tls": False, "qos": {"0": True, "1": True, "2": True}, "retained": True,
         "wildcards": {"plus": True, "hash": True}, "maxPayload": 1 << 20, "unsubscribeOrder": True,
         "features": dict.fromkeys(["values", "discovery", "requests", "time", "binding", "will", "cleaning"], True)}),
    (["clean", "plant/#"], DONE, "^erased 4 values of plant/#, 0 left$", {"erased": 4, "left": 0}),
    (["check", "clean", "zymctl-doctor/#"], DONE, "passed", {"passed": True}),
]


class EveryCommand(WithBroker):
    """Of the table."""

    def setUp(self):
        super().setUp()
        for service in (["draw", '{"litres": 5}', "--server", "31"], ["refuse", "--error", "17"]):
            self.start("serve", "plant", *service).expect("serving ")

    def check(self, terminal, *json):
        for arguments, code, text, members in COMMANDS:
            with self.subTest(arguments):
                run = self.run_zymctl(*arguments, *json, code=code, terminal=terminal)
                shown = run.everything()
                self.assertEqual("connecting to 127.0.0.1" in shown, terminal and not json)  # the progress
                shown = plain(shown) if terminal and not json else shown
                if json or text is not None:
                    self.assertNotIn("\x1b", shown)
                if json and members is not None:
                    last = run.objects()[-1]
                    self.assertEqual({name: last.get(name) for name in members}, members)
                elif not json and text is not None:
                    self.assertRegex(shown, re.compile(text, re.MULTILINE))

    def test_works_in_a_pipe(self):
        self.check(terminal=False)

    def test_works_on_a_terminal(self):
        self.check(terminal=True)

    def test_prints_json_in_a_pipe(self):
        self.check(False, "--json")

    def test_prints_json_on_a_terminal(self):
        self.check(True, "--json")

    def test_gives_programs_the_bytes_and_terminals_none_that_they_would_execute(self):
        self.run_zymctl("set", "x", "a\x1b[1m\nb")
        self.assertEqual(self.run_zymctl("get", "x").text, b"a\x1b[1m\nb\n")
        self.assertIn("a\\x1b[1m\\x0ab\n", self.run_zymctl("get", "x", terminal=True).everything())


class AnInterruption(WithBroker):
    """Ends each command cleanly, which prints what it has."""

    # Arguments, what shows that the command waits (in its output, or else in the broker's log), exit code,
    # what it prints at the end.
    WAITING = [
        (["watch", "plant/#"], "operating 1", DONE, r"4 messages in .* per second"),
        (["tree", "plant", "--watch"], "tank", DONE, "tank"),
        (["tree", "absent"], "absent/status", INTERRUPTED, "^absent$"),
        (["get", "absent"], "absent", INTERRUPTED, "no value of absent"),
        (["call", "plant", "nobody"], "nobody[?][?]", INTERRUPTED, "CANCELLED"),
        (["serve", "plant", "draw"], "serving", DONE, "answered 0 requests"),
        (["bind", "plant", "--server", "9"], "bind[?][?]", INTERRUPTED, "interrupted"),
        (["bind", "demo/plant", "--server", "3"], "bound; ", DONE, "not bound any more"),
        (["time", "plant", "--server", "9"], "timeSync[?][?]", INTERRUPTED, "does not tell"),
        (["time", "demo/plant", "--server", "3", "--watch"], "sample 10", DONE, "the server's clock is"),
        (["check", "collection", "plant", "32"], r"plant \(QoS", INTERRUPTED, "failed"),
        (["clean", "absent/#", "--for", "60"], "absent/#", INTERRUPTED, "erased 0 values of absent/#, 0 left"),
        (["doctor"], "QoS 1: works", INTERRUPTED, "Connected to"),
    ]

    def interrupted(self, arguments, waits, terminal, *more):
        seen = len(self.broker.logged())
        run = self.start(*arguments, *more, terminal=terminal)
        run.expect(waits, lambda: self.broker.logged(seen))
        run.interrupt()
        run.end()
        return run

    def check(self, terminal):
        device = Device(self)
        self.addCleanup(device.kill)
        for arguments, waits, code, text in self.WAITING:
            with self.subTest(arguments):
                run = self.interrupted(arguments, waits, terminal)
                self.assertEqual(run.code, code, run.everything())
                self.assertRegex(plain(run.everything()), re.compile(text, re.MULTILINE))

    def test_comes_from_a_terminal(self):
        self.check(terminal=True)

    def test_comes_as_a_signal(self):
        self.check(terminal=False)

    def test_leaves_whole_json_objects(self):
        self.assertTrue(self.interrupted(["doctor"], "qos2", False, "--json").objects()[-1]["connect"])

    def test_comes_also_when_nobody_reads_the_output(self):
        run = self.start("watch", "plant/#")
        run.expect("operating 1")
        os.close(run.output)
        self.run_zymctl("set", "plant/x", "1")
        self.assertEqual(run.process.wait(LIMIT), DONE)


class Device:
    """The device of the demo, on the broker of a test."""

    def __init__(self, test):
        port = str(test.broker.port)
        self.process = subprocess.Popen([os.environ["DEVICE"], "127.0.0.1", port], stdin=subprocess.PIPE,
                                        stdout=subprocess.DEVNULL)
        test.run_zymctl("get", "demo/plant")
        wait_until(lambda: zymctl("get", "demo/plant/communication", port=port).text, "the device")

    def kill(self):
        self.process.kill()
        self.process.wait()
        self.process.stdin.close()


class WrongUsage(WithBroker):
    """Is reported, and changes nothing."""

    def test_ends_with_code_2(self):
        for arguments in ([], ["gett"], ["get"], ["get", "a", "b"], ["get", "a", "--timeout", "x"], ["set", "#", "x"],
                          ["set", "a", "x", "--qos", "3"], ["clear", "+"], ["get", "a/#/b"], ["call", "a", "b", "[]"],
                          ["call", "a", "/b"], ["call", "a", "b", "{}", "--server", "none"], ["check", "order", "a"],
                          ["check", "link", "a"], ["serve", "a", "b", "--error", "256"], ["get", "a", "--cert", "x"],
                          ["get", "a", "--user", "u", "--password-file", "/absent"], ["get", "a", "--port", "70000"],
                          ["get", "a", "--tls-version", "1.1"]):
            with self.subTest(arguments):
                self.assertTrue(self.run_zymctl(*arguments, code=USAGE).everything())


class NoBroker(unittest.TestCase):
    """Is a reason of its own."""

    def test_ends_every_command_with_code_3(self):
        for arguments in (["tree", "a"], ["watch", "a"], ["get", "a"], ["set", "a", "x"], ["clear", "a"], ["clean", "a"],
                          ["call", "a", "b"], ["serve", "a", "b"], ["bind", "a"], ["time", "a"],
                          ["check", "collection", "a", "1"], ["check", "link", "a", "b"], ["check", "clean", "a"],
                          ["doctor"]):
            with self.subTest(arguments):
                run = zymctl(*arguments)
                self.assertEqual(run.code, NO_CONNECTION, run.everything())
                self.assertIn("the broker cannot be reached", run.everything())


class ASecureBroker(unittest.TestCase):
    """Gets what it demands, from files and the environment."""

    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.folder.cleanup)
        cls.file = staticmethod(lambda name: os.path.join(cls.folder.name, name))
        key = ["-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-passout", "pass:secret"]
        commands = [["req", "-x509", *key, "-nodes", "-subj", "/CN=ca", "-keyout", "ca.key", "-out", "ca.crt"]]
        for name, nodes in (("broker", ["-nodes"]), ("client", [])):
            commands += [["req", *key, *nodes, "-subj", "/CN=" + name, "-keyout", name + ".key", "-out", name + ".csr"],
                         ["x509", "-req", "-in", name + ".csr", "-CA", "ca.crt", "-CAkey", "ca.key", "-CAcreateserial",
                          "-extfile", "names", "-out", name + ".crt"]]
        for name, text in (("names", "subjectAltName=IP:127.0.0.1"), ("psk", "abcdef12"), ("keys", "me:abcdef12"),
                           ("password", "word"), ("key-password", "secret")):
            with open(cls.file(name), "w") as file:
                file.write(text + "\n")
        commands_of_broker = [["mosquitto_passwd", "-c", "-b", "passwords", "me", "word"]]
        for command in [["openssl", *command] for command in commands] + commands_of_broker:
            subprocess.run(command, cwd=cls.folder.name, check=True, capture_output=True)
            os.chmod(cls.folder.name, 0o755)

    def check(self, lines, options, without, **variables):
        """Connects with these options, for `watch` twice, and not without them."""
        broker = Broker(*lines)
        self.addCleanup(broker.close)
        for command in (["set", "a", "x"], ["watch", "a", "--count", "1"], ["doctor", "--json"]):
            run = zymctl(*command, *options, port=broker.port, **variables)
            self.assertEqual(run.code, DONE, run.everything())
        found = run.objects()[0]
        self.assertEqual(found["tls"], any("certfile" in line or "psk" in line for line in lines))
        if found["tls"]:  # without TLS no secret is sent
            self.assertIn("without TLS, without a user name", found["attempts"]["plain"])
        run = zymctl("get", "a", *without, port=broker.port)
        self.assertEqual(run.code, NO_CONNECTION, run.everything())
        return run.everything()

    def certificates(self):
        return [option + " " + self.file(name) for option, name in
                (("cafile", "ca.crt"), ("certfile", "broker.crt"), ("keyfile", "broker.key"))]

    def test_gets_a_password(self):
        lines = ["allow_anonymous false", "password_file " + self.file("passwords")]
        self.check(lines, ["--user", "me", "--password-file", self.file("password")], [])
        self.assertIn("does not authorise", self.check(lines, ["--user", "me"], ["--user", "me"], ZYMCTL_PASSWORD="word"))

    def test_gets_a_certificate(self):
        ours = ["--user", "me", "--cert", self.file("client.crt"), "--key", self.file("client.key"), "--ca", self.file("ca.crt")]
        lines = [*self.certificates(), "require_certificate true"]
        self.check(lines, [*ours, "--key-password-file", self.file("key-password")], ["--ca", self.file("ca.crt")])
        self.check(lines, [*ours, "--insecure-skip-host-name-check"], [], ZYMCTL_KEY_PASSWORD="secret")

    def test_gets_a_shared_key(self):
        self.check(["psk_file " + self.file("keys"), "psk_hint hint"],
                   ["--psk-identity", "me", "--psk-file", self.file("psk")],
                   ["--psk-identity", "other", "--psk-file", self.file("psk")])

    def test_may_be_a_unix_socket(self):
        broker = Broker("listener 0 " + self.file("socket"))
        self.addCleanup(broker.close)
        run = zymctl("doctor", "--unix", self.file("socket"), "--json")
        self.assertEqual(run.code, DONE, run.everything())


class FirstSteps(WithBroker):
    """With the device of the demo: every step of docs/guides/first-steps.md."""

    def test_can_be_made_from_a_shell(self):
        device = Device(self)
        self.addCleanup(device.kill)
        tank = ["--server", "31", "--id", "4"]
        messages = self.start("watch", "demo/plant/#")
        messages.expect(r"communication.*connected since")
        tree = self.run_zymctl("tree", "demo/plant").everything()
        for name in ("tank", "pump", "valve"):
            self.assertRegex(tree, f'-- demo/plant/.*  "{name}", Pumps & Sons  operating 1, health 1')
        self.assertIn("code 18", self.run_zymctl("call", "demo/plant", "draw", '{"litres": 60}', *tank, code=FAILED)
                      .everything())
        binding = self.start("bind", "demo/plant", "--server", "3", "--id", "4", "--topic", "demo/panel")
        binding.expect("bound; server's time: ")
        self.assertIn("refused", self.run_zymctl("bind", "demo/plant", "--server", "3", code=FAILED).everything())
        self.assertRegex(self.run_zymctl("time", "demo/plant", "--server", "3").everything(), "clock is .* s behind")
        self.assertIn('"litres": 40', self.run_zymctl("call", "demo/plant", "draw", '{"litres": 60}', *tank).everything())
        messages.expect("health 2")
        self.run_zymctl("call", "demo/plant", "draw", '{"litres": 60}', *tank, code=FAILED)
        self.run_zymctl("call", "demo/plant", "draw", "--server", "99", "--timeout", "1", code=NO_ANSWER)
        self.broker.kill()
        self.assertEqual(messages.end(), NO_CONNECTION)
        self.broker.start()
        wait_until(lambda: zymctl("tree", "demo/plant", port=self.broker.port).code == DONE, "the device is back")
        self.run_zymctl("call", "demo/plant", "draw", '{"litres": 10}', *tank)
        binding.interrupt()
        self.assertEqual(binding.end(), DONE, binding.everything())
        device.kill()
        wait_until(lambda: b'"state": 3' in zymctl("get", "demo/plant/communication", port=self.broker.port).text,
                   "the will")
        self.assertIn("0 left", self.run_zymctl("clean", "demo/plant/#").everything())
        self.run_zymctl("check", "clean", "demo/plant/#")


class TheManual(unittest.TestCase):
    """And the completion know the commands and options of the program, and no others."""

    def setUp(self):
        text = zymctl("--help").everything()
        commands = re.split("Subcommands:|SUBCOMMANDS:", text)[1]  # CLI11 before and since 2.5
        self.commands = re.findall(r"^  ([a-z]+) +[A-Z]", commands, re.MULTILINE)
        options = {"": text, **{name: zymctl(name, "--help").everything() for name in self.commands}}
        self.options = {name: set(re.findall(r"^  (?:-h)?[, ]*(--[a-z-]+)", help, re.MULTILINE))
                        for name, help in options.items()}
        self.assertEqual(len(self.commands), 12)
        self.assertGreater(len(self.options[""]), 15)

    def test_has_all_of_them(self):
        page = open(os.path.join(SOURCES, "tools/zymctl/zymctl.1")).read().replace("\\-", "-")
        commands = page[page.index(".SH COMMANDS"):page.index(".SH OPTIONS")]
        self.assertEqual(set(re.findall(r"^\\fB([a-z]+)", commands, re.MULTILINE)), set(self.commands))
        used = {option for line in page.splitlines() if line.startswith("\\fB") for option in re.findall("--[a-z-]+", line)}
        self.assertEqual(used, set().union(*self.options.values()))
        for variable in re.findall(r"ZYMCTL_[A-Z_]+", zymctl("--help").everything()):
            self.assertIn(variable, page)

    def completed(self, *words):
        script = os.path.join(SOURCES, "tools/zymctl/zymctl.bash")
        line = " ".join(f"'{word}'" for word in (ZYMCTL, *words))
        return set(subprocess.run(["bash", "-c", f". {script}; COMP_WORDS=({line}); COMP_CWORD={len(words)}; _zymctl; "
                                   'printf "%s\\n" "${COMPREPLY[@]}"'], capture_output=True, text=True,
                                  check=True).stdout.split())

    def test_is_what_completes(self):
        self.assertEqual(self.completed(""), set(self.commands))
        self.assertEqual(self.completed("--json", "cl"), {"clear", "clean"})
        for command in self.commands:
            self.assertEqual(self.completed(command, "--"), self.options[""] | self.options[command])


if __name__ == "__main__":
    unittest.main(verbosity=2, warnings="ignore")
