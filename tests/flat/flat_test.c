/* The flat interface from C: failure values for a null machine, the narrow and wide
 * forms, the copies of the argument texts, printers, module files and a full
 * compile-execute-result round trip. Prints each failed check and exits non-zero. */
#define _POSIX_C_SOURCE 200809L
#include <qel/flat.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <uchar.h>
#include <unistd.h>

static int failures = 0;
#define CHECK(cond)                                          \
  do {                                                       \
    if (!(cond)) {                                           \
      fprintf(stderr, "%s:%d: %s\n", __FILE__, __LINE__, #cond); \
      ++failures;                                            \
    }                                                        \
  } while (0)

#define W(text) ((const QelChar*)u##text)

static char collected[4096];
static void collect(const char* text) { strncat(collected, text, sizeof collected - strlen(collected) - 1); }

static bool waitNever(void) { return false; }

static void writeFile(const char* path, const char* text) {
  FILE* fp = fopen(path, "w");
  fputs(text, fp);
  fclose(fp);
}

static void nullMachine(void) {
  const QelChar* wideArgs[] = {W("a")};
  const char* narrowArgs[] = {"a"};
  CHECK(Qel_ReleaseVM(NULL) == 0);
  CHECK(Qel_CompileFileA(NULL, "x.qel", 0, 0, NULL, NULL) == 0 && Qel_CompileFileW(NULL, W("x.qel"), 0, 0, NULL, NULL) == 0);
  CHECK(Qel_CompileTextA(NULL, "x.qel", 0, 0, NULL, NULL) == 0 && Qel_CompileTextW(NULL, W("x.qel"), 0, 0, NULL, NULL) == 0);
  CHECK(Qel_ExecuteA(NULL, "main", 1, narrowArgs, 0, NULL, NULL) == 0 &&
        Qel_ExecuteW(NULL, W("main"), 1, wideArgs, 0, NULL, NULL) == 0);
  CHECK(Qel_WriteModuleA(NULL, "x.qem") == 0 && Qel_WriteModuleW(NULL, W("x.qem")) == 0);
  CHECK(Qel_ReadModuleA(NULL, "x.qem") == 0 && Qel_ReadModuleW(NULL, W("x.qem")) == 0);
  CHECK(Qel_GetIntResult(NULL) == INT32_MIN);
  Qel_Reinit(NULL);
  CHECK(Qel_SetDbgWaitProc(NULL, waitNever) == NULL);
  CHECK(Qel_CreateCallbackPrinter(NULL) == NULL);
  CHECK(Qel_ReleasePrinter(NULL) == 0);
  CHECK(Qel_WithholdCapabilities(NULL, QEL_CAP_ALL) == 0 && Qel_GrantCapabilities(NULL, QEL_CAP_ALL) == 0);
  CHECK(Qel_GetCapabilities(NULL) == 0);
  CHECK(Qel_AllowModuleDirectoryA(NULL, "/tmp") == 0 && Qel_AllowModuleDirectoryW(NULL, W("/tmp")) == 0);
}

int main(void) {
  char dir[] = "/tmp/qel-flat-XXXXXX";
  char script[64], module[64];
  nullMachine();
  if (!mkdtemp(dir)) return 2;
  snprintf(script, sizeof script, "%s/s.qel", dir);
  snprintf(module, sizeof module, "%s/s.qem", dir);
  writeFile(script,
            "join(a, b) { print(a, \"+\", b, \"\\n\"); a[0] = 'X'; return strlen(a) * 10 + argcnt(); }\n"
            "none() { return argcnt(); }\n"
            "fail() { return nosuch(); }\n");

  IQelPrinter* out = Qel_CreateCallbackPrinter(collect);
  QelVirtualMachine* vm = Qel_CreateVM(out);
  CHECK(vm != NULL);
  CHECK(Qel_CompileFileA(vm, script, 0, 0, NULL, NULL) == 1);

  /* The run gets copies: the script's store into its argument leaves ours alone. */
  char first[] = "ab";
  const char* narrowArgs[] = {first, "cd"};
  CHECK(Qel_ExecuteA(vm, "join", 2, narrowArgs, 0, NULL, NULL) == 1);
  CHECK(Qel_GetIntResult(vm) == 22);
  CHECK(strcmp(first, "ab") == 0);
  QelChar wideFirst[] = {'e', 0x20AC, 0};
  const QelChar* wideArgs[] = {wideFirst, W("gh")};
  CHECK(Qel_ExecuteW(vm, W("join"), 2, wideArgs, 0, NULL, NULL) == 1);
  CHECK(Qel_GetIntResult(vm) == 22 && wideFirst[0] == 'e');
  CHECK(Qel_ExecuteA(vm, "none", 0, NULL, 0, NULL, NULL) == 1 && Qel_GetIntResult(vm) == 0);
  CHECK(strcmp(collected, "ab+cd\ne\xe2\x82\xac+gh\n") == 0);

  /* Runtime errors go to the error printer; an unknown procedure just fails. */
  collected[0] = 0;
  CHECK(Qel_ExecuteA(vm, "fail", 0, NULL, 0, out, NULL) == 0);
  CHECK(strcmp(collected, "call to non-procedure, type QVT_NULL\n") == 0);
  CHECK(Qel_ExecuteA(vm, "nothing", 0, NULL, 0, NULL, NULL) == 0);

  /* The text of Qel_CompileText is a path: source text does not compile. */
  collected[0] = 0;
  CHECK(Qel_CompileTextA(vm, "f() { return 1; }", 0, 0, NULL, NULL) == 0);
  CHECK(strcmp(collected, "error opening file f() { return 1; }\n") == 0);
  CHECK(Qel_CompileTextW(vm, W("no such file"), 0, 0, NULL, NULL) == 0);

  /* A module written by one machine runs in another. */
  CHECK(Qel_WriteModuleA(vm, module) == 1);
  QelVirtualMachine* second = Qel_CreateVM(NULL);
  CHECK(Qel_ReadModuleA(second, module) == 1);
  CHECK(Qel_ExecuteA(second, "join", 2, narrowArgs, 0, NULL, NULL) == 1 && Qel_GetIntResult(second) == 22);
  Qel_Reinit(second);
  CHECK(Qel_ExecuteA(second, "join", 2, narrowArgs, 0, NULL, NULL) == 0);
  CHECK(Qel_ReadModuleW(second, W("/nonexistent/qel.qem")) == 0);

  /* Withheld groups outlast a reinit; the host still reads modules, the script may not
   * (except from a directory allowed back). */
  CHECK(Qel_GetCapabilities(second) == QEL_CAP_ALL);
  CHECK(Qel_WithholdCapabilities(second, QEL_CAP_MODULES | QEL_CAP_FILES) == (QEL_CAP_ALL & ~(QEL_CAP_MODULES | QEL_CAP_FILES)));
  CHECK(Qel_GrantCapabilities(second, QEL_CAP_FILES) == (QEL_CAP_ALL & ~QEL_CAP_MODULES));
  Qel_Reinit(second);
  CHECK(Qel_GetCapabilities(second) == (QEL_CAP_ALL & ~QEL_CAP_MODULES));
  writeFile(script, "load(m) { return loadmodule(m); }\n");
  CHECK(Qel_CompileFileA(second, script, 0, 0, NULL, NULL) == 1);
  const char* moduleArg[] = {module};
  collected[0] = 0;
  CHECK(Qel_ExecuteA(second, "load", 1, moduleArg, 0, out, NULL) == 0);
  CHECK(strstr(collected, "loadmodule: not permitted") != NULL);
  CHECK(Qel_AllowModuleDirectoryA(second, "/nonexistent/dir") == 0 && Qel_AllowModuleDirectoryA(second, dir) == 1);
  CHECK(Qel_ExecuteA(second, "load", 1, moduleArg, 0, out, NULL) == 1 && Qel_GetIntResult(second) == 1);
  CHECK(Qel_ReadModuleA(second, module) == 1);

  CHECK(Qel_SetDbgWaitProc(vm, waitNever) == NULL);
  CHECK(Qel_SetDbgWaitProc(vm, NULL) == waitNever);

  CHECK(Qel_ReleaseVM(second) == 1);
  CHECK(Qel_ReleaseVM(vm) == 1);
  CHECK(Qel_ReleasePrinter(out) == 1);
  IQelPrinter* console = Qel_CreateConsolePrinter();
  CHECK(console != NULL && Qel_ReleasePrinter(console) == 1);

  remove(script);
  remove(module);
  rmdir(dir);
  if (failures) fprintf(stderr, "%d checks failed\n", failures);
  return failures ? 1 : 0;
}
