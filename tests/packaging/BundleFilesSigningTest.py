"""sign-and-package: which commands it runs in which order, and when it stops. The tools of macOS are played by a
script that writes down how it was called."""

import os
import pathlib
import plistlib
import re
import shlex
import shutil
import xml.etree.ElementTree

from BundleFilesSupport import (
    PROGRAMS, Checks, arguments, assemble, check_modes_of, close_to_others, run, temporary_folder,
)  # fmt: skip

IDENTITY = "Developer ID Application: Ada's Example (ABCDE12345)"
INSTALLER = "Developer ID Installer: Ada's Example (ABCDE12345)"
TOOLS = "codesign ditto hdiutil lipo otool pkgbuild plutil productbuild sleep spctl xattr xcrun".split()

# Called by the name of the tool that it plays. FAIL is a pattern for calls that fail, ANSWER the notary's. What goes
# into the package and into the image is kept, and what the product is made of.
PLAYER = r"""#!/bin/sh
name=${0##*/}
line=$name
for word in "$@"; do line="$line	$word"; done
printf '%s\n' "$line" >>"$RECORD/calls"
case "$line" in $FAIL) echo "$name fails" >&2; exit 1 ;; esac
for last; do :; done
case "$name $*" in
  "ditto "*) cp -pR "$1" "$2" ;;
  "codesign --display --verbose=4 "*) echo "CodeDirectory v=20500 flags=$FLAGS hashes=1+7" >&2 ;;
  "codesign --display --entitlements "*) cat "$RECORD/${last##*/}.entitlements" ;;
  "codesign --force "*" --entitlements "*)
    while [ "$1" != --entitlements ]; do shift; done
    sed "$SPOIL" "$2" >"$RECORD/${last##*/}.entitlements"
    mkdir -p "$last/Contents/_CodeSignature"
    echo sealed >"$last/Contents/_CodeSignature/CodeResources" ;;
  "otool "*) printf '%s:\n\t/usr/lib/libSystem.B.dylib (compatibility version 1.0.0, current version 1.0.0)\n' "$2"
    printf "$LIBRARY" ;;
  "pkgbuild --root "*) cp -pR "$2" "$RECORD/package"; echo component >"$last" ;;
  "productbuild "*) cp "$2" "$RECORD/distribution"; cp -R "$4" "$RECORD/components"; echo made >"$last" ;;
  "hdiutil "*)
    if [ "$(grep -c '^hdiutil' "$RECORD/calls")" -le "$BUSY" ]; then
      echo "hdiutil: create failed - Resource busy" >&2; exit 1
    fi
    while [ "$1" != -srcfolder ]; do shift; done
    cp -pR "$2" "$RECORD/image"; echo made >"$last" ;;
  "xcrun notarytool submit "*) printf '%s' "$ANSWER"; [ "$ANSWER" = Accepted ] ;;
  "plutil -extract id "*) [ -s "$last" ] && echo 1234-abcd ;;
  "plutil -extract status "*) cat "$last" ;;
esac
"""


