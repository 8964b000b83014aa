"""How the whole project is built for macOS: read from the commands of a build folder, of which nothing is run. The
SDK is one of a few stubs. Besides, what the preset for macOS says, and what stops the configuration."""

import collections
import json
import os
import pathlib
import shlex

from BundleFilesSupport import Checks, arguments, run, temporary_folder
from BundleFilesToolchainTest import make_sdk

PROCESSORS = ["arm64", "x86_64"]
OLDEST = "12.0"
# The preset gives them as the compiler's flags, where a toolchain file could also have some.
WARNINGS = ["-Wall", "-Wextra", "-Wpedantic", "-Wshadow", "-Wconversion"]
INCLUDE_OPTIONS = ["-I", "-isystem", "-iquote", "-idirafter", "-F"]
EXTENSION = "extension/MirelToken"
COMMAND_LINE = "mireltoken"


def after(words, option):
    """The words that follow an option."""
    return [following for word, following in zip(words, words[1:]) if word == option]


def include_paths(words):
    paths = []
    for option in INCLUDE_OPTIONS:
        paths += after(words, option)
        paths += [word[len(option) :] for word in words if word.startswith(option) and word != option]
    return [pathlib.Path(path) for path in paths if not path.startswith("ramework")]


def is_below(path, folders):
    return any(folder in [path, *path.parents] for folder in folders)


def settings_of(build):
    """The cache of a build folder: a value for each name with its type."""
    cache = (build / "CMakeCache.txt").read_text().splitlines()
    return dict(line.split("=", 1) for line in cache if "=" in line and not line.startswith(("#", "//")))


class Build:
    """The commands of the build folder: of each kind the words, under the file that is read or written."""

    def __init__(self, source, folder, ninja):
        self.folder = folder
        code, shown, error = run(ninja, "-C", folder, "-t", "commands")
        if code != 0:
            raise RuntimeError(shown + error)
        self.compiled = collections.defaultdict(list)
        self.archived, self.linked, self.other = {}, {}, []
        for words in map(shlex.split, shown.splitlines()):
            if "-c" in words:
                self.compiled[os.path.relpath(after(words, "-c")[0], source)].append(words)
            elif "-static" in words and "-o" in words:
                self.archived[after(words, "-o")[0]] = words
            elif "-o" in words:
                self.linked[after(words, "-o")[0]] = words
            else:
                self.other.append(words)

    def objects_of(self, sources):
        return sorted(after(words, "-o")[0] for name in sources for words in self.compiled[name])


def objects_in(words):
    return sorted(word for word in words if word.endswith(".o"))


def sources_in(source, folder):
    return sorted(str(file.relative_to(source)) for file in (source / folder).glob("*.mm"))


def check_compiled(checks, build, given, sdk):
    adapters = sources_in(given.source, "platform/macos") + sources_in(given.source, "token/macos")
    checks.true("there are adapters", len(adapters) > 10)
    for name in adapters:
        checks.equal(f"how often {name} is compiled", len(build.compiled.get(name, [])), 1)
    for name, commands in sorted(build.compiled.items()):
        foreign = name.startswith(("platform/linux/", "tests/", "fuzz/", "bench/"))
        checks.true(f"{name} is for macOS", not foreign)
        for words in commands:
            checks.equal(f"{name}: the processors", sorted(after(words, "-arch")), PROCESSORS)
            oldest = [word for word in words if word.startswith("-mmacosx-version-min")]
            checks.equal(f"{name}: the oldest macOS", oldest, [f"-mmacosx-version-min={OLDEST}"])
            checks.equal(f"{name}: the SDK", after(words, "-isysroot"), [str(sdk)])
            checks.true(f"{name}: C++20", "-std=c++20" in words)
            needed = WARNINGS + ["-stdlib=libc++", f"-B{build.folder}/macos-tools"]
            checks.equal(f"{name}: flags that are missing", [word for word in needed if word not in words], [])
            if name.endswith(".mm"):
                checks.true(f"{name}: no ARC", "-fno-objc-arc" in words and "-fobjc-arc" not in words)
            if name.startswith("token/macos/"):
                checks.true(f"{name}: for extensions", "-fapplication-extension" in words)
            strange = [path for path in include_paths(words) if not is_below(path, [given.source, build.folder])]
            checks.equal(f"{name}: headers from elsewhere", strange, [])
    main = build.compiled["cli/main.cpp"][0]
    for name in ("CLI", "nlohmann"):
        private = build.folder / "headers" / name
        checks.true(f"the headers of {name} are used", private in include_paths(main))
        checks.equal(f"what is beside them, {name}", [entry.name for entry in private.iterdir()], [name])


