"""The texts for users: that each language has them whole, that spoiled ones are found out, and that the build makes of
them what it should. Localizable.strings holds the texts of the token, App.strings those of the app, whose keys are the
English texts."""

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
ESCAPED = {"n": "\n", "t": "\t", '"': '"', "\\": "\\"}


# ---- Reading ----


class Reader:
    """Goes through a file of texts from its front: `"key" = "text";`, with white space and comments between."""

    def __init__(self, rest):
        self.rest = rest

    def take(self):
        if not self.rest:
            raise ValueError("it ends too early")
        first, self.rest = self.rest[0], self.rest[1:]
        return first

    def skip_space_and_comments(self):
        while True:
            self.rest = self.rest.lstrip(" \t\r\n")
            end = {"/*": "*/", "//": "\n"}.get(self.rest[:2])
            if not end:
                return
            _, found, self.rest = self.rest.partition(end)
            if not found:
                raise ValueError("a comment does not end")

    def expect(self, wanted):
        self.skip_space_and_comments()
        if self.take() != wanted:
            raise ValueError(f"a {wanted} is missing")

    def quoted(self):
        self.expect('"')
        text = ""
        while (character := self.take()) != '"':
            if character == "\\":
                character = ESCAPED.get(self.take())
                if character is None:
                    raise ValueError("an escape that is not used here")
            text += character
        return text

    def strings(self):
        while self.skip_space_and_comments() or self.rest:
            key = self.quoted()
            self.expect("=")
            text = self.quoted()
            self.expect(";")
            yield key, text


def read_strings(file):
    """Keys and texts in the file's order; a ValueError says why there are none."""
    try:
        return list(Reader(file.read_bytes().decode()).strings())
    except UnicodeDecodeError as error:
        raise ValueError(f"not UTF-8 at byte {error.start}") from None
    except OSError:
        raise ValueError("cannot be read") from None


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


def faults_of(resources, originals):
    """Of a folder of languages, named like the one of the originals beside it; "<language>: " stands before each."""
    name = FILES[resources.name]
    languages = languages_in(resources)
    english = dict(read_strings(originals / resources.name / "en.lproj" / name))
    keys = [TRIES, CONSTRAINT] if resources.name == "Resources" else list(english)
    if resources.name == "Resources" and len(languages) < FEWEST_LANGUAGES:
        yield f"{len(languages)} languages"
    if resources.name == "AppResources" and languages != languages_in(originals / "Resources"):
        yield "other languages"
    for language in languages:
        try:
            compared = None if language == "en" else english
            for fault in faults_of_language(language, resources / f"{language}.lproj" / name, keys, compared):
                yield f"{language}: {fault}"
        except ValueError as error:
            yield f"{language}: {error}"


# ---- What is judged ----

GOOD_TRIES = f'"{TRIES}" = "Versuche: %lu (0: nicht bekannt).";\n'
GOOD_CONSTRAINT = f'"{CONSTRAINT}" = "Das geht nicht.";\n'


def tries(text):
    return f'"{TRIES}" = "{text}";\n{GOOD_CONSTRAINT}'


def constraint(text):
    return f'{GOOD_TRIES}"{CONSTRAINT}" = "{text}";\n'