class Signing:
    """The script, an app, and a folder with the tools."""

    def __init__(self, folder, given):
        self.folder = folder
        self.version = given.version
        self.script = given.source / "packaging/macos/sign-and-package"
        self.packaging = self.script.parent
        (self.made, _, _), self.app = assemble(given.cmake, given.source, folder / "build", given.version)
        tools = folder / "tools"
        tools.mkdir()
        (tools / "player").write_text(PLAYER)
        (tools / "player").chmod(0o755)
        for tool in TOOLS:
            (tools / tool).symlink_to("player")
        bare = folder / "bare"
        bare.mkdir()
        for command in ("sh", "cat", "dirname", "sed"):
            (bare / command).symlink_to(shutil.which(command))
        self.record = folder / "record"
        self.output = folder / "output"

    def run(self, *options, app=None, **others):
        """Exit code, lines shown, standard error, calls made."""
        return self.run_other("sh", self.script, *options, app or self.app, **others)

    def run_other(self, *command, tools=True, cwd=None, umask=-1, **environment):
        """The same of another program than the script."""
        shutil.rmtree(self.record, ignore_errors=True)
        self.record.mkdir()
        path = os.environ["PATH"]
        values = {
            "PATH": f"{self.folder}/tools:{path}" if tools else f"{self.folder}/bare",
            "TMPDIR": str(self.folder),
            "RECORD": str(self.record),
            "FLAGS": "0x10000(runtime)",
            "FAIL": "",
            "SPOIL": "",
            "LIBRARY": "",
            "ANSWER": "Accepted",
            "BUSY": "0",
        }
        values.update(environment)
        code, shown, error = run(*command, env=values, cwd=cwd, umask=umask)
        calls = self.record / "calls"
        made = [line.split("\t") for line in calls.read_text().splitlines()] if calls.exists() else []
        return code, shown, error, made

    def plan(self, *options, **others):
        """The same of a --dry-run, whose lines are commands."""
        code, shown, error, calls = self.run("--dry-run", *options, **others)
        return code, words(shown), error, calls

    def package(self, *options, **others):
        return self.run("--output", self.output, *options, **others)

    def expected(self, stage, identity="-", installer=None, profile=None):
        """The commands for packages, in their order."""
        app = f"{stage}/root/Mirel Token.app"
        extension = f"{app}/Contents/PlugIns/MirelToken.appex"
        package = f"{self.output}/MirelToken-{self.version}.pkg"
        image = f"{self.output}/MirelToken-{self.version}.dmg"
        rights = {extension: f"{self.packaging}/Extension.entitlements", app: f"{self.packaging}/App.entitlements"}
        sign = ["codesign", "--force", "--sign", identity, "--timestamp=none" if identity == "-" else "--timestamp"]
        lines = [
            ["mkdir", "-p", f"{self.output}", f"{stage}/root", f"{stage}/image", f"{stage}/packages"],
            ["ditto", f"{self.app}", app],
            ["chmod", "-R", "u+rwX,go+rX,go-w", f"{stage}/root"],
            ["xattr", "-cr", app],
        ]
        for bundle in (extension, app):
            lines.append([*sign, "--options", "runtime", "--entitlements", rights[bundle], bundle])
        for bundle in (extension, app):
            lines.append(["codesign", "--verify", "--strict", "--verbose=2", bundle])
            lines.append(["codesign", "--display", "--verbose=4", bundle])
            lines.append(["codesign", "--display", "--entitlements", "-", "--xml", bundle])
        for program in (f"{extension}/Contents/MacOS/MirelToken", f"{app}/Contents/MacOS/mireltoken"):
            lines.append(["otool", "-L", program])
            if identity != "-":
                lines.append(["lipo", program, "-verify_arch", "arm64", "x86_64"])
        components = f"{stage}/components.plist"
        lines.append(["pkgbuild", "--analyze", "--root", f"{stage}/root", components])
        lines.append(["plutil", "-replace", "0.BundleIsRelocatable", "-bool", "NO", components])
        build = ["pkgbuild", "--root", f"{stage}/root", "--component-plist", components]
        build += ["--install-location", "/Applications", "--identifier", "com.mirel.token.pkg"]
        lines.append([*build, "--version", self.version, f"{stage}/packages/MirelToken.pkg"])
        fill = ["s/@IDENTIFIER@/com.mirel.token.pkg/", f"s/@VERSION@/{self.version}/", "s/@MINIMUM@/12.0/"]
        fill += ["s/@COMPONENT@/MirelToken.pkg/", f"w {stage}/Distribution.xml"]
        template = f"{self.packaging}/Distribution.xml.in"
        lines.append(["sed", "-n", *[word for command in fill for word in ("-e", command)], template])
        make = ["productbuild", "--distribution", f"{stage}/Distribution.xml", "--package-path", f"{stage}/packages"]
        lines.append(make + (["--sign", installer, "--timestamp"] if installer else []) + [package])
        lines.append(["ditto", app, f"{stage}/image/Mirel Token.app"])
        lines.append(["ln", "-s", "/Applications", f"{stage}/image/Applications"])
        create = ["hdiutil", "create", "-ov", "-volname", "Mirel Token", "-fs", "HFS+", "-format", "UDZO"]
        lines.append([*create, "-srcfolder", f"{stage}/image", image])
        if identity != "-":
            lines.append([*sign, image])
        if profile:
            credentials = ["--keychain-profile", profile]
            for file in (package, image):
                notary = ["xcrun", "notarytool"]
                lines.append([*notary, "submit", file, *credentials, "--wait", "--output-format", "plist"])
                lines.append([*notary, "log", "ID", *credentials, f"{file}.notary.json"])
                lines.append(["xcrun", "stapler", "staple", file])
                lines.append(["xcrun", "stapler", "validate", file])
            assess = ["spctl", "--assess", "--type"]
            lines.append([*assess, "install", "--verbose", package])
            lines.append([*assess, "open", "--context", "context:primary-signature", "--verbose", image])
        return lines


