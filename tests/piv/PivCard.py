"""A PIV card (NIST SP 800-73) that there is only as a program, and its contact with the virtual reader of vpcd.

The keys are openssl's, one file each, and so is every private operation. The card does what OpenSC asks of it, and
what tests want: it leaves at a given APDU or falls silent from it on, and it keeps what it was asked."""

import contextlib
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import tempfile
import threading

from ReaderStack import READERS

APPLICATION = bytes.fromhex("a000000308000010000100")
PLAIN_ATR = bytes.fromhex("3b8680015049567473743b")
# Of a card that OpenSC does not know; and what is longer than any ATR, so that the reader gets none.
UNKNOWN_ATR, NO_ATR = bytes.fromhex("3b8580014d4952454c3b"), bytes(40)

PIN, TRIES = "123456", 3

OK, WRONG_LENGTH, PIN_MISSING, PIN_LOCKED = 0x9000, 0x6700, 0x6982, 0x6983
WRONG_PARAMETERS, NOT_FOUND, NO_SUCH_KEY, UNKNOWN_COMMAND = 0x6A86, 0x6A82, 0x6A88, 0x6D00

# The keys: reference, object of the certificate, algorithm, how openssl makes it, key usage, common name.
RSA, P256 = (0x07, "rsa", "rsa_keygen_bits:2048"), (0x11, "ec", "ec_paramgen_curve:P-256")
KEYS = [
    (0x9A, "5fc105", RSA, "critical,digitalSignature", "Ada Example (authentication)"),
    (0x9C, "5fc10a", RSA, "critical,digitalSignature,nonRepudiation", "Ada Example (signature)"),
    (0x9D, "5fc10b", RSA, "critical,keyEncipherment", "Ada Example (encryption)"),
    (0x9E, "5fc101", P256, "critical,digitalSignature", "Ada Example (card)"),
]


def make_keys(folder):
    """Keys and certificates for the cards in a folder of their own; those of an earlier run are taken again."""
    folder = pathlib.Path(folder)
    if folder.is_dir():
        return folder
    made = tempfile.mkdtemp(dir=folder.parent)
    for reference, _, (_, kind, option), usage, name in KEYS:
        command = ["openssl", "req", "-x509", "-nodes", "-newkey", kind, "-pkeyopt", option, "-subj", f"/CN={name}",
                   "-addext", f"keyUsage={usage}", "-days", "3650", "-keyout", f"{made}/{reference:02x}.key"]
        subprocess.run([*command, "-outform", "DER", "-out", f"{made}/{reference:02x}.der"], check=True, capture_output=True)
    with contextlib.suppress(OSError):  # another test was quicker
        os.rename(made, folder)
    shutil.rmtree(made, ignore_errors=True)
    return folder


def tlv(tag, value=b""):
    """A data object in BER; the tag is given in hexadecimal digits."""
    size = len(value)
    length = bytes([size]) if size < 0x80 else bytes([0x81, size]) if size < 0x100 else struct.pack(">BH", 0x82, size)
    return bytes.fromhex(tag) + length + value


def elements(data):
    """The data objects of one level, by their tags of one byte."""
    found = {}
    while data:
        tag, size, data = data[0], data[1], data[2:]
        if size > 0x80:
            more = size - 0x80
            size, data = int.from_bytes(data[:more], "big"), data[more:]
        found[tag], data = data[:size], data[size:]
    return found


class Command:
    """A command APDU, short or extended (ISO 7816-4, 5.1). `expected` is how many bytes the answer may have."""

    def __init__(self, apdu):
        self.cla, self.ins, self.p1, self.p2 = apdu[:4]
        body = apdu[4:]
        width = 3 if body[:1] == b"\0" and len(body) > 1 else 1  # bytes of a length; the first of three is zero
        size = int.from_bytes(body[:width], "big") if len(body) > width else 0
        self.data = body[width : width + size]
        rest = body[width + size :] if size else body
        self.expected = int.from_bytes(rest, "big") or (65536 if width == 3 else 256)


