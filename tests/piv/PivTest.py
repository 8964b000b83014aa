"""mireltoken on a card, a reader and a module that are not ours to script: OpenSC, the service of the readers, virtual
readers, and in them a PIV card.

usage: PivTest.py --mireltoken FILE --keys FOLDER --unpacked FOLDER [--first M] [--every N] [unittest's arguments]

The card is taken out at each of the first M APDUs, then at every N-th, and at each one after the PIN was sent. Each
time takes 0.8 seconds, since the service looks at its readers every 0.4."""

import argparse
import contextlib
import json
import os
import pathlib
import pty
import queue
import signal
import subprocess
import sys
import tempfile
import threading
import unittest

from PivCard import NO_ATR, PIN, UNKNOWN_ATR, Applet, ForeignApplet, VirtualCard, make_keys
from ReaderStack import MUTE, READERS, ReaderStack, enter_namespaces, until

FIRST, SECOND = READERS
WRONG_PIN = "654321"
SECONDS = 20  # for one command; none takes more than three
# The exit codes of docs/command-line.md. 1 is for errors of our own.
STABLE = {0, *range(2, 24)}

# What users are told: the exit code, and words that must not be missing.
EXPECTED = {
    "no reader": (5, "no reader is connected"),
    "no service": (5, "the card service does not answer"),
    "no card": (5, "no reader holds a card"),
    "card of another maker": (5, "does not know it.*ATR"),
    "card of another maker, its reader named": (5, "does not know it.*ATR"),
    "card held by another program": (5, "another program holds the card"),
    "card without ATR": (5, "the card does not answer"),
    "card that falls silent and is taken out": (5, "card"),
    "wrong PIN": (7, "did not accept the PIN.*CKR_PIN_INCORRECT"),
    "wrong PIN, one try left": (7, "one more wrong PIN locks the card"),
    "one try left, PIN from a file": (17, "one more wrong PIN locks the card"),
    "last try": (8, "the PIN of the card is locked"),
    "locked": (17, "the PIN is locked"),
    "EC key": (11, "an EC key never signs"),
    "key that decrypts": (10, "does not sign"),
    "card that refuses the algorithm": (11, "C_Sign.*nothing was written"),
}

given = None
stack = None