# What is in the German Localizable.strings, and what is said about it.
SPOILED_TOKEN = [
    # Keys
    ("the first is missing", GOOD_CONSTRAINT, f"{TRIES}: 0 times"),
    ("the second is missing", GOOD_TRIES, f"{CONSTRAINT}: 0 times"),
    ("one more", GOOD_TRIES + GOOD_CONSTRAINT + '"OTHER" = "Other";\n', "OTHER: not a key"),
    ("one twice", GOOD_TRIES * 2 + GOOD_CONSTRAINT, f"{TRIES}: 2 times"),
    ("in a comment only", f"/* {GOOD_TRIES} */ // {GOOD_TRIES}{GOOD_CONSTRAINT}", f"{TRIES}: 0 times"),
    # Conversions
    ("no number", tries("Versuche."), f"{TRIES}: 0 conversions"),
    ("two numbers", tries("%lu von %lu"), f"{TRIES}: 2 conversions"),
    ("an object", tries("%@"), f"{TRIES}: a foreign conversion"),
    ("a shorter number", tries("%d"), f"{TRIES}: a foreign conversion"),
    ("a number with a place", tries("%1$lu"), f"{TRIES}: a foreign conversion"),
    ("a per cent sign besides", tries("%lu %%"), f"{TRIES}: a foreign conversion"),
    ("a lone per cent sign at the end", tries("%lu%"), f"{TRIES}: a foreign conversion"),
    ("one in the second text", constraint("%lu"), f"{CONSTRAINT}: a foreign conversion"),
    # Texts
    ("nothing about 0", tries("Versuche: %lu."), f"{TRIES}: nothing about 0"),
    ("0 before the number alone", tries("0 Versuche: %lu."), f"{TRIES}: nothing about 0"),
    ("an empty text", constraint(""), f"{CONSTRAINT}: empty"),
    ("a blank text", constraint(" \\n"), f"{CONSTRAINT}: empty"),
    # Files
    ("Latin-1", tries("\xe9 %lu").encode("latin-1"), "not UTF-8 at byte 21"),
    ("a surrogate", tries("\ud800 %lu").encode("utf-8", "surrogatepass"), "not UTF-8 at byte 21"),
    ("an empty file", "", f"{TRIES}: 0 times"),
    ("no semicolon", GOOD_TRIES + f'"{CONSTRAINT}" = "Nein."\n', "it ends too early"),
    ("no quotation mark", GOOD_TRIES + f'{CONSTRAINT} = "Nein.";\n', 'a " is missing'),
    ("a comment without an end", GOOD_TRIES + GOOD_CONSTRAINT + "/*", "a comment does not end"),
    ("an escape that is not used", constraint("\\r"), "an escape that is not used here"),
]

TITLE = "Mirel Token is ready"
HINT = "If something does not work, this command in Terminal tells why: %@"


def app_file(strings, changes=(), more=""):
    """A file of those texts, some of them changed (None: left out), and what follows."""
    texts = {**dict(strings), **dict(changes)}
    return "".join(f'"{key}" = "{text}";\n' for key, text in texts.items() if text is not None) + more


# What is changed in the German App.strings, what follows it, and what is said about it.
SPOILED_APP = [
    # Keys
    ("one is missing", {TITLE: None}, "", f"{TITLE}: 0 times"),
    ("one more", {}, '"Other" = "Anderes";', "Other: not a key"),
    ("one twice", {}, f'"{TITLE}" = "Bereit";', f"{TITLE}: 2 times"),
    # Conversions
    ("no place", {HINT: "Im Terminal"}, "", f"{HINT}: 0 conversions"),
    ("two places", {HINT: "%@ oder %@"}, "", f"{HINT}: 2 conversions"),
    ("a place in a title", {TITLE: "Bereit: %@"}, "", f"{TITLE}: 1 conversions"),
    ("a number", {HINT: "%d im Terminal"}, "", f"{HINT}: a foreign conversion"),
    ("a numbered place", {HINT: "%1$@ im Terminal"}, "", f"{HINT}: a foreign conversion"),
    # Texts
    ("an empty text", {TITLE: ""}, "", f"{TITLE}: empty"),
    ("an English text", {TITLE: TITLE}, "", f"{TITLE}: not translated"),
]

PUNCTUATION = [
    ("fr", "essais : 2", False),
    ("fr", "essais ; 2", False),
    ("fr", "Vraiment !", False),
    ("fr", "Vraiment ?", False),
    ("fr", "essais\u00a0: 2", True),
    ("ja", "\u56de:2", False),
    ("ja", "\u56de\uff1a2", True),
    ("de", "Versuche : 2", True),
]


