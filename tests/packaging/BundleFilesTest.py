"""The files of the macOS bundle: that they are as they must be, that spoiled ones are found out, and what the app
is put together of."""

import os
import pathlib
import plistlib
import re
import shutil
import tempfile

from BundleFilesFaults import LANGUAGES, app_list, differences, extension_list, faults, faults_of_icon, project_version
from BundleFilesSupport import (
    PROGRAMS, Checks, arguments, assemble, check_modes_of, close_to_others, copy_of, files_below, run, temporary_folder,
)  # fmt: skip

APP = "packaging/macos/AppInfo.plist.in"
EXTENSION = "packaging/macos/ExtensionInfo.plist.in"
APP_RIGHTS = "packaging/macos/App.entitlements"
RIGHTS = "packaging/macos/Extension.entitlements"
WORKFLOW = ".github/workflows/build.yml"
README = "packaging/macos/README.md"
FIRST_MAC = "docs/first-mac.md"
DRIVER = "token/src/MirelSCTokenDriver.cpp"
DRIVER_CLASS = "token/macos/MirelSCTokenDriver.mm"
DESCRIPTION = "token/src/Description.cpp"
HOME = "com.apple.security.temporary-exception.files.home-relative-path.read-write"

# What is spoiled in which file, and what is said about it.
SPOILED = [
    # The property lists
    (APP, "<string>com.mirel.token</string>", "<string>com.mirel</string>", "AppInfo: CFBundleIdentifier: 'com.mirel'"),
    (APP, "<key>LSUIElement</key>\n\t<true/>\n", "", "AppInfo: LSUIElement is missing"),
    (APP, "<true/>", "<integer>1</integer>", "AppInfo: LSUIElement: 1"),
    (APP, "@PROJECT_VERSION@", "0.0.1", "AppInfo: CFBundleShortVersionString: '0.0.1'"),
    (APP, "@PROJECT_VERSION@", "@VERSION@", "AppInfo: CFBundleShortVersionString: '@VERSION@'"),
    (APP, "<dict>", "<!-- ours --><dict>", "AppInfo: a comment"),
    (APP, "<dict>\n", "<dict>\r\n", "AppInfo: a line ends with CR"),
    (APP, "Mirel Token", "Mirel T\u00f6ken", "AppInfo: not ASCII"),
    (APP, "<?xml", "\ufeff<?xml", "AppInfo: not ASCII"),
    (APP, "</dict>", "", "AppInfo: no property list"),
    (APP, "\n</plist>\n", "\n</plist>", "AppInfo: not the usual first and last lines"),
    (APP, "<key>CFBundleName</key>", "<key>CFBundleName</key>\n\t<string>A</string>\n\t<key>CFBundleName</key>",
     "AppInfo: CFBundleName stands there twice"),
    (EXTENSION, "\t\t\t<key>com.apple.ctk.class-id</key>",
     "\t\t\t<key>com.apple.ctk.aid</key>\n\t\t\t<string>A000</string>\n\t\t\t<key>com.apple.ctk.class-id</key>",
     "ExtensionInfo: NSExtension: NSExtensionAttributes: com.apple.ctk.aid is not wanted"),
    (EXTENSION, "com.apple.ctk-tokens", "com.apple.ctk.tokens", "ExtensionInfo: NSExtension: "
     "NSExtensionPointIdentifier: 'com.apple.ctk.tokens'"),
    (EXTENSION, "XPC!", "APPL", "ExtensionInfo: CFBundlePackageType: 'APPL'"),
    # What they name
    (EXTENSION, "MirelSCTokenDriver", "MirelSCTokenDrive", "the driver class is not in the sources"),
    (EXTENSION, "MirelSCTokenDriver", "MirelSCTokenDriverDelegate", "the driver class is not in the sources"),
    (DRIVER_CLASS, "@implementation Mirel", "// @implementation Mirel", "the driver class is not in the sources"),
    (EXTENSION, "com.mirel.token.extension", "com.mirel.tokenextension",
     "the extension's identifier is not below the app's"),
    (EXTENSION, "\t\t<string>de</string>\n", "", "ExtensionInfo: the languages are not the folders"),
    (EXTENSION, "<key>com.apple.ctk.class-id</key>\n\t\t\t<string>com.mirel.token.extension<",
     "<key>com.apple.ctk.class-id</key>\n\t\t\t<string>com.mirel.token<",
     "the class id is not the extension's identifier"),
    (APP, "AppIcon", "Icon", "there is no icon"),
    (APP, "<string>mireltoken<", "<string>mirel<", "no program has the name of the app's executable"),
    # Entitlements
    (RIGHTS, "app-sandbox", "app-sandboxed", "Extension.entitlements: com.apple.security.app-sandbox is missing"),
    (RIGHTS, "<true/>", "<false/>", "Extension.entitlements: com.apple.security.app-sandbox: False"),
    (RIGHTS, "<dict>", "<dict>\n\t<key>com.apple.security.get-task-allow</key>\n\t<true/>",
     "Extension.entitlements: com.apple.security.get-task-allow is not wanted"),
    (RIGHTS, "\t\t<string>/</string>\n", "", f"Extension.entitlements: {HOME}: ['/Library/LunetLocalSignServer/']"),
    (RIGHTS, "LunetLocalSignServer/<", "LunetLocalSignServer<",
     f"Extension.entitlements: {HOME}: ['/Library/LunetLocalSignServer', '/']"),
    (APP_RIGHTS, "\n", "\r\n", "App.entitlements: a line ends with CR"),
    (APP_RIGHTS, "smartcard", "smart-card", "App.entitlements: com.apple.security.smartcard is missing"),
    # What agrees with them
    ("CMakeLists.txt", "project(mireltoken VERSION ", "project(mireltoken VERSION 1.", "the project's version is 1."),
    ("CMakeLists.txt", "CMAKE_OSX_DEPLOYMENT_TARGET 12.0 CACHE", "CMAKE_OSX_DEPLOYMENT_TARGET 11.0 CACHE",
     "the project builds for another macOS"),
    ("CMakeLists.txt", "set(CMAKE_OSX_DEPLOYMENT_TARGET", "set(OLDEST_MACOS", "the project builds for another macOS"),
    ("cmake/macos-toolchain.cmake", "set(CMAKE_SYSTEM_NAME", "set(CMAKE_OSX_DEPLOYMENT_TARGET 12.0)\nset(CMAKE_SYSTEM_NAME",
     "the toolchain file has an oldest macOS of its own"),
    ("CMakePresets.json", '"CMAKE_BUILD_TYPE": "Debug"', '"CMAKE_OSX_DEPLOYMENT_TARGET": "12.0"',
     "the preset debug has an oldest macOS of its own"),
    # What tells of them
    (README, "| `Distribution.xml.in`", "| `Distribution.xml`", "the README does not name Distribution.xml.in"),
    (README, "    sudo mkdir -p /usr/local/bin\n", "", "the README makes a script in a folder that may be missing"),
    (FIRST_MAC, "+++Start+++", "+++START+++", "the first Mac's list expects +++START+++ of the driver and of the token"),
    (DRIVER, "+++Start+++", "+++Begin+++", "the first Mac's list expects +++Start+++ of the driver and of the token"),
    (FIRST_MAC, "`instanceID =`", "`instance =`", "the first Mac's list expects instance =, which nothing logs"),
    (FIRST_MAC, "fail!!!", "fails!!!", "the first Mac's list expects initWithMirelCTKFramwork fails!!!, which nothing logs"),
    (FIRST_MAC, "up to 24 bytes", "up to 32 bytes", "the first Mac's list shows other bytes than the log"),
    (DESCRIPTION, "kShownAtEnd = 8", "kShownAtEnd = 4", "the first Mac's list shows other bytes than the log"),
]

