"""What `check` does on machines that are not alike: run on a small tree, with stand-ins for the programs that build
and test, which note how they are called. Only the programs that a bare system has are beside them."""

import pathlib
import shutil

from BundleFilesSupport import Checks, arguments, run, temporary_folder

# All that the scripts may take for granted.
BARE = """awk cat chmod cp date dirname env find getconf grep head id ls mkdir mktemp nice rm sed sh sleep sort tail touch
tr uname wc xargs""".split()

SOURCES = ["bridge/src/One.cpp", "cli/Two.cpp", "bridge/src/One.h", "token/macos/Three.mm"]

# Each notes its name and its arguments in $CALLS, with tabs between them.
NOTES = '#!/bin/sh\n(IFS="\t"; printf "%s\\n" "${0##*/}\t$*") >>"$CALLS"\n'
STAND_INS = {
    "cmake": "",
    "apt-get": "",
    "g++": "",
    "clang++": "",
    "clang++-19": "",
    # Without a name to look for it is the search for compilers.
    "dpkg-query": """\
for last; do :; done
case "$last" in
  "clang-[0-9]*") printf '%s' "$CLANGS" ;;
  *) case " $MISSING " in *" $last "*) exit 1 ;; esac; printf 'installed' ;;
esac
""",
    "apt-cache": """\
case " $OFFERED " in *" $2 "*) echo "$2:"; echo "  Candidate: 1" ;; *) exit 0 ;; esac
""",
    "ctest": """\
preset=$2
while [ "$1" != --output-junit ]; do shift; done
echo '<testsuite tests="3" failures="0" disabled="0" skipped="0">' >"$2"
mkdir -p "build/$preset/Testing/Temporary"
: >"build/$preset/Testing/Temporary/LastTest.log"
""",
}
CHECKING = ["clang-format-14", "clang-tidy-14"]
REFUSING_GIT = "#!/bin/sh\necho 'fatal: detected dubious ownership' >&2\nexit 128\n"


def write_program(path, text):
    path.write_text(text)
    path.chmod(0o755)


