"""What the tests of the macOS bundle share: counting, putting an app together, programs run."""

import argparse
import os
import pathlib
import stat
import subprocess
import sys
import tempfile

# The programs in an app.
PROGRAMS = ["Contents/MacOS/mireltoken", "Contents/PlugIns/MirelToken.appex/Contents/MacOS/MirelToken"]


class Checks:
    """Counts what was checked, and says what was not as it should be."""

    def __init__(self):
        self.count = 0
        self.failures = 0

    def equal(self, what, actual, expected):
        self.count += 1
        if actual != expected:
            self.failures += 1
            print(f"FAILED: {what}\n  is:        {actual!r}\n  should be: {expected!r}")

    def true(self, what, condition):
        self.equal(what, bool(condition), True)

    def fails(self, what, code, error, message, wanted=None):
        """Of a run: it fails, with that code where one is wanted, and says why, however its lines are broken."""
        self.true(f"{what}: it ends with {code}", code == wanted if wanted else code != 0)
        self.true(f"{what}: {error}", message in " ".join(error.split()))

    def finish(self):
        print(f"{self.count} checks, {self.failures} failed")
        sys.exit(0 if self.count and not self.failures else 1)


def arguments():
    parser = argparse.ArgumentParser()
    parser.add_argument("--source", type=pathlib.Path, required=True)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    parser.add_argument("--cmake", required=True)
    parser.add_argument("--version", required=True)
    return parser.parse_args()


def temporary_folder():
    return tempfile.TemporaryDirectory(prefix="mirel bundle 'n' files ")


def run(*command, **options):
    """Exit code, standard output, standard error."""
    done = subprocess.run(
        [str(word) for word in command], capture_output=True, text=True, timeout=100, check=False, **options
    )
    return done.returncode, done.stdout, done.stderr


def configured(template, version):
    return template.replace("@PROJECT_VERSION@", version)


def assemble(cmake, source, folder, version, **changes):
    """Runs the script that puts the app together, of two programs that are not: result and the app's path."""
    folder.mkdir(parents=True, exist_ok=True)
    packaging = source / "packaging/macos"
    given = {
        "APP_EXECUTABLE": folder / "the program",
        "EXTENSION_EXECUTABLE": folder / "the extension",
        "APP_PLIST": folder / "App.plist",
        "EXTENSION_PLIST": folder / "Extension.plist",
        "RESOURCES": packaging / "Resources",
        "APP_RESOURCES": packaging / "AppResources",
        "ICON": packaging / "AppIcon.icns",
        "BUNDLE": folder / "Mirel Token.app",
    }
    given["APP_EXECUTABLE"].write_text("the program\n")
    given["EXTENSION_EXECUTABLE"].write_text("the extension\n")
    for name, template in (("APP_PLIST", "AppInfo.plist.in"), ("EXTENSION_PLIST", "ExtensionInfo.plist.in")):
        given[name].write_text(configured((packaging / template).read_text(), version))
    given.update(changes)
    definitions = [f"-D{name}={value}" for name, value in given.items() if value is not None]
    return run(cmake, *definitions, "-P", packaging / "AssembleBundle.cmake"), given["BUNDLE"]


def files_below(folder):
    return sorted(
        os.path.relpath(os.path.join(path, name), folder) for path, _, names in os.walk(folder) for name in names
    )


def close_to_others(folder, umask):
    """Gives a folder and all that is in it the modes that it has when it is made with a umask."""
    for path in [folder, *folder.rglob("*")]:
        wide = 0o777 if path.is_dir() or path.stat().st_mode & stat.S_IXUSR else 0o666
        path.chmod(wide & ~umask)


def check_modes_of(checks, what, folder, programs):
    """Of a folder and all that is in it: everybody can open it, and nobody but its owner can change it."""
    for path in [folder, *folder.rglob("*")]:
        if not path.is_symlink():
            wanted = 0o755 if path.is_dir() or os.path.relpath(path, folder) in programs else 0o644
            checks.equal(f"{what}: {path}", f"{stat.S_IMODE(path.stat().st_mode):03o}", f"{wanted:03o}")
