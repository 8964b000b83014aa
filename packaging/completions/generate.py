#!/usr/bin/env python3
"""Writes the completions for bash, zsh and fish that are beside it, from what the program says in its help.

usage: generate.py MIRELTOKEN [FOLDER]     FOLDER: where to write them, if not beside this file
"""

import pathlib
import re
import subprocess
import sys

HERE = pathlib.Path(__file__).resolve().parent
ALGORITHMS = HERE.parents[1] / "platform/include/platform/SecKeyAlgorithm.h"
REMARK = "# Written by packaging/completions/generate.py; changes belong there.\n"

# What may stand behind an option, by the word that the help has for it. Names of readers and of keys are not
# completed: that would take the module and the card.
FILES, FOLDERS, ALGORITHM, ANYTHING = "files", "folders", "algorithm", "anything"
VALUES = {"FILE": FILES, "PATH": FILES, "DIR": FOLDERS, "ID": ANYTHING, "N": ANYTHING, "NAME": ANYTHING,
          "COMMAND": ANYTHING}

# What makes no recording, and cannot stand behind "record".
NOT_RECORDED = {"watch", "explain", "record", "trace", "help"}

OPTION = re.compile(
    r"^  (?P<names>-[^ ]+)(?: (?P<value>[A-Z]+)(?= |$))?(?: Excludes:(?P<excluded>(?: --[a-z-]+)+))?(?: +(?P<text>\S.*))?$"
)


class Option:
    def __init__(self, names, value, excluded, text):
        self.short = [name for name in names if not name.startswith("--")]
        self.long = [name for name in names if name.startswith("--")]
        self.names, self.excluded, self.text = names, excluded, text
        self.value = None
        if value:
            self.value = ALGORITHM if "--algorithm" in names else VALUES[value]


def help_of(program, *words):
    return subprocess.run([program, *words, "--help"], check=True, capture_output=True, text=True).stdout


def section(text, title):
    lines = text.split(f"\n{title}:\n", 1)[1].split("\n\n", 1)[0].split("\n")
    # The text stands on the next line where there is no room for it.
    joined = []
    for line in filter(None, lines):
        if line.startswith(" " * 30) and joined:
            joined[-1] += "  " + line.strip()
        else:
            joined.append(line)
    return joined


def options_in(text):
    options = []
    for line in section(text, "Options"):
        if re.match("  [A-Z]", line):  # an argument without an option
            continue
        found = OPTION.match(line)
        if not found or not found["text"]:
            raise SystemExit(f"generate.py does not understand this line of the help: {line}")
        excluded = (found["excluded"] or "").split()
        options.append(Option(found["names"].split(","), found["value"], excluded, found["text"]))
    return options


def read(program):
    """The common options, and for each command its text and its options."""
    text = help_of(program)
    commands = {}
    for line in section(text, "Commands"):
        name, summary = line.split(None, 1)
        own = help_of(program, name)
        commands[name] = (summary, [option for option in options_in(own) if "--help" not in option.names])
    return options_in(text), commands


def algorithms():
    names = re.findall(r"^  X\((\w+)\)", ALGORITHMS.read_text(encoding="utf-8"), re.M)
    if not names:
        raise SystemExit(f"generate.py finds no algorithm in {ALGORITHMS}")
    return names


def findings(program):
    """What `explain` explains."""
    listed = subprocess.run([program, "explain"], check=True, capture_output=True, text=True).stdout
    codes = re.findall(r"^(MT-\w+) ", listed, re.M)
    if not codes:
        raise SystemExit("generate.py finds no finding")
    return codes


def recorded_in(commands):
    return [name for name in commands if name not in NOT_RECORDED]


def quoted(text):
    return "'" + text.replace("'", "'\\''") + "'"


def words_of(options):
    return " ".join(name for option in options for name in option.names)


