"""What ./demo shows of what mireltoken said: of the log lines only one, in the form of either system."""

import re

from BundleFilesSupport import Checks, arguments, run, temporary_folder

SHOWN = """\
[MirelSCTokenSession-170] Error Domain=CryptoTokenKit Code=-9 "(null)"
mireltoken: no PIN was given: file descriptor 0 is empty; put the PIN there
Signed on 2026-11-21 10:00:00 with the key "Signature"
"""
LOG = """\
CTK [MirelSCToken-31] +++Start+++
[-[P11Bridge pkcs11_Load:]-30] P11Bridge path = /lib
isSigned = 1
kSecKeyAlgorithmRSASignatureRaw
SC_something
[MirelSCTokenSession-170] Error Domain=CryptoTokenKit Code=-9 "(null)"
"""


def main():
    given = arguments()
    checks = Checks()
    function = re.search(r"^told\(\) \{\n.*?^\}\n", (given.source / "demo").read_text(), re.MULTILINE | re.DOTALL)[0]
    _, *rest = SHOWN.splitlines(keepends=True)
    wanted = "".join(f"     {line}" for line in SHOWN.splitlines(keepends=True))
    with temporary_folder() as folder:
        for prefix in (
            "",
            "2026-11-21 10:00:00.000 mireltoken[123:456] ",
            "2026-11-21 10:00:00.000 mireltoken[91234:3f0a1] ",
            "2026-11-21 10:00:00.000+0100 mireltoken[123:456] ",
        ):
            lines = [prefix + line for line in LOG.splitlines(keepends=True)] + rest
            if prefix:
                lines.insert(0, prefix + "keyItem is nil.\n")  # any text is a log line there
            with open(f"{folder}/output", "w", encoding="utf-8") as output:
                output.writelines(lines)
            code, shown, error = run("sh", "-euc", f'{function}told "$1"', "sh", f"{folder}/output")
            checks.equal(f"lines that begin with {prefix!r}", (code, shown, error), (0, wanted, ""))
        # Nothing but log lines is no failure.
        with open(f"{folder}/output", "w", encoding="utf-8") as output:
            output.write("CTK [MirelSCToken-31] +++Start+++\n")
        checks.equal("log lines alone", run("sh", "-euc", f'{function}told "$1"', "sh", f"{folder}/output"), (0, "", ""))
    checks.finish()


if __name__ == "__main__":
    main()