def check_texts(checks, originals):
    for name in FILES:
        checks.equal(f"{name}: whole in every language", list(faults_of(originals / name, originals)), [])
    checks.true("English is among them", "en" in languages_in(originals / "Resources"))
    for language, text, is_fine in PUNCTUATION:
        found = list(faults_of_punctuation(language, [("key", text)]))
        checks.equal(f"punctuation of {language}: {text}: {found}", not found, is_fine)


def check_spoiled(checks, originals, folder):
    def write(name, language, content):
        data = content if isinstance(content, bytes) else content.encode()
        (folder / name / f"{language}.lproj" / FILES[name]).write_bytes(data)

    def faults(name):
        return list(faults_of(folder / name, originals))

    def check_language(name, language, rows):
        for what, content, fault in rows:
            write(name, language, content)
            found = faults(name)
            checks.true(f"{name}, {what}: {found}", f"{language}: {fault}" in found)

    for name in FILES:
        shutil.copytree(originals / name, folder / name)
    write("Resources", "de", GOOD_TRIES + GOOD_CONSTRAINT)
    checks.equal("a copy is as good", faults("Resources"), [])
    check_language("Resources", "de", SPOILED_TOKEN)
    english = read_strings(originals / "Resources/en.lproj/Localizable.strings")
    check_language("Resources", "de", [("an English text", app_file(english), f"{CONSTRAINT}: not translated")])

    german, english = (dict(read_strings(originals / f"AppResources/{of}.lproj/App.strings")) for of in ("de", "en"))
    write("AppResources", "de", app_file(german, {HINT: "%@ im Terminal"}))
    checks.equal("a copy of the app's is as good", faults("AppResources"), [])
    check_language("AppResources", "de", [(what, app_file(german, changes, more), fault)
                                          for what, changes, more, fault in SPOILED_APP])
    write("AppResources", "de", app_file(german))
    write("AppResources", "en", app_file(english, {TITLE: "Mirel Token is OK"}))
    checks.equal("another English text", faults("AppResources"), [f"en: {TITLE}: not the same in English"])
    write("AppResources", "en", app_file(english))

    write("Resources", "de", GOOD_TRIES + GOOD_CONSTRAINT)
    for name, without_a_language in (("Resources", []), ("AppResources", ["other languages"])):
        (folder / name / "de.lproj" / FILES[name]).unlink()
        checks.equal(f"{name}: without a file", faults(name), ["de: cannot be read"])
        (folder / name / "de.lproj").rmdir()
        checks.equal(f"{name}: without a language", faults(name), without_a_language)
    for language in languages_in(folder / "Resources")[FEWEST_LANGUAGES:]:
        shutil.rmtree(folder / f"Resources/{language}.lproj")
    checks.equal("as few languages as there may be", faults("Resources"), [])
    shutil.rmtree(folder / f"Resources/{languages_in(folder / 'Resources')[-1]}.lproj")
    checks.equal("too few languages", faults("Resources"), [f"{FEWEST_LANGUAGES - 1} languages"])


# ---- What the build makes of them ----


def check_catalogues(checks, originals, build):
    for language in languages_in(originals / "Resources"):
        # gettext names countries where the folders name scripts.
        name = {"zh-Hans": "zh_CN"}.get(language, language)
        content = (build / f"locale/{name}/LC_MESSAGES/mireltoken.mo").read_bytes()
        strings = read_strings(originals / f"Resources/{language}.lproj/Localizable.strings")
        checks.equal(f"{language}: the catalogue", read_catalogue(content), dict(strings))
        checks.true(f"{language}: its encoding", b"Content-Type: text/plain; charset=UTF-8\n" in content)


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
    with temporary_folder() as name:
        check_spoiled(checks, originals, pathlib.Path(name))
    check_catalogues(checks, originals, given.build)
    with temporary_folder() as name:
        check_scripts(checks, given, pathlib.Path(name))
    checks.finish()


if __name__ == "__main__":
    main()
