#!/bin/sh
# manual_agrees.sh MIRELTOKEN MANUAL PAGE README: the help text, the manual page and the page about the command line
# name the same commands and exit codes, with the same meanings, and the first two the same options; the README names
# the same commands.
set -eu
mireltoken=$1 manual=$2 page=$3 readme=$4
folder=$(mktemp -d)
trap 'rm -rf "$folder"' EXIT

"$mireltoken" --help >"$folder/help"
sed 's/\\-/-/g; s/\\f[A-Z]//g' "$manual" >"$folder/manual"

# Options stand in the help of their commands.
sed -n '/^Commands:/,/^$/s/^  \([a-z]*\) .*/\1/p' "$folder/help" >"$folder/help.commands"
cp "$folder/help" "$folder/help.all"
while read -r command; do "$mireltoken" "$command" --help >>"$folder/help.all"; done <"$folder/help.commands"

options() { grep -oE -e '(^|[^a-z-])--[a-z]+(-[a-z]+)*' "$1" | grep -oE -e '--[a-z-]+' | sort -u; }
options "$folder/help.all" >"$folder/help.options"
options "$folder/manual" >"$folder/manual.options"
diff "$folder/help.options" "$folder/manual.options"

sed -n '/^Exit codes:/,$p' "$folder/help" | sed -n 's/^  \([0-9]*\)  \(.*\)$/\1 \2/p' >"$folder/help.codes"
sed -n '/^\.SH EXIT STATUS/,/^\.SH ENVIRONMENT/p' "$folder/manual" | sed -n '/^\.B [0-9]/{s/^\.B //;N;s/\n/ /;p;}' >"$folder/manual.codes"
sed -n 's/^| \([0-9][0-9]*\) | \(.*\) |$/\1 \2/p' "$page" >"$folder/page.codes"
diff "$folder/help.codes" "$folder/manual.codes"
diff "$folder/help.codes" "$folder/page.codes"

sed -n '/^\.SH COMMANDS/,/^\.SH OPTIONS/s/^\.B \([a-z]*\)$/\1/p' "$folder/manual" >"$folder/manual.commands"
diff "$folder/help.commands" "$folder/manual.commands"
for text in "$page" "$readme"; do
  sed -n 's/^    mireltoken \([a-z]*\) .*/\1/p' "$text" >"$folder/text.commands"
  diff "$folder/help.commands" "$folder/text.commands"
done

# An empty list would agree with another empty one.
for list in help.options help.codes help.commands; do [ -s "$folder/$list" ]; done
