"""Makes the recordings of this folder anew, of modules that are not ours: see README.md.

usage: make_recordings.py --mireltoken FILE --cardmaker FILE --unpacked FOLDER --out FOLDER [--try] STACK...

STACK: softhsm2, p11-kit, opencryptoki, opensc-piv or opensc-cac. With --try the commands are run without a recording.
Where something is missing it says so and leaves that stack out. The machine stays as it is: all happens in namespaces,
with folders of their own."""

import argparse
import contextlib
import ctypes
import ctypes.util
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "piv"))

from PivCard import Applet, VirtualCard, make_keys  # noqa: E402
from ReaderStack import READERS, ReaderStack, enter_namespaces, first_file  # noqa: E402

PIN, WRONG_PIN = "123456", "654321"
MESSAGE = "What is to be signed\n"  # as in the tests, which verify the signatures
DRIVER_FOLDERS = "/usr/lib/*"

# Few keys on each card, so that the recordings stay small. The names are nobody's: --anonymous replaces them all the same.
CARD = """token label=0x4164612043617264 pin=123456
public type=rsa2048 id=0x416461 label=Signature
private type=rsa2048 id=0x416461 label=Signature allow=sign
certificate type=rsa2048 id=0x416461 label=Signature subject=0x416461204578616D706C65 usage=digitalSignature
"""

# One key of each kind, and a certificate without one.
SEVERAL_KEYS = "token label=0x4164612043617264 pin=123456\n" + "".join(
    f"public {key}\nprivate {key} allow={allow}\ncertificate {key} subject=0x416461204578616D706C65 usage={usage}\n"
    for key, allow, usage in [("type=rsa2048 id=01 label=Signature", "sign", "digitalSignature"),
                              ("type=rsa1024 id=02 label=Encryption", "decrypt", "keyEncipherment"),
                              ("type=p256 id=03 label=Agreement", "derive", "keyAgreement")]
) + "certificate type=p384 id=04 label=Lonely usage=digitalSignature subject=0x416461204578616D706C65\n"


class Missing(Exception):
    """What a stack needs and this system does not have."""


def needed(package, path):
    if not path:
        raise Missing(package)
    return path


def run(*words, **options):
    return subprocess.run(words, check=True, capture_output=True, **options).stdout


class Stack:
    """A module with a card. `signing` and `decrypting`: its keys, as the command line calls them."""

    def __init__(self, module, environment=None, signing="#1", decrypting="#1"):
        self.module, self.environment, self.signing, self.decrypting = module, environment or {}, signing, decrypting


def softhsm_card(folder, description):
    """The module, and the environment in which it has that card alone."""
    module = needed("softhsm2", first_file("/usr/lib/softhsm/libsofthsm2.so", f"{DRIVER_FOLDERS}/softhsm/libsofthsm2.so"))
    folder.mkdir()
    run(given.cardmaker, "make", str(folder), input=description.encode())
    return module, {"SOFTHSM2_CONF": str(folder / "softhsm2.conf")}


@contextlib.contextmanager
def softhsm2(folder):
    yield Stack(*softhsm_card(folder / "card", SEVERAL_KEYS), signing="3031", decrypting="3032")


@contextlib.contextmanager
def p11_kit(folder):
    """The proxy, which knows of SoftHSM2 alone."""
    proxy = needed("p11-kit", first_file(f"{DRIVER_FOLDERS}/p11-kit-proxy.so", f"{DRIVER_FOLDERS}/libp11-kit.so.0"))
    module, environment = softhsm_card(folder / "card", CARD)
    configurations = "/usr/share/p11-kit/modules"
    run("mount", "-t", "tmpfs", "tmpfs", configurations)
    pathlib.Path(configurations, "softhsm2.module").write_text(f"module: {module}\n")
    try:
        yield Stack(proxy, environment, signing="416461")
    finally:
        run("umount", configurations)


