"""What is wrong with the files of the macOS bundle, in plain words; nothing when they are as they must be."""

import json
import plistlib
import re
import struct
import xml.etree.ElementTree
import xml.parsers.expat
import zlib

from BundleFilesSupport import configured

LANGUAGES = ["de", "en", "es", "fr", "it", "ja", "nl", "pl", "pt", "ru", "tr", "zh-Hans"]

HEADING = (
    '<?xml version="1.0" encoding="UTF-8"?>\n'
    '<!DOCTYPE plist PUBLIC "-//Apple//DTD PLIST 1.0//EN" "http://www.apple.com/DTDs/PropertyList-1.0.dtd">\n'
    '<plist version="1.0">\n'
)


def both_lists(version):
    """What the lists of the app and of the extension have in common."""
    return {
        "CFBundleDevelopmentRegion": "en",
        "CFBundleDisplayName": "Mirel Token",
        "CFBundleInfoDictionaryVersion": "6.0",
        "CFBundleLocalizations": LANGUAGES,
        "CFBundleShortVersionString": version,
        "CFBundleSupportedPlatforms": ["MacOSX"],
        "CFBundleVersion": version,
        "LSMinimumSystemVersion": "12.0",
    }


def app_list(version):
    return {
        **both_lists(version),
        "CFBundleExecutable": "mireltoken",
        "CFBundleIconFile": "AppIcon",
        "CFBundleIdentifier": "com.mirel.token",
        "CFBundleName": "Mirel Token",
        "CFBundlePackageType": "APPL",
        "LSUIElement": True,
        "NSHighResolutionCapable": True,
    }


def extension_list(version):
    return {
        **both_lists(version),
        "CFBundleExecutable": "MirelToken",
        "CFBundleIdentifier": "com.mirel.token.extension",
        "CFBundleName": "MirelToken",
        "CFBundlePackageType": "XPC!",
        "NSExtension": {
            # No com.apple.ctk.aid: every card is offered, and none is held open.
            "NSExtensionAttributes": {
                "com.apple.ctk.class-id": "com.mirel.token.extension",
                "com.apple.ctk.driver-class": "MirelSCTokenDriver",
                "com.apple.ctk.token-type": "smartcard",
            },
            "NSExtensionPointIdentifier": "com.apple.ctk-tokens",
        },
    }


ENTITLEMENTS = {
    "com.apple.security.app-sandbox": True,
    "com.apple.security.cs.disable-library-validation": True,
    "com.apple.security.files.user-selected.read-only": True,
    "com.apple.security.smartcard": True,
    "com.apple.security.temporary-exception.files.home-relative-path.read-write": [
        "/Library/LunetLocalSignServer/",
        "/",
    ],
}


def text_of(plist):
    """A property list to be compared, in which true is not 1."""
    return json.dumps(plist, sort_keys=True, default=repr)


def read_list(content):
    """The property list, or a ValueError that says what the system's parsers might trip over."""
    if b"\r" in content:
        raise ValueError("a line ends with CR")
    try:
        text = content.decode("ascii")
    except UnicodeDecodeError:
        raise ValueError("not ASCII") from None
    if not text.startswith(HEADING) or not text.endswith("</plist>\n"):
        raise ValueError("not the usual first and last lines")
    if "<!--" in text:
        raise ValueError("a comment")
    try:
        for entry in xml.etree.ElementTree.fromstring(text).iter("dict"):
            keys = [key.text for key in entry.findall("key")]
            for key in keys:
                if keys.count(key) > 1:
                    raise ValueError(f"{key} stands there twice")
        return plistlib.loads(content)
    except (xml.etree.ElementTree.ParseError, xml.parsers.expat.ExpatError, plistlib.InvalidFileException):
        raise ValueError("no property list") from None


def faults_of_list(name, content, expected):
    try:
        found = text_of(read_list(content))
    except ValueError as error:
        return [f"{name}: {error}"]
    return [] if found == text_of(expected) else [f"{name}: {found}, not {text_of(expected)}"]


def project_version(tree):
    found = re.findall(r"^project\(\w+ VERSION ([0-9.]+)", (tree / "CMakeLists.txt").read_text(), re.MULTILINE)
    return found[0] if len(found) == 1 else "unknown"


def faults_of_lists(tree):
    packaging = tree / "packaging/macos"
    version = project_version(tree)
    faults = [] if re.fullmatch(r"\d+\.\d+\.\d+", version) else [f"the project's version is {version}"]
    for name, expected in (("AppInfo", app_list(version)), ("ExtensionInfo", extension_list(version))):
        content = configured((packaging / f"{name}.plist.in").read_bytes().decode("latin-1"), version)
        faults += faults_of_list(name, content.encode("latin-1"), expected)
    for name in ("App", "Extension"):
        faults += faults_of_list(
            f"{name}.entitlements", (packaging / f"{name}.entitlements").read_bytes(), ENTITLEMENTS
        )
    return faults


def class_is_defined(tree, name):
    """In the extension's Objective-C."""
    sources = (tree / "token/macos").glob("**/*.mm")
    return any(re.search(rf"^@implementation {name}$", file.read_text(), re.MULTILINE) for file in sources)


