#!/usr/bin/env bash
# Runs one script test: qel SCRIPT, compared with the expectations beside it.
#   NAME.out     expected standard output (absent: no output expected)
#   NAME.status  expected exit status (absent: 0)
#   NAME.err     lines that must each appear in standard error
#   NAME.stderr  the whole expected standard error
#   NAME.noerr   lines none of which may appear in standard error
#   NAME.args    extra command-line words for qel, before the script (e.g. -e start)
#   NAME.stdin   standard input for qel (absent: empty)
#   NAME.env     environment settings for qel, one NAME=VALUE a line
set -u
qel=$1
script=$2
dir=$(dirname "$script")
name=$(basename "$script" .qel)
cd "$dir" || exit 2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

args=()
[ -f "$name.args" ] && read -r -a args < "$name.args"
input=/dev/null
[ -f "$name.stdin" ] && input="$name.stdin"
settings=()
[ -f "$name.env" ] && mapfile -t settings < "$name.env"
env "${settings[@]}" "$qel" "${args[@]}" "$name.qel" < "$input" > "$work/out" 2> "$work/err"
status=$?

expected_status=0
[ -f "$name.status" ] && expected_status=$(cat "$name.status")
failed=0
if [ "$status" != "$expected_status" ]; then
  echo "exit status $status, expected $expected_status"
  failed=1
fi
if [ -f "$name.out" ]; then
  if ! diff -u "$name.out" "$work/out"; then failed=1; fi
elif [ -s "$work/out" ]; then
  echo "unexpected standard output:"; cat "$work/out"; failed=1
fi
if [ -f "$name.stderr" ]; then
  if ! diff -u "$name.stderr" "$work/err"; then failed=1; fi
fi
if [ -f "$name.err" ]; then
  while IFS= read -r line; do
    if ! grep -qF -- "$line" "$work/err"; then
      echo "standard error lacks: $line"; failed=1
    fi
  done < "$name.err"
fi
if [ -f "$name.noerr" ]; then
  while IFS= read -r line; do
    if grep -qF -- "$line" "$work/err"; then
      echo "standard error holds: $line"; failed=1
    fi
  done < "$name.noerr"
fi
if [ $failed -ne 0 ]; then
  echo "--- standard error ---"; cat "$work/err"
fi
exit $failed
