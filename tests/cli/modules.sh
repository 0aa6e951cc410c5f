#!/usr/bin/env bash
# The qel options for module files: -c writes one instead of running, a FILE ending in
# .qem is read and run, -m reads modules before FILE. Exit statuses: 65 for a malformed
# module, 66 for one that cannot be opened, 73 when -c cannot write. Also: values pass
# from one run to another through a pipe (a stream whose size the reader cannot know).
#   modules.sh QEL
set -u
qel=$1
here=$(cd "$(dirname "$0")" && pwd)
scripts=$here/../scripts
# shellcheck source=common.sh
. "$(dirname "$0")/common.sh"

cat > "$work/prog.qel" <<'QEL'
class Greeter { who; Greeter(w); hello(); }
Greeter::Greeter(w) { who = w; }
Greeter::hello() { print("hello ", who, "\n"); return 3; }
main(name; g) { g = new Greeter(name); return g->hello(); }
QEL
cat > "$work/user.qel" <<'QEL'
main(; g) { g = new Greeter(greet("m")); print(made(), " "); return g->hello(); }
QEL

out=$("$qel" -c "$work/prog.qem" "$work/prog.qel" world)
check "-c status" 0 $?
check "-c output" "" "$out"
out=$("$qel" "$work/prog.qem" world)
check ".qem status" 3 $?
check ".qem output" "hello world" "$out"

# Modules are read in order before FILE is compiled, so FILE can name their classes;
# with -c, what they hold is written too.
out=$("$qel" -m "$scripts/modules/library.qem" -m "$work/prog.qem" -c "$work/all.qem" "$work/user.qel")
check "-m -c status" 0 $?
out=$("$qel" "$work/all.qem")
check "combined status" 3 $?
check "combined output" "0 hello hello m" "$out"

# A runtime error in a procedure read from a module (main without its argument): no lines.
out=$("$qel" "$work/prog.qem" 2>"$work/err")
check "module error status" 70 $?
check "module traceback" "too few arguments
  at main" "$(cat "$work/err")"

out=$("$qel" -m "$work/missing.qem" "$work/prog.qel" 2>"$work/err")
check "missing module status" 66 $?
grep -q "cannot open" "$work/err" || { echo "FAIL missing module message"; failed=1; }
out=$("$qel" "$work/missing.qem" 2>/dev/null)
check "missing FILE status" 66 $?
out=$("$qel" -m "$scripts/modules/broken.qem" "$work/prog.qel" 2>"$work/err")
check "malformed module status" 65 $?
grep -q "cannot read module" "$work/err" || { echo "FAIL malformed module message"; failed=1; }
cp "$scripts/modules/broken.qem" "$work/broken.qem"
out=$("$qel" "$work/broken.qem" 2>/dev/null)
check "malformed FILE status" 65 $?
out=$("$qel" -c "$work/no/such/dir/out.qem" "$work/prog.qel" 2>"$work/err")
check "unwritable output status" 73 $?
grep -q "cannot write" "$work/err" || { echo "FAIL unwritable output message"; failed=1; }

# fwriteval in one run, freadval in the next: through a pipe as through a file.
# (From the scripts' directory, where values.qel's #include is found.)
piped=$(cd "$scripts" && "$qel" -e writeValues values.qel | "$qel" -e readValues values.qel)
filed=$(cd "$scripts" && "$qel" -e readValues values.qel < values.stdin)
check "values through a pipe" "$filed" "$piped"
check "values read" "5 2.500000" "${piped%%$'\n'*}"

exit $failed