@contextlib.contextmanager
def opencryptoki(folder):
    """The soft token, whose slot has the name of a reader. Its service and its tools have fixed paths, and want a group."""
    module = needed("opencryptoki", first_file(f"{DRIVER_FOLDERS}/pkcs11/libopencryptoki.so"))
    service, tool = shutil.which("pkcsslotd", path="/usr/sbin:/sbin"), shutil.which("pkcsconf", path="/usr/sbin:/sbin")
    tokens = pathlib.Path("/var/lib/opencryptoki")
    ctypes.CDLL(None).unshare(0x08000000)  # CLONE_NEWIPC: the service shares memory with the module
    for place in ("/etc/opencryptoki", tokens, "/run/lock"):
        run("mount", "-t", "tmpfs", "tmpfs", str(place))
    pathlib.Path("/etc/opencryptoki/opencryptoki.conf").write_text(
        'version opencryptoki-3.8\nslot 0\n{\nstdll = libpkcs11_sw.so\ndescription = "Virtual PCD 00 00"\n}\n')
    groups = folder / "group"
    groups.write_text("root:x:0:\npkcs11:x:0:root\n")
    run("mount", "--bind", str(groups), "/etc/group")
    (tokens / "swtok" / "TOK_OBJ").mkdir(parents=True)
    pathlib.Path("/run/lock/opencryptoki/swtok").mkdir(parents=True)
    daemon = subprocess.Popen([needed("opencryptoki", service), "-f"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        time.sleep(1)
        run(tool, "-I", "-c", "0", "-S", "87654321", input=b"Ada Card\n")
        run(tool, "-P", "-c", "0", "-S", "87654321", "-n", "12345678")
        run(tool, "-u", "-c", "0", "-S", "12345678", "-n", PIN)
        key, certificate, public, private = (folder / name for name in ("key", "certificate", "public", "private"))
        run("openssl", "req", "-x509", "-nodes", "-newkey", "rsa:2048", "-subj", "/CN=Ada Example", "-addext",
            "keyUsage=critical,keyEncipherment", "-days", "3650", "-keyout", str(key), "-outform", "DER", "-out", str(certificate))
        public.write_bytes(run("openssl", "pkey", "-in", str(key), "-pubout", "-outform", "DER"))
        private.write_bytes(run("openssl", "pkey", "-in", str(key), "-outform", "DER"))
        for kind, file, more in (("privkey", private, ["--usage-decrypt"]), ("pubkey", public, []), ("cert", certificate, [])):
            run("pkcs11-tool", "--module", module, "--login", "--pin", PIN, "--write-object", str(file), "--type", kind,
                "--id", "01", "--label", "Ada", *more)
        yield Stack(module)
    finally:
        daemon.terminate()
        daemon.wait(10)
        for place in ("/etc/group", "/run/lock", str(tokens), "/etc/opencryptoki"):
            run("umount", place)


@contextlib.contextmanager
def opensc(applet, keys, **options):
    stack = ReaderStack(given.unpacked)
    card = VirtualCard(applet, next(iter(READERS)), **options)
    try:
        stack.insert(card)
        yield Stack(stack.module, {"OPENSC_CONF": "/dev/null"}, decrypting=f"#{keys}")
    finally:
        stack.remove(card)
        stack.stop()


@contextlib.contextmanager
def opensc_piv(folder):
    applet = Applet(make_keys(folder / "keys"), b"test card: 00 00")
    for unused in ("5fc10a", "5fc101"):
        del applet.objects[unused]
    with opensc(applet, keys=2) as stack:
        yield stack


class CacApplet:
    """The card of libcacard, with what it lacks: a counter of wrong PINs."""

    ATR = bytes.fromhex("3b7a18000073667465206364313434")

    def __init__(self, folder):
        library = ctypes.util.find_library("cacard")
        self.library = ctypes.CDLL(needed("libcacard0", library))
        self.tries = 3
        database = f"sql:{folder}"
        tool = needed("libnss3-tools", shutil.which("certutil"))
        (folder / "pin").write_text(PIN)
        run(tool, "-N", "-d", database, "-f", str(folder / "pin"))
        names = ["encryption"]
        for name in names:
            files = [str(folder / f"{name}.{kind}") for kind in ("key", "pem", "p12")]
            run("openssl", "req", "-x509", "-nodes", "-newkey", "rsa:2048", "-subj", f"/CN=EXAMPLE.ADA.1234567890/OU={name}",
                "-addext", "keyUsage=critical,keyEncipherment", "-days", "3650", "-keyout", files[0], "-out", files[1])
            run("openssl", "pkcs12", "-export", "-inkey", files[0], "-in", files[1], "-name", name, "-passout", "pass:",
                "-out", files[2])
            run("pk12util", "-i", files[2], "-d", database, "-k", str(folder / "pin"), "-W", "")
        options = f'db="{database}" use_hw=no soft=(,Virtual Reader,CAC,,{",".join(names)})'
        for function in ("vcard_emul_options", "vreader_get_reader_by_name"):
            getattr(self.library, function).restype = ctypes.c_void_p
        parsed = self.library.vcard_emul_options(options.encode())
        if self.library.vcard_emul_init(ctypes.c_void_p(parsed)):
            raise Missing("a card of libcacard")
        self.reader = ctypes.c_void_p(self.library.vreader_get_reader_by_name(b"Virtual Reader"))
        self.reset()

    def reset(self):
        atr, size = ctypes.create_string_buffer(64), ctypes.c_int(64)
        self.library.vreader_power_off(self.reader)
        self.library.vreader_power_on(self.reader, atr, ctypes.byref(size))

    def answer(self, apdu):
        is_pin = apdu[1] == 0x20
        if is_pin and not self.tries:
            return b"\x69\x83"
        answer, size = ctypes.create_string_buffer(4096), ctypes.c_int(4096)
        self.library.vreader_xfr_bytes(self.reader, apdu, len(apdu), answer, ctypes.byref(size))
        response = answer.raw[: size.value]
        if is_pin and len(apdu) > 5:
            if response == b"\x90\x00":
                self.tries = 3
            else:
                self.tries -= 1
                return bytes([0x63, 0xC0 | self.tries]) if self.tries else b"\x69\x83"
        return response


@contextlib.contextmanager
def opensc_cac(folder):
    applet = CacApplet(folder)
    with opensc(applet, keys=1, atr=CacApplet.ATR) as stack:
        yield stack


# The stacks, and what is recorded of each: every command of some module, since all of them would be too large.
STACKS = {
    "softhsm2": (softhsm2, ["items", "sign-pss", "wrong-pin"]),
    "p11-kit": (p11_kit, ["sign-pkcs1"]),
    "opencryptoki": (opencryptoki, ["decrypt"]),
    "opensc-piv": (opensc_piv, ["sign-pss", "wrong-pin"]),
    "opensc-cac": (opensc_cac, ["decrypt"]),
}


def commands(stack, folder, module):
    """By their names: command, PIN, exit code."""
    letter, secret = folder / "letter", folder / "secret"
    letter.write_text(MESSAGE)
    _, pem, _ = call(stack, folder, [*module, "certificate", "--key", stack.decrypting])
    (folder / "pem").write_bytes(pem)
    run("openssl", "pkeyutl", "-encrypt", "-certin", "-inkey", str(folder / "pem"), "-in", str(letter), "-out", str(secret))
    return {
        "items": (["items"], None, 0),
        "sign-pss": (["sign", "--key", stack.signing, "--algorithm", "PS256", "--in", str(letter), "--json"], PIN, 0),
        "sign-pkcs1": (["sign", "--key", stack.signing, "--algorithm", "RS256", "--in", str(letter)], PIN, 11),  # no module pads
        "decrypt": (["decrypt", "--key", stack.decrypting, "--in", str(secret)], PIN, 0),
        "wrong-pin": (["login"], WRONG_PIN, 7),
    }


def call(stack, folder, words, pin=None):
    """Runs mireltoken, in a home of its own."""
    if pin:
        file = folder / "pin-of-user"
        file.touch(0o600)
        file.write_text(pin)
        words = [*words, "--pin-file", str(file)]
    environment = {"HOME": str(folder), "TMPDIR": str(folder), **stack.environment}
    done = subprocess.run([given.mireltoken, *words], cwd=folder, env=environment, stdin=subprocess.DEVNULL,
                          capture_output=True, check=False)
    return done.returncode, done.stdout, done.stderr.decode()


def check(recording, words, pin, code, out, folder):
    """The recording has no name, and answers as the card did, under pseudonyms. Writes what it answers beside it."""
    text = recording.read_text()
    header, *_ = text.splitlines()
    for name in ("Ada", "ADA", "Example", "EXAMPLE"):
        if f'"{name}' in text or name.encode().hex().upper() in text:
            raise SystemExit(f"{recording}: {name} is in it")
    recorded = json.loads(header)["command"]
    words = [recorded[recorded.index("--key") + 1] if before == "--key" else word for before, word in zip(["", *words], words)]
    again = call(Stack(""), folder, ["--replay", str(recording), *words], pin)
    same = len(again[1].splitlines()) == len(out.splitlines())
    if words[0] == "sign" and code == 0:
        same = json.loads(again[1])["signatureHex"] == json.loads(out)["signatureHex"]
    if again[0] != code or not same:
        raise SystemExit(f"{recording}: replayed, it ends with {again[0]}: {again[2]}")
    recording.with_suffix(".out").write_bytes(again[1] + f"exit code {code}\n".encode())


def record(name):
    set_up, wanted = STACKS[name]
    with tempfile.TemporaryDirectory(prefix="recording-") as home:
        folder = pathlib.Path(home)
        with set_up(folder) as stack:
            module = ["--trust-module", "--module", stack.module]
            known = commands(stack, folder, module)
            for what in known if given.dry else wanted:
                words, pin, expected = known[what]
                recording = given.out / f"{name}-{what}.jsonl"
                recorder = [] if given.dry else ["record", "--anonymous", "--out", str(recording)]
                code, out, err = call(stack, folder, [*module, *recorder, *words], pin)
                if code != expected:
                    raise SystemExit(f"{name}: {' '.join(words)} ended with {code}: {err}")
                if not given.dry:
                    check(recording, words, pin, code, out, folder)
                print(f"{name}-{what}: " + (f"{code}" if given.dry else f"{recording.stat().st_size} bytes"), flush=True)


def main():
    global given
    enter_namespaces()
    parser = argparse.ArgumentParser()
    for option in ("--mireltoken", "--cardmaker", "--unpacked", "--out"):
        parser.add_argument(option, type=lambda path: pathlib.Path(path).resolve(), required=True)
    parser.add_argument("--try", dest="dry", action="store_true")
    parser.add_argument("stacks", nargs="+", choices=STACKS, metavar="STACK")
    given = parser.parse_args()
    for name in given.stacks:
        try:
            record(name)
        except Missing as missing:
            print(f"{name}: left out, since this system has no {missing}")
        except subprocess.CalledProcessError as failed:
            raise SystemExit(f"{name}: {failed}: {failed.stdout.decode()} {failed.stderr.decode()}") from None


if __name__ == "__main__":
    main()