def check_archived(checks, build, source):
    services = sources_in(source, "platform/macos")
    archive = objects_in(build.archived["platform/libplatform.a"])
    checks.equal("services that are not in platform", sorted(set(build.objects_of(services)) - set(archive)), [])
    others = sorted(set(build.objects_of(sources_in(source, "token/macos"))) & set(archive))
    checks.equal("what only the extension needs, and is in platform", others, [])


def check_libraries(checks, build, name):
    """Nothing is linked but frameworks and what the build itself makes."""
    words = build.linked[name]
    checks.equal(f"{name}: libraries by name", [word for word in words if word.startswith(("-l", "-L"))], [])
    libraries = {word for word in words if word.endswith((".a", ".dylib", ".so", ".tbd"))}
    checks.equal(f"{name}: libraries from elsewhere", sorted(libraries - build.archived.keys()), [])
    checks.true(f"{name}: platform", "platform/libplatform.a" in libraries)
    checks.equal(f"{name}: the processors", sorted(after(words, "-arch")), PROCESSORS)
    checks.true(f"{name}: the oldest macOS", f"-mmacosx-version-min={OLDEST}" in words)
    checks.true(f"{name}: the C++ library", "-stdlib=libc++" in words)
    checks.true(f"{name}: the linker", any(word.startswith("--ld-path=") for word in words))


def check_linked(checks, build, source):
    checks.equal("the programs", sorted(build.linked), [EXTENSION, COMMAND_LINE])
    # A folder of most Macs takes names that differ in their case alone for the same.
    written = [name.casefold() for name in [*build.linked, *build.archived]]
    checks.equal("files written by two", [name for name in written if written.count(name) > 1], [])
    if sorted(build.linked) != [EXTENSION, COMMAND_LINE]:
        return
    for name in (EXTENSION, COMMAND_LINE):
        check_libraries(checks, build, name)

    words = build.linked[EXTENSION]
    parts = sources_in(source, "token/macos")
    checks.equal("the extension's own objects", objects_in(words), build.objects_of(parts))
    checks.equal("the extension's frameworks", sorted(set(after(words, "-framework"))),
                 ["CryptoTokenKit", "Foundation", "Security"])
    checks.true("the extension is linked as one", "-fapplication-extension" in words)
    checks.true("the extension's entry is the system's", "-Wl,-e,_NSExtensionMain" in words)

    words = build.linked[COMMAND_LINE]
    checks.equal("the command line's own main", objects_in(words), build.objects_of(["cli/main.cpp"]))
    checks.equal("the command line's frameworks", sorted(set(after(words, "-framework"))),
                 ["CoreServices", "Foundation", "Security"])
    entries = [word for word in words if word.startswith("-Wl,-e") or word in ("-e", "-fapplication-extension")]
    checks.equal("the command line is a program as any", entries, [])


def check_bundled(checks, build):
    given = [
        sorted(word for word in words if word.startswith(("-DAPP_EXECUTABLE=", "-DEXTENSION_EXECUTABLE=")))
        for words in build.other
        if any(word.endswith("/AssembleBundle.cmake") for word in words)
    ]
    programs = [f"-DAPP_EXECUTABLE={build.folder}/{COMMAND_LINE}", f"-DEXTENSION_EXECUTABLE={build.folder}/{EXTENSION}"]
    checks.equal("what the app is put together of", given, [programs])


def configure(given, folder):
    """Configures the whole project for macOS in a subfolder, with the preset that people use: what came of it, and the
    SDK."""
    sdk = make_sdk(folder / "MacOSX.sdk")
    toolchain = f"-DCMAKE_TOOLCHAIN_FILE={given.source}/cmake/macos-toolchain.cmake"
    options = [toolchain, f"-DMIREL_MACOS_SDK={sdk}"]
    return *run(given.cmake, "--preset", "release", "-B", folder / "build", *options, cwd=given.source), sdk


def check_commands(checks, given):
    with temporary_folder() as name:
        folder = pathlib.Path(name).resolve()
        code, shown, error, sdk = configure(given, folder)
        checks.equal(f"configuring: {shown}", (code, error), (0, ""))
        checks.true(f"configuring without warnings: {shown}", "warning" not in shown.lower())
        if code != 0:
            return
        settings = settings_of(folder / "build")
        checks.equal("no tests where they cannot run", settings["BUILD_TESTING:BOOL"], "OFF")
        build = Build(given.source, folder / "build", settings["CMAKE_MAKE_PROGRAM:FILEPATH"])
        check_compiled(checks, build, given, sdk)
        check_archived(checks, build, given.source)
        check_linked(checks, build, given.source)
        check_bundled(checks, build)


