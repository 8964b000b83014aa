"""The texts for users: that each language has them whole, and that the build makes of them what it should.
Localizable.strings holds the texts of the token, App.strings those of the app, whose keys are the English texts."""

import collections
import pathlib
import re
import shutil
import struct

from BundleFilesSupport import Checks, arguments, run, temporary_folder

FEWEST_LANGUAGES = 8
TRIES, CONSTRAINT = "VERIFY_TRY_LEFT", "Not suppport this constraint"
# What stands between the languages and their texts.
FILES = {"Resources": "Localizable.strings", "AppResources": "App.strings"}

SPACE = r'(?:[ \t\r\n]|/\*.*?\*/|//[^\n]*\n)*'
QUOTED = r'"((?:[^"\\]|\\[nt"\\])*)"'
ESCAPES = {r"\n": "\n", r"\t": "\t", r"\"": '"', r"\\": "\\"}


# ---- Reading ----


def read_strings(file):
    """Keys and texts of a file of `"key" = "text";`, with white space and comments between, in their order."""
    rest = file.read_bytes().decode()
    rows = []
    while row := re.match(f"{SPACE}{QUOTED}{SPACE}={SPACE}{QUOTED}{SPACE};", rest, re.DOTALL):
        rows.append(tuple(re.sub(r"\\.", lambda found: ESCAPES[found[0]], text) for text in row.groups()))
        rest = rest[row.end() :]
    if not re.fullmatch(SPACE, rest, re.DOTALL):
        raise ValueError(f"{file}: neither a text nor a comment: {rest[:60]!r}")
    return rows


def read_catalogue(content):
    """The texts of a catalogue of gettext ("GNU gettext utilities", section 10.3), its header left out."""
    magic, revision, count, keys, texts = struct.unpack_from("<5I", content)
    if magic != 0x950412DE or revision != 0:
        raise ValueError("it is no catalogue")

    def text(table, number):
        length, offset = struct.unpack_from("<2I", content, table + 8 * number)
        if offset + length > len(content):
            raise ValueError("a text is cut")
        return content[offset : offset + length].decode()

    return {text(keys, i): text(texts, i) for i in range(count) if text(keys, i)}


# ---- Judging ----


def languages_in(resources):
    return sorted(folder.stem for folder in resources.glob("*.lproj"))


def faults_of_text(key, text, conversion, count):
    """`count` times that conversion, and no other, must be in the text."""
    if not text.strip(" \t\r\n"):
        yield f"{key}: empty"
    found = text.count("%")
    if any(not conversion or not text.startswith(conversion, at.start()) for at in re.finditer("%", text)):
        yield f"{key}: a foreign conversion"
    elif found != count:
        yield f"{key}: {found} conversions"


def faults_of_punctuation(language, strings):
    for key, text in strings:
        if language == "fr" and re.search(" [:;!?]", text):
            yield f"{key}: a line may break before a mark"
        if language == "ja" and ":" in text:
            yield f"{key}: a narrow colon"


def faults_of_token(strings, english):
    """Of a language's Localizable.strings."""
    for key, text in strings:
        if key in (TRIES, CONSTRAINT):
            yield from faults_of_text(key, text, "%lu" if key == TRIES else "", int(key == TRIES))
        # A card whose software reports no number must not read like one that is locked.
        if key == TRIES and "0" not in text.partition("%")[2]:
            yield f"{key}: nothing about 0"
        if english and text == english.get(key):
            yield f"{key}: not translated"


def faults_of_app(strings, english):
    """Of a language's App.strings."""
    for key, text in strings:
        yield from faults_of_text(key, text, "%@", key.count("%@"))
        if english is None and text != key:
            yield f"{key}: not the same in English"
        if english is not None and text == key:
            yield f"{key}: not translated"


def faults_of_language(language, folder, keys, english):
    """Of its file, whose texts must have those keys; English texts to compare with, None for English itself."""
    strings = read_strings(folder)
    counts = collections.Counter(key for key, _ in strings)
    yield from (f"{key}: {counts[key]} times" for key in keys if counts[key] != 1)
    yield from (f"{key}: not a key" for key in counts if key not in keys)
    judge = faults_of_token if folder.name == FILES["Resources"] else faults_of_app
    yield from judge([row for row in strings if row[0] in keys], english)
    yield from faults_of_punctuation(language, strings)


