"""Turns a recording into a C program that makes the same Cryptoki calls with the same arguments, and nothing else: what is
left of a command when all of our own work is taken away.

usage: bare_calls.py RECORDING > PROGRAM.c
       PROGRAM MODULE PIN-FILE

RECORDING: what `mireltoken record --out` or `--trace` has written of a command that did what it was asked. A call that
answers something else than in the recording ends the program. What a recording leaves out stands in for itself: the PIN
comes from a file, and data are bytes of the same number. Handles are those that the module gives this time. Known are the
calls that list a card, log in and sign."""

import json
import sys

START = r"""#include <dlfcn.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

typedef unsigned long UL;
typedef void* P;
struct attribute { UL type; void* value; UL length; };
struct mechanism { UL type; void* parameter; UL length; };
struct list { unsigned char version[2]; void (*entries[68])(void); };

#define CALL(place, result, ...) expect(place, result, ((UL(*)(__VA_ARGS__))functions->entries[place])

static UL handles[MANY];

static void expect(int place, UL result, UL answer) {
  if (answer == result) return;
  fprintf(stderr, "function %d answers %lu instead of %lu\n", place, answer, result);
  exit(1);
}

int main(int argc, char** argv) {
  unsigned char pin[64];
  UL pinLen = 0;
  struct list* functions = 0;
  if (argc != 3) return 2;
  FILE* file = fopen(argv[2], "r");
  if (!file) return 2;
  pinLen = fread(pin, 1, sizeof pin, file);
  fclose(file);
  void* library = dlopen(argv[1], RTLD_NOW);
  if (!library) return 2;
  UL (*entry)(struct list**) = (UL(*)(struct list**))dlsym(library, "C_GetFunctionList");
  if (!entry || entry(&functions) != 0) return 2;
  (void)pin;
  (void)pinLen;
"""
END = "  return 0;\n}\n"

# The places in the function list, and the values of names (PKCS #11 v2.40). A recording has numbers for all others.
PLACES = {"C_Initialize": 0, "C_GetSlotList": 4, "C_GetSlotInfo": 5, "C_GetTokenInfo": 6, "C_OpenSession": 12,
          "C_CloseSession": 13, "C_GetSessionInfo": 15, "C_Login": 18, "C_GetAttributeValue": 24, "C_FindObjectsInit": 26,
          "C_FindObjects": 27, "C_FindObjectsFinal": 28, "C_SignInit": 42, "C_Sign": 43}
RESULTS = {"CKR_OK": 0, "CKR_ATTRIBUTE_SENSITIVE": 0x11, "CKR_ATTRIBUTE_TYPE_INVALID": 0x12, "CKR_BUFFER_TOO_SMALL": 0x150,
           "CKR_CRYPTOKI_ALREADY_INITIALIZED": 0x191}
ATTRIBUTES = {"CKA_CLASS": 0, "CKA_TOKEN": 1, "CKA_PRIVATE": 2, "CKA_LABEL": 3, "CKA_VALUE": 0x11, "CKA_KEY_TYPE": 0x100,
              "CKA_ID": 0x102, "CKA_DECRYPT": 0x105, "CKA_SIGN": 0x108, "CKA_MODULUS": 0x120, "CKA_EC_PARAMS": 0x180,
              "CKA_EC_POINT": 0x181, "CKA_ALWAYS_AUTHENTICATE": 0x202}
FLAGS = ("CKA_TOKEN", "CKA_PRIVATE", "CKA_SIGN", "CKA_DECRYPT", "CKA_ALWAYS_AUTHENTICATE")
ULONG_SIZE = 8  # bytes
INFO_SIZE = 512  # bytes, more than any of the structures has


def number_of(name, names):
    if isinstance(name, int):
        return name
    if name not in names:
        sys.exit(f"bare_calls.py: {name} is not known")
    return names[name]


def bytes_of(entry):
    """The value of an attribute that is looked for."""
    value = entry["value"]
    if isinstance(value, int):
        return value.to_bytes(1 if entry["type"] in FLAGS else ULONG_SIZE, sys.byteorder)
    return bytes.fromhex(value["hex"]) if isinstance(value, dict) else value.encode("latin-1")