def faults_of_references(tree):
    """What the property lists name, and is not there."""
    packaging = tree / "packaging/macos"
    try:
        app = plistlib.loads((packaging / "AppInfo.plist.in").read_bytes())
        extension = plistlib.loads((packaging / "ExtensionInfo.plist.in").read_bytes())
        attributes = extension["NSExtension"]["NSExtensionAttributes"]
        faults = []
        for resources, texts, lists in (
            ("Resources", "Localizable.strings", {"AppInfo": app, "ExtensionInfo": extension}),
            ("AppResources", "App.strings", {"AppInfo": app}),
        ):
            folders = sorted(folder.name[: -len(".lproj")] for folder in (packaging / resources).glob("*.lproj"))
            for name, plist in lists.items():
                if plist["CFBundleLocalizations"] != folders:
                    faults.append(f"{name}: the languages are not the folders of {resources}")
            for folder in folders:
                if not (packaging / f"{resources}/{folder}.lproj/{texts}").is_file():
                    faults.append(f"{folder}: no {texts}")
        if not re.fullmatch(re.escape(app["CFBundleIdentifier"]) + r"\.[a-z]+", extension["CFBundleIdentifier"]):
            faults.append("the extension's identifier is not below the app's")
        if attributes["com.apple.ctk.class-id"] != extension["CFBundleIdentifier"]:
            faults.append("the class id is not the extension's identifier")
        if not class_is_defined(tree, attributes["com.apple.ctk.driver-class"]):
            faults.append("the driver class is not in the sources")
        if not (packaging / f"{app['CFBundleIconFile']}.icns").is_file():
            faults.append("there is no icon")
        if f"add_executable({app['CFBundleExecutable']} " not in (tree / "cli/CMakeLists.txt").read_text():
            faults.append("no program has the name of the app's executable")
        return faults
    except (xml.parsers.expat.ExpatError, KeyError, TypeError) as error:
        return [f"references: {error!r}"]


def faults_of_minimum(tree):
    """The oldest macOS, wherever it is told."""
    minimum = plistlib.loads((tree / "packaging/macos/AppInfo.plist.in").read_bytes())["LSMinimumSystemVersion"]
    faults = []
    project = (tree / "CMakeLists.txt").read_text()
    if f"set(CMAKE_OSX_DEPLOYMENT_TARGET {minimum} CACHE" not in project.split("\nproject(")[0]:
        faults.append("the project builds for another macOS")
    if "set(CMAKE_OSX_DEPLOYMENT_TARGET" in (tree / "cmake/macos-toolchain.cmake").read_text():
        faults.append("the toolchain file has an oldest macOS of its own")
    for preset in json.loads((tree / "CMakePresets.json").read_text())["configurePresets"]:
        if "CMAKE_OSX_DEPLOYMENT_TARGET" in preset.get("cacheVariables", {}):
            faults.append(f"the preset {preset['name']} has an oldest macOS of its own")
    return faults


# The images of the systems that the README says are tested.
LINUX_SYSTEMS = ["debian:12", "debian:13", "ubuntu:latest"]


def faults_of_workflow(tree):
    text = (tree / ".github/workflows/build.yml").read_text()
    faults = [] if "\t" not in text else ["the workflow has a tab"]
    actions = set(re.findall(r"uses: *(\S+)", text))
    if actions != {"actions/checkout@v4", "actions/upload-artifact@v4"}:
        faults.append(f"the workflow uses {sorted(actions)}")
    jobs = re.findall(r"^  [\w-]+:\n    runs-on: (\w+)-.*\n((?:(?:    .*)?\n)*)", text, re.MULTILINE)
    for system, name in (("ubuntu", "Linux"), ("macos", "macOS")):
        steps = "".join(steps for runner, steps in jobs if runner == system)
        if not re.search(r"^[ -]+(run: )?\./check( --all)?$", steps, re.MULTILINE):
            faults.append(f"the workflow does not run the tests on {name}")
        if "upload-artifact" not in steps:
            faults.append(f"the workflow keeps nothing of {name}")
    for image in LINUX_SYSTEMS:
        if f'"{image}"' not in text:
            faults.append(f"the workflow does not run {image}")
    for path in re.findall(r"packaging/macos/[\w-]+|\./check", text):
        if not (tree / path).is_file():
            faults.append(f"the workflow runs {path}, which is not there")
    presets = json.loads((tree / "CMakePresets.json").read_text())
    for builds, name in re.findall(r"cmake (--build )?--preset[ =]([\w-]+)", text):
        kind = "buildPresets" if builds else "configurePresets"
        if name not in [preset["name"] for preset in presets[kind] if not preset.get("hidden")]:
            faults.append(f"the workflow uses {name}, which is not one of the {kind}")
    return faults