def faults_of(resources):
    """Of a folder of languages; "<language>: " stands before each."""
    name = FILES[resources.name]
    languages = languages_in(resources)
    english = dict(read_strings(resources / "en.lproj" / name))
    keys = [TRIES, CONSTRAINT] if resources.name == "Resources" else list(english)
    if resources.name == "Resources" and len(languages) < FEWEST_LANGUAGES:
        yield f"{len(languages)} languages"
    if resources.name == "AppResources" and languages != languages_in(resources.parent / "Resources"):
        yield "other languages"
    for language in languages:
        compared = None if language == "en" else english
        for fault in faults_of_language(language, resources / f"{language}.lproj" / name, keys, compared):
            yield f"{language}: {fault}"


def check_texts(checks, originals):
    for name in FILES:
        checks.equal(f"{name}: whole in every language", list(faults_of(originals / name)), [])
    checks.true("English is among them", "en" in languages_in(originals / "Resources"))


# ---- What the build makes of them ----


def check_catalogues(checks, originals, build):
    for language in languages_in(originals / "Resources"):
        # gettext names countries where the folders name scripts.
        name = {"zh-Hans": "zh_CN"}.get(language, language)
        content = (build / f"locale/{name}/LC_MESSAGES/mireltoken.mo").read_bytes()
        strings = read_strings(originals / f"Resources/{language}.lproj/Localizable.strings")
        checks.equal(f"{language}: the catalogue", read_catalogue(content), dict(strings))
        checks.true(f"{language}: its encoding", b"Content-Type: text/plain; charset=UTF-8\n" in content)


GOOD_TRIES = f'"{TRIES}" = "Versuche: %lu (0: nicht bekannt).";\n'
GOOD_CONSTRAINT = f'"{CONSTRAINT}" = "Das geht nicht.";\n'
# What CMake itself gives a meaning to, what needs an escape, and characters of two to four bytes.
STRANGE = 'a;b [c] ${d} @e@ $ENV{f} \\\\ \\" # %lu'
WIDE = "\u00e9 \u20ac \U0001f511"
# A script, the texts it is given, and what it makes of them; or what it says instead.
SCRIPTS = [
    ("keeps every character", "Catalogue", f'/* \u00e9 */\n"one" = "{STRANGE}";\n"two" = "{WIDE}";\n',
     {"one": STRANGE.replace("\\\\", "\\").replace('\\"', '"'), "two": WIDE}, ""),
    ("fails for a file with an error", "Catalogue", '"one" = ;\n', None, "msgfmt does not take"),
    ("makes a row of each text", "EnglishStrings",
     f'/* a comment */\n{GOOD_TRIES}\n/* "no" = "text"; */\n{GOOD_CONSTRAINT}',
     f'{{"{TRIES}", "Versuche: %lu (0: nicht bekannt)."}},\n{{"{CONSTRAINT}", "Das geht nicht."}},\n', ""),
    ("keeps every character", "EnglishStrings", f'"one" = "{STRANGE} \u20ac";\n"two" = "2";\n',
     f'{{"one", "{STRANGE} \u20ac"}},\n{{"two", "2"}},\n', ""),
    ("keeps a lone bracket", "EnglishStrings", '"one" = "[";\n"two" = "2";\n"three" = "]";\n',
     '{"one", "["},\n{"two", "2"},\n{"three", "]"},\n', ""),
    ("fails for a file without texts", "EnglishStrings", "/* nothing */\n", None, "There is no text in"),
]


def check_scripts(checks, given, folder):
    msgfmt = re.search(r"^MSGFMT:FILEPATH=(.*)$", (given.build / "CMakeCache.txt").read_text(), re.MULTILINE)[1]
    strings, output = folder / "Localizable.strings", folder / "new/output"
    for what, script, content, expected, message in SCRIPTS:
        strings.write_text(content, encoding="utf-8")
        shutil.rmtree(output.parent, ignore_errors=True)
        code, _, error = run(given.cmake, f"-DMSGFMT={msgfmt}", f"-DSTRINGS={strings}", f"-DOUTPUT={output}", "-P",
                             given.source / f"packaging/{script}.cmake")
        what = f"{script}.cmake {what}: {error}"
        checks.equal(what, (code == 0, message in " ".join(error.split())), (expected is not None, True))
        if expected is None:
            continue
        made = output.read_bytes()
        checks.equal(what, read_catalogue(made) if script == "Catalogue" else made.decode(), expected)
        checks.equal(f"{what}: no other file", list(output.parent.iterdir()), [output])


def main():
    given = arguments()
    checks = Checks()
    originals = given.source / "packaging/macos"
    check_texts(checks, originals)
    check_catalogues(checks, originals, given.build)
    with temporary_folder() as name:
        check_scripts(checks, given, pathlib.Path(name))
    checks.finish()


if __name__ == "__main__":
    main()
