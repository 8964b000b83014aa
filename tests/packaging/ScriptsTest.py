"""What `check` does on machines that are not alike: run on a small tree, with stand-ins for the programs that build
and test, which note how they are called. Only the programs that a bare system has are beside them, and Python, which
`check` installs. And how it counts tests."""

import pathlib
import shutil
import sys

from BundleFilesSupport import Checks, arguments, files_below, run, temporary_folder

# All that the scripts may take for granted.
BARE = """awk cat chmod cp date dirname env find getconf grep head id ls mkdir mktemp mv nice rm sed sh sleep sort tail touch
tr uname wc xargs""".split()

SOURCES = ["bridge/src/One.cpp", "cli/Two.cpp", "bridge/src/One.h", "token/macos/Three.mm"]
TIDIED = ["bridge/src/One.cpp", "cli/Two.cpp"]

# Each notes its name and its arguments in $CALLS, with tabs between them.
NOTES = '#!/bin/sh\n(IFS="\t"; printf "%s\\n" "${0##*/}\t$*") >>"$CALLS"\n'
STAND_INS = {
    "cmake": "",
    "apt-get": '[ "$1" != download ] || : >"$2_1_all.deb"\n',
    "dpkg-deb": 'mkdir "$3" && : >"$3/driver"\n',
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
DRIVER = "vsmartcard-vpcd"
REFUSING_GIT = "#!/bin/sh\necho 'fatal: detected dubious ownership' >&2\nexit 128\n"
# Knows the tag and the files that were changed since a commit.
GIT = NOTES + f"""\
case "$1 $2" in
  "describe --tags") [ -n "$TAG" ] && echo "$TAG" || exit 128 ;;
  "describe --always") echo "the commit $4" ;;
  "rev-list --boundary") echo new; echo "$OLDEST" ;;
  "diff --name-only") echo "$CHANGED" ;;
  "ls-files --others") echo "$NEW" ;;
  "ls-files --cached") printf '%s\\n' {" ".join(SOURCES)} ;;
  *) exit 129 ;;
esac
"""


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
        write_program(self.programs / "python3", f'#!/bin/sh\nexec "{sys.executable}" "$@"\n')
        for name, text in STAND_INS.items():
            write_program(self.programs / name, NOTES + text)
        (self.tree / "scripts").mkdir(parents=True)
        shutil.copy2(source / "check", self.tree)
        for name in ("setup.sh", "test_report.py"):
            shutil.copy2(source / "scripts" / name, self.tree / "scripts")
        for name in [*SOURCES, "build/Made.cpp"]:
            (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
            (self.tree / name).write_text("\n")

    def add(self, *names, text=NOTES):
        for name in names:
            write_program(self.programs / name, text)

    def check(self, *words, **variables):
        """Exit code, what was printed, and the calls of the stand-ins."""
        self.calls.write_text("")
        environment = dict.fromkeys(["CLANGS", "MISSING", "OFFERED", "TAG", "OLDEST", "CHANGED", "NEW"], "")
        environment.update({"PATH": self.programs, "CALLS": self.calls, "HOME": self.folder, "TMPDIR": self.folder})
        environment.update(variables)
        code, shown, error = run(
            "sh", self.tree / "check", *words, env={name: str(value) for name, value in environment.items()}
        )
        return code, shown + error, self.calls.read_text().splitlines()


def called(calls, name):
    return [line.split("\t") for line in calls if line.split("\t")[0] == name]


def sources_of(calls, name):
    """The sources that a program was called with."""
    return sorted(word for words in called(calls, name) for word in words if word in SOURCES)


def installs(calls):
    return [words for words in called(calls, "apt-get") if words[1] == "install"]


def skipped_lines(shown):
    return [line for line in shown.splitlines() if line.startswith("skipped: ")]


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


def built(calls):
    """The builds, with their presets and, unless they are of everything, their targets."""
    return [tuple(words[3:]) for words in called(calls, "cmake") if words[1] == "--build"]


def tested(calls):
    """The presets that are tested, with what chooses the tests."""
    return [(words[2], *words[words.index("--output-junit") + 2 :]) for words in called(calls, "ctest")]


def check_usage(checks, machine):
    for words in (["--fast"], ["nowhere"], [""], ["--quick", "bridge"], ["tests/bridge"], ["bridge framework"], ["everything"],
                  ["-h"], ["--help"]):
        code, shown, calls = machine.check(*words)
        usage = shown.startswith("usage: ./check [--quick | --all | FOLDER]\n")
        checks.equal(f"{words}: {shown}", (code, usage, calls), (0 if words[0] in ("-h", "--help") else 2, True, []))


def check_newest_clang(checks, machine):
    installed = "installed clang-9\ninstalled clang-19\nconfig-files clang-21\ninstalled clang-14-doc\ninstalled clang-14\n"
    code, shown, calls = machine.check(CLANGS=installed, MISSING="llvm-19 lld-19 libclang-rt-19-dev")
    checks.equal(f"the newest clang: {shown}", code, 0)
    checks.equal(
        "which compilers build what",
        compilers_of(checks, calls),
        {"release": ("g++", "clang++-19"), "asan": ("clang++-19", "clang++-19"), "tsan": ("clang++-19", "clang++-19")},
    )
    for what, compiler in (("release", "g++"), ("sanitizers", "clang++-19"), ("thread sanitizer", "clang++-19")):
        checks.true(f"what is said of {what}: {shown}", f"{what} with {compiler}\n" in shown)
    installed = [words[-3:] for words in installs(calls)]
    checks.equal("what is installed for it", installed, [["libclang-rt-19-dev", "llvm-19", "lld-19"]])


def check_no_clang(checks, machine):
    code, shown, calls = machine.check()
    checks.equal(f"no numbered clang: {shown}", code, 0)
    checks.equal("the one without a number", compilers_of(checks, calls)["asan"], ("clang++", "clang++"))
    left = "^(fuzz|macos|bridge|framework|provider|token|platform|host|recordings)$"
    pages = "^end_to_end_tests:Examples|^completions"
    checks.equal("all that is tested", tested(calls),
                 [("release", "-E", "^faults:|^cli_tests", "-LE", left), ("asan", "-LE", "^sources$", "-E", pages),
                  ("tsan", "-R", "(atomic|thread)_tests:")])


def check_other_version(checks, machine):
    code, shown, calls = machine.check(CLANGS="installed clang-19\n")
    said = "skipped: format and clang-tidy: they are checked with version 14, which this system does not have"
    checks.equal(f"another version is passed over in one line: {shown}", (code, skipped_lines(shown)), (0, [said]))
    checks.true(f"it is counted: {shown}", shown.endswith(" 0 failed, 1 skipped\n"))
    checks.equal("nothing is installed for it", called(calls, "apt-get"), [])


def check_offered(checks, machine):
    offered = [*CHECKING, "pcscd"]
    _, _, calls = machine.check(OFFERED=" ".join(offered), MISSING=" ".join(offered))
    checks.equal("the checking version and the service of the readers, where there are", [words[-3:] for words in installs(calls)],
                 [offered])


def check_unpacked(checks, machine):
    for what, variables, downloads in (
        ("installed", {"OFFERED": DRIVER}, 0),
        ("offered", {"OFFERED": DRIVER, "MISSING": DRIVER}, 1),
        ("unpacked already", {"OFFERED": DRIVER, "MISSING": DRIVER}, 0),
    ):
        _, shown, calls = machine.check("bridge", **variables)
        checks.equal(f"{what}: {shown}", called(calls, "apt-get"), [["apt-get", "download", DRIVER]] * downloads)
    checks.equal("what is there", files_below(machine.tree / "build/unpacked"), [f"{DRIVER}/driver"])


def check_without_git(checks, machine, what):
    code, shown, calls = machine.check()
    said = "skipped: clang-tidy: without git it is not known what changed (./check --all looks at all sources)"
    seen = (code, sources_of(calls, "clang-format-14"), sources_of(calls, "clang-tidy-14"), skipped_lines(shown))
    checks.equal(f"{what}: what is formatted and tidied: {shown}", seen, (0, sorted(SOURCES), [], [said]))
    checks.true(f"{what}: it is counted: {shown}", shown.endswith(" 0 failed, 1 skipped\n"))

    code, shown, calls = machine.check("--all", TOTAL_SECONDS=0)
    checks.equal(f"{what}: all sources, whatever time it takes: {shown}", sources_of(calls, "clang-tidy-14"), TIDIED)
    checks.true(f"{what}: nothing is skipped: {shown}", code == 0 and shown.endswith(" 0 failed, 0 skipped\n"))

    code, shown, calls = machine.check("--quick")
    checks.equal(f"{what}: --quick runs all tests: {shown}", (code, tested(calls)), (0, [("release",)]))


# What changed, and what clang-tidy is called with.
TIDY_ROWS = [
    ("one source", {"CHANGED": "cli/Two.cpp"}, ["cli/Two.cpp"]),
    ("a source that is new", {"NEW": "cli/Two.cpp"}, ["cli/Two.cpp"]),
    ("a header is seen through its source", {"CHANGED": "bridge/src/One.h"}, ["bridge/src/One.cpp"]),
    ("a header and its source", {"CHANGED": "bridge/src/One.h\nbridge/src/One.cpp"}, ["bridge/src/One.cpp"]),
    ("nothing that is checked", {"CHANGED": "README.md\ntests/cli/Two.cpp\ntoken/macos/Three.mm"}, []),
    ("all commits are among the last", {"OLDEST": "old", "CHANGED": "cli/Two.cpp"}, TIDIED),
]


def check_changes(checks, machine):
    for what, variables, expected in TIDY_ROWS:
        code, shown, calls = machine.check(**{"OLDEST": "-old", **variables})
        seen = (code, sources_of(calls, "clang-tidy-14"), skipped_lines(shown))
        checks.equal(f"{what}: {shown}", seen, (0, expected, []))
    (machine.tree / "cli/Two.cpp").write_text('#include "deep/Other.h"\n')
    (machine.tree / "cli/Other.h").write_text("\n")
    _, shown, calls = machine.check(OLDEST="-old", CHANGED="cli/Other.h")
    checks.equal(f"a header is seen through who includes it: {shown}", sources_of(calls, "clang-tidy-14"), ["cli/Two.cpp"])

    for tag, range_of_commits in (("", "HEAD"), ("v1", "v1..HEAD")):
        _, _, calls = machine.check(OLDEST="-old", TAG=tag, CHANGED="cli/Two.cpp")
        git = called(calls, "git")
        for what, words in (
            ("the last tag but the one of the last commit", "describe --tags --abbrev=0 HEAD^"),
            ("20 commits at most", f"rev-list --boundary --max-count=20 {range_of_commits}"),
            ("changes since then", "diff --name-only --diff-filter=d old --"),
        ):
            checks.true(f"{what}: {git}", ["git", *words.split()] in git)

    (machine.tree / "cli/Other.h").unlink()
    code, shown, calls = machine.check(OLDEST="-old", CHANGED="cli/Two.cpp", TOTAL_SECONDS=0)
    checks.equal("no time left", (code, sources_of(calls, "clang-tidy-14"), skipped_lines(shown)),
                 (0, [], ["skipped: clang-tidy cli/Two.cpp (no time left)"]))
    machine.add("clang-tidy-14", text=NOTES + "echo 'Two.cpp:1: warning: it is wrong'\nexit 1\n")
    code, shown, _ = machine.check(OLDEST="-old", CHANGED="cli/Two.cpp")
    checks.true(f"a finding: {shown}", code == 1 and "FAILED: clang-tidy\nTwo.cpp:1: warning: it is wrong\n" in shown
                and shown.endswith(" 1 failed, 0 skipped\n"))
    machine.add("clang-tidy-14")


# What changed, and which tests --quick runs: labels, or all of them.
QUICK_ROWS = [
    ("bridge/src/One.cpp", "bridge"),
    ("tests/framework/FrameworkTest.cpp\nprovider/src/New.cpp", "framework|provider"),
    ("framework/src/Some.cpp\nhost/src/Some.cpp\ncli/Two.cpp", "cli|framework|host"),
    ("token/src/Some.cpp", "macos|token"),
    ("platform/linux/Some.cpp", "macos|platform"),
    ("fuzz/Some.cpp", "fuzz"),
    ("packaging/man/mireltoken.1", "cli|packaging"),
    ("check", "packaging"),
    ("scripts/setup.sh", "packaging"),
    ("tests/support/Some.h", None),
    ("bridge/CMakeLists.txt", None),
    ("tests/module/Script.cpp\ncli/Two.cpp", None),
]


def check_quick(checks, machine):
    for changed, labels in QUICK_ROWS:
        code, shown, calls = machine.check("--quick", CHANGED=changed)
        expected = [("release", "-L", f"^({labels})$")] if labels else [("release",)]
        checks.equal(f"{changed}: {shown}", (code, built(calls), tested(calls)), (0, [("release",)], expected))
        seen = (sources_of(calls, "clang-format-14"), sources_of(calls, "clang-tidy-14"))
        checks.equal(f"{changed}: the format, and no clang-tidy", seen, (sorted(SOURCES), []))
    code, shown, calls = machine.check("--quick", CHANGED="docs/style.md")
    checks.equal(f"nothing that has tests: {shown}", (code, tested(calls)), (0, []))
    checks.true(f"it says so: {shown}", "nothing that has tests was changed\n" in shown)


# What is built and tested of a folder: targets besides its own; labels; whether there are threads.
LAYER_ROWS = [
    ("bridge", [], "bridge", True),
    ("framework/", [], "framework", True),
    ("provider", [], "provider", False),
    ("token", ["token/macos/all", "tests/macos/all"], "token|macos", True),
    ("platform", ["platform/macos/all", "tests/macos/all"], "platform|macos", True),
    ("host", [], "host", True),
    ("cli", [], "cli", False),
]


def check_layers(checks, machine):
    for folder, more, labels, threads in LAYER_ROWS:
        code, shown, calls = machine.check(folder)
        name = folder.rstrip("/")
        targets = [f"{name}/all", f"tests/{name}/all", *more]
        builds = [(preset, "--target", *targets) for preset in ("release", "asan")]
        tests = [("release", "-L", f"^({labels})$"), ("asan", "-L", f"^({labels})$", "-LE", "^sources$")]
        if threads:
            builds.append(("tsan", "--target", f"{name}_threads"))
            tests.append(("tsan", "-L", f"^{name}$", "-R", "(atomic|thread)_tests:"))
        checks.equal(f"{folder}: {shown}", (code, built(calls), tested(calls)), (0, builds, tests))


def check_no_sources(checks, machine):
    for name in SOURCES:
        (machine.tree / name).unlink()
    code, shown, _ = machine.check()
    checks.true(f"no sources: {shown}", code != 0 and "FAILED: format and clang-tidy: there are no sources" in shown)


def check_unreadable_count(checks, machine):
    (machine.tree / "scripts/test_report.py").write_text("raise SystemExit(1)\n")
    code, shown, _ = machine.check("bridge")
    checks.true(f"tests that are not counted: {shown}",
                code == 1 and "FAILED: tests: under the sanitizers: they could not be counted\n" in shown)


def suite(tests, failures=0, disabled=0, skipped=0):
    return f'<testsuite name="x"\n tests="{tests}"\n failures="{failures}" disabled="{disabled}" skipped="{skipped}">\n'


PROGRAM = "[==========] Running 3 tests from 1 test suite.\n[       OK ] A.B (1 ms)\n[  SKIPPED ] A.C (0 ms)\n"
COMPLETE = PROGRAM + "[       OK ] A.D (20 ms)\n"
SKIPPED_TEST = """\
1/2 Testing: other
skipped: of another test
<end of output>
2/2 Testing: pack (a)
Output:
skipped: there is no card
<end of output>
"""
FAILED_TEST = "x\n1: f.cpp:3: Failure\n1: why\nThe following tests FAILED:\n\t  1 - bridge_tests:A.D (Failed)\n"

# What ctest left behind: its counts, what the tests and what ctest itself printed; what is printed of it, and counted.
REPORT_ROWS = [
    ("nothing", ("", "", "one\ntwo\n"), ["FAILED: tests: T: no test ran", "one", "two"], "0 1 0"),
    ("no test", (suite(0), "", "No tests were found!!!\n"),
     ["FAILED: tests: T: no test ran", "No tests were found!!!"], "0 1 0"),
    ("all passed", (suite(3), "", ""), ["T: 3 passed, 0 failed, 0 skipped"], "3 0 0"),
    ("some did not run", (suite(5, disabled=1, skipped=1), "", " 2/5 Test  #2: a:A.C ....***Skipped   0.01 sec\n"),
     ["T: 3 passed, 0 failed, 2 skipped", "skipped: a:A.C"], "3 0 2"),
    ("why it did not run", (suite(2, skipped=1), SKIPPED_TEST, "2/2 Test #2: pack (a) ....***Skipped 0 sec\n"),
     ["T: 1 passed, 0 failed, 1 skipped", "skipped: pack (a) (there is no card)"], "1 0 1"),
    ("a whole program", (suite(1), COMPLETE, "1/1 Test #1: bridge_tests: all of them ... Passed\n"),
     ["T: 1 passed, 0 failed, 1 skipped", "some are whole programs; in all there were 3 single tests", "skipped: A.C"],
     "1 0 1"),
    ("a skipped test that ctest names, once", (suite(3, skipped=1), COMPLETE, "2/3 Test #2: a:A.C ....***Skipped 0 sec\n"),
     ["T: 2 passed, 0 failed, 1 skipped", "skipped: a:A.C"], "2 0 1"),
    ("a program that ends before its time", (suite(1), PROGRAM, ""),
     ["FAILED: tests: T: 3 began, but 2 ended", "T: 1 passed, 0 failed, 1 skipped",
      "some are whole programs; in all there were 2 single tests", "skipped: A.C"], "1 1 1"),
    ("a failure", (suite(3, failures=1), "", FAILED_TEST),
     ["T: 2 passed, 1 failed, 0 skipped", "The following tests FAILED:", "\t  1 - bridge_tests:A.D (Failed)",
      *FAILED_TEST.splitlines()[1:]], "2 1 0"),
    ("a program that fails has an end that is not counted twice", (suite(1, failures=1), PROGRAM, ""),
     ["T: 0 passed, 1 failed, 1 skipped", "some are whole programs; in all there were 2 single tests", "skipped: A.C"],
     "0 1 1"),
]


def check_report(checks, source, folder):
    for what, contents, lines, counts in REPORT_ROWS:
        files = [folder / name for name in ("junit", "results", "output")]
        for path, text in zip(files, contents):
            path.unlink(missing_ok=True)
            if text:
                path.write_text(text)
        code, shown, error = run(sys.executable, "-B", source / "scripts/test_report.py", "T", *files, folder / "counts")
        checks.equal(f"{what}: {error}", (code, shown.splitlines(), (folder / "counts").read_text()),
                     (0, lines, counts + "\n"))
    (folder / "output").write_text("== ERROR: AddressSanitizer: x\n" + "frame\n" * 20 + "runtime error: y\n" * 100)
    (folder / "junit").write_text(suite(1, failures=1))
    _, shown, _ = run(sys.executable, "-B", source / "scripts/test_report.py", "T", *files, folder / "counts")
    checks.equal("lines of a failure", shown.count("frame\n"), 12)
    checks.equal("lines of all failures", shown.count("\n"), 1 + 2 + 80)


def main():
    given = arguments()
    checks = Checks()
    source = given.source.resolve()
    with temporary_folder() as name:
        folder = pathlib.Path(name).resolve()
        check_report(checks, source, folder)
        machine = Machine(source, folder)
        check_usage(checks, machine)
        check_newest_clang(checks, machine)
        check_no_clang(checks, machine)
        check_other_version(checks, machine)
        check_offered(checks, machine)
        check_unpacked(checks, machine)
        machine.add(*CHECKING)
        check_without_git(checks, machine, "without git")
        machine.add("git", text=REFUSING_GIT)
        check_without_git(checks, machine, "with a git that refuses")
        machine.add("git", text=GIT)
        check_changes(checks, machine)
        check_quick(checks, machine)
        check_layers(checks, machine)
        machine.add("git", text=REFUSING_GIT)
        check_no_sources(checks, machine)
        check_unreadable_count(checks, machine)
    checks.finish()


if __name__ == "__main__":
    main()
