/* A C host that embeds Qel through the flat interface only.
 *
 *   c_host SCRIPT MODULE
 *
 * compiles SCRIPT (greet.qel beside this file), runs its procedures with string
 * arguments, shows where a runtime error goes, writes the compiled machine to the
 * module file MODULE and runs it again in a second machine that reads that file.
 */
#include <qel/flat.h>

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* Everything the engine prints (script output, compile reports, runtime errors)
 * reaches this callback as UTF-8 pieces; we collect them and show them later. */
static char* collected = NULL;
static size_t collectedLength = 0;

static void collect(const char* piece) {
  size_t n = strlen(piece);
  char* grown = realloc(collected, collectedLength + n + 1);
  if (!grown) return;
  collected = grown;
  memcpy(collected + collectedLength, piece, n + 1);
  collectedLength += n;
}

/* Prints what the printer collected, each line indented, and empties the buffer. */
static void showCollected(void) {
  const char* line = collected;
  while (line && *line) {
    const char* end = strchr(line, '\n');
    int length = end ? (int)(end - line) : (int)strlen(line);
    printf("  | %.*s\n", length, line);
    line = end ? end + 1 : line + length;
  }
  collectedLength = 0;
  if (collected) collected[0] = '\0';
}

/* Runs a procedure with string arguments and reports how it went. Runtime errors
 * go to the machine's printer, since no error printer is passed (NULL). */
static void run(QelVirtualMachine* vm, const char* name, int argc, const char** argv) {
  if (Qel_ExecuteA(vm, name, argc, argv, 0, NULL, NULL))
    printf("%s: result %d\n", name, (int)Qel_GetIntResult(vm));
  else
    printf("%s: failed\n", name);
  showCollected();
}

int main(int argc, char** argv) {
  const char* greetArgs[] = {"Ada", "3"};
  const char* ratioArgs[] = {"10", "0"};
  const char* againArgs[] = {"Grace", "1"};
  IQelPrinter* printer = NULL;
  QelVirtualMachine* vm = NULL;
  QelVirtualMachine* second = NULL;
  int status = 1;

  if (argc != 3) {
    fprintf(stderr, "usage: c_host SCRIPT MODULE\n");
    return 64;
  }

  /* The machine only points at its printer: the printer must outlive the machine. */
  printer = Qel_CreateCallbackPrinter(collect);
  vm = Qel_CreateVM(printer);
  if (!printer || !vm) goto done;

  /* Compile reports go to the machine's printer too (printer argument NULL). */
  if (!Qel_CompileFileA(vm, argv[1], 0, 0, NULL, NULL)) {
    printf("compiling failed\n");
    showCollected();
    goto done;
  }
  printf("compiled\n");

  run(vm, "greet", 2, greetArgs);
  /* Dividing by zero: the run fails and its error text reaches the printer. */
  run(vm, "ratio", 2, ratioArgs);
  /* An unknown procedure fails too, but prints nothing. */
  run(vm, "missing", 0, NULL);

  /* Save the compiled procedures to a module file and run them in a fresh machine. */
  if (!Qel_WriteModuleA(vm, argv[2])) {
    printf("writing the module failed\n");
    goto done;
  }
  second = Qel_CreateVM(printer);
  if (!second || !Qel_ReadModuleA(second, argv[2])) {
    printf("reading the module failed\n");
    showCollected();
    goto done;
  }
  printf("second machine read the module\n");
  run(second, "greet", 2, againArgs);
  status = 0;

done:
  /* Machines first, then the printer they write to. Both calls accept NULL. */
  Qel_ReleaseVM(second);
  Qel_ReleaseVM(vm);
  Qel_ReleasePrinter(printer);
  free(collected);
  printf("released\n");
  return status;
}
