#!/usr/bin/env bash
# Hostile scripts against the capability groups. Every route out of the machine (files in
# each mode, #include, #use and loadmodule by "..", symbolic links and plain paths,
# compile of an included text, system() through the native built-ins, the environment,
# a native module, the console) runs four ways: with no option it does what the
# language says; under --sandbox and under --deny of its own group it stops with its
# "not permitted" message; under --deny of every other group it still works. Nothing
# outside the scratch directory may change.
#   sandbox.sh QEL NATIVE_MODULE
set -u
qel=$1
native=$2
# shellcheck source=common.sh
. "$(dirname "$0")/common.sh"

passwd=/etc/passwd
before=$(cksum < "$passwd")
mkdir -p "$work/allowed"
printf 'secret() { return 7; }\n' > "$work/secret.qel"
"$qel" -c "$work/secret.qem" "$work/secret.qel" || failed=1
cp "$work/secret.qem" "$work/allowed/good.qem"
ln -s "$work/secret.qem" "$work/allowed/link.qem"
ln -s "$passwd" "$work/allowed/passwd.qel"
printf '#import "%s"\nneedsNative() { return moduleLoads(); }\n' "$native" > "$work/native.qel"
"$qel" -c "$work/allowed/native.qem" "$work/native.qel" || failed=1

groups="files input env native modules compile"

# route NAME GROUP STATUS MESSAGE SCRIPT [STDIN]: the script, run four ways. Denied, it
# ends with STATUS and MESSAGE on standard error; allowed, it prints "ok".
route() {
  local name=$1 group=$2 status=$3 message=$4 script=$5 input=${6:-}
  printf '%s\n' "$script" > "$work/$name.qel"
  local others="" g
  for g in $groups; do [ "$g" = "$group" ] || others="$others,$g"; done
  local mode out
  for mode in open sandbox own others; do
    local opts=()
    case $mode in
      sandbox) opts=(--sandbox) ;;
      own) opts=(--deny "$group") ;;
      others) opts=(--deny "${others#,}") ;;
    esac
    out=$(printf '%s' "$input" | "$qel" "${opts[@]}" --allow-modules "$work/allowed" "$work/$name.qel" 2>&1)
    local got=$?
    case $mode in
      open|others)
        check "$name $mode status" 0 "$got"
        check "$name $mode output" ok "$(printf '%s\n' "$out" | tail -n 1)" ;;
      *)
        check "$name $mode status" "$status" "$got"
        case $out in *"$message"*) ;; *) check "$name $mode message" "$message" "$out" ;; esac ;;
    esac
  done
}

# Files, in each mode: reading the password file, writing only in the scratch directory.
for mode in r rb r+; do
  route "fopen_${mode/+/plus}" files 70 "fopen: not permitted" \
    "main(; f) { f = fopen(\"$passwd\", \"$mode\"); if (strfind(fgets(f), \":\") > 0) print(\"ok\"); return 0; }"
done
for mode in w a w+ a+ wb; do
  route "fopen_${mode/+/plus}" files 70 "fopen: not permitted" \
    "main(; f) { f = fopen(\"$work/out.txt\", \"$mode\"); if (f != nil) print(\"ok\"); return 0; }"
done

