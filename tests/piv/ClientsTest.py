"""Several programs on one card: mireltoken beside itself, and beside others that spend the tries of the PIN or hold
the card.

usage: as that of PivTest.py"""

import contextlib
import json
import os
import pty
import subprocess

import PivTest as piv
from PivCard import PIN
from PivTest import FIRST, SECOND, SECONDS, WRONG_PIN, Watched


class ClientsTest(piv.PivTest):
    """A card, and programs that use it at the same time."""

    def setUp(self):
        super().setUp()
        self.inserted = self.card()
        piv.stack.insert(self.inserted)

    def command(self, *words):
        return [str(piv.given.mireltoken), "--trust-module", "--module", str(piv.stack.module), *words]

    def environment(self):
        given = {name: value for name, value in os.environ.items() if name.endswith("SAN_OPTIONS")}
        return {"TMPDIR": str(self.folder / "tmp"), "OPENSC_CONF": "/dev/null", **given}

    def run_at_once(self, *commands):
        """Runs them with the right PIN; returns exit code and standard error of each."""
        pin = self.pin_file(PIN)
        running = [subprocess.Popen(self.command(*words, *pin), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                    stderr=subprocess.PIPE, text=True, cwd=self.folder, env=self.environment())
                   for words in commands]
        ended = [(process.communicate(timeout=SECONDS)[1], process.returncode) for process in running]
        return [(code, err) for err, code in ended]

    def sign_at_once(self, *keys):
        """Each signature that is written is one of its key; returns what the commands said."""
        files = [f"signature-{number}" for number, _ in enumerate(keys)]
        ended = self.run_at_once(*(["sign", "--key", key, "--in", "letter", "--out", file]
                                   for key, file in zip(keys, files)))
        for key, file, (code, _) in zip(keys, files, ended):
            self.assertEqual((self.folder / file).exists(), code == 0)
            if code == 0:
                self.openssl("dgst", "-sha256", "-verify", self.public_key({"#1": "9a", "#2": "9c"}[key]), "-sigopt",
                             "rsa_padding_mode:pss", "-signature", file, "letter")
                (self.folder / file).unlink()
        return ended


class AtOnce(ClientsTest):
    def test_two_that_sign(self):
        for _ in range(5):
            for code, err in self.sign_at_once("#1", "#1"):
                self.assertEqual(code, 0, err)

    def test_one_that_signs_with_the_key_that_wants_the_pin_right_before(self):
        for _ in range(5):
            (first, err), (second, why) = self.sign_at_once("#1", "#2")
            self.assertEqual(first, 0, err)
            # The other one may come between its PIN and its use.
            self.assertIn(second, {0, 11}, why)
            if second:
                self.assertRegex(why, "CKR_USER_NOT_LOGGED_IN.*a use by another program; nothing was written; run")
        self.assertEqual(self.inserted.applet.tries, 3)

    def test_what_is_watched_can_be_used(self):
        watched = Watched(self)
        watched.expect("insertion", FIRST)
        self.assertEqual(self.sign("#1")[0], 0)
        self.expect("wrong PIN", "login", pin=WRONG_PIN)
        self.assertEqual(self.run_mireltoken("login", pin=PIN)[0], 0)
        self.assertEqual(watched.end(), "")

    def test_a_watch_that_signs_with_each_card_that_is_inserted(self):
        piv.stack.remove(self.inserted)
        mireltoken = " ".join(f"'{word}'" for word in self.command("sign", *self.pin_file(PIN)))
        signing = f"{mireltoken} --reader \"$READER\" --key '#1' --in letter --out \"by-$SERIAL\""
        watched = Watched(self, "--exec", f"cd '{self.folder}' && test $EVENT = removal || {signing}")
        serials = []
        cards = [self.inserted, self.card(SECOND)]
        for card in cards:
            piv.stack.insert(card)
            serials.append(watched.expect("insertion", card.reader)["serialNumber"])
        for serial in serials:
            piv.until("it has signed", (self.folder / f"by-{serial}").exists)
            self.openssl("dgst", "-sha256", "-verify", self.public_key("9a"), "-sigopt", "rsa_padding_mode:pss",
                         "-signature", f"by-{serial}", "letter")
        self.assertEqual([card.pins_sent for card in cards], [1, 1])
        watched.end()


class Disturbed(ClientsTest):
    def test_a_prompt_during_which_others_spend_the_tries(self):
        process, terminal = pty.fork()
        if process == 0:
            os.execve(str(piv.given.mireltoken), self.command("login"), self.environment())
        self.addCleanup(os.close, terminal)
        shown = b""

        def wait_for(text):
            nonlocal shown
            while text not in shown:
                shown += os.read(terminal, 4096)

        wait_for(b"PIN for \"Ada Example (authentication)\": ")
        self.inserted.applet.tries = 1
        os.write(terminal, WRONG_PIN.encode() + b"\r")
        wait_for(b"(one more wrong PIN locks the card): ")
        self.assertEqual(self.inserted.applet.tries, 1)
        os.write(terminal, PIN.encode() + b"\r")
        with contextlib.suppress(OSError):  # the other end was closed
            while part := os.read(terminal, 4096):
                shown += part
        self.assertEqual(os.waitstatus_to_exitcode(os.waitpid(process, 0)[1]), 0, shown)
        self.assertIn(b"another program has sent a wrong PIN", shown)
        self.assertEqual(self.inserted.pins_sent, 1)

    def test_an_examination_while_another_program_holds_the_card(self):
        with piv.stack.service.holding(FIRST):
            code, out = self.run_examination("doctor", "--login")
            findings = [finding["id"] for finding in json.loads(out)["findings"]]
            self.assertEqual((code, findings), (20, ["MT-R04"]))
            self.assertEqual(self.rules_broken("conformance"), [])
        self.assertEqual(self.inserted.pins_sent, 0)

    def test_an_examination_in_which_one_key_ends_the_login(self):
        _, out = self.run_examination("doctor", "--login")
        found = {check["name"]: check["evidence"] for check in json.loads(out)["checks"]}
        self.assertRegex(found["decryption"], 'key 03 "[^"]+" decrypts')
        self.assertNotRegex(out, "MT-C10")
        self.assertEqual(self.rules_broken("conformance", "--login"), ["CR-36", "CR-41"])

    def run_examination(self, *words):
        done = subprocess.run(self.command("--json", *words, *(self.pin_file(PIN) if "--login" in words else [])),
                              stdin=subprocess.DEVNULL, capture_output=True, text=True, cwd=self.folder, check=False,
                              env=self.environment(), timeout=SECONDS)
        return done.returncode, done.stdout

    def rules_broken(self, *words):
        _, out = self.run_examination(*words)
        return [rule["number"] for rule in json.loads(out)["rules"] if rule["verdict"] == "fail"]


if __name__ == "__main__":
    piv.main()