# Builds the app of two programs that are there already.
PROJECT = """\
cmake_minimum_required(VERSION 3.25)
project(trial VERSION 7.8.9 LANGUAGES NONE)
include("${BUNDLE_FILE}")
foreach(name program extension)
  add_executable(${name} IMPORTED)
  set_target_properties(${name} PROPERTIES IMPORTED_LOCATION "${CMAKE_SOURCE_DIR}/the ${name}")
endforeach()
mirel_add_bundle(app APP program EXTENSION extension)
"""


def words(shown):
    return [shlex.split(line) for line in shown.splitlines()]


def signed_in(lines):
    """What these commands sign, in their order."""
    return [line[-1] for line in lines if line[:2] == ["codesign", "--force"]]


RELEASE = ["--identity", IDENTITY, "--installer-identity", INSTALLER, "--keychain-profile", "a profile"]


def check_shown(checks, signing):
    """What --dry-run prints."""
    stage = "/tmp/sign-and-package"
    output = ["--output", signing.output]
    release = signing.expected(stage, IDENTITY, INSTALLER, "a profile")
    for what, options, tools, expected in (
        ("ad hoc", [], True, signing.expected(stage)),
        ("without any tool", [], False, signing.expected(stage)),
        ("for release", RELEASE, True, release),
    ):
        checks.equal(what, signing.plan(*output, *options, tools=tools), (0, expected, "", []))
    checks.true("nothing was made", not signing.output.exists())
    checks.equal("from the inside out", [path.rsplit("/", 1)[1] for path in signed_in(release)],
                 ["MirelToken.appex", "Mirel Token.app", f"MirelToken-{signing.version}.dmg"])
    for word in ("--deep", "sudo"):
        checks.true(f"never {word}", word not in signing.script.read_text())

    there = signing.plan("--sign-only")
    expected = [f"{signing.app}/Contents/PlugIns/MirelToken.appex", f"{signing.app}"]
    checks.equal("where it is", (there[0], signed_in(there[1])), (0, expected))
    relative = signing.plan("--sign-only", app="build/Mirel Token.app/", cwd=signing.folder)
    checks.equal("a relative path with a slash", relative, there)
    other = signing.folder / "other.app"
    (other / "Contents/Frameworks").mkdir(parents=True)
    (other / "Contents/Frameworks/lib.dylib").write_text("a library\n")
    checks.equal("a variable of another's", signing.plan("--sign-only", built=f"{other}"), there)

    frameworks = signing.app / "Contents/Frameworks"
    frameworks.mkdir()
    (frameworks / "lib a.dylib").write_text("a library\n")
    for options in (["--sign-only"], output):
        signed = [path.rsplit("/", 1)[1] for path in signed_in(signing.plan(*options)[1])]
        checks.equal("libraries first", signed, ["lib a.dylib", "MirelToken.appex", "Mirel Token.app"])
    shutil.rmtree(frameworks)


