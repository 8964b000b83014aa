"""What is for macOS alone, and what calls POSIX, compiles for macOS without a warning; every source of the app does with
ALL_SOURCES=1 in the environment, which takes a minute longer. With the flags and the oldest macOS that the build
gives it, on the double of the platform's frameworks and on this system's headers instead of an SDK. What differs in
Apple's own headers of C and of Foundation is not seen. The headers of the C++ library are those of libc++ where they
are installed, as on a Mac, else this system's own."""

import concurrent.futures
import os
import pathlib
import platform
import sys

from BundleFilesSupport import Checks, arguments, run, temporary_folder
from MacBuildTest import Build, configure, settings_of

SKIPPED = 77
NEWEST = "99.0"  # what a compiler on a Mac takes that is told of no oldest macOS: that Mac's own
DEPRECATED = "14.0"  # from here on the algorithm below is

# This system's headers take the compiler for one of their own.
THIS_SYSTEM = [
    "-U__APPLE__", "-U__MACH__", "-U__nonnull", "-D__linux__", "-D__gnu_linux__", "-D__ELF__", "-D_GNU_SOURCE",
    "-D_BITS_FLOATN_H",  # declares types that the target does not have
]  # fmt: skip
# Foundation's runtime here has no blocks.
THIS_RUNTIME = [
    "-fno-blocks", "-fobjc-runtime=gcc", "-fconstant-string-class=NSConstantString", "-fexceptions",
    "-fobjc-exceptions", "-D_NATIVE_OBJC_EXCEPTIONS", "-DGNUSTEP_BASE_LIBRARY=1", "-include", "double/Prefix.h",
]  # fmt: skip
REPLACED = ["-isysroot", "-arch", "-o", "-c", "-MT", "-MF"]  # with the word that follows
DROPPED = ("-MD", "-B", "--target=", "-stdlib=", "-mmacosx-version-min=")


def header_folders(compiler):
    """Where the compiler finds the headers of C and C++, and whose C++ library that is."""
    for option, library in (("-stdlib=libc++", "libc++"), ("-stdlib=libstdc++", "this system")):
        code, _, shown = run(compiler, option, "-x", "c++", "-E", "-v", "-include", "vector", "/dev/null")
        if code == 0:
            listed = shown.split("#include <...> search starts here:\n")[1].split("End of search list.")[0]
            return [line.strip() for line in listed.splitlines()], library
    raise RuntimeError(shown)


class Compiler:
    """Compiles sources as the build would, but only looks at them."""

    def __init__(self, given, words):
        self.program = next(word for word in words if pathlib.Path(word).name.startswith("clang"))
        folders, self.library = header_folders(self.program)
        settings = settings_of(given.build)
        self.headers = ["-nostdinc", "-nostdinc++"] + [word for folder in folders for word in ("-isystem", folder)]
        self.double = ["-I", f"{given.source}/tests/macos/double/include"]
        self.foundation = ["-isystem", settings.get("GNUSTEP_INCLUDE_DIR:PATH", "")]
        self.foundation += ["-idirafter", settings.get("OBJC_RUNTIME_INCLUDE_DIR:PATH", "")]
        self.processor = "arm64" if platform.machine() == "aarch64" else platform.machine()

    def look_at(self, source, words, oldest=None):
        """Exit code and what the compiler says."""
        kept, replaced = [], False
        for word in words[words.index(self.program) + 1 :]:
            if replaced or word in REPLACED:
                replaced = not replaced
            elif word.startswith("-mmacosx-version-min="):
                oldest = oldest or word.split("=")[1]
            elif not word.startswith(DROPPED):
                kept.append(word)
        target = ["-target", f"{self.processor}-apple-macos{oldest or NEWEST}"]
        language = THIS_RUNTIME + self.foundation if source.suffix == ".mm" else []
        code, _, error = run(
            self.program, *target, "-fsyntax-only", "-Werror", *kept, *THIS_SYSTEM, *self.headers, *self.double,
            *language, source,
        )  # fmt: skip
        return code, error


def main():
    given = arguments()
    given.source = given.source.resolve()
    if "GNUSTEP_INCLUDE_DIR:PATH" not in settings_of(given.build):
        print("skipped: GNUstep is missing (apt-get install libgnustep-base-dev)")
        sys.exit(SKIPPED)
    checks = Checks()
    with temporary_folder() as name:
        folder = pathlib.Path(name).resolve()
        code, shown, error, _ = configure(given, folder)
        checks.equal(f"configuring: {shown}{error}", code, 0)
        ninja = settings_of(folder / "build")["CMAKE_MAKE_PROGRAM:FILEPATH"]
        code, shown, error = run(ninja, "-C", folder / "build", "english_strings_file")  # which one source includes
        checks.equal(f"making the texts: {shown}{error}", code, 0)
        build = Build(given.source, folder / "build", ninja)
        checks.true(f"there are sources: {list(build.compiled)}", len(build.compiled) > 50)
        everything = os.environ.get("ALL_SOURCES") == "1"
        commands = {
            given.source / name: words[0]
            for name, words in build.compiled.items()
            if everything or name.endswith(".mm") or name.startswith("platform/posix/")
        }
        checks.true(f"some are for macOS alone: {list(commands)}", len(commands) > 20)
        compiler = Compiler(given, next(iter(commands.values())))
        print(f"with the C++ library of {compiler.library}")
        with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
            looks = {source: pool.submit(compiler.look_at, source, words) for source, words in commands.items()}
            for source, look in looks.items():
                checks.equal(f"{source}: {look.result()[1]}", look.result()[0], 0)

        # The double warns as the platform does.
        algorithms = given.source / "platform/macos/Algorithms.mm"
        code, error = compiler.look_at(algorithms, commands[algorithms], oldest=DEPRECATED)
        wanted = "'kSecKeyAlgorithmECDSASignatureRFC4754' is deprecated: first deprecated in macOS 14.0"
        checks.true(f"a deprecated algorithm: {error}", code != 0 and wanted in error)
    checks.finish()


if __name__ == "__main__":
    main()
