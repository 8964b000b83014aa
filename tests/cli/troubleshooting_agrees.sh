#!/bin/sh
# troubleshooting_agrees.sh PAGES MARKDOWN MANUAL: the committed pages are what the program PAGES prints. Where they
# are not, write them anew with it.
set -eu
pages=$1 markdown=$2 manual=$3
"$pages" markdown | diff "$markdown" -
"$pages" man | diff "$manual" -