def faults_of_pages(tree):
    """What the README and the list for the first Mac say that is not so."""
    packaging, token = tree / "packaging/macos", tree / "token/src"
    readme = (packaging / "README.md").read_text()
    first_mac = (tree / "docs/first-mac.md").read_text()
    faults = []
    before_the_layout = readme.partition("\n```\n")[0]
    cells = re.findall(r"^\| (`[^|]*) \| ", before_the_layout, re.MULTILINE)
    named = [name.rstrip("/") for cell in cells for name in re.findall(r"`([^`]+)`", cell)]
    for entry in sorted(packaging.iterdir()):
        if entry.name not in [*named, "README.md"] and not entry.name.startswith("."):
            faults.append(f"the README does not name {entry.name}")

    script = re.search(r"sudo tee (\S+)/mireltoken", readme)
    if not script or f"    sudo mkdir -p {script[1]}\n" not in readme[: script.start()]:
        faults.append("the README makes a script in a folder that may be missing")

    starts = [(token / f"{name}.cpp").read_text() for name in ("MirelSCTokenDriver", "MirelSCToken")]
    for text in re.findall(r"`(\+\+\+\w+\+\+\+)`", first_mac):
        if not all(f" {text}\"" in source for source in starts):
            faults.append(f"the first Mac's list expects {text} of the driver and of the token")
    sources = "".join(file.read_text() for file in sorted(token.glob("*.cpp")))
    for text in re.findall(r"`(instance\w* =|[^`\n]*(?:!!!|without mapping)[^`\n]*)`", first_mac):
        if text not in sources:
            faults.append(f"the first Mac's list expects {text}, which nothing logs")

    told = re.findall(r"up to (\d+) bytes whole; of more, the length, the first (\d+) and the last (\d+)", first_mac)
    description = (token / "Description.cpp").read_text()
    if told != [tuple(re.findall(r"^constexpr std::size_t kShown\w+ = (\d+);", description, re.MULTILINE))]:
        faults.append("the first Mac's list shows other bytes than the log")
    return faults


def faults(tree):
    found = faults_of_lists(tree) + faults_of_references(tree)
    # What follows reads the lists, and says nothing new when they cannot be read.
    if not found:
        found = faults_of_minimum(tree) + faults_of_workflow(tree) + faults_of_pages(tree)
    return found


# The images of an icon: what the system takes them for, and their edges in pixels.
IMAGES = {
    "ic11": 32,
    "ic12": 64,
    "ic07": 128,
    "ic13": 256,
    "ic08": 256,
    "ic14": 512,
    "ic09": 512,
    "ic10": 1024,
}


def pixels_of(png):
    """Width and rows of a PNG of four bytes a pixel whose rows are differences to the rows above."""
    if png[:8] != b"\x89PNG\r\n\x1a\n":
        raise ValueError("no PNG")
    chunks, at = {}, 8
    while at < len(png):
        (length,) = struct.unpack_from(">I", png, at)
        kind, content = png[at + 4 : at + 8], png[at + 8 : at + 8 + length]
        if struct.unpack_from(">I", png, at + 8 + length)[0] != zlib.crc32(kind + content):
            raise ValueError("a wrong checksum")
        chunks[kind] = content
        at += 12 + length
    width, height, *rest = struct.unpack(">IIBBBBB", chunks[b"IHDR"])
    if rest != [8, 6, 0, 0, 0] or list(chunks) != [b"IHDR", b"IDAT", b"IEND"]:
        raise ValueError("another kind of PNG")
    data = zlib.decompress(chunks[b"IDAT"])
    if width != height or len(data) != height * (1 + 4 * width):
        raise ValueError("not square, or not all of it")
    rows, above = [], bytes(4 * width)
    for row in range(height):
        line = data[row * (1 + 4 * width) : (row + 1) * (1 + 4 * width)]
        if line[0] != 2:
            raise ValueError("another kind of row")
        above = bytes((a + b) & 0xFF for a, b in zip(line[1:], above)) if any(line[1:]) else above
        rows.append(above)
    return width, rows


def faults_of_icon(icon):
    """Of the content of an .icns file."""
    if icon[:4] != b"icns" or len(icon) < 8 or struct.unpack_from(">I", icon, 4)[0] != len(icon):
        return ["no icon, or not all of it"]
    found, faults, at, seen = [], [], 8, {}
    while at + 8 <= len(icon):
        kind, (length,) = icon[at : at + 4].decode("latin-1"), struct.unpack_from(">I", icon, at + 4)
        png = icon[at + 8 : at + length]
        found.append(kind)
        at += max(length, 8)
        if png in seen.values() and IMAGES.get(kind) in seen:
            continue
        try:
            width, rows = pixels_of(png)
        except (ValueError, KeyError, struct.error, zlib.error) as error:
            faults.append(f"{kind}: {error}")
            continue
        seen[width] = png
        if width != IMAGES.get(kind):
            faults.append(f"{kind}: {width} pixels")
        corners = [rows[0][:4], rows[0][-4:], rows[-1][:4], rows[-1][-4:]]
        if any(corner[3] for corner in corners):
            faults.append(f"{kind}: a corner can be seen")
        if rows[width // 2][4 * (width // 2) + 3] != 255:
            faults.append(f"{kind}: the middle can be seen through")
    if found != list(IMAGES):
        faults.append(f"the images are {found}")
    return faults
