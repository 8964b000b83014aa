"""The Objective-C classes as the compiler sees them: what they are derived from, which protocols they have taken on, and
each property's type and attributes. The runtime of this system does not keep all of that."""

import argparse
import json
import pathlib
import re
import shlex
import subprocess
import sys

HEADERS = ["MirelCTKTokenKeychainKey.h", "MirelSCToken.h", "MirelSCTokenAuth.h", "MirelSCTokenDriver.h", "MirelSCTokenSession.h"]

# class -> (base, protocols, property -> (type, attributes))
EXPECTED = {
    "MirelSCTokenDriver": ("TKSmartCardTokenDriver", ["TKSmartCardTokenDriverDelegate"], {}),
    "MirelSCToken": (
        "TKSmartCardToken",
        ["TKTokenDelegate"],
        {"sp": ("CryptTKitSProvider *", "readwrite atomic strong")},
    ),
    "MirelCTKTokenKeychainKey": (
        "TKTokenKeychainKey",
        [],
        {
            "certificateID": ("id", "readonly atomic strong"),
            "alwaysAuthenticate": ("BOOL", "readonly atomic"),
        },
    ),
    "MirelSCTokenSession": (
        "TKSmartCardTokenSession",
        ["TKTokenSessionDelegate"],
        {
            "authState": ("NSInteger", "assign readwrite atomic unsafe_unretained"),
            "sp": ("CryptTKitSProvider *", "readwrite atomic strong"),
        },
    ),
    "MirelSCTokenAuth": (
        "TKTokenSmartCardPINAuthOperation",
        [],
        {"session": ("MirelSCTokenSession *", "readonly atomic strong")},
    ),
}


def compiler_for(database):
    """The command that compiled the session's class, without its source and its output."""
    for entry in json.loads(database.read_text()):
        if entry["file"].endswith("token/macos/MirelSCTokenSession.mm"):
            words = shlex.split(entry["command"])
            output, source = words.index("-o"), words.index("-c")
            return [word for i, word in enumerate(words) if i not in (output, output + 1, source, source + 1)]
    sys.exit("no command has compiled the classes")


def interfaces(compiler, folder):
    """The same as EXPECTED, of the headers in that folder."""
    source = "".join(f'#import "{folder}/{header}"\n' for header in HEADERS)
    done = subprocess.run(
        [*compiler, "-fsyntax-only", "-fno-color-diagnostics", "-Xclang", "-ast-dump", "-Xclang", "-ast-dump-filter",
         "-Xclang", "Mirel", "-x", "objective-c++", "-"],
        input=source, capture_output=True, text=True, timeout=100, check=False,
    )  # fmt: skip
    if done.returncode:
        sys.exit(done.stderr)
    found = {}  # a class can be declared several times, of which one has everything
    name = ""
    for line in done.stdout.splitlines():
        if match := re.match(r"ObjCInterfaceDecl .* (\w+)$", line):
            name = match[1]
        elif match := re.match(r"[|`]-super ObjCInterface 0x\w+ '(\w+)'", line):
            found.setdefault(name, (match[1], [], {}))
        elif match := re.match(r"[|`]-ObjCProtocol 0x\w+ '(\w+)'", line):
            if match[1] not in found[name][1]:
                found[name][1].append(match[1])
        elif match := re.match(r"[|`]-ObjCPropertyDecl .* (\w+) '([^']*)'(?::'[^']*')? ([\w ]+)$", line):
            kind = re.sub(r" _(Nullable|Nonnull)", "", match[2])
            found[name][2][match[1]] = (kind, match[3])
    return found


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    given = parser.parse_args()
    compiler = compiler_for(given.build / "compile_commands.json")
    found = interfaces(compiler, given.source / "token/macos")
    failures = 0
    for name, expected in EXPECTED.items():
        if found.get(name) != expected:
            failures += 1
            print(f"FAILED: {name}\n  is:        {found.get(name)}\n  should be: {expected}")
    print(f"{len(EXPECTED)} checks, {failures} failed")
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
