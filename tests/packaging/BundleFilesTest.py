"""The files of the macOS bundle: that they are as they must be, and what the app is put together of."""

import os
import pathlib
import plistlib
import re
import shutil
import tempfile

from BundleFilesFaults import LANGUAGES, app_list, extension_list, faults, faults_of_icon, project_version, text_of
from BundleFilesSupport import (
    PROGRAMS, Checks, arguments, assemble, check_modes_of, close_to_others, files_below, run, temporary_folder,
)  # fmt: skip


def check_configured(checks, build, version):
    for name, expected in (("AppInfo", app_list(version)), ("ExtensionInfo", extension_list(version))):
        plist = plistlib.loads((build / f"bundle/{name}.plist").read_bytes())
        checks.equal(f"{name} as the build makes it", text_of(plist), text_of(expected))


def check_icon(checks, source):
    icon = (source / "packaging/macos/AppIcon.icns").read_bytes()
    script = source / "packaging/macos/draw-icon"
    with temporary_folder() as folder:
        drawn = pathlib.Path(folder) / "drawn.icns"
        checks.equal("drawing", run(script, drawn), (0, "", ""))
        checks.true("the icon is what the script draws", drawn.read_bytes() == icon)
    checks.equal("the icon", faults_of_icon(icon), [])
    checks.equal("no file", run(script)[0::2], (1, "usage: draw-icon FILE\n"))


def check_assembled(checks, given):
    def expected(top, texts):
        return [f"{top}/Resources/{language}.lproj/{texts}" for language in LANGUAGES]

    extension = "Contents/PlugIns/MirelToken.appex/Contents"
    with temporary_folder() as folder:
        folder = pathlib.Path(folder)
        stale = folder / "Mirel Token.app/Contents/MacOS/stale"
        stale.parent.mkdir(parents=True)
        stale.write_text("from an older build")
        (code, _, error), app = assemble(given.cmake, given.source, folder, given.version)
        checks.equal("putting the app together", (code, error), (0, ""))
        wanted = expected("Contents", "Localizable.strings") + expected("Contents", "App.strings")
        wanted += ["Contents/Info.plist", "Contents/MacOS/mireltoken", "Contents/Resources/AppIcon.icns"]
        wanted += expected(extension, "Localizable.strings")
        wanted += [f"{extension}/Info.plist", f"{extension}/MacOS/MirelToken"]
        checks.equal("what is in it", files_below(app), sorted(wanted))
        for path, text in (("Contents/MacOS/mireltoken", "program"), (f"{extension}/MacOS/MirelToken", "extension")):
            checks.equal(path, (app / path).read_text(), f"the {text}\n")
        for top, plist in (("Contents", app_list(given.version)), (extension, extension_list(given.version))):
            found = plistlib.loads((app / top / "Info.plist").read_bytes())
            checks.equal(f"{top}/Info.plist", found, plist)
            checks.true(f"the program of {top}", (app / top / "MacOS" / found["CFBundleExecutable"]).is_file())

        for changes, message in (
            ({"APP_EXECUTABLE": None}, "APP_EXECUTABLE is not given"),
            ({"APP_RESOURCES": None}, "APP_RESOURCES is not given"),
            ({"APP_RESOURCES": folder / "none"}, "APP_RESOURCES: there is no"),
            ({"ICON": folder / "none"}, "ICON: there is no"),
            ({"BUNDLE": folder}, "is no path of an app"),
        ):
            (code, _, error), _ = assemble(given.cmake, given.source, folder, given.version, **changes)
            checks.fails(changes, code, error, message)
        checks.true("a bad call removes nothing", (folder / "the program").is_file() and app.is_dir())


def check_modes(checks, given):
    """Everybody can open the app, and nobody but its owner can change it, whoever has built it of whatever files."""
    for umask in (0o077, 0o027, 0o002):
        with temporary_folder() as folder:
            folder = pathlib.Path(folder)
            resources = folder / "Resources"
            shutil.copytree(given.source / "packaging/macos/Resources", resources)
            close_to_others(resources, umask)
            before = os.umask(umask)
            try:
                (code, _, error), app = assemble(
                    given.cmake, given.source, folder / "made", given.version, RESOURCES=resources
                )
            finally:
                os.umask(before)
            checks.equal(f"umask {umask:03o}", (code, error), (0, ""))
            check_modes_of(checks, f"umask {umask:03o}", app, PROGRAMS)


def check_shortcut(checks, source):
    """The commands that make the command line known to shells: run without sudo, in a folder of their own."""
    readme = (source / "packaging/macos/README.md").read_text()
    block = re.search(r"^    sudo mkdir -p /usr/local/bin\n(?:    .*\n)*", readme, re.MULTILINE)[0]
    with tempfile.TemporaryDirectory(prefix="mirel-shortcut-") as name:  # which stands between quotes
        folder = pathlib.Path(name).resolve()
        program = folder / "Applications/Mirel Token.app/Contents/MacOS/mireltoken"
        program.parent.mkdir(parents=True)
        program.write_text('#!/bin/sh\nprintf "%s|" "$0" "$@"\n')
        program.chmod(0o755)
        before = program.read_text()
        commands = block.replace("sudo ", "")
        for path in ("/usr/local/bin", "/Applications"):
            commands = commands.replace(path, f"{folder}{path}")
        shortcut = folder / "usr/local/bin/mireltoken"
        shortcut.parent.mkdir(parents=True)
        shortcut.symlink_to(program)  # of an earlier installation
        code, shown, error = run("sh", "-ec", commands)
        checks.equal(f"making the shortcut: {shown}{error}", code, 0)
        checks.equal("the program itself", program.read_text(), before)
        code, shown, error = run(shortcut, "sign", "--key", "a b")
        checks.equal(f"the shortcut starts the program by its own path: {error}", shown, f"{program}|sign|--key|a b|")


def main():
    given = arguments()
    checks = Checks()
    checks.equal("the files of the bundle", faults(given.source), [])
    checks.equal("the version", project_version(given.source), given.version)
    check_configured(checks, given.build, given.version)
    check_icon(checks, given.source)
    check_assembled(checks, given)
    check_modes(checks, given)
    check_shortcut(checks, given.source)
    checks.finish()


if __name__ == "__main__":
    main()
