#!/usr/bin/env bash
# Runs one example and compares what it prints with the expected text.
#   check_output.sh EXPECTED COMMAND [ARG...]
# The example passes when its standard output equals EXPECTED exactly, its standard
# error is empty and it ends with status 0.
set -u
expected=$1
shift
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

"$@" > "$work/out" 2> "$work/err"
status=$?

failed=0
if ! diff -u "$expected" "$work/out"; then failed=1; fi
if [ -s "$work/err" ]; then
  echo "unexpected standard error:"; cat "$work/err"; failed=1
fi
if [ "$status" -ne 0 ]; then
  echo "exit status $status"; failed=1
fi
exit $failed