def bash(common, commands, codes):
    every = common + [option for _, options in commands.values() for option in options]
    by_value = {}
    for option in every:
        if option.value:
            by_value.setdefault(option.value, [])
            by_value[option.value] += [name for name in option.names if name not in by_value[option.value]]
    lines = [
        "# Completions of mireltoken for bash.",
        REMARK,
        "_mireltoken() {",
        '  local cur=${COMP_WORDS[COMP_CWORD]} prev="" command="" options word words=0 i',
        "  COMPREPLY=()",
        "  # What stands before the word, in the words of bash: --in=FILE is three of them.",
        '  [ "$COMP_CWORD" -gt 0 ] && prev=${COMP_WORDS[COMP_CWORD - 1]}',
        '  if [ "$cur" = = ]; then',
        '    cur=""',
        '  elif [ "$prev" = = ] && [ "$COMP_CWORD" -gt 1 ]; then',
        "    prev=${COMP_WORDS[COMP_CWORD - 2]}",
        "  fi",
        "  for ((i = 1; i < COMP_CWORD; i++)); do",
        "    word=${COMP_WORDS[i]}",
        "    case $word in",
        f"      {'|'.join(sum(by_value.values(), []))})",
        "        [ \"${COMP_WORDS[i + 1]}\" != = ] || i=$((i + 1))",
        "        i=$((i + 1)) ;;",
        "      record) [ -n \"$command\" ] || command=record ;;",
        f"      {'|'.join(name for name in commands if name != 'record')})",
        '        case $command in ""|record) command=$word ;; *) words=$((words + 1)) ;; esac ;;',
        '      [!-]*) words=$((words + 1)) ;;',
        "    esac",
        "  done",
        "",
        "  case $prev in",
        f"    {'|'.join(by_value[FILES])})",
        '      _mireltoken_paths -f "$cur"; return ;;',
        f"    {'|'.join(by_value[FOLDERS])})",
        '      _mireltoken_paths -d "$cur"; return ;;',
        f"    {'|'.join(by_value[ALGORITHM])})",
        f"      _mireltoken_words {quoted(' '.join(algorithms()))} \"$cur\"; return ;;",
        f"    {'|'.join(by_value[ANYTHING])})",
        '      _mireltoken_words "" "$cur"; return ;;',
        "  esac",
        f"  options={quoted(words_of(common))}",
        "  case $command in",
    ]
    for name, (_, options) in commands.items():
        if options:
            lines.append(f"    {name}) options+={quoted(' ' + words_of(options))} ;;")
    names = " ".join(commands)
    others = " ".join(name for name in commands if name != "help")
    lines += [
        "  esac",
        "  case $cur,$command in",
        '    -*) _mireltoken_words "$options" "$cur" ;;',
        f"    *,) _mireltoken_words {quoted(names)} \"$cur\" ;;",
        f"    *,help) _mireltoken_words {quoted(others)} \"$cur\" ;;",
        f"    *,record) _mireltoken_words {quoted(' '.join(recorded_in(commands)))} \"$cur\" ;;",
        f"    *,explain) _mireltoken_words {quoted(' '.join(codes))} \"$cur\" ;;",
        "    *,trace)",
        '      case $words in 0) _mireltoken_words show "$cur" ;; *) _mireltoken_paths -f "$cur" ;; esac ;;',
        '    *) _mireltoken_words "" "$cur" ;;',
        "  esac",
        "}",
        "",
        "# _mireltoken_words WORDS BEGINNING",
        "_mireltoken_words() {",
        '  COMPREPLY=($(compgen -W "$1" -- "$2"))',
        "  compopt +o default 2>/dev/null  # no files where none can stand",
        "}",
        "",
        "# _mireltoken_paths -f|-d BEGINNING",
        "_mireltoken_paths() {",
        "  local name",
        '  while IFS= read -r name; do COMPREPLY+=("$name"); done < <(compgen "$1" -- "$2")',
        "  compopt -o filenames 2>/dev/null",
        "}",
        "",
        "complete -o default -F _mireltoken mireltoken",
    ]
    return "\n".join(lines) + "\n"


def zsh_option(option):
    text = option.text.replace("\\", "\\\\").replace("[", "\\[").replace("]", "\\]")
    action = {None: "", FILES: ":file:_files", FOLDERS: ":folder:_files -/", ANYTHING: ":value: ",
              ALGORITHM: ":algorithm:('\"$algorithms\"')"}[option.value]  # fmt: skip
    barred = " ".join(option.names + option.excluded)
    equal = "=" if option.value else ""
    names = [name + (equal if name.startswith("--") else "") for name in option.names]
    return [quoted(f"({barred}){name}[{text}]") + (action and f"'{action}'") for name in names]


