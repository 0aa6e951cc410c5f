# Shared by the host program's shell tests (sourced): a scratch directory `work`
# removed on exit, and `check WHAT EXPECTED ACTUAL`, which notes a failure in `failed`.
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

check() {
  if [ "$2" != "$3" ]; then
    echo "FAIL $1: expected [$2], got [$3]"
    failed=1
  fi
}
