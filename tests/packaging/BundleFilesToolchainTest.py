"""The toolchain file for building macOS programs elsewhere: what it says without an SDK, and that two programs are
linked for both processors and put into the app. The SDK is one of a few stubs: just what empty programs need."""

import os
import pathlib
import plistlib
import struct

from BundleFilesSupport import Checks, arguments, run, temporary_folder

PROJECT = """\
cmake_minimum_required(VERSION 3.25)
project(trial VERSION 7.8.9 LANGUAGES C CXX)
add_library(part STATIC part.cpp more.cpp)
add_executable(trial main.cpp)
target_link_libraries(trial PRIVATE part)
add_executable(extension extension.c)
target_compile_options(extension PRIVATE -fapplication-extension)
target_link_options(extension PRIVATE -fapplication-extension -Wl,-e,_NSExtensionMain)
target_link_libraries(extension PRIVATE "-framework Foundation")
include("${BUNDLE_FILE}")
mirel_add_bundle(app APP trial EXTENSION extension)
"""

SOURCES = {
    "part.cpp": "int part() { return 6; }\n",
    "more.cpp": "int more() { return 7; }\n",
    "main.cpp": "int part();\nint more();\nint main() { return part() * more(); }\n",
    "extension.c": "int used(void) { return 1; }\n",
}


def stub(name, symbols):
    """A library as an SDK describes it: where it will be, and what it has."""
    return (
        "--- !tapi-tbd\ntbd-version: 4\ntargets: [ x86_64-macos, arm64-macos ]\n"
        f"install-name: '{name}'\ncurrent-version: 1\nexports:\n"
        f"  - targets: [ x86_64-macos, arm64-macos ]\n    symbols: [ {', '.join(symbols)} ]\n...\n"
    )


def make_sdk(folder):
    framework = folder / "System/Library/Frameworks/Foundation.framework"
    (folder / "usr/lib").mkdir(parents=True)
    framework.mkdir(parents=True)
    (folder / "SDKSettings.json").write_text('{"Version": "12.0", "MaximumDeploymentTarget": "12.99"}\n')
    (folder / "usr/lib/libSystem.tbd").write_text(
        stub("/usr/lib/libSystem.B.dylib", ["dyld_stub_binder", "_exit", "___stack_chk_fail"])
    )
    (folder / "usr/lib/libc++.tbd").write_text(stub("/usr/lib/libc++.1.dylib", ["___gxx_personality_v0"]))
    (framework / "Foundation.tbd").write_text(
        stub("/System/Library/Frameworks/Foundation.framework/Versions/C/Foundation", ["_NSExtensionMain"])
    )
    return folder


# What the toolchain file takes, run without a project.
LOOK = """\
function(add_compile_options)
endfunction()
function(add_link_options)
endfunction()
include("${TOOLCHAIN}")
foreach(tool MIREL_CLANG MIREL_CLANGXX MIREL_LD64 MIREL_LIPO MIREL_LIBTOOL CMAKE_INSTALL_NAME_TOOL CMAKE_AR CMAKE_RANLIB)
  message(STATUS "${${tool}}")
endforeach()
"""
TOOLS = ["clang", "clang++", "ld64.lld", "llvm-lipo", "llvm-libtool-darwin", "llvm-install-name-tool", "llvm-ar", "llvm-ranlib"]


def check_search(checks, given, folder):
    """Of several LLVMs the newest is taken that is complete, and all of it."""
    sdk = make_sdk(folder / "search.sdk")
    (folder / "look.cmake").write_text(LOOK)
    tools = folder / "several"
    tools.mkdir()

    def install(suffix, without=()):
        for tool in set(TOOLS) - set(without):
            (tools / f"{tool}{suffix}").write_text("#!/bin/sh\n")
            (tools / f"{tool}{suffix}").chmod(0o755)

    def look(*options):
        code, shown, error = run(
            given.cmake, f"-DTOOLCHAIN={given.source}/cmake/macos-toolchain.cmake", f"-DMIREL_MACOS_SDK={sdk}", *options,
            "-P", folder / "look.cmake", cwd=folder, env={**os.environ, "PATH": f"{tools}:{os.environ['PATH']}"},
        )  # fmt: skip
        return code, [line.removeprefix("-- ") for line in shown.splitlines()], " ".join(error.split())

    def all_with(suffix):
        return [f"{tools}/{tool}{suffix}" for tool in TOOLS]

    install("-99")
    install("-801")
    install("-900", without=["llvm-lipo"])
    install("-1000.old")
    checks.equal("the newest LLVM that is complete", look()[:2], (0, all_with("-801")))
    checks.equal("the LLVM that is asked for", look("-DMIREL_LLVM_SUFFIX=-99")[:2], (0, all_with("-99")))
    for suffix, tool, package in (("-900", "llvm-lipo", "llvm"), ("-7777", "clang", "clang")):
        code, _, error = look(f"-DMIREL_LLVM_SUFFIX={suffix}")
        missing = f"{tool}{suffix} is missing. Install it with apt-get install {package}{suffix}"
        checks.fails(f"an LLVM without {tool}", code, error, missing)