def check_run(checks, signing):
    """What is shown is what is run."""
    for options, notary in ([], False), (RELEASE, True):
        code, shown, error, calls = signing.package(*options)
        checks.equal("success", (code, error), (0, ""))
        stage = calls[0][2].split("/root/")[0]
        checks.true("works in a folder of its own", stage.startswith(f"{signing.folder}/sign-and-package."))
        checks.true("and removes it", not os.path.exists(stage))
        if notary:
            expected = signing.expected(stage, IDENTITY, INSTALLER, "a profile")
            expected = [["1234-abcd" if word == "ID" else word for word in line] for line in expected]
        else:
            expected = signing.expected(stage)
        checks.equal("what is shown", words(shown), expected)
        run_by_tools = [line for line in expected if line[0] not in ("chmod", "ln", "mkdir", "sed")]
        questions = [call for call in calls if call[:2] == ["plutil", "-extract"]]
        checks.equal("what is run", [call for call in calls if call not in questions], run_by_tools)
        checks.equal("the answers that are read", len(questions), 4 if notary else 0)
        for kind in ("pkg", "dmg"):
            file = signing.output / f"MirelToken-{signing.version}.{kind}"
            checks.equal(f"the {kind}", file.read_text(), "made\n")
            file.unlink()
    code, _, error, calls = signing.run("--sign-only")
    checks.equal("only signing", (code, error, sorted({call[0] for call in calls})), (0, "", ["codesign", "xattr"]))


def check_paths(checks, signing):
    """However the app's path is written, it is the app that is copied."""
    expected = signing.expected("/tmp/sign-and-package")
    output = ["--output", signing.output]
    for ending in ("/", "//", "////", "/.", "/./", "/Contents/..", "/Contents/MacOS/../../"):
        plan = signing.plan(*output, app=f"{signing.app}{ending}")
        checks.equal(f"a path that ends in {ending}", plan, (0, expected, "", []))
    checks.equal("the app is where we are", signing.plan(*output, app=".", cwd=signing.app), (0, expected, "", []))
    code, _, error, calls = signing.plan(app=f"{signing.folder}/none.app//")
    checks.fails("no app", code, error, f"there is no folder {signing.folder}/none.app//", 1)
    checks.equal("no app, no work", calls, [])

    # Where cd looks for folders has no say in which script and which app it is.
    elsewhere = signing.folder / "elsewhere"
    (elsewhere / "packaging/macos").mkdir(parents=True)
    shutil.copytree(signing.app, elsewhere / "build/Mirel Token.app")
    here = signing.folder / "here"
    here.mkdir()
    (here / "packaging").symlink_to(signing.packaging.parent)
    (here / "build").symlink_to(signing.app.parent)
    code, shown, error, _ = signing.run_other("sh", "packaging/macos/sign-and-package", "--dry-run", *output,
                                              "build/Mirel Token.app", cwd=here, CDPATH=f"{elsewhere}")
    ours = f"{here}/packaging/macos/"
    expected = [[word.replace(f"{signing.packaging}/", ours) for word in line] for line in expected]
    checks.equal("with a CDPATH", (code, words(shown), error), (0, expected, ""))

    renamed = signing.folder / "MirelToken-1.app"
    signing.app.rename(renamed)
    signing.app.symlink_to(renamed)
    for given in (renamed, signing.app):
        _, plan, _, _ = signing.plan(*output, app=given)
        staged = [line[2].rsplit("/", 1)[1] for line in plan if line[0] == "ditto"]
        checks.equal(f"the name of what {given.name} becomes", staged, ["Mirel Token.app"] * 2)
    signing.app.unlink()
    renamed.rename(signing.app)


