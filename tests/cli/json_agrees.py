"""Checks JSON texts against the schemas in docs/json.

usage: json_agrees.py --source FOLDER FILE...    checks each file, the output of a run
       json_agrees.py --source FOLDER --docs     checks the schemas, and what docs/json.md says

The exit code is 77 when this Python has no jsonschema of draft 2020-12.
"""

import json
import pathlib
import re
import sys

try:
    from jsonschema import Draft202012Validator
except ImportError:
    print("Python's jsonschema is missing: apt-get install python3-jsonschema")
    sys.exit(77)


def closed(schema):
    """The schema, without members that it does not name: programs pass over those, here they are mistakes."""
    if isinstance(schema, list):
        return [closed(part) for part in schema]
    if not isinstance(schema, dict):
        return schema
    result = {name: closed(part) for name, part in schema.items()}
    if isinstance(schema.get("properties"), dict) and schema.get("type") == "object":
        result.setdefault("additionalProperties", False)
    return result


def faults_of(document, folder):
    if not isinstance(document, dict) or next(iter(document), None) != "schema":
        return ['the first member is not "schema"']
    kind = re.fullmatch(r"mireltoken/([a-z]+)/1", str(document["schema"]))
    file = folder / f"{kind[1]}.schema.json" if kind else None
    if not file or not file.is_file():
        return [f"there is no schema {document['schema']}"]
    validator = Draft202012Validator(closed(json.loads(file.read_text(encoding="utf-8"))))
    return [f"{fault.json_path}: {fault.message}" for fault in validator.iter_errors(document)]


def check_recording(text, folder):
    # A line for each record, in a shape of its own.
    header, *records = text.splitlines()
    schema = closed(json.loads((folder / "recording.schema.json").read_text(encoding="utf-8")))
    line = Draft202012Validator({"$defs": schema["$defs"], "$ref": "#/$defs/record"})
    faults = faults_of(json.loads(header), folder) + ([] if records else ["there is no record"])
    return faults + [f"{fault.json_path}: {fault.message}" for one in records for fault in line.iter_errors(json.loads(one))]


def check_output(file, folder):
    # What the program prints is one object and a line end, and nothing but ASCII.
    text = pathlib.Path(file).read_bytes().decode("ascii")
    if text.startswith('{"schema":"mireltoken/recording/'):
        return [f"{file}: {fault}" for fault in check_recording(text, folder)]
    return [f"{file}: {fault}" for fault in faults_of(json.loads(text), folder)]


def check_docs(source):
    folder = source / "docs/json"
    page = (source / "docs/json.md").read_text(encoding="utf-8")
    faults = []
    kinds = sorted(file.name.removesuffix(".schema.json") for file in folder.glob("*.schema.json"))
    if kinds != sorted(re.findall(r"^\| \[`mireltoken/([a-z]+)/1`\]\(json/\1\.schema\.json\)", page, re.M)):
        faults.append("docs/json.md lists other schemas than there are")
    for kind in kinds:
        schema = json.loads((folder / f"{kind}.schema.json").read_text(encoding="utf-8"))
        Draft202012Validator.check_schema(schema)
        if schema["properties"]["schema"] != {"const": f"mireltoken/{kind}/1"}:
            faults.append(f"the schema {kind} has another name")

    examples = re.findall(r"^```json\n(.*?)^```$", page, re.M | re.S)
    for example in examples:
        faults += [f"an example in docs/json.md: {fault}" for fault in faults_of(json.loads(example), folder)]

    # Every id of an error, with its exit code: in the program, in the schema, on the page. When standard output is
    # broken, nothing is printed.
    header = (source / "cli/ExitCode.h").read_text(encoding="utf-8")
    codes = dict(re.findall(r"^  (k\w+) = (\d+),", header, re.M))
    terms = {(id, codes[code]) for code, id in re.findall(r'return \{ExitCode::(k\w+), "([a-z-]+)"\};', header)}
    terms = {(id, code) for id, code in terms if not id.startswith("output-")}
    error = json.loads((folder / "error.schema.json").read_text(encoding="utf-8"))["properties"]["error"]
    if {id for id, _ in terms} != set(error["properties"]["id"]["enum"]):
        faults.append("the schema of errors has other ids than cli/ExitCode.h")
    if terms != set(re.findall(r"^\| `([a-z-]+)` \| (\d+) \|", page, re.M)):
        faults.append("docs/json.md has other ids or exit codes than cli/ExitCode.h")
    if not kinds or not examples or not terms:
        faults.append("nothing was compared")
    return faults


def main(arguments):
    source = pathlib.Path(arguments[arguments.index("--source") + 1])
    files = [word for i, word in enumerate(arguments) if not word.startswith("--") and arguments[i - 1] != "--source"]
    faults = check_docs(source) if "--docs" in arguments else []
    if not files and "--docs" not in arguments:
        faults.append("there is nothing to check")
    for file in files:
        faults += check_output(file, source / "docs/json")
    print("\n".join(faults), end="\n" if faults else "")
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
