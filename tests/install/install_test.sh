#!/usr/bin/env bash
# Installs the built engine under a fresh prefix and uses it as a host would: the
# installed qel runs a script, a C host builds through pkg-config, and a C++ host builds
# through find_package(Qel) and the imported target Qel::qel.
#   install_test.sh BUILD_DIR [EXTRA_COMPILER_FLAGS]
set -u
build=$1
flags=${2:-}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
prefix=$work/prefix
failed=0
fail() { echo "FAIL: $*"; failed=1; }

cmake --install "$build" --prefix "$prefix" > "$work/install.log" || { cat "$work/install.log"; exit 1; }
libdir=$(dirname "$(find "$prefix" -name 'libqel.so.0' | head -n 1)")
for f in bin/qel include/qel.h include/qel/flat.h include/qel/native.h share/man/man1/qel.1; do
  [ -e "$prefix/$f" ] || fail "not installed: $f"
done
[ -f "$libdir/pkgconfig/qel.pc" ] || fail "not installed: qel.pc"
[ -f "$libdir/cmake/Qel/QelConfig.cmake" ] || fail "not installed: QelConfig.cmake"
readelf -d "$libdir/libqel.so.0" 2>/dev/null | grep -q 'SONAME.*libqel.so.0' || fail "libqel.so.0 has no SONAME"

printf 'main(who) { print("hello ", who, "\\n"); return 7; }\n' > "$work/hello.qel"
out=$("$prefix/bin/qel" "$work/hello.qel" world)
[ $? -eq 7 ] && [ "$out" = "hello world" ] || fail "installed qel: [$out]"

cat > "$work/host.c" <<'C'
#include <qel/flat.h>
#include <stdio.h>
static void show(const char* text) { fputs(text, stdout); }
int main(int argc, char** argv) {
  IQelPrinter* out = Qel_CreateCallbackPrinter(show);
  QelVirtualMachine* vm = Qel_CreateVM(out);
  const char* args[] = {"C"};
  int ok = argc > 1 && Qel_CompileFileA(vm, argv[1], 0, 0, NULL, NULL) && Qel_ExecuteA(vm, "main", 1, args, 0, NULL, NULL);
  int result = Qel_GetIntResult(vm);
  Qel_ReleaseVM(vm);
  Qel_ReleasePrinter(out);
  return ok ? result : 100;
}
C
export PKG_CONFIG_PATH=$libdir/pkgconfig
# shellcheck disable=SC2046,SC2086
cc -std=c11 $flags "$work/host.c" -o "$work/c_host" $(pkg-config --cflags --libs qel) || fail "C host does not build"
out=$(LD_LIBRARY_PATH=$libdir "$work/c_host" "$work/hello.qel")
[ $? -eq 7 ] && [ "$out" = "hello C" ] || fail "C host through pkg-config: [$out]"

mkdir -p "$work/app"
cat > "$work/app/CMakeLists.txt" <<'CMAKE'
cmake_minimum_required(VERSION 3.20)
project(App LANGUAGES CXX)
find_package(Qel 0.1 REQUIRED)
add_executable(app app.cpp)
target_link_libraries(app PRIVATE Qel::qel)
CMAKE
cat > "$work/app/app.cpp" <<'CPP'
#include <qel.h>
#include <cstdio>
int main() {
  QelFileStreamPrinter out(stdout, false);
  QelVirtualMachine vm(&out);
  if (!vm.compileText(u"twice(x) { return x + x; }")) return 100;
  const QelChar* args[] = {u"ab"};
  if (!vm.execute(u"twice", 1, args)) return 101;
  QelString* s = vm.getResult();
  std::printf("%s\n", s ? s->a_str() : "?");
  return 0;
}
CPP
if cmake -S "$work/app" -B "$work/app/build" -DCMAKE_PREFIX_PATH="$prefix" -DCMAKE_CXX_FLAGS="$flags" \
     -DCMAKE_EXE_LINKER_FLAGS="$flags" > "$work/app.log" 2>&1 &&
   cmake --build "$work/app/build" >> "$work/app.log" 2>&1; then
  out=$("$work/app/build/app")
  [ "$out" = "abab" ] || fail "C++ host through find_package: [$out]"
else
  cat "$work/app.log"
  fail "C++ host through find_package does not build"
fi
exit $failed