def check_modes(checks, signing):
    """Everybody can open what is installed, and nobody but its owner can change it, whoever has packed it."""
    private = signing.folder / "private/Mirel Token.app"
    for umask in (0o077, 0o027, 0o002):
        shutil.copytree(signing.app, private)
        for seal in private.rglob("_CodeSignature"):
            shutil.rmtree(seal)
        close_to_others(private, umask)
        code, _, error, _ = signing.package(app=private, umask=umask)
        checks.equal(f"umask {umask:03o}", (code, error), (0, ""))
        for made in ("package", "image"):
            app = signing.record / made / private.name
            checks.true(f"what is in the {made}", (app / "Contents/_CodeSignature/CodeResources").is_file())
            programs = [f"{private.name}/{program}" for program in PROGRAMS]
            check_modes_of(checks, f"umask {umask:03o}", app.parent, programs)
        shutil.rmtree(private)


def check_distribution(checks, signing):
    """What the product says about itself, which the installer goes by."""
    plist = signing.app / "Contents/Info.plist"
    content = plist.read_text()
    for what, version, minimum, changed in (
        ("as it is", signing.version, "12.0", content),
        ("another version", "4.5.6", "12.0", content.replace(f"<string>{signing.version}<", "<string>4.5.6<")),
        ("another oldest macOS", signing.version, "13.1", content.replace("<string>12.0<", "<string>13.1<")),
    ):
        plist.write_text(changed)
        checks.equal(f"{what}: the app", plistlib.loads(changed.encode())["LSMinimumSystemVersion"], minimum)
        code, _, error, calls = signing.package()
        checks.equal(f"{what}: success", (code, error), (0, ""))
        text = (signing.record / "distribution").read_text()
        root = xml.etree.ElementTree.fromstring(text)
        checks.equal(f"{what}: nothing is left to be filled in", re.findall("@.*", text), [])
        checks.equal(f"{what}: the root", (root.tag, root.attrib), ("installer-gui-script", {"minSpecVersion": "1"}))
        checks.equal(f"{what}: the title", root.findtext("title"), "Mirel Token")
        oldest = [system.attrib for system in root.findall("volume-check/allowed-os-versions/os-version")]
        checks.equal(f"{what}: the oldest macOS", oldest, [{"min": minimum}])
        checks.equal(f"{what}: there is no other", len(root.findall(".//os-version")), 1)
        options = {"customize": "never", "require-scripts": "false", "hostArchitectures": "arm64,x86_64"}
        checks.equal(f"{what}: the options", [node.attrib for node in root.findall("options")], [options])
        domains = {"enable_anywhere": "false", "enable_currentUserHome": "false", "enable_localSystem": "true"}
        checks.equal(f"{what}: only for all users", [node.attrib for node in root.findall("domains")], [domains])

        built = next(call for call in calls if call[:2] == ["pkgbuild", "--root"])
        identifier = built[built.index("--identifier") + 1]
        components = [reference for reference in root.findall("pkg-ref") if reference.text]
        named = [(reference.attrib["id"], reference.attrib["version"], reference.text) for reference in components]
        checks.equal(f"{what}: the component", named, [(identifier, version, built[-1].rsplit("/", 1)[1])])
        there = [file.name for file in (signing.record / "components").iterdir()]
        checks.equal(f"{what}: it is there", there, [reference.text for reference in components])
        outlined = [line.attrib["choice"] for line in root.findall("choices-outline//line")]
        checks.equal(f"{what}: the choices", outlined, [choice.attrib["id"] for choice in root.findall("choice")])
        chosen = [reference.attrib["id"] for reference in root.findall("choice/pkg-ref")]
        checks.equal(f"{what}: what is chosen", chosen, [identifier])
        checks.equal(f"{what}: the product", (signing.output / f"MirelToken-{version}.pkg").read_text(), "made\n")
    plist.write_text(content)