GOOD_WORKFLOW = """\
jobs:
  linux:
    runs-on: ubuntu-latest
    strategy: { matrix: { image: ["debian:12", "debian:13", "ubuntu:latest"] } }
    steps:
      - uses: actions/checkout@v4
      - name: Test
        run: |
          git config safe.directory

          ./check --all
      - uses: actions/upload-artifact@v4

  package:
    runs-on: macos-latest
    steps:
      - uses: actions/checkout@v4
      - run: cmake --preset macos && cmake --build --preset macos
      - run: packaging/macos/sign-and-package --output packages "build/macos/Mirel Token.app"
      - uses: actions/upload-artifact@v4

  tests-on-macos:
    runs-on: macos-14
    steps:
      - uses: actions/checkout@v4
      - run: ./check
"""

# The same for a workflow.
SPOILED_WORKFLOWS = [
    ("    steps", "\tsteps", "the workflow has a tab"),
    ("actions/checkout@v4", "someone/checkout@v4", "the workflow uses ['actions/checkout@v4', "
     "'actions/upload-artifact@v4', 'someone/checkout@v4']"),
    ("          ./check --all\n", "", "the workflow does not run the tests on Linux"),
    ('"debian:13"', '"debian:11"', "the workflow does not run debian:13"),
    ("      - run: ./check\n", "", "the workflow does not run the tests on macOS"),
    ("          ./check --all\n      - uses: actions/upload-artifact@v4\n", "          ./check --all\n",
     "the workflow keeps nothing of Linux"),
    ("Token.app\"\n      - uses: actions/upload-artifact@v4\n", "Token.app\"\n", "the workflow keeps nothing of macOS"),
    ("macos/sign-and-package", "macos/sign", "the workflow runs packaging/macos/sign, which is not there"),
    ("cmake --preset macos", "cmake --preset base", "the workflow uses base, which is not one of the configurePresets"),
    ("--build --preset macos", "--build --preset mac", "the workflow uses mac, which is not one of the buildPresets"),
]


