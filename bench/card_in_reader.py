"""A cold signature with a card in a reader: mireltoken against the bare Cryptoki calls that it makes, and against
pkcs11-tool. The card is the tests' virtual PIV card, which answers at once; what takes the time is OpenSC, the service of
the readers and the way to the card and back. A card of plastic takes longer.

usage: card_in_reader.py RUNS --mireltoken FILE --paired-runs FILE --keys FOLDER --unpacked FOLDER"""

import argparse
import os
import pathlib
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests" / "piv"))
from PivCard import PIN, Applet, VirtualCard, make_keys
from ReaderStack import READERS, ReaderStack, enter_namespaces

BARE_CALLS = pathlib.Path(__file__).resolve().parent / "bare_calls.py"


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("runs")
    for name in ("--mireltoken", "--paired-runs", "--keys", "--unpacked"):
        parser.add_argument(name, type=pathlib.Path, required=True)
    given = parser.parse_args()
    enter_namespaces()
    os.environ["OPENSC_CONF"] = "/dev/null"
    stack = ReaderStack(given.unpacked)
    card = VirtualCard(Applet(make_keys(given.keys), b"bench card"), next(iter(READERS)))
    stack.insert(card)
    try:
        with tempfile.TemporaryDirectory() as folder:
            measure(given, str(stack.module), pathlib.Path(folder), card)
    finally:
        stack.remove(card)
        stack.stop()


def measure(given, module, folder, card):
    pin, block, signature = folder / "pin", folder / "block", str(folder / "signature")
    pin.touch(0o600)
    pin.write_text(PIN)
    block.write_bytes(b"\0" + os.urandom(255))
    named = [str(given.mireltoken), "--trust-module", "--module", module]
    sign = ["sign", "--key", "#1", "--algorithm", "RSASignatureRaw", "--no-verify", "--in", str(block), "--out", signature,
            "--pin-file", str(pin)]
    recording, source, bare = folder / "sign.jsonl", folder / "sign.c", str(folder / "sign")
    done("its recording", [*named, "record", "--out", str(recording), *sign])
    source.write_text(done("its calls", [sys.executable, "-B", str(BARE_CALLS), str(recording)]).stdout)
    done("the bare calls", ["cc", "-O2", "-o", bare, str(source), "-ldl"])

    tool = ["pkcs11-tool", "--module", module, "--login", "--pin", "env:BENCH_PIN", "--sign", "-m", "RSA-X-509", "--id", "01",
            "-i", str(block), "-o", signature]
    os.environ["BENCH_PIN"] = PIN
    for name, peer in (("the bare calls", [bare, module, str(pin)]), ("pkcs11-tool", tool)):
        print(flush=True)
        pairs = [given.paired_runs, given.runs, "--new", signature, "mireltoken", *named, *sign, "--vs", name, *peer]
        subprocess.run(pairs, check=True)
    print(f"\nOne signature exchanges {messages(card, [*named, *sign])} messages (APDUs) with the card, the bare calls"
          f" {messages(card, [bare, module, str(pin)])}, pkcs11-tool {messages(card, tool)}.")


def done(what, command):
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    if result.returncode:
        sys.exit(f"card_in_reader.py: {what}: {result.stderr.strip()}")
    return result


def messages(card, command):
    card.expect()
    done(command[0], command)
    return len(card.asked)


if __name__ == "__main__":
    main()