# Source and module files: a plain path, "..", and symbolic links out of the allowed
# directory. The password file, included, stops the compile with its own lines.
route include_plain modules 65 "#include: not permitted" "#include \"$work/secret.qel\"
main() { if (secret() == 7) print(\"ok\"); return 0; }"
route include_link modules 65 "#include: not permitted" "#include \"$work/allowed/../secret.qel\"
main() { if (secret() == 7) print(\"ok\"); return 0; }"
route use_dotdot modules 65 "#use: not permitted" "#use \"$work/allowed/../secret.qem\"
main() { if (secret() == 7) print(\"ok\"); return 0; }"
route use_link modules 65 "#use: not permitted" "#use \"$work/allowed/link.qem\"
main() { if (secret() == 7) print(\"ok\"); return 0; }"
route loadmodule modules 70 "loadmodule: not permitted" \
  "main() { if (loadmodule(\"$work/secret.qem\") == 1 && secret() == 7) print(\"ok\"); return 0; }"
printf '#include "%s"\nmain() { return 0; }\n' "$work/allowed/passwd.qel" > "$work/include_passwd.qel"
"$qel" --deny modules --allow-modules "$work/allowed" "$work/include_passwd.qel" > "$work/out" 2>&1
check "include of a link to the password file" 65 $?
check "include of a link: not permitted" 1 "$(grep -c '#include: not permitted' "$work/out")"
check "include of a link: nothing of the file shown" 0 "$(grep -c 'root:' "$work/out")"
# A module file under an allowed directory stays readable.
printf '#use "%s"\nmain() { print(secret()); return 0; }\n' "$work/allowed/good.qem" > "$work/use_allowed.qel"
check "use under an allowed directory" 7 "$("$qel" --sandbox --allow-modules "$work/allowed" "$work/use_allowed.qel" 2>&1)"

# Compiling at run time, and the include inside a compiled text.
route compile compile 70 "compile: not permitted" \
  "main() { if (compile(\"made() { return 3; }\", \"text\") == 1 && made() == 3) print(\"ok\"); return 0; }"
printf 'main() { print(compile("#include \\"%s\\"", "text")); return 0; }\n' "$passwd" > "$work/compile_include.qel"
"$qel" --deny modules "$work/compile_include.qel" > "$work/out" 2>&1
check "compile of an include: result" 0 "$(tail -c 1 "$work/out")"
check "compile of an include: not permitted" 1 "$(grep -c '#include: not permitted' "$work/out")"

# Native code: system() through the native built-ins, a native module, and a module file
# that names one.
route system native 70 "LoadLibrary: not permitted" \
  "main(; libc, run) { libc = LoadLibrary(\"libc.so.6\"); run = GetProcAddress(libc, \"system\");
  if (CallLibFunc(run, addr(newbuffer(\"touch $work/pwned\"))) == 0) print(\"ok\"); return 0; }"
route addr native 70 "addr: not permitted" "main() { if (addr(\"x\") != 0) print(\"ok\"); return 0; }"
route import native 65 "#import: not permitted" "#import \"$native\"
main() { if (moduleLoads() > 0) print(\"ok\"); return 0; }"
route use_native native 65 "native module $native: not permitted" "#use \"$work/allowed/native.qem\"
main() { if (needsNative() > 0) print(\"ok\"); return 0; }"

# The environment, and the console.
route setenv env 70 "setenv: not permitted" \
  "main() { setenv(\"PATH\", \"$work\"); if (strcmp(getenv(\"PATH\"), \"$work\") == 0) print(\"ok\"); return 0; }"
route getenv env 70 "getenv: not permitted" "main() { if (strlen(getenv(\"PATH\")) > 0) print(\"ok\"); return 0; }"
route gets input 70 "gets: not permitted" "main() { if (strcmp(gets(), \"typed\") == 0) print(\"ok\"); return 0; }" typed
route getc input 70 "getc: not permitted" "main() { if (getc(stdin) == 't') print(\"ok\"); return 0; }" typed
# Compiling the console needs both groups.
printf 'main() { print(compile(stdin, "in"), fromInput()); return 0; }\n' > "$work/compile_stdin.qel"
check "compile of the console" 15 "$(echo 'fromInput() { return 5; }' | "$qel" "$work/compile_stdin.qel" 2>&1)"
echo 'fromInput() { return 5; }' | "$qel" --deny input "$work/compile_stdin.qel" > "$work/out" 2>&1
check "compile of the console, input denied" "70 1" "$? $(grep -c 'compile: not permitted' "$work/out")"

# The denied runs changed nothing outside the scratch directory; the open ones only there.
check "password file unchanged" "$before" "$(cksum < "$passwd")"
[ -e "$work/pwned" ] || { echo "FAIL system() did not run in the open runs"; failed=1; }
rm -f "$work/pwned"
"$qel" --sandbox "$work/system.qel" > /dev/null 2>&1
[ ! -e "$work/pwned" ] || { echo "FAIL system() ran under --sandbox"; failed=1; }

"$qel" --deny files,bogus "$work/system.qel" > /dev/null 2>&1
check "unknown group" 64 $?
"$qel" --allow-modules "$work/nowhere" "$work/system.qel" > /dev/null 2>&1
check "missing allowed directory" 66 $?
exit $failed