# What goes wrong, and what is said; options besides.
TROUBLE = [
    ({"FAIL": "codesign*--force*appex"}, [], "codesign fails"),
    ({"FAIL": "codesign*--force*app"}, [], "codesign fails"),
    ({"FAIL": "codesign*--verify*appex"}, [], "codesign fails"),
    ({"FAIL": "codesign*--verify*app"}, [], "codesign fails"),
    ({"FAIL": "codesign*--display*"}, [], "codesign fails"),
    ({"FAIL": "ditto*"}, [], "ditto fails"),
    ({"FAIL": "xattr*"}, [], "xattr fails"),
    ({"FAIL": "otool*"}, [], "otool fails"),
    ({"FAIL": "lipo*"}, RELEASE, "is not universal"),
    ({"FAIL": "pkgbuild*analyze*"}, [], "pkgbuild fails"),
    ({"FAIL": "plutil*replace*"}, [], "plutil fails"),
    ({"FAIL": "pkgbuild*identifier*"}, [], "pkgbuild fails"),
    ({"FAIL": "productbuild*"}, [], "productbuild fails"),
    ({"FAIL": "hdiutil*"}, [], "hdiutil fails"),
    ({"FAIL": "xcrun?notarytool?log?*"}, RELEASE, "xcrun fails"),
    ({"FAIL": "xcrun?stapler?*"}, RELEASE, "xcrun fails"),
    ({"FAIL": "spctl*"}, RELEASE, "spctl fails"),
    ({"FLAGS": "0x2(adhoc)"}, [], "does not ask for the hardened runtime"),
    ({"SPOIL": "s/app-sandbox/app-box/"}, [], "lacks the entitlement com.apple.security.app-sandbox"),
    ({"SPOIL": "s/>com.apple.security.smartcard/>com.apple.security.get-task-allow/"}, [], "lacks the entitlement"),
    ({"SPOIL": "s/<dict>/<dict><key>com.apple.security.get-task-allow<\\/key>/"}, [], "lets debuggers in"),
    ({"LIBRARY": "\\t/opt/homebrew/lib/libcrypto.3.dylib (compatibility version 3.0.0, current version 3.0.0)\\n"}, [],
     "libraries that other Macs do not have: /opt/homebrew/lib/libcrypto.3.dylib"),
    ({"ANSWER": "Invalid"}, RELEASE, "the notary service answered Invalid"),
    ({"ANSWER": ""}, RELEASE, "the notary service did not take"),
]


def check_trouble(checks, signing):
    for environment, options, message in TROUBLE:
        code, _, error, calls = signing.package(*options, **environment)
        checks.fails(environment, code, error, message)
        if "FAIL" in environment and "lipo" not in environment["FAIL"]:
            checks.true(f"{environment} was the last call", re.match(message.split()[0], calls[-1][0]))
        checks.equal("no folder stays behind", list(signing.folder.glob("sign-and-package.*")), [])
    _, _, _, calls = signing.package(*RELEASE, ANSWER="Invalid")
    checks.true("the log of a refusal is fetched", ["xcrun", "notarytool", "log"] == calls[-1][:3])
    code, _, error, calls = signing.package(tools=False)
    checks.fails("no tool", code, error, "is missing: this needs macOS", 1)
    checks.equal("no tool, no work", calls, [])


def check_busy(checks, signing):
    """The image is made again while the Mac is busy, some times, and with a pause."""
    for busy, wanted in ((2, 0), (99, 1)):
        code, _, error, calls = signing.package(BUSY=str(busy))
        tries = [call[0] for call in calls if call[0] in ("hdiutil", "sleep")]
        checks.equal(f"busy {busy} times: {error}", code, wanted)
        checks.equal(f"tries when busy {busy} times", tries, ["hdiutil", "sleep"] * min(busy, 4) + ["hdiutil"])
        checks.equal(f"what it says when busy {busy} times", error.count("Resource busy"), min(busy, 5))
    code, _, _, calls = signing.package(FAIL="hdiutil*")
    checks.equal("another failure is not tried again", (code, [call[0] for call in calls].count("hdiutil")), (1, 1))