class PivTest(unittest.TestCase):
    """A folder, and cards that are out again after each test."""

    def setUp(self):
        home = tempfile.TemporaryDirectory(prefix="piv ")
        self.addCleanup(home.cleanup)
        self.folder = pathlib.Path(home.name)
        (self.folder / "tmp").mkdir()
        (self.folder / "letter").write_text("Dear Ada\n")

    def card(self, reader=FIRST, applet=None, **options):
        """A card that is not inserted yet, and is taken out at the end of the test."""
        card = VirtualCard(applet or piv_applet(reader), reader, **options)
        self.addCleanup(stack.remove, card)
        return card

    def pin_file(self, pin):
        file = self.folder / pin
        file.touch(0o600)
        file.write_text(pin)
        return ["--pin-file", str(file)]

    def run_mireltoken(self, *words, pin=None, during=lambda: None):
        """Runs a command and checks what holds for all: exit code, standard output, standard error are returned.
        `during` is called while it runs."""
        before = set(self.folder.rglob("*"))
        command = [given.mireltoken, "--trust-module", "--module", stack.module, *words]
        command += self.pin_file(pin) if pin else []
        environment = {"TMPDIR": str(self.folder / "tmp"), "OPENSC_CONF": "/dev/null"}
        environment.update({name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")})
        with subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              cwd=self.folder, env=environment) as process:
            try:
                during()
                out, err = process.communicate(timeout=SECONDS)
            except BaseException:
                process.kill()
                raise
        code = process.returncode
        self.assertIn(code, STABLE, f"{err}\n{out}")
        self.assertNotIn(PIN, out + err)
        if code:
            self.assertRegex(err, r"\Amireltoken: [^\n]+\n\Z", f"exit code {code}")
            self.assertEqual(json.loads(out)["error"]["exitCode"] if "--json" in words else out, code if "--json" in words else "")
        left = set(self.folder.rglob("*")) - before
        wanted = {self.folder / words[words.index("--out") + 1]} if "--out" in words and not code else set()
        self.assertEqual({path for path in left if path.name not in (PIN, WRONG_PIN)}, wanted, "files that it left")
        return code, out, err

    def expect(self, situation, *words, **options):
        code, _, err = self.run_mireltoken(*words, **options)
        wanted, text = EXPECTED[situation]
        self.assertEqual((situation, code), (situation, wanted), err)
        self.assertRegex(err, text, situation)

    def items(self, *words):
        """The keychain items of the card, by their object IDs; the command must succeed."""
        code, out, err = self.run_mireltoken("--json", "items", *words)
        self.assertEqual(code, 0, err)
        return items_of(out)

    def sign(self, key, **options):
        """Runs `sign`; a signature that it makes must be one. Returns exit code and standard error."""
        with contextlib.suppress(FileNotFoundError):
            os.remove(self.folder / "signature")
        code, _, err = self.run_mireltoken("sign", "--key", key, "--in", "letter", "--out", "signature", pin=PIN, **options)
        if code == 0:
            reference = {"#1": "9a", "#2": "9c"}[key]
            self.openssl("dgst", "-sha256", "-verify", self.public_key(reference), "-sigopt", "rsa_padding_mode:pss",
                         "-signature", "signature", "letter")
        return code, err

    def public_key(self, reference):
        file = self.folder / f"{reference}.pub"
        file.write_bytes(self.openssl("x509", "-inform", "DER", "-in", given.keys / f"{reference}.der", "-pubkey", "-noout"))
        return file

    def openssl(self, *words, program="openssl"):
        done = subprocess.run([program, *words], cwd=self.folder, capture_output=True, check=False, timeout=SECONDS)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout


def piv_applet(reader=FIRST):
    return Applet(given.keys, f"test card: {reader[-5:]}".encode())


def items_of(out):
    return {item["objectID"]: item for item in json.loads(out)["items"]}


class Commands(PivTest):
    """What the keys and the PIN of an inserted card do."""

    @classmethod
    def setUpClass(cls):
        cls.inserted = VirtualCard(piv_applet(), FIRST)
        stack.insert(cls.inserted)
        cls.addClassCleanup(stack.remove, cls.inserted)

    def setUp(self):
        super().setUp()
        self.inserted.applet = piv_applet()

    def test_lists_the_keys_that_have_certificates(self):
        keys = {item["objectID"]: (item["keyType"], item["keySizeInBits"], item["canSign"], item["canDecrypt"])
                for item in self.items().values() if item["class"] == "key"}
        self.assertEqual(keys, {"\1": ("RSA", 2048, True, False), "\2": ("RSA", 2048, True, False),
                                "\3": ("RSA", 2048, False, True), "\4": ("EC", 256, True, False)})

    def test_writes_the_certificate_that_is_on_the_card(self):
        code, out, err = self.run_mireltoken("certificate", "--key", "#1")
        self.assertEqual(code, 0, err)
        (self.folder / "certificate").write_text(out)
        self.assertEqual(self.openssl("x509", "-in", "certificate", "-outform", "DER"), (given.keys / "9a.der").read_bytes())

    def test_signs(self):
        self.assertEqual(self.sign("#1")[0], 0)

    def test_signs_with_the_key_that_wants_the_pin_right_before(self):
        self.assertEqual(self.sign("#2")[0], 0)

    def test_decrypts(self):
        self.openssl("pkeyutl", "-encrypt", "-pubin", "-inkey", self.public_key("9d"), "-in", "letter", "-out", "secret")
        code, _, err = self.run_mireltoken("decrypt", "--key", "#3", "--in", "secret", "--out", "plain", pin=PIN)
        self.assertEqual((code, (self.folder / "plain").read_text()), (0, "Dear Ada\n"), err)

    def test_says_which_keys_do_not_sign(self):
        for situation, key in (("key that decrypts", "#3"), ("EC key", "#4")):
            self.expect(situation, "sign", "--key", key, "--in", "letter", "--out", "signature", pin=PIN)
        # The card would: the token does not ask it.
        (self.folder / "digest").write_bytes(bytes(range(32)))
        self.openssl("--module", stack.module, "--sign", "-m", "ECDSA", "--pin", PIN, "--id", "04", "--signature-format",
                     "openssl", "--input-file", "digest", "--output-file", "signature", program="pkcs11-tool")
        self.openssl("pkeyutl", "-verify", "-pubin", "-inkey", self.public_key("9e"), "-in", "digest", "-sigfile",
                     "signature")

    def test_writes_nothing_when_the_card_refuses_the_algorithm(self):
        self.inserted.applet.algorithms[0x9A] = 0x11
        words = ["sign", "--key", "#1", "--in", "letter", "--out", "signature"]
        self.expect("card that refuses the algorithm", *words, pin=PIN)

    def test_sends_a_pin_only_while_that_does_no_harm(self):
        for situation, pin, more, sent in (
            ("wrong PIN", WRONG_PIN, [], 1),
            ("wrong PIN, one try left", WRONG_PIN, [], 1),
            ("one try left, PIN from a file", WRONG_PIN, [], 0),
            ("last try", WRONG_PIN, ["--last-try"], 1),
            ("locked", PIN, [], 0),
        ):
            self.inserted.expect()
            self.expect(situation, "login", *more, pin=pin)
            self.assertEqual((situation, self.inserted.pins_sent), (situation, sent))

    def test_the_right_pin_gives_all_tries_back(self):
        for _ in range(2):
            self.expect("wrong PIN", "login", pin=WRONG_PIN)
            code, _, err = self.run_mireltoken("login", pin=PIN)
            self.assertEqual(code, 0, err)


class Readers(PivTest):
    """Readers, and cards in them that are of no use."""

    def test_takes_the_card_of_the_reader_that_is_named(self):
        first, second = self.card(FIRST), self.card(SECOND)
        stack.insert(first)
        stack.insert(second)
        _, out, _ = self.run_mireltoken("--json", "readers")
        listed = {reader["reader"]: reader["serialNumber"] for reader in json.loads(out)["readers"]}
        self.assertEqual(list(listed), [FIRST, SECOND])
        self.assertEqual(len(set(listed.values())), 2)
        for words, reader in (([], FIRST), (["--reader", FIRST], FIRST), (["--reader", SECOND], SECOND)):
            _, out, _ = self.run_mireltoken("--json", "items", *words)
            self.assertEqual(json.loads(out)["reader"], reader)
            self.assertIn(listed[reader], json.loads(out)["instanceID"])

    def test_says_that_there_is_no_card(self):
        self.expect("no card", "items")

    def test_a_card_that_the_module_does_not_know(self):
        stack.insert(self.card(applet=ForeignApplet(), atr=UNKNOWN_ATR))
        self.expect("card of another maker", "items")
        self.expect("card of another maker, its reader named", "items", "--reader", FIRST)

    def test_a_card_that_another_program_holds(self):
        stack.insert(self.card())
        with stack.service.holding(FIRST):
            self.expect("card held by another program", "items")
        self.assertEqual(len(self.items()), 8)

    def test_a_card_that_no_reader_can_wake(self):
        stack.insert(self.card(applet=ForeignApplet(), atr=NO_ATR), MUTE)
        self.expect("card without ATR", "items")

    def test_ends_when_a_card_that_fell_silent_is_taken_out(self):
        card = self.card()
        stack.insert(card)
        card.expect(mute_from=3)

        def take_out():
            until("the card is asked", lambda: len(card.asked) == 3)
            card.remove()

        self.expect("card that falls silent and is taken out", "items", during=take_out)

    def test_no_service(self):
        stack.stop()
        self.addCleanup(stack.start)
        self.expect("no service", "items")

    def test_no_reader(self):
        stack.stop()
        self.addCleanup(stack.start)
        stack.start(readers=False)
        self.addCleanup(stack.stop)
        self.expect("no reader", "items")


class Watched:
    """`mireltoken watch` at work."""

    def __init__(self, test, *words):
        self.test = test
        environment = {"TMPDIR": str(test.folder / "tmp"), "OPENSC_CONF": "/dev/null"}
        environment.update({name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")})
        command = [given.mireltoken, "--trust-module", "--module", stack.module, "--json", "watch", *words]
        self.process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                        text=True, env=environment)
        self.events = queue.Queue()
        self.reading = threading.Thread(target=self.read, daemon=True)
        self.reading.start()
        test.addCleanup(self.process.stderr.close)
        test.addCleanup(self.process.stdout.close)
        test.addCleanup(self.reading.join)
        test.addCleanup(self.process.kill)

    def read(self):
        for line in self.process.stdout:
            self.events.put(json.loads(line))

    def next(self):
        return self.events.get(timeout=SECONDS)

    def expect(self, event, reader):
        """The next event, which must be that one."""
        told = self.next()
        self.test.assertEqual((told["event"], told["reader"]), (event, reader), told)
        return told

    def end(self):
        """Ends it as Ctrl-C does; returns standard error."""
        self.process.send_signal(signal.SIGINT)
        self.process.wait(SECONDS)
        self.reading.join(SECONDS)
        err = self.process.stderr.read()
        self.test.assertEqual((self.process.returncode, self.events.qsize()), (0, 0), err)
        left = subprocess.run(["pgrep", "-f", f"^{given.mireltoken}"], capture_output=True, text=True, check=False)
        self.test.assertEqual(left.stdout, "", "processes that it left")
        return err


class Watching(PivTest):
    """Cards that come and go while it is watched."""

    def test_a_card_is_inserted_removed_and_swapped(self):
        watched = Watched(self)
        card, other = self.card(), self.card(applet=piv_applet(SECOND))
        stack.insert(card)
        first = watched.expect("insertion", FIRST)
        self.assertEqual((first["keys"], first["certificates"]), (4, 4))
        stack.remove(card)
        watched.expect("removal", FIRST)
        stack.insert(other)
        second = watched.expect("insertion", FIRST)
        self.assertNotEqual(second["serialNumber"], first["serialNumber"])
        stack.remove(other)
        stack.insert(card)
        watched.expect("removal", FIRST)
        self.assertEqual(watched.expect("insertion", FIRST)["serialNumber"], first["serialNumber"])
        stack.remove(card)
        watched.expect("removal", FIRST)
        self.assertEqual(watched.end(), "")

    def test_two_readers_or_the_one_that_is_named(self):
        both, named = Watched(self), Watched(self, "--reader", SECOND)
        for reader in READERS:
            stack.insert(self.card(reader))
            both.expect("insertion", reader)
        named.expect("insertion", SECOND)
        named.process.send_signal(signal.SIGTERM)
        self.assertEqual(named.process.wait(SECONDS), 0)
        both.end()

    def test_a_card_that_is_unknown_or_falls_silent_does_not_stop_the_others(self):
        watched = Watched(self, "--timeout", "2")
        other, unknown, silent = self.card(SECOND), self.card(applet=ForeignApplet(), atr=UNKNOWN_ATR), self.card()
        for card, error in ((unknown, "no-card"), (silent, "module-hangs")):
            stack.insert(other)
            self.assertEqual(watched.expect("insertion", SECOND)["keys"], 4)
            if card is silent:
                card.expect(mute_from=3)
            stack.insert(card)
            self.assertEqual(watched.expect("insertion", FIRST)["error"]["id"], error)
            stack.remove(other)
            watched.expect("removal", SECOND)
            stack.remove(card)
            watched.expect("removal", FIRST)
        watched.end()

    def test_goes_on_when_the_service_is_started_anew(self):
        watched = Watched(self)
        card = self.card()
        stack.insert(card)
        watched.expect("insertion", FIRST)
        stack.stop()
        watched.expect("removal", FIRST)
        stack.start()
        stack.insert(card)
        self.assertEqual(watched.expect("insertion", FIRST)["keys"], 4)
        self.assertRegex(watched.end(), r"does not answer: [^\n]+\nmireltoken: the card service answers\n\Z")

    def test_ends_the_prompt_for_the_pin_when_the_card_is_taken_out(self):
        card = self.card()
        stack.insert(card)
        process, terminal = pty.fork()
        if process == 0:
            command = [str(given.mireltoken), "--trust-module", "--module", stack.module, "login"]
            os.execve(command[0], command, {"TMPDIR": str(self.folder / "tmp"), "OPENSC_CONF": "/dev/null"})
        self.addCleanup(os.close, terminal)
        shown = b""
        while b"PIN for" not in shown:
            shown += os.read(terminal, 4096)
        stack.remove(card)
        with contextlib.suppress(OSError):  # the other end was closed
            while part := os.read(terminal, 4096):
                shown += part
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(process, 0)[1]), 16, shown)
        self.assertRegex(shown, b"the card (is not|did not stay) in the reader")
        self.assertEqual(card.pins_sent, 0)


