#!/usr/bin/env bash
# Makes the Debian package from a build and uses it as a new user would: its control
# data (name, computed Depends, shlibs), its files unpacked into a temporary root with
# dpkg-deb, the unpacked qel running a script, and a C host built against the unpacked
# headers and library through pkg-config.
#   package_test.sh BUILD_DIR [EXTRA_COMPILER_FLAGS]
set -u
build=$1
flags=${2:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0
fail() { echo "FAIL: $*"; failed=1; }

(cd "$build" && cpack -G DEB -B "$work/out" > "$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; exit 1; }
deb=$(ls "$work"/out/qel_*.deb 2>/dev/null | head -n 1)
[ -n "$deb" ] || { echo "FAIL: no package made"; cat "$work/cpack.log"; exit 1; }

[ "$(dpkg-deb -f "$deb" Package)" = qel ] || fail "package name"
depends=$(dpkg-deb -f "$deb" Depends)
for lib in libc6 libstdc++6; do
  echo "$depends" | grep -q "\b$lib\b" || fail "Depends lacks $lib: [$depends]"
done
dpkg-deb --ctrl-tarfile "$deb" | tar -xO ./shlibs 2>/dev/null | grep -q '^libqel 0 qel' || fail "no shlibs for libqel.so.0"

root=$work/root
dpkg-deb -x "$deb" "$root"
for f in usr/bin/qel usr/include/qel.h usr/include/qel/flat.h usr/lib/libqel.so.0 usr/lib/pkgconfig/qel.pc \
         usr/lib/cmake/Qel/QelConfig.cmake usr/share/man/man1/qel.1; do
  [ -e "$root/$f" ] || fail "not in the package: /$f"
done

printf 'main(who) { print("hello ", who, "\\n"); return 7; }\n' > "$work/hello.qel"
out=$("$root/usr/bin/qel" "$work/hello.qel" package)
[ $? -eq 7 ] && [ "$out" = "hello package" ] || fail "unpacked qel: [$out]"

cat > "$work/host.c" <<'C'
#include <qel/flat.h>
#include <stdio.h>
static void show(const char* text) { fputs(text, stdout); }
int main(int argc, char** argv) {
  IQelPrinter* out = Qel_CreateCallbackPrinter(show);
  QelVirtualMachine* vm = Qel_CreateVM(out);
  const char* args[] = {"host"};
  int ok = argc > 1 && Qel_CompileFileA(vm, argv[1], 0, 0, NULL, NULL) && Qel_ExecuteA(vm, "main", 1, args, 0, NULL, NULL);
  int result = Qel_GetIntResult(vm);
  Qel_ReleaseVM(vm);
  Qel_ReleasePrinter(out);
  return ok ? result : 100;
}
C
# qel.pc finds its prefix from where it lies, so the unpacked root serves as installed.
export PKG_CONFIG_LIBDIR=$root/usr/lib/pkgconfig
# shellcheck disable=SC2046,SC2086
cc -std=c11 $flags "$work/host.c" -o "$work/c_host" $(pkg-config --cflags --libs qel) || fail "C host does not build"
out=$(LD_LIBRARY_PATH=$root/usr/lib "$work/c_host" "$work/hello.qel")
[ $? -eq 7 ] && [ "$out" = "hello host" ] || fail "C host through pkg-config: [$out]"
exit $failed
