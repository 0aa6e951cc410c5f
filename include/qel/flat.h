/* The flat interface: plain functions through which a host drives the engine without
 * its classes, usable from C11 and C++ alike.
 *
 *     #include <qel/flat.h>
 *     QelVirtualMachine* vm = Qel_CreateVM(Qel_CreateConsolePrinter());
 *     if (Qel_CompileFileA(vm, "hello.qel", 0, 0, NULL, NULL) &&
 *         Qel_ExecuteA(vm, "main", 0, NULL, 0, NULL, NULL))
 *       printf("result %d\n", (int)Qel_GetIntResult(vm));
 *     Qel_ReleaseVM(vm);
 *
 * Machines and printers are opaque handles. Every text-taking function comes in an A
 * form (UTF-8 `const char*`) and a W form (UTF-16 `const QelChar*`). Functions that take
 * a machine answer their failure value at once for a null machine and touch nothing
 * else. A machine is used from one thread at a time; machines on different threads
 * may run at once (docs/embedding.md, "Threads and lifetimes: the rules").
 */
#ifndef QEL_FLAT_H
#define QEL_FLAT_H

#include "qel/capabilities.h"

#ifdef __cplusplus
#include "qel/config.h"
class IQelPrinter;
extern "C" {
#else
#include <stdbool.h>
#include <stdint.h>
/* Engine text: UTF-16 code units. */
typedef uint16_t QelChar;
typedef struct QelVirtualMachine QelVirtualMachine;
typedef struct IQelPrinter IQelPrinter;
#ifndef QEL_API
#define QEL_API __attribute__((visibility("default")))
#endif
#endif

/* A new machine writing its messages to `printer` (not owned; NULL discards them).
 * The caller releases it with Qel_ReleaseVM. NULL when memory runs out. */
QEL_API QelVirtualMachine* Qel_CreateVM(IQelPrinter* printer);
/* Destroys and frees the machine. 1, or 0 for NULL. */
QEL_API int Qel_ReleaseVM(QelVirtualMachine* vm);

/* Compiles the script file at `path` into the machine; messages go to `printer`, the
 * listing (when `listing` is non-zero) to `listingPrinter`, either NULL for the
 * machine's printer. 1 on success, 0 on errors or for NULL. */
QEL_API int Qel_CompileFileA(QelVirtualMachine* vm, const char* path, int showInfo, int listing,
                             IQelPrinter* printer, IQelPrinter* listingPrinter);
QEL_API int Qel_CompileFileW(QelVirtualMachine* vm, const QelChar* path, int showInfo, int listing,
                             IQelPrinter* printer, IQelPrinter* listingPrinter);
/* The same as Qel_CompileFileA/W: `text` is taken as a file path, deliberately. Source
 * text in memory is compiled with QelVirtualMachine::compileText from C++. */
QEL_API int Qel_CompileTextA(QelVirtualMachine* vm, const char* text, int showInfo, int listing,
                             IQelPrinter* printer, IQelPrinter* listingPrinter);
QEL_API int Qel_CompileTextW(QelVirtualMachine* vm, const QelChar* text, int showInfo, int listing,
                             IQelPrinter* printer, IQelPrinter* listingPrinter);

/* Runs the procedure `name` with `argc` string arguments (copied for the run; the
 * caller's stay untouched). Runtime errors go to `errorPrinter`, the trace (when
 * `trace` is non-zero) to `tracePrinter`, either NULL for the machine's printer.
 * 1 on success, 0 on a runtime error, an unknown name or NULL. */
QEL_API int Qel_ExecuteA(QelVirtualMachine* vm, const char* name, int argc, const char** argv, int trace,
                         IQelPrinter* errorPrinter, IQelPrinter* tracePrinter);
QEL_API int Qel_ExecuteW(QelVirtualMachine* vm, const QelChar* name, int argc, const QelChar** argv, int trace,
                         IQelPrinter* errorPrinter, IQelPrinter* tracePrinter);

/* Writes the machine's classes and symbols to a module file, or reads one into it.
 * 1 on success, 0 on failure or for NULL. */
QEL_API int Qel_WriteModuleA(QelVirtualMachine* vm, const char* path);
QEL_API int Qel_WriteModuleW(QelVirtualMachine* vm, const QelChar* path);
QEL_API int Qel_ReadModuleA(QelVirtualMachine* vm, const char* path);
QEL_API int Qel_ReadModuleW(QelVirtualMachine* vm, const QelChar* path);

/* The last run's result as a 32-bit integer (numbers truncated, other values their raw
 * payload); -2147483648 for NULL. */
QEL_API int32_t Qel_GetIntResult(QelVirtualMachine* vm);
/* Empties the machine and registers the built-ins again; NULL is ignored. The machine's
 * capabilities and allowed module directories stay. */
QEL_API void Qel_Reinit(QelVirtualMachine* vm);

/* Capability groups (QEL_CAP_FILES, ... in qel/capabilities.h), all granted to a new
 * machine. Withholding or granting answers the groups granted afterwards; 0 for NULL. */
QEL_API unsigned Qel_WithholdCapabilities(QelVirtualMachine* vm, unsigned groups);
QEL_API unsigned Qel_GrantCapabilities(QelVirtualMachine* vm, unsigned groups);
QEL_API unsigned Qel_GetCapabilities(QelVirtualMachine* vm);
/* A directory whose source and module files scripts may still read while QEL_CAP_MODULES
 * is withheld (compared with ".." and symbolic links resolved). 1, or 0 when the
 * directory does not resolve or for NULL. */
QEL_API int Qel_AllowModuleDirectoryA(QelVirtualMachine* vm, const char* dir);
QEL_API int Qel_AllowModuleDirectoryW(QelVirtualMachine* vm, const QelChar* dir);

/* A printer writing UTF-8 to standard output, released with Qel_ReleasePrinter.
 * NULL when memory runs out. */
QEL_API IQelPrinter* Qel_CreateConsolePrinter(void);
/* A printer handing each formatted piece, as UTF-8, to `callback`; released with
 * Qel_ReleasePrinter. NULL for a NULL callback or when memory runs out. */
QEL_API IQelPrinter* Qel_CreateCallbackPrinter(void (*callback)(const char*));
/* Frees a printer made by the two functions above: its memory only, without running
 * its destructor, deliberately (neither owns anything). 1, or 0 for NULL. */
QEL_API int Qel_ReleasePrinter(IQelPrinter* printer);

/* Installs the procedure asked after each single-stepped instruction whether stepping
 * goes on; answers the previous one, or NULL for a NULL machine. */
QEL_API bool (*Qel_SetDbgWaitProc(QelVirtualMachine* vm, bool (*proc)(void)))(void);

#ifdef __cplusplus
}
#endif

#endif /* QEL_FLAT_H */