def check_build(checks, signing, cmake):
    """The build signs the app where it puts it, and again after a change."""
    source = signing.folder / "build"  # the two programs are there
    (source / "CMakeLists.txt").write_text(PROJECT)
    build = signing.folder / "built"
    bundle_file = f"-DBUNDLE_FILE={signing.packaging}/Bundle.cmake"
    code, shown, error, _ = signing.run_other(cmake, "-G", "Ninja", "-S", source, "-B", build, bundle_file)
    checks.equal(f"configuring: {shown}{error}", code, 0)
    app = build / "Mirel Token.app"
    expected = [f"{app}/Contents/PlugIns/MirelToken.appex", f"{app}"]
    for what, signed in (("at first", expected), ("with nothing to do", []), ("after a change", expected)):
        if what == "after a change":
            (source / "the program").write_text("another program\n")
        code, shown, error, calls = signing.run_other(cmake, "--build", build)
        checks.equal(f"building {what}: {shown}{error}", code, 0)
        checks.equal(f"signed {what}", [call[-1] for call in calls if "--force" in call], signed)
    checks.equal("what was built", (app / "Contents/MacOS/mireltoken").read_text(), "another program\n")
    (source / "the program").write_text("a third\n")
    code, _, _, _ = signing.run_other(cmake, "--build", build, FLAGS="0x2(adhoc)")
    checks.true("a bad signature fails the build", code != 0)
    code, _, _, calls = signing.run_other(cmake, "--build", build)
    checks.true("and is made again", code == 0 and calls)


def check_misuse(checks, signing):
    for options, message in (
        (["--identity"], "which app?"),  # it takes the app for the identity
        (["--identity", ""], "--identity needs a value"),
        (["--deep"], "there is no option --deep"),
        ([signing.app], "only one app at a time"),
        (["--keychain-profile", "p"], "can be notarised"),
        (["--keychain-profile", "p", "--identity", "i"], "can be notarised"),
        (["--keychain-profile", "p", "--sign-only"], "makes none"),
    ):
        code, _, error, calls = signing.run(*options)
        checks.fails(options, code, error, message, 2)
        checks.equal(f"{options}", ("usage:" in error, calls), (True, []))
    code, shown, error, _ = signing.run("--help")
    checks.equal("help", (code, shown.split(" [")[0], error), (0, "usage: sign-and-package", ""))
    for missing in ("Contents/Info.plist", "Contents/PlugIns/MirelToken.appex/Contents/Info.plist", *PROGRAMS):
        aside = signing.folder / "aside"
        (signing.app / missing).rename(aside)
        code, _, error, calls = signing.plan()
        checks.fails(f"without {missing}", code, error, f"it has no {missing}", 1)
        checks.equal(f"without {missing}", calls, [])
        aside.rename(signing.app / missing)
    plist = signing.app / "Contents/Info.plist"
    content = plist.read_text()
    nothing = "has no version, no identifier or no oldest macOS"
    for old, new, message in (
        ("CFBundleShortVersionString", "Version", nothing),
        ("CFBundleIdentifier", "Identifier", nothing),
        ("LSMinimumSystemVersion", "Minimum", nothing),
        (f"<string>{signing.version}<", "<string>1/2<", "has a version that is no number"),
        ("<string>12.0<", "<string>12.0&amp;<", "has a version that is no number"),
        ("<string>com.mirel.token<", "<string>com.mirel/token<", "has a strange identifier"),
    ):
        plist.write_text(content.replace(old, new))
        code, _, error, calls = signing.plan()
        checks.fails(f"{new} instead of {old}", code, error, message, 1)
        checks.equal(f"{new} instead of {old}", calls, [])
    plist.write_text(content)


def main():
    given = arguments()
    checks = Checks()
    with temporary_folder() as folder:
        signing = Signing(pathlib.Path(folder).resolve(), given)
        checks.equal("putting the app together", signing.made, 0)
        check_shown(checks, signing)
        check_paths(checks, signing)
        check_run(checks, signing)
        check_modes(checks, signing)
        check_distribution(checks, signing)
        check_trouble(checks, signing)
        check_busy(checks, signing)
        check_build(checks, signing, given.cmake)
        check_misuse(checks, signing)
    checks.finish()


if __name__ == "__main__":
    main()
