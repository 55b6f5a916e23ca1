#!/usr/bin/env bash
# Checks the manual pages under man/:
#   1. mandoc's linter reports nothing at warning level or above on any page
#      (style messages are allowed);
#   2. every option the programs print, every key the daemon reads and every
#      exported function of the client library has an entry of its own on
#      its page (a tag of a list item, not a mention in passing or in an
#      example); each missing one is named.
#
#   scripts/check-man-pages.sh [BUILD_DIR]     (default: build)
#
# BUILD_DIR must hold bin/kestrin and bin/kestrin-log: their usage texts are
# the source of the options.
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:-build}

if ! command -v mandoc >/dev/null 2>&1; then
  echo "check-man-pages: mandoc is not installed (apt-get install mandoc)" >&2
  exit 1
fi
for program in kestrin kestrin-log; do
  if [ ! -x "$build/bin/$program" ]; then
    echo "check-man-pages: $build/bin/$program is missing; build it first" >&2
    exit 1
  fi
done

DAEMON_PAGE=man/kestrin.8
CLIENT_PAGE=man/kestrin-log.1
LIBRARY_PAGE=man/libqrtshared.3
CONFIG_PAGE=man/Kestrin.conf.5
TAXONOMY_PAGE=man/KestrinTaxonomy.5
PAGES=("$DAEMON_PAGE" "$CLIENT_PAGE" "$LIBRARY_PAGE" "$CONFIG_PAGE" "$TAXONOMY_PAGE")

failed=0
fail() {
  echo "check-man-pages: $*" >&2
  failed=1
}

# ---- 1. The linter -----------------------------------------------------------

for page in "${PAGES[@]}"; do
  if [ ! -f "$page" ]; then
    fail "$page is missing"
    continue
  fi
  # -W warning prints warnings, errors and worse; style messages stay quiet.
  messages=$(mandoc -T lint -W warning "$page" 2>&1 || true)
  if [ -n "$messages" ]; then
    fail "mandoc reports on $page:"
    printf '%s\n' "$messages" >&2
  fi
done
[ "$failed" -eq 0 ] || exit 1

# ---- 2. Entries --------------------------------------------------------------

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

# A page as a person reads it, without its EXAMPLES section (a key in a
# sample file is no description of it).
render() {
  mandoc -T ascii "$1" | sed 's/.\x08//g' |
    awk '/^[A-Z]/ { skip = ($0 == "EXAMPLES") } !skip'
}

# check PAGE WHAT ITEM...: each ITEM must start a list item's tag on PAGE,
# alone or after other entries separated by ", " ("-m, --module NAME";
# "trap, alarm, alarmSet, visible").
check() {
  local page=$1 what=$2
  shift 2
  if [ $# -eq 0 ]; then
    fail "found no ${what}s to look for on $page: has their source changed?"
    return
  fi
  local text="$scratch/$(basename "$page").txt"
  render "$page" >"$text"
  local item
  for item in "$@"; do
    case $item in
      *[!A-Za-z0-9_-]*) fail "unexpected $what name '$item'"; continue ;;
    esac
    if ! grep -Eq "^ {7}([^ ]+, )*${item}([^A-Za-z0-9_-]|\$)" "$text"; then
      fail "$page: missing $what $item"
    fi
  done
}

# The daemon's usage text: each line that starts with a verb or an option
# ("start - ...", "-d <directory> - ...") names one.
usage_root="$scratch/root"
mkdir -p "$usage_root"
daemon_usage=$(KESTRIN_ROOT=$usage_root "$build/bin/kestrin" -x 2>&1 || true)
mapfile -t daemon_options < <(printf '%s\n' "$daemon_usage" |
  sed -nE 's/^(-[A-Za-z0-9]+|[a-z]+) +(<[^>]*> +)?- .*/\1/p' | sort -u)
check "$DAEMON_PAGE" "option" "${daemon_options[@]}"

# kestrin-log --help: the option column of each indented line that starts
# with an option ("  -m, --module NAME   ...", "      --dump   ...").
client_help=$("$build/bin/kestrin-log" --help)
mapfile -t client_options < <(printf '%s\n' "$client_help" |
  sed -nE 's/^ +(-[^ ].*)$/\1/p' | sed -E 's/  .*//' |
  grep -oE '(^|, )--?[A-Za-z0-9][A-Za-z0-9-]*' | sed -E 's/^, //' | sort -u)
check "$CLIENT_PAGE" "option" "${client_options[@]}"

# Kestrin.conf: the keys the reader asks for, and the sample's key lines,
# commented out or not.
mapfile -t config_keys < <(
  {
    grep -oE '(Get[A-Za-z]*|ReadBoolean|ReadBoundedNumber)\(([a-z]+, )?"[A-Za-z0-9]+"' \
      src/kestrin/Configuration.cpp | sed -E 's/.*"([^"]+)"/\1/'
    sed -nE 's/^;? *([A-Za-z][A-Za-z0-9]*) *=.*/\1/p' etc/Kestrin.conf
  } | sort -u)
check "$CONFIG_PAGE" "key" "${config_keys[@]}"

# KestrinTaxonomy: the keys the reader asks for, and those the sample's
# header lists (";   eID   ...", ";   sev, msg   ...").
mapfile -t taxonomy_keys < <(
  {
    grep -oE '(Get[A-Za-z]*|FlagValue)\(([a-z]+, )?"[A-Za-z0-9]+"' src/kestrin/AlarmTaxonomy.cpp |
      sed -E 's/.*"([^"]+)"/\1/'
    sed -n '/^; Keys:/,/^;$/p' etc/KestrinTaxonomy |
      sed -nE 's/^;   ([A-Za-z0-9]+(, [A-Za-z0-9]+)*).*/\1/p' | tr ',' '\n' | sed -E 's/^ +//'
  } | grep -v '^$' | sort -u)
check "$TAXONOMY_PAGE" "key" "${taxonomy_keys[@]}"

# The client library: every function its header exports.
mapfile -t functions < <(grep -v '^#define' src/qrt/QrtDiag.h | tr '\n' ' ' |
  grep -oE 'QRT_EXPORT [^;(]*\b[A-Za-z_][A-Za-z0-9_]*\(' | sed -E 's/.*\b([A-Za-z0-9_]+)\($/\1/' |
  sort -u)
check "$LIBRARY_PAGE" "function" "${functions[@]}"

if [ "$failed" -ne 0 ]; then
  exit 1
fi
echo "check-man-pages: ${#PAGES[@]} pages lint clean; ${#daemon_options[@]} daemon options," \
  "${#client_options[@]} kestrin-log options, ${#config_keys[@]} configuration keys," \
  "${#taxonomy_keys[@]} taxonomy keys and ${#functions[@]} library functions described"