class Machine:
    """A tree and the programs around it."""

    def __init__(self, source, folder):
        self.folder = folder
        self.tree, self.programs, self.calls = folder / "tree", folder / "bin", folder / "calls"
        self.programs.mkdir()
        for name in BARE:
            (self.programs / name).symlink_to(shutil.which(name))
        for name, text in STAND_INS.items():
            write_program(self.programs / name, NOTES + text)
        (self.tree / "scripts").mkdir(parents=True)
        shutil.copy2(source / "check", self.tree)
        shutil.copy2(source / "scripts/setup.sh", self.tree / "scripts")
        for name in [*SOURCES, "build/Made.cpp"]:
            (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
            (self.tree / name).write_text("\n")

    def add(self, *names, text=NOTES):
        for name in names:
            write_program(self.programs / name, text)

    def check(self, **variables):
        """Exit code, what was printed, and the calls of the stand-ins."""
        self.calls.write_text("")
        environment = {"PATH": self.programs, "CALLS": self.calls, "CLANGS": "", "MISSING": "", "OFFERED": ""}
        environment.update({"HOME": self.folder, "TMPDIR": self.folder}, **variables)
        code, shown, error = run(
            "sh", self.tree / "check", env={name: str(value) for name, value in environment.items()}
        )
        return code, shown + error, self.calls.read_text().splitlines()


def called(calls, name):
    return [line.split("\t") for line in calls if line.split("\t")[0] == name]


def compilers_of(checks, calls):
    """The presets that are configured, with the compilers for C++ and Objective-C++."""
    found = {}
    for words in called(calls, "cmake"):
        if words[1] == "--preset":
            given = dict(word[2:].split("=", 1) for word in words if word.startswith("-D"))
            # CMake takes the second one by its path alone.
            checks.true("the path of the compiler for Objective-C++", given["MIREL_OBJCXX_COMPILER"].startswith("/"))
            found[words[2]] = (given["CMAKE_CXX_COMPILER"], pathlib.Path(given["MIREL_OBJCXX_COMPILER"]).name)
    return found


def check_newest_clang(checks, machine):
    installed = "installed clang-9\ninstalled clang-19\nconfig-files clang-21\ninstalled clang-14-doc\ninstalled clang-14\n"
    code, shown, calls = machine.check(CLANGS=installed, MISSING="llvm-19 lld-19 libclang-rt-19-dev")
    checks.equal(f"the newest clang: {shown}", code, 0)
    checks.equal(
        "which compilers build what",
        compilers_of(checks, calls),
        {"release": ("g++", "clang++-19"), "asan": ("clang++-19", "clang++-19"), "tsan": ("g++", "clang++-19")},
    )
    for what, compiler in (("release", "g++"), ("sanitizers", "clang++-19"), ("thread sanitizer", "g++")):
        checks.true(f"what is said of {what}: {shown}", f"{what} with {compiler}\n" in shown)
    installs = [words for words in called(calls, "apt-get") if words[1] == "install"]
    checks.equal("what is installed for it", [words[-3:] for words in installs],
                 [["libclang-rt-19-dev", "llvm-19", "lld-19"]])


def check_no_clang(checks, machine):
    code, shown, calls = machine.check()
    checks.equal(f"no numbered clang: {shown}", code, 0)
    checks.equal("the one without a number", compilers_of(checks, calls)["asan"], ("clang++", "clang++"))


def check_other_version(checks, machine):
    code, shown, calls = machine.check(CLANGS="installed clang-19\n")
    skipped = [line for line in shown.splitlines() if line.startswith("skipped: ")]
    said = "skipped: format and clang-tidy: they are checked with version 14, which this system does not have"
    checks.equal(f"another version is passed over in one line: {shown}", (code, skipped), (0, [said]))
    checks.true(f"it is counted: {shown}", shown.endswith(" 0 failed, 1 skipped\n"))
    checks.equal("nothing is installed for it", called(calls, "apt-get"), [])


def check_offered(checks, machine):
    _, _, calls = machine.check(OFFERED=" ".join(CHECKING), MISSING=" ".join(CHECKING))
    installs = [words for words in called(calls, "apt-get") if words[1] == "install"]
    checks.equal("the checking version, where there is one", [words[-2:] for words in installs], [CHECKING])


def check_sources(checks, machine, what):
    code, shown, calls = machine.check()
    checks.equal(f"{what}: {shown}", code, 0)
    formatted = [word for words in called(calls, "clang-format-14") for word in words if not word.startswith("-")]
    checks.equal(f"{what}: what is formatted", sorted(formatted[1:]), sorted(SOURCES))
    tidied = [word for words in called(calls, "clang-tidy-14") for word in words if word.endswith(".cpp")]
    checks.equal(f"{what}: what is tidied", sorted(tidied), ["bridge/src/One.cpp", "cli/Two.cpp"])
    checks.true(f"{what}: nothing is skipped: {shown}", shown.endswith(" 0 failed, 0 skipped\n"))


def check_no_sources(checks, machine):
    for name in SOURCES:
        (machine.tree / name).unlink()
    code, shown, _ = machine.check()
    checks.true(f"no sources: {shown}", code != 0 and "FAILED: format and clang-tidy: there are no sources" in shown)


def main():
    given = arguments()
    checks = Checks()
    with temporary_folder() as name:
        machine = Machine(given.source.resolve(), pathlib.Path(name).resolve())
        check_newest_clang(checks, machine)
        check_no_clang(checks, machine)
        check_other_version(checks, machine)
        check_offered(checks, machine)
        machine.add(*CHECKING)
        check_sources(checks, machine, "without git")
        machine.add("git", text=REFUSING_GIT)
        check_sources(checks, machine, "with a git that refuses")
        check_no_sources(checks, machine)
    checks.finish()


if __name__ == "__main__":
    main()