class TakenOut(PivTest):
    """The card is taken out at one APDU after the other."""

    def take_out(self, run, always_from):
        """`run` runs a command and returns its exit code: once with a card that stays, then with one that leaves.
        `always_from` tells after which APDU no position is left out."""
        card = self.card()
        stack.insert(card)
        self.assertEqual(run(), 0)
        number = len(card.asked)
        each = always_from(card.asked)
        codes = {}
        for position in range(1, number + 1):
            if position <= given.first or position > each or position % given.every == 0:
                stack.remove(card)
                stack.insert(card)
                card.expect(leave_at=position)
                with self.subTest(position=position):
                    code = run()
                    if len(card.asked) < position:  # it was quick, and asked less than the first time
                        self.assertEqual(code, 0)
                    codes.setdefault(code, []).append(position)
        print(f"taken out at {sum(map(len, codes.values()))} of {number} APDUs:", *(
            f"exit code {code} {len(found)} times, from APDU {found[0]} to {found[-1]};"
            for code, found in sorted(codes.items())))
        return codes


class TakenOutWhileListing(TakenOut):
    def test_shows_nothing_that_is_not_on_the_card(self):
        items = {}

        def run():
            code, out, _ = self.run_mireltoken("--json", "items")
            if code == 0:
                found = items_of(out)
                items.update(items or found)
                # OpenSC answers with what it has read so far, as if that were all: see docs/known-behaviours.md.
                self.assertEqual(found, {name: items.get(name) for name in found})
            return code

        codes = self.take_out(run, always_from=len)
        self.assertEqual(len(items), 8)
        self.assertIn(5, codes)