def zsh(common, commands, codes):
    def listed(options, indent):
        return "".join(f" \\\n{indent}{word}" for option in options for word in zsh_option(option))

    lines = ["#compdef mireltoken", "# Completions of mireltoken for zsh.", REMARK, "_mireltoken() {"]
    lines += ['  local curcontext="$curcontext" state line', "  typeset -A opt_args", "  local -a commands common algorithms"]
    lines.append(f"  algorithms=({' '.join(algorithms())})")
    lines.append("  commands=(")
    lines += [f"    {quoted(name + ':' + summary)}" for name, (summary, _) in commands.items()]
    lines += ["  )", "  common=("]
    lines += [f"    {word}" for option in common for word in zsh_option(option)]
    lines += ["  )", "  _arguments -C $common '1: :->command' '*:: :->rest' && return", "  case $state in"]
    lines += ["    command) _describe -t commands command commands ;;", "    rest)", "      case $words[1] in"]
    places = {
        "help": ["1: :{_describe -t commands command commands}"],
        "explain": [f"1:finding:({' '.join(codes)})"],
        "record": [f"1:command:({' '.join(recorded_in(commands))})", "*:word:_files"],
        "trace": ["1:action:(show)", "2:file:_files"],
    }
    for name, (_, options) in commands.items():
        words = places.get(name, [])
        behind = "".join(f" \\\n          {quoted(word)}" for word in words)
        lines.append(f"        {name}) _arguments $common{listed(options, ' ' * 10)}{behind} ;;")
    lines += ["      esac ;;", "  esac", "}", "", '_mireltoken "$@"']
    return "\n".join(lines) + "\n"


def fish_option(option, condition):
    words = ["complete -c mireltoken"]
    if condition:
        words.append(f"-n {fish_quoted(condition)}")
    words += [f"-s {name[1:]}" for name in option.short] + [f"-l {name[2:]}" for name in option.long]
    words += {None: [], FILES: ["-r -F"], FOLDERS: ["-x -a '(__fish_complete_directories)'"], ANYTHING: ["-x"],
              ALGORITHM: ['-x -a "$algorithms"']}[option.value]  # fmt: skip
    return " ".join(words + [f"-d {fish_quoted(option.text)}"])


def fish_quoted(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def fish(common, commands, codes):
    names = " ".join(commands)
    lines = ["# Completions of mireltoken for fish.", REMARK, "set -l algorithms " + " ".join(algorithms())]
    lines.append("complete -c mireltoken -f")
    lines += [fish_option(option, "") for option in common]
    for name, (summary, options) in commands.items():
        place = fish_quoted(f"not __fish_seen_subcommand_from {names}")
        lines.append(f"complete -c mireltoken -n {place} -a {name} -d {fish_quoted(summary)}")
        lines += [fish_option(option, f"__fish_seen_subcommand_from {name}") for option in options]
    others = " ".join(name for name in commands if name != "help")
    place = fish_quoted(f"__fish_seen_subcommand_from help; and not __fish_seen_subcommand_from {others}")
    lines.append(f"complete -c mireltoken -n {place} -a {fish_quoted(others)}")
    recorded = " ".join(recorded_in(commands))
    for seen, unseen, words in [
        ("record", recorded, f"-a {fish_quoted(recorded)}"),
        ("explain", "help", f"-a {fish_quoted(' '.join(codes))}"),
        ("trace", "show help", "-a show"),
        ("show", "help", "-F"),
    ]:
        place = fish_quoted(f"__fish_seen_subcommand_from {seen}; and not __fish_seen_subcommand_from {unseen}")
        lines.append(f"complete -c mireltoken -n {place} {words}")
    return "\n".join(lines) + "\n"


def generate(program):
    """The texts by the names of their files."""
    common, commands = read(program)
    codes = findings(program)
    return {
        "mireltoken.bash": bash(common, commands, codes),
        "_mireltoken": zsh(common, commands, codes),
        "mireltoken.fish": fish(common, commands, codes),
    }


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        raise SystemExit(__doc__)
    for name, text in generate(sys.argv[1]).items():
        (pathlib.Path(sys.argv[2]) if len(sys.argv) == 3 else HERE).joinpath(name).write_text(text, encoding="utf-8")