class Applet:
    """What the card knows and does. `keys` is the folder that make_keys made, `serial` has 16 bytes. A test may change
    `algorithms`, by which the card refuses what its certificates promise."""

    def __init__(self, keys, serial):
        self.keys, self.tries = keys, TRIES
        self.algorithms = {reference: number for reference, _, (number, *_), *_ in KEYS}
        self.objects = {
            # The number of a card of no agency, so that the serial number is the one that follows.
            "5fc102": tlv("30", bytes.fromhex("d4e739da") + bytes(21)) + tlv("34", serial) + tlv("35", b"20400101")
            + tlv("3e") + tlv("fe"),
            "5fc107": tlv("f0", bytes.fromhex("a0000001 16 ff 02") + bytes(14)) + tlv("f1", b"\x21") + tlv("f2", b"\x21")
            + tlv("f3") + tlv("f4", b"\0") + tlv("f5", b"\x10") + b"".join(map(tlv, "f6 f7 fa fb fc fd fe".split())),
        }
        for reference, name, *_ in KEYS:
            certificate = (keys / f"{reference:02x}.der").read_bytes()
            self.objects[name] = tlv("70", certificate) + tlv("71", b"\0") + tlv("fe")
        self.reset()

    def reset(self):
        """What power and reset do: what was selected and said is forgotten."""
        self.selected = self.verified = self.just_verified = False
        self.chained = self.rest = b""

    def answer(self, apdu):
        """The response APDU to a command APDU."""
        command = Command(apdu)
        if command.cla & 0x10:
            self.chained += command.data
            return struct.pack(">H", OK)
        command.data, self.chained = self.chained + command.data, b""
        if command.ins == 0xC0:
            data, status = self.rest, OK
        else:
            data, status = self.execute(command)
        self.rest = data[command.expected :]
        if self.rest:
            status = 0x6100 | min(len(self.rest), 0xFF)
        return data[: command.expected] + struct.pack(">H", status)

    def execute(self, command):
        if command.ins == 0xA4:
            return self.select(command)
        if not self.selected:
            return b"", UNKNOWN_COMMAND
        known = {0xCB: self.get_data, 0x20: self.verify, 0x87: self.authenticate}
        return known.get(command.ins, lambda _: (b"", UNKNOWN_COMMAND))(command)

    def select(self, command):
        if command.p1 != 4 or not (5 <= len(command.data) and APPLICATION.startswith(command.data)):
            return b"", NOT_FOUND
        self.reset()
        self.selected = True
        return tlv("61", tlv("4f", APPLICATION[5:]) + tlv("79", tlv("4f", APPLICATION[:5]))), OK

    def get_data(self, command):
        name = command.data[2:].hex()
        if name == "7e":
            return tlv("7e", tlv("4f", APPLICATION) + tlv("5f2f", b"\x40\0")), OK
        return (tlv("53", self.objects[name]), OK) if name in self.objects else (b"", NOT_FOUND)

    def verify(self, command):
        if command.p2 != 0x80:
            return b"", NO_SUCH_KEY
        if command.p1 == 0xFF:
            self.verified = self.just_verified = False
            return b"", OK
        if not command.data and self.verified:
            return b"", OK
        if not self.tries:
            return b"", PIN_LOCKED
        if command.data:
            self.verified = self.just_verified = command.data == PIN.encode().ljust(8, b"\xff")
            self.tries = TRIES if self.verified else self.tries - 1
            if self.verified:
                return b"", OK
        return b"", 0x63C0 | self.tries if self.tries else PIN_LOCKED

    def authenticate(self, command):
        """The private operation of a key: RSA of a whole block, or ECDSA of a digest."""
        algorithm = self.algorithms.get(command.p2)
        if algorithm is None:
            return b"", NO_SUCH_KEY
        if algorithm != command.p1:
            return b"", WRONG_PARAMETERS
        # The signature key wants the PIN right before each use; that of the card wants none.
        just_verified, self.just_verified = self.just_verified, False
        if not {0x9C: just_verified, 0x9E: True}.get(command.p2, self.verified):
            return b"", PIN_MISSING
        challenge = elements(elements(command.data).get(0x7C, b"")).get(0x81, b"")
        operation = ["-sign"] if algorithm == P256[0] else ["-decrypt", "-pkeyopt", "rsa_padding_mode:none"]
        done = subprocess.run(["openssl", "pkeyutl", *operation, "-inkey", f"{self.keys}/{command.p2:02x}.key"],
                              input=challenge, capture_output=True, check=False)
        return (tlv("7c", tlv("82", done.stdout)), OK) if done.returncode == 0 else (b"", WRONG_LENGTH)


class ForeignApplet:
    """A card of another maker: it has none of the applications that it is asked for."""

    def reset(self):
        pass

    def answer(self, apdu):
        return struct.pack(">H", NOT_FOUND if apdu[1] == 0xA4 else UNKNOWN_COMMAND)


class VirtualCard:
    """Puts an applet into a virtual reader, which listens on a port of this machine (ReaderStack.py).

    `leave_at` takes the card out when the APDU of that number comes, counted from 1 since `expect`; from that of
    `mute_from` on none is answered."""

    def __init__(self, applet, reader, atr=PLAIN_ATR):
        self.applet, self.reader, self.atr = applet, reader, atr
        self.expect()
        self.connection = self.thread = None

    def expect(self, leave_at=None, mute_from=None):
        """Counts anew. A card that was taken out stays out."""
        self.asked, self.leave_at, self.mute_from = [], leave_at, mute_from

    @property
    def pins_sent(self):
        """How often it was given a PIN to verify."""
        return sum(1 for apdu in self.asked if apdu[1] == 0x20 and len(apdu) > 5)

    def insert(self):
        self.remove()
        self.applet.reset()
        self.connection = socket.create_connection(("127.0.0.1", READERS[self.reader]), timeout=5)
        self.connection.settimeout(None)
        self.connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.thread = threading.Thread(target=self.serve, args=(self.connection,), daemon=True)
        self.thread.start()

    def remove(self):
        if self.connection:
            with contextlib.suppress(OSError):
                self.connection.shutdown(socket.SHUT_RDWR)
            self.thread.join()
            self.connection.close()
            self.connection = None

    def receive(self, connection, size):
        data = b""
        while len(data) < size:
            # The reader sends length and content apart: without this each message takes 40 ms.
            connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_QUICKACK, 1)
            part = connection.recv(size - len(data))
            if not part:
                raise ConnectionError
            data += part
        return data

    def serve(self, connection):
        """Until the card or the reader goes. One byte is for the contact: power off, power on, reset, ATR."""
        with contextlib.suppress(OSError):
            while True:
                message = self.receive(connection, int.from_bytes(self.receive(connection, 2), "big"))
                if len(message) > 1:
                    self.asked.append(message)
                    if len(self.asked) == self.leave_at:
                        break
                    if self.mute_from and len(self.asked) >= self.mute_from:
                        continue
                    answer = self.applet.answer(message)
                elif message == b"\4":
                    answer = self.atr
                else:
                    self.applet.reset()
                    continue
                connection.sendall(struct.pack(">H", len(answer)) + answer)
        with contextlib.suppress(OSError):
            connection.shutdown(socket.SHUT_RDWR)
