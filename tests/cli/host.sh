#!/usr/bin/env bash
# The script on standard input (qel -), qel --check, and qel without a script when
# standard input is no terminal.
#   host.sh QEL
set -u
qel=$1
# shellcheck source=common.sh
. "$(dirname "$0")/common.sh"

out=$(printf 'main(a) {\n  print("got ", a, "\\n");\n  return strlen(a);\n}\n' | "$qel" - four)
check "stdin status" 4 $?
check "stdin output" "got four" "$out"
printf 'main() {\n  return nil[0];\n}\n' | "$qel" - 2> "$work/err"
check "stdin error status" 70 $?
check "stdin traceback" "invalid value type &s, QVT_NULL expected
  at main (<stdin>:2)" "$(cat "$work/err")"

printf 'main() { print("ran"); return 0; }\n' > "$work/good.qel"
out=$("$qel" --check "$work/good.qel")
check "check good" "0:" "$?:$out"
printf 'main() { return 0 }\n' > "$work/bad.qel"
"$qel" --check "$work/bad.qel" > /dev/null 2> "$work/err"
check "check bad" 65 $?
grep -q "expected ';'" "$work/err"
check "check report" 0 $?
"$qel" --check "$work/none.qel" 2> /dev/null
check "check missing" 66 $?

"$qel" < /dev/null > /dev/null 2> "$work/err"
check "no script" 64 $?
grep -q "qel - reads the script from standard input" "$work/err"
check "no script hint" 0 $?
exit $failed
