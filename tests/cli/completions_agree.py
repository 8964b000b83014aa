"""Compares the completions for a shell with the help of the program, and tries them where the shell can be driven.

usage: completions_agree.py --source FOLDER --shell bash|zsh|fish MIRELTOKEN

The exit code is 77 when the shell is not installed; what needs no shell has been compared then all the same.
"""

import argparse
import importlib.util
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile

FILES = {"bash": "mireltoken.bash", "zsh": "_mireltoken", "fish": "mireltoken.fish"}

# Print what the words are completed to, one a line.
BASH_DRIVER = r"""
source "$1"; shift
COMP_WORDS=("$@")
COMP_CWORD=$(($# - 1))
_mireltoken
[ ${#COMPREPLY[@]} -eq 0 ] || printf '%s\n' "${COMPREPLY[@]}"
"""
FISH_DRIVER = "source $argv[1]; complete -C $argv[2]"


def words_in(text, expression):
    return sorted(set(re.findall(expression, text, re.M)))


class Program:
    def __init__(self, path):
        self.path = path
        text = self.help_of()
        self.commands = words_in(text.split("\nCommands:\n")[1].split("\n\n")[0], r"^  ([a-z]+) ")
        self.common = self.options_in(text)

    def help_of(self, *command):
        return subprocess.run([self.path, *command, "--help"], check=True, capture_output=True, text=True).stdout

    @staticmethod
    def options_in(text):
        return words_in(text.split("\nOptions:\n")[1].split("\n\n")[0], r"(?:^  |,)(--?[a-z][a-z-]*)")

    def options_of(self, command):
        return sorted(set(self.common) | set(self.options_in(self.help_of(command))))


class Shell:
    """Completes words as the shell does."""

    def __init__(self, name, program, file):
        self.name, self.program, self.file, self.faults = name, program, file, []

    def arguments(self, words):
        if self.name == "bash":
            return ["bash", "--norc", "-c", BASH_DRIVER, "bash", self.file, "mireltoken", *words]
        return ["fish", "--no-config", "-c", FISH_DRIVER, self.file, " ".join(["mireltoken", *words])]

    def expect(self, folder, words, expected):
        run = subprocess.run(self.arguments(words), cwd=folder, capture_output=True, text=True)
        found = sorted(line.split("\t")[0].rstrip("/") for line in run.stdout.splitlines())
        if run.returncode or run.stderr:
            self.faults.append(f"{self.name} fails at {words}: {run.stderr.splitlines()[:1]}")
        elif found != sorted(expected):
            self.faults.append(f"{self.name} completes {words} to {found}, not {sorted(expected)}")

    def check(self):
        program = self.program
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            (folder / "letter one.txt").touch()
            (folder / "letters").mkdir()
            for command in program.commands:
                self.expect(folder, [command, "--"], self.long(program.options_of(command)))
                if "--key" in program.options_of(command):
                    self.expect(folder, [command, "--key", ""], [])
            self.expect(folder, ["--json", ""], program.commands)
            self.expect(folder, ["--"], self.long(program.common))
            self.expect(folder, ["help", ""], [command for command in program.commands if command != "help"])
            recorded = [name for name in program.commands if name not in ("watch", "explain", "record", "trace", "help")]
            self.expect(folder, ["record", "--out", "file.jsonl", ""], recorded)
            self.expect(folder, ["record", "--out", "file.jsonl", "items", ""], [])
            self.expect(folder, ["explain", "MT-R02"], ["MT-R02"])
            self.expect(folder, ["trace", ""], ["show"])
            self.expect(folder, ["trace", "show", "lett"], ["letter one.txt", "letters"])
            self.expect(folder, ["sign", ""], [])
            self.expect(folder, ["de"], ["decrypt"])
            files = ["letter one.txt", "letters"]
            for option in ("--in", "--out", "--pin-file", "--module"):
                self.expect(folder, ["sign", option, "lett"], files)
            self.expect(folder, ["--home", "lett"], ["letters"])
            name = "RSASignatureMessagePSSSHA1"
            self.expect(folder, ["sign", "--algorithm", name], [name])
            if self.name == "bash":
                # A value is no command, also not in the three words that bash makes of --reader=items.
                for before in (["--json"], ["--module", "sign"], ["--reader", "=", "items"]):
                    self.expect(folder, [*before, "readers", "-"], program.common)
                    self.expect(folder, [*before, ""], program.commands)
                self.expect(folder, ["sign", "--in", "="], files)
                self.expect(folder, ["sign", "--in", "=", "lett"], files)
        return self.faults

    @staticmethod
    def long(options):
        return [option for option in options if option.startswith("--")]


def generated(source, program, shell):
    place = source / "packaging/completions/generate.py"
    spec = importlib.util.spec_from_file_location("generate", place)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module.generate(program)[FILES[shell]]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--shell", choices=FILES, required=True)
    parser.add_argument("program")
    given = parser.parse_args()
    file = given.source.resolve() / "packaging/completions" / FILES[given.shell]
    text = file.read_text(encoding="utf-8")
    program = Program(given.program)

    faults = []
    if text != generated(given.source, given.program, given.shell):
        faults.append(f"{file} is not what the program's help says; run: packaging/completions/generate.py {given.program}")
    # Whatever the file was made by: every command and every option is in it.
    for command in program.commands:
        for option in [*program.options_of(command), command]:
            name = option.lstrip("-") if given.shell == "fish" else option
            if not re.search(rf"(?<![\w-]){re.escape(name)}(?![\w-])", text):
                faults.append(f"{file} does not know {option}")
    if len(program.commands) < 2 or len(program.common) < 2:
        faults.append("nothing was compared")

    installed = shutil.which(given.shell)
    if installed:
        syntax = subprocess.run([installed, "-n", file], capture_output=True, text=True)
        if syntax.returncode or syntax.stderr:
            faults.append(f"{given.shell} finds a mistake: {syntax.stderr}")
        if given.shell != "zsh":  # which completes at a terminal alone
            faults += Shell(given.shell, program, file).check()
    print("\n".join(faults[:20]))
    if faults:
        return 1
    if not installed:
        print(f"{given.shell} is not installed: its syntax was not checked")
        return 77
    return 0


if __name__ == "__main__":
    sys.exit(main())
