"""Readers, their service and programs in namespaces of their own: a service that the machine has is not touched, the
virtual readers listen on no network, and nothing outlives the test."""

import contextlib
import ctypes
import ctypes.util
import fcntl
import glob
import os
import pathlib
import shutil
import socket
import struct
import subprocess
import sys
import time

SKIPPED = 77  # the exit code for ctest
INSIDE = "MIREL_PIV_NAMESPACES"
READERS = {"Virtual PCD 00 00": 35963, "Virtual PCD 00 01": 35964}  # with their ports
DRIVER = "usr/lib/pcsc/drivers/serial/libifdvpcd.so"

# What the service says of a reader.
NO_CARD, PRESENT, MUTE = 0x0010, 0x0020, 0x0200


def skip(why):
    print(f"skipped: {why}", flush=True)
    sys.exit(SKIPPED)


def enter_namespaces():
    """Starts this program once more, apart from the machine; returns there, and only there."""
    if INSIDE in os.environ:
        return
    apart = ["unshare", "--map-root-user", "--net", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc"]
    if not shutil.which("unshare"):
        skip("there is no program unshare")
    tried = subprocess.run([*apart, "mount", "-t", "tmpfs", "tmpfs", "/run"], capture_output=True, text=True, check=False)
    if tried.returncode != 0:
        skip(f"this system lets nobody make namespaces here: {tried.stderr.strip()}")
    os.execvpe(apart[0], [*apart, sys.executable, "-B", *sys.argv], {**os.environ, INSIDE: "1"})


def first_file(*patterns):
    return next((path for pattern in patterns for path in sorted(glob.glob(pattern))), None)


class ReaderState(ctypes.Structure):
    _fields_ = [("reader", ctypes.c_char_p), ("user", ctypes.c_void_p), ("known", ctypes.c_ulong),
                ("event", ctypes.c_ulong), ("atr_size", ctypes.c_ulong), ("atr", ctypes.c_ubyte * 33)]


class CardService:
    """The service as its programs see it (PC/SC)."""

    def __init__(self, library):
        self.library = ctypes.CDLL(library)
        self.context = ctypes.c_long()

    def call(self, name, *arguments):
        result = getattr(self.library, name)(*arguments) & 0xFFFFFFFF
        if result:
            raise OSError(f"{name} answered {result:#x}")

    def connect(self):
        self.call("SCardEstablishContext", ctypes.c_ulong(2), None, None, ctypes.byref(self.context))

    def state(self, reader):
        """What is said of a reader: flags, and in the upper half how often cards came and went."""
        asked = ReaderState(reader=reader.encode())
        self.call("SCardGetStatusChange", self.context, ctypes.c_ulong(0), ctypes.byref(asked), ctypes.c_ulong(1))
        return asked.event

    def wait(self, reader, flag):
        until(f"{reader} says {flag:#x}", lambda: self.state(reader) & flag)

    @contextlib.contextmanager
    def holding(self, reader):
        """Holds the card of a reader, so that nobody else reaches it."""
        card, protocol = ctypes.c_long(), ctypes.c_ulong()
        self.call("SCardConnect", self.context, reader.encode(), ctypes.c_ulong(1), ctypes.c_ulong(3), ctypes.byref(card),
                  ctypes.byref(protocol))
        try:
            yield
        finally:
            self.call("SCardDisconnect", card, ctypes.c_ulong(0))


def until(what, condition, seconds=10):
    """Waits for a condition. One that does not come about fails the test."""
    end = time.monotonic() + seconds
    while True:
        with contextlib.suppress(OSError):
            if condition():
                return
        if time.monotonic() > end:
            raise AssertionError(f"it did not come about in {seconds} seconds: {what}")
        time.sleep(0.005)


class ReaderStack:
    """The service with two virtual readers and no card. `unpacked` is where their driver is when it is not installed."""

    def __init__(self, unpacked):
        self.folder = pathlib.Path("/run/pcscd")  # where its programs look for it
        needed = {
            "pcscd": shutil.which("pcscd", path=f"{os.environ['PATH']}:/usr/sbin"),
            "vsmartcard-vpcd": first_file(f"/{DRIVER}", f"{unpacked}/{DRIVER}"),
            "opensc-pkcs11": first_file("/usr/lib/*/opensc-pkcs11.so", "/usr/lib*/opensc-pkcs11.so"),
            "libpcsclite1": ctypes.util.find_library("pcsclite"),
            "openssl": shutil.which("openssl"),
        }
        missing = [name for name, path in needed.items() if not path]
        if missing:
            skip(f"not on this system: {', '.join(missing)}")
        self.program, self.driver, self.module, library, _ = needed.values()
        self.service = CardService(library)
        self.process = None

        with socket.socket() as any_socket:  # the loopback interface is down at first: SIOCSIFFLAGS, IFF_UP
            fcntl.ioctl(any_socket, 0x8914, struct.pack("16sH22x", b"lo", 1))
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", "/run"], check=True)
        os.symlink(self.driver, "/run/driver.so")  # a path without blanks
        self.start()

    def start(self, readers=True):
        """The service, with the two virtual readers or with none."""
        configuration = self.folder / ("readers" if readers else "no-readers")
        configuration.mkdir(parents=True, exist_ok=True)
        if readers:
            port = f"{min(READERS.values()):#x}"
            (configuration / "virtual").write_text(
                f'FRIENDLYNAME "Virtual PCD"\nDEVICENAME /dev/null:{port}\nLIBPATH /run/driver.so\nCHANNELID {port}\n')
        command = [self.program, "--foreground", "--config", str(configuration)]
        options = subprocess.run([self.program, "--help"], capture_output=True, text=True, check=False).stdout
        if "--disable-polkit" in options:
            command.append("--disable-polkit")
        with open("/run/pcscd.log", "ab") as log:
            self.process = subprocess.Popen(command, stdout=log, stderr=log)
        until("the service answers", lambda: self.service.connect() is None)
        for reader in READERS if readers else []:
            self.service.wait(reader, NO_CARD)

    def stop(self):
        self.process.terminate()
        self.process.wait(10)

    def insert(self, card, flag=PRESENT):
        self.service.wait(card.reader, NO_CARD)
        card.insert()
        self.service.wait(card.reader, flag)

    def remove(self, card):
        card.remove()
        self.service.wait(card.reader, NO_CARD)