class TakenOutWhileSigning(TakenOut):
    def test_writes_a_good_signature_or_none(self):
        def pin_sent(asked):
            return next(n for n, apdu in enumerate(asked) if apdu[1] == 0x20 and len(apdu) > 5)

        codes = self.take_out(lambda: self.sign("#1")[0], always_from=pin_sent)
        # Neither the card nor its key is to blame.
        self.assertLessEqual(set(codes), {0, 5, 12, 16})
        self.assertIn(16, codes)


def main():
    global given, stack
    enter_namespaces()
    parser = argparse.ArgumentParser()
    for name in ("--mireltoken", "--keys", "--unpacked"):
        parser.add_argument(name, type=lambda path: pathlib.Path(path).resolve(), required=True)
    parser.add_argument("--first", type=int, default=0)
    parser.add_argument("--every", type=int, default=1)
    given, rest = parser.parse_known_args()
    stack = ReaderStack(given.unpacked)
    given.keys = make_keys(given.keys)
    try:
        result = unittest.main(argv=[__file__, *rest], exit=False, verbosity=2).result
    finally:
        stack.stop()
    for test, text in result.failures + result.errors:
        print(f"FAILED: {test.id()}: {text.strip().splitlines()[-1]}")
    sys.exit(0 if result.wasSuccessful() and result.testsRun else 1)


if __name__ == "__main__":
    main()
