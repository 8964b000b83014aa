"""What one run of ctest came to: prints it, and writes "<passed> <failed> <skipped>" to a file.

usage: test_report.py <what> <junit file> <LastTest.log> <what ctest printed> <file for the counts>
"""

import pathlib
import re
import sys

# How a failure looks in what the tests print, and how many lines of it tell enough.
FAILURE = re.compile(
    r": Failure$|^FAILED: |ERROR: AddressSanitizer|runtime error|ERROR: LeakSanitizer|WARNING: ThreadSanitizer"
)
LINES_AFTER_FAILURE = 12
MOST_FAILURE_LINES = 80


def text_of(path):
    """A file as text; empty when there is none."""
    return path.read_text(encoding="utf-8", errors="replace") if path.is_file() else ""


def counts_of(junit):
    """How many tests there were, how many failed, and how many did not run, as ctest counts."""
    head = re.search(r"<testsuite\b[^>]*>", junit)
    given = dict(re.findall(r'\b(tests|failures|disabled|skipped)="(\d+)"', head[0])) if head else {}
    tests, failures, disabled, skipped = (int(given.get(name, 0)) for name in ("tests", "failures", "disabled", "skipped"))
    return tests, failures, disabled + skipped


def skipped_tests(output):
    """The tests that ctest names as skipped."""
    return re.findall(r"Test *#\d+: (.*) \.*\*\*\*Skipped", output)


def reason_of(test, results):
    """Why a test was skipped, in brackets, when it has printed "skipped: " and the reason."""
    printed = re.search(rf"^\d+/\d+ Testing: {re.escape(test)}\n(.*?)<end of output>", results, re.MULTILINE | re.DOTALL)
    reason = printed and re.search(r"^skipped: (.*)$", printed[1], re.MULTILINE)
    return f" ({reason[1]})" if reason else ""


def skipped_within_programs(results, output):
    """The single tests that were skipped and that ctest does not name: it ran their program as one test."""
    skipped = re.findall(r"^\[  SKIPPED \] (.*) \(\d+ ms\)$", results, re.MULTILINE)
    named = skipped_tests(output)
    return [name for name in skipped if not any(test.endswith(":" + name) for test in named)]


def begun_and_ended(results):
    """How many single tests began and how many ended: a program that dies between two tests ends fewer."""
    begun = re.findall(r"^\[==========\] Running (\d+) tests? from ", results, re.MULTILINE)
    ended = re.findall(r"^\[(?:       OK|  FAILED |  SKIPPED) \] .* \(\d+ ms\)$", results, re.MULTILINE)
    return sum(map(int, begun)), len(ended)


def failure_lines(output):
    """ctest's list of failed tests, and the lines around each failure."""
    listed = output.find("The following tests FAILED")
    if listed >= 0:
        yield from output[listed:].splitlines()
    shown, left = 0, 0
    for line in output.splitlines():
        if FAILURE.search(line):
            left = LINES_AFTER_FAILURE + 1
        if left and shown < MOST_FAILURE_LINES:
            yield line
            shown, left = shown + 1, left - 1


def report(what, junit, results, output):
    """The lines to print; how many tests passed, failed and were skipped."""
    tests, failures, not_run = counts_of(junit)
    if not tests:
        return [f"FAILED: tests: {what}: no test ran", *output.splitlines()[-5:]], (0, 1, 0)
    lines, lost = [], 0
    begun, ended = begun_and_ended(results)
    if not failures and begun != ended:
        lines.append(f"FAILED: tests: {what}: {begun} began, but {ended} ended")
        lost = 1
    within = skipped_within_programs(results, output)
    passed, skips = tests - failures - not_run, not_run + len(within)
    lines.append(f"{what}: {passed} passed, {failures} failed, {skips} skipped")
    if ended > tests:
        lines.append(f"some are whole programs; in all there were {ended} single tests")
    lines += [f"skipped: {name}{reason_of(name, results)}" for name in [*within, *skipped_tests(output)]]
    if failures:
        lines += failure_lines(output)
    return lines, (passed, failures + lost, skips)


def main():
    what, junit, results, output, counts_file = sys.argv[1:]
    lines, counts = report(what, *(text_of(pathlib.Path(path)) for path in (junit, results, output)))
    print("\n".join(lines))
    pathlib.Path(counts_file).write_text("{} {} {}\n".format(*counts))


if __name__ == "__main__":
    main()