def settled(presets, name):
    """A preset's variables and condition, with what it inherits; its own come first."""
    preset = next(preset for preset in presets if preset["name"] == name)
    variables, condition = {}, None
    parents = preset.get("inherits", [])
    for parent in reversed([parents] if isinstance(parents, str) else parents):
        inherited, above = settled(presets, parent)
        variables.update(inherited)
        condition = above or condition
    variables.update(preset.get("cacheVariables", {}))
    return variables, preset.get("condition", condition)


def check_preset(checks, source):
    presets = json.loads((source / "CMakePresets.json").read_text())
    variables, condition = settled(presets["configurePresets"], "macos")
    for variable, value in (
        ("BUILD_TESTING", "OFF"),
        ("CMAKE_BUILD_TYPE", "Release"),
        ("CMAKE_OSX_ARCHITECTURES", ";".join(PROCESSORS)),
    ):
        checks.equal(f"the preset macos: {variable}", variables.get(variable), value)
    darwin = {"type": "equals", "lhs": "${hostSystemName}", "rhs": "Darwin"}
    checks.equal("where the preset macos is", condition, darwin)
    builds = [preset["name"] for preset in presets["buildPresets"] if preset["configurePreset"] == "macos"]
    checks.equal("how it is built", builds, ["macos"])


# What tests are built with, where a build for macOS looks for it: as empty as CMake takes it.
TEST_PACKAGES = {
    "lib/cmake/GTest/GTestConfig.cmake": "".join(
        f"add_library(GTest::{name} INTERFACE IMPORTED)\n" for name in ("gtest", "gtest_main", "gmock", "gmock_main")
    ),
    "include/openssl/ssl.h": "",
    "include/openssl/opensslv.h": '#define OPENSSL_VERSION_STR "3.0.0"\n',
    "include/p11-kit-1/p11-kit/pkcs11.h": "",
    "lib/libcrypto.tbd": "",
    "lib/libssl.tbd": "",
    "lib/libp11-kit.tbd": "",
}


def check_with_tests(checks, given):
    """The presets that ./check uses on a Mac can be configured and generated there."""
    with temporary_folder() as name:
        folder = pathlib.Path(name).resolve()
        sdk = make_sdk(folder / "MacOSX.sdk")
        for file, content in TEST_PACKAGES.items():
            (sdk / "usr" / file).parent.mkdir(parents=True, exist_ok=True)
            (sdk / "usr" / file).write_text(content)
        options = [f"-DCMAKE_TOOLCHAIN_FILE={given.source}/cmake/macos-toolchain.cmake", f"-DMIREL_MACOS_SDK={sdk}"]
        for preset in ("release", "asan"):
            code, shown, error = run(given.cmake, "--preset", preset, "-B", folder / preset, *options,
                                     "-DBUILD_TESTING=ON", cwd=given.source)  # fmt: skip
            checks.equal(f"configuring {preset} with tests: {shown}", (code, error), (0, ""))
            if code == 0:
                check_tests_linked(checks, folder / preset, preset, given)


def check_tests_linked(checks, folder, preset, given):
    """Whatever has the whole command line in it is linked with what that needs of the system."""
    build = Build(given.source, folder, settings_of(folder)["CMAKE_MAKE_PROGRAM:FILEPATH"])
    users = [name for name, words in build.linked.items() if "cli/libcommand_line.a" in words]
    checks.true(f"{preset}: tests that have the command line in them: {users}", "fuzz/fuzz_commandline_replay" in users)
    for name in users:
        found = after(build.linked[name], "-framework")
        checks.true(f"{preset}, {name}: its frameworks: {found}", "CoreServices" in found)


def check_stops(checks, given):
    """What cannot be built says so by name."""
    with temporary_folder() as name:
        folder = pathlib.Path(name)
        toolchain = f"-DCMAKE_TOOLCHAIN_FILE={given.source}/cmake/macos-toolchain.cmake"
        sdk = f"-DMIREL_MACOS_SDK={make_sdk(folder / 'MacOSX.sdk')}"
        for what, options, message in (
            ("another system", ["-DCMAKE_SYSTEM_NAME=FreeBSD", "-DBUILD_TESTING=OFF"],
             "There are no services for FreeBSD, only for macOS and Linux."),
            ("a missing library of headers", [toolchain, sdk, "-DCMAKE_IGNORE_PATH=/usr/include;/usr/local/include"],
             "The command line parser CLI11 is missing. Install it with"),
        ):
            code, shown, error = run(given.cmake, "-G", "Ninja", "-S", given.source, "-B", folder / what, *options)
            checks.fails(f"{what}: {shown}", code, error, message)


def main():
    given = arguments()
    given.source = given.source.resolve()
    checks = Checks()
    check_preset(checks, given.source)
    check_commands(checks, given)
    check_with_tests(checks, given)
    check_stops(checks, given)
    checks.finish()


if __name__ == "__main__":
    main()