class Statement:
    """A call: its arguments, with their types, what is declared before and what is kept afterwards.

    `places`: where the handles are kept that the recording has."""

    def __init__(self, call, places):
        self.call, self.given, self.places = call, call["in"], places
        self.declared, self.arguments, self.kept = [], [], []

    def add(self, kind, text):
        self.arguments.append((kind, str(text)))

    def number(self, name):
        self.add("UL", f"{self.given[name]}UL")

    def handle(self, name):
        handle = self.given[name]
        self.add("UL", f"handles[{self.places[handle]}]" if handle in self.places else f"{handle}UL")

    def place_of(self, handle):
        """Where a handle is kept that the module gives."""
        return self.places.setdefault(handle, len(self.places))

    def room(self, size, unit=1):
        """For what is answered; None: a null pointer."""
        if size is not None:
            self.declared.append(f"static unsigned char r[{size} * {unit} + 1];")
        self.add("P", "0" if size is None else "r")

    def counter(self, value):
        self.declared.append(f"UL n = {value or 0}UL;")
        self.add("P", "&n")

    def data(self, name):
        """Zero first, so that as a whole block it is a number that an RSA key takes."""
        size = self.given[name]["hidden"]
        self.declared.append(f"static unsigned char d[{size} + 1] = {{0, 1, 2, 3}};")
        self.add("P", "d")
        self.add("UL", f"{size}UL")

    def template(self):
        entries = []
        for place, entry in enumerate(self.given["attributes"]):
            kind = number_of(entry["type"], ATTRIBUTES)
            if "value" in entry:  # looked for
                value = bytes_of(entry)
                self.declared.append(f"static unsigned char v{place}[] = {{{', '.join(map(str, value))}, 0}};")
                entries.append(f"{{{kind}UL, v{place}, {len(value)}UL}}")
            elif entry["room"] is None:
                entries.append(f"{{{kind}UL, 0, 0}}")
            else:
                self.declared.append(f"static unsigned char v{place}[{entry['room']} + 1];")
                entries.append(f"{{{kind}UL, v{place}, {entry['room']}UL}}")
        self.declared.append(f"struct attribute a[] = {{{', '.join(entries)}}};")
        self.add("P", "a")
        self.add("UL", f"{len(entries)}UL")

    def mechanism(self):
        if self.given["mechanism"]["parameter"] is not None:
            sys.exit("bare_calls.py: a mechanism with parameters is not known")
        self.declared.append(f"struct mechanism m = {{{self.given['mechanism']['type']}UL, 0, 0}};")
        self.add("P", "&m")

    def text(self):
        place, result = PLACES[self.call["function"]], number_of(self.call["result"], RESULTS)
        types = "".join(f", {kind}" for kind, _ in self.arguments)
        values = ", ".join(text for _, text in self.arguments)
        return f"  {{ {' '.join(self.declared)} CALL({place}, {result}UL{types})({values})); {' '.join(self.kept)} }}\n"


def statement_of(call, places):
    """The call in C."""
    made, function = Statement(call, places), call["function"]
    if function == "C_Initialize":
        if made.given["initArgs"]:
            sys.exit("bare_calls.py: C_Initialize with arguments is not known")
        made.add("P", "0")
    elif function == "C_GetSlotList":
        made.number("tokenPresent")
        made.room(made.given["slots"], "sizeof(UL)")
        made.counter(made.given["slots"])
    elif function in ("C_GetSlotInfo", "C_GetTokenInfo", "C_GetSessionInfo"):
        if function == "C_GetSessionInfo":
            made.handle("session")
        else:
            made.number("slot")
        made.room(INFO_SIZE)
    elif function == "C_OpenSession":
        made.number("slot")
        made.number("flags")
        made.add("P", "0")
        made.add("P", "0")
        made.add("P", f"&handles[{made.place_of(call['out']['session'])}]")
    elif function in ("C_CloseSession", "C_FindObjectsFinal"):
        made.handle("session")
    elif function == "C_Login":
        made.handle("session")
        made.number("userType")
        made.add("P", "pin")
        made.add("UL", "pinLen")
    elif function in ("C_GetAttributeValue", "C_FindObjectsInit"):
        made.handle("session")
        if function == "C_GetAttributeValue":
            made.handle("object")
        made.template()
    elif function == "C_FindObjects":
        made.handle("session")
        made.room(made.given["objects"], "sizeof(UL)")
        made.number("objects")
        made.counter(0)
        for number, handle in enumerate(call["out"]["objects"].get("value", [])):
            made.kept.append(f"memcpy(&handles[{made.place_of(handle)}], r + {number} * sizeof(UL), sizeof(UL));")
    elif function == "C_SignInit":
        made.handle("session")
        made.mechanism()
        made.handle("key")
    elif function == "C_Sign":
        made.handle("session")
        made.data("data")
        made.room(made.given["signature"])
        made.counter(made.given["signature"])
    else:
        sys.exit(f"bare_calls.py: {function} is not known")
    return made.text()


if len(sys.argv) != 2:
    sys.exit(__doc__)
with open(sys.argv[1], encoding="utf-8") as lines:
    records = [json.loads(line) for line in lines]
# The library is opened once: what is done again for it is our own work.
calls = [record for record in records if record.get("function", "C_GetFunctionList") != "C_GetFunctionList"]
given_handles = {}
statements = "".join(statement_of(call, given_handles) for call in calls)
sys.stdout.write(START.replace("MANY", str(len(given_handles) + 1)) + statements + END)