PROCESSORS = {0x0100000C: "arm64", 0x01000007: "x86_64"}
LC_LOAD_DYLIB, LC_MAIN, LC_BUILD_VERSION, EXECUTE = 0x0C, 0x80000028, 0x32, 2


def parts_of(program):
    """processor -> (oldest macOS, libraries, whether it has an entry); empty unless it is a universal program."""
    content = program.read_bytes()
    magic, count = struct.unpack_from(">II", content)
    if magic != 0xCAFEBABE:
        return {}
    found = {}
    for i in range(count):
        processor, _, start, _, _ = struct.unpack_from(">5I", content, 8 + 20 * i)
        _, _, _, kind, commands, _, _, _ = struct.unpack_from("<8I", content, start)
        oldest, libraries, entry, at = None, [], False, start + 32
        for _ in range(commands):
            command, size = struct.unpack_from("<II", content, at)
            if command == LC_BUILD_VERSION:
                version = struct.unpack_from("<I", content, at + 12)[0]
                oldest = f"{version >> 16}.{version >> 8 & 0xFF}"
            elif command == LC_LOAD_DYLIB:
                name = struct.unpack_from("<I", content, at + 8)[0]
                libraries.append(content[at + name : at + size].rstrip(b"\0").decode())
            elif command == LC_MAIN:
                entry = kind == EXECUTE
            at += size
        found[PROCESSORS.get(processor, hex(processor))] = (oldest, libraries, entry)
    return found


def main():
    given = arguments()
    checks = Checks()
    with temporary_folder() as name:
        folder = pathlib.Path(name)
        source = folder / "source"
        source.mkdir()
        (source / "CMakeLists.txt").write_text(PROJECT)
        for file, text in SOURCES.items():
            (source / file).write_text(text)

        def configure(build, *options):
            toolchain = f"-DCMAKE_TOOLCHAIN_FILE={given.source}/cmake/macos-toolchain.cmake"
            # Flags of the user's own take nothing away.
            flags = ["-DCMAKE_CXX_FLAGS=-Wall", "-DCMAKE_EXE_LINKER_FLAGS=-Wl,-dead_strip"]
            oldest = "-DCMAKE_OSX_DEPLOYMENT_TARGET=12.0"
            return run(
                given.cmake, "-G", "Ninja", "-S", source, "-B", folder / build, toolchain, oldest, *flags, *options
            )

        half = make_sdk(folder / "half.sdk")
        (half / "usr/lib/libc++.tbd").unlink()
        for options, message in (
            ([], "Building for macOS needs a macOS SDK, which only you can provide."),
            ([f"-DMIREL_MACOS_SDK={folder}/none"], f"{folder}/none is no macOS SDK: it has no SDKSettings.json."),
            ([f"-DMIREL_MACOS_SDK={half}"], f"{half} is no macOS SDK: it has no usr/lib/libc++.tbd."),
        ):
            code, _, error = configure("refused", *options)
            checks.fails(options, code, error, message)
            checks.fails(f"{options}: what to do", code, error, "-DMIREL_MACOS_SDK=/path/to/MacOSX.sdk")

        check_search(checks, given, folder)
        sdk = make_sdk(folder / "MacOSX.sdk")
        bundle_file = f"-DBUNDLE_FILE={given.source}/packaging/macos/Bundle.cmake"
        code, shown, error = configure("build", f"-DMIREL_MACOS_SDK={sdk}", bundle_file)
        checks.equal(f"configuring: {shown}{error}", code, 0)
        code, shown, error = run(given.cmake, "--build", folder / "build")
        checks.equal(f"building: {shown}{error}", code, 0)
        checks.true(f"without warnings: {shown}{error}", "warning" not in shown + error)
        libraries = ["/usr/lib/libc++.1.dylib", "/usr/lib/libSystem.B.dylib"]
        foundation = "/System/Library/Frameworks/Foundation.framework/Versions/C/Foundation"
        app = folder / "build/Mirel Token.app/Contents"
        extension = "PlugIns/MirelToken.appex/Contents/MacOS/MirelToken"
        for program, wanted in (("MacOS/mireltoken", libraries), (extension, [foundation, libraries[1]])):
            if not (app / program).is_file():
                checks.equal(f"{program} is there", False, True)
                continue
            parts = parts_of(app / program)
            checks.equal(f"{program}: the processors", sorted(parts), ["arm64", "x86_64"])
            for processor, (oldest, found, entry) in parts.items():
                checks.equal(f"{program}, {processor}", (oldest, sorted(found), entry), ("12.0", sorted(wanted), True))
        for plist in ("Info.plist", "PlugIns/MirelToken.appex/Contents/Info.plist"):
            version = plistlib.loads((app / plist).read_bytes())["CFBundleVersion"] if (app / plist).is_file() else None
            checks.equal(f"the version in {plist}", version, "7.8.9")
    checks.finish()


if __name__ == "__main__":
    main()
