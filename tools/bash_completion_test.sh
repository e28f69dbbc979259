#!/usr/bin/env bash
# The bash completion of zonara offers what the program has: every command of
# `zonara --help`, every preference of the README's configuration table, and
# the arguments of login, start, get/set and timezone.
#   bash_completion_test.sh ZONARA COMPLETION README
set -euo pipefail
zonara=$1
completion=$2
readme=$3

fail() {
  echo "bash_completion_test: $*" >&2
  exit 1
}

# shellcheck disable=SC1090
. "$completion"

# What the completion offers for the words "$@" (the last one is completed).
offered() {
  COMP_WORDS=(zonara "$@")
  COMP_CWORD=$#
  COMPREPLY=()
  _zonara
  printf '%s\n' "${COMPREPLY[@]}" | sort
}

sorted_words() { tr -s ' \n' '\n\n' | sed '/^$/d' | sort -u; }

# Commands: the first word of each line of the help's command list.
help_commands=$("$zonara" --help | sed -n '/^commands:/,/^$/p' | sed -n 's/^  \([^ ]\+\).*/\1/p' | sort -u)
[ -n "$help_commands" ] || fail "no commands in zonara --help"
completed_commands=$(offered "" | sort -u)
[ "$help_commands" = "$completed_commands" ] ||
  fail "commands differ (update tools/resources/zonara.bash-completion):
$(diff <(echo "$help_commands") <(echo "$completed_commands") || true)"

# Preferences: the keys of the README's configuration table.
readme_keys=$(sed -n '/^## Configuration/,/^## /p' "$readme" | sed -n 's/^| `\([A-Za-z0-9_]\+\)` |.*/\1/p' | sort -u)
[ -n "$readme_keys" ] || fail "no preference table found in $readme"
completed_keys=$(offered get "" | sort -u)
[ "$readme_keys" = "$completed_keys" ] ||
  fail "preference keys differ between the README and the completion:
$(diff <(echo "$readme_keys") <(echo "$completed_keys") || true)"

# Arguments, table-driven: words typed -> completions expected.
while IFS='|' read -r words expected; do
  read -r -a typed <<<"$words"
  [[ $words == *' ' || -z $words ]] && typed+=("")
  got=$(offered "${typed[@]}" | sorted_words | tr '\n' ' ')
  want=$(echo "$expected" | sorted_words | tr '\n' ' ')
  [ "$got" = "$want" ] || fail "'zonara $words' completes to '$got', expected '$want'"
done <<'CASES'
lo|login
login |on off status
login s|status
start |--force
set Learn|LearnPlaces
get Time|TimezoneServiceURL TimezoneServiceUsername
timezone |--border -
status |
forget x|
CASES
echo "bash_completion_test: ok"