def check_spoiled_file(checks, tree, name, old, new, expected):
    """What is said of a file with something else at one place; it is as it was afterwards."""
    what = f"{name}: {new!r} instead of {old!r}"
    good = (tree / name).read_bytes()
    spoiled = good.replace(old.encode(), new.encode(), 1)
    checks.true(f"{what} changes the file", spoiled != good)
    (tree / name).write_bytes(spoiled)
    found = faults(tree)
    checks.true(f"{what}: {found}", any(fault.startswith(expected) for fault in found))
    (tree / name).write_bytes(good)


def check_spoiled(checks, source):
    with temporary_folder() as folder:
        tree = copy_of(source, pathlib.Path(folder))
        checks.equal("a copy is as good as the tree", faults(tree), [])
        for name, old, new, expected in SPOILED:
            check_spoiled_file(checks, tree, name, old, new, expected)
        packaging = tree / "packaging/macos"
        for resources, texts, lists in (
            ("AppResources", "App.strings", ["AppInfo"]),
            ("Resources", "Localizable.strings", ["AppInfo", "ExtensionInfo"]),
        ):
            german = packaging / resources / "de.lproj"
            aside = tree / "aside"
            (german / texts).rename(aside)
            checks.equal(f"a language without {texts}", faults(tree), [f"de: no {texts}"])
            german.rmdir()
            missing = [f"{name}: the languages are not the folders of {resources}" for name in lists]
            checks.equal(f"a language less in {resources}", faults(tree), missing)
            german.mkdir()
            aside.rename(german / texts)


def check_workflow(checks, source):
    with temporary_folder() as folder:
        tree = copy_of(source, pathlib.Path(folder))
        (tree / WORKFLOW).write_text(GOOD_WORKFLOW)
        checks.equal("a good workflow", faults(tree), [])
        for old, new, expected in SPOILED_WORKFLOWS:
            check_spoiled_file(checks, tree, WORKFLOW, old, new, expected)


def check_configured(checks, build, version):
    for name, expected in (("AppInfo", app_list(version)), ("ExtensionInfo", extension_list(version))):
        plist = plistlib.loads((build / f"bundle/{name}.plist").read_bytes())
        checks.equal(f"{name} as the build makes it", list(differences(plist, expected)), [])


def check_icon(checks, source):
    icon = (source / "packaging/macos/AppIcon.icns").read_bytes()
    script = source / "packaging/macos/draw-icon"
    with temporary_folder() as folder:
        drawn = pathlib.Path(folder) / "drawn.icns"
        checks.equal("drawing", run(script, drawn), (0, "", ""))
        checks.true("the icon is what the script draws", drawn.read_bytes() == icon)
        other = pathlib.Path(folder) / "other-script"
        other.write_text(script.read_text().replace("(32, 106, 120, 255)", "(32, 106, 121, 255)"))
        other.chmod(0o755)
        checks.equal("drawing in another colour", run(other, drawn), (0, "", ""))
        checks.true("another colour is another icon", drawn.read_bytes() != icon)
    checks.equal("the icon", faults_of_icon(icon), [])
    checks.equal("not all of it", faults_of_icon(icon[:-1]), ["no icon, or not all of it"])
    flipped = bytearray(icon)
    flipped[200] ^= 1
    checks.equal("a bit flipped", faults_of_icon(bytes(flipped)), ["ic11: a wrong checksum"])
    swapped = icon.replace(b"ic11", b"ic07", 1)
    checks.equal("another size", faults_of_icon(swapped)[0], "ic07: 32 pixels")
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
    readme = (source / README).read_text()
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
    check_spoiled(checks, given.source)
    check_workflow(checks, given.source)
    checks.finish()


if __name__ == "__main__":
    main()
