#!/usr/bin/env bash
# The interactive prompt, typed at through a pseudo-terminal (prompt.session), with and
# without its line editor, and its history in the home directory.
#   prompt.sh PTY_SESSION QEL
set -u
driver=$1
qel=$2
# shellcheck source=common.sh
. "$(dirname "$0")/common.sh"

HOME=$work "$driver" "$(dirname "$0")/prompt.session" "$qel"
check "session" 0 $?
# Without a line editor (qel built without libedit, or asked not to use it).
QEL_NO_LINE_EDITING=1 HOME=$work "$driver" "$(dirname "$0")/prompt_plain.session" "$qel"
check "plain lines" 0 $?

"$qel" --version | grep -q '^line editing: libedit$' || exit $failed
grep -q 'c->add(2)' "$work/.qel_history" 2>/dev/null
check "history kept" 0 $?

# The history is there for the next session: Ctrl-P recalls the last entry.
cat > "$work/recall.session" <<'SESSION'
expect qel> 
send 20 + 1\n
expect 21
expect qel> 
send \x10\n
expect 21
expect qel> 
send \x04
status 0
SESSION
HOME=$work "$driver" "$work/recall.session" "$qel"
check "recall" 0 $?
exit $failed
