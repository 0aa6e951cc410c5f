// What the qel command's ways of running scripts share: exit statuses, Ctrl-C, and
// running a procedure with its traceback shown when it fails.
#pragma once

#include "qel.h"

namespace qelcli {

// Exit statuses in the manner of sysexits.
const int kExitUsage = 64;
const int kExitCompile = 65;
const int kExitNoInput = 66;
const int kExitRuntime = 70;
const int kExitCannotCreate = 73;
const int kExitInterrupted = 130;  // as a shell reports a process ended by SIGINT

// From now on Ctrl-C (SIGINT) interrupts `vm` when it runs and is remembered; a blocked
// read gives up rather than waiting on. stopWatching() puts the previous handling back.
void watchInterrupts(QelVirtualMachine& vm);
void stopWatching();
// Whether Ctrl-C came since the last takeInterrupt(); take clears it, pending does not.
bool takeInterrupt();
bool interruptPending();

// Runs the procedure `entry` with string arguments; when it fails, the calls that were
// active follow the error text on `err`.
bool runProcedure(QelVirtualMachine& vm, const QelChar* entry, int argc, const QelChar** argv, bool trace,
                  IQelPrinter& err);

}  // namespace qelcli
