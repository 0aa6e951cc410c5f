// What the built-ins share: the native calling convention (QelNativeCall, here called
// BuiltinCall), their messages, and the system group's guard.
#pragma once

#include "exec/messages.h"
#include "qel/builtins.h"
#include "qel/native.h"

namespace qel {

using BuiltinCall = QelNativeCall;

// The guard of the system group: false for a null machine; without a run in progress,
// "missing interpreter\n" through the machine's printer and false.
bool systemReady(QelVirtualMachine* vm);

// The capability guard: false, after "NAME: not permitted", when the machine withholds
// `group` (qel/capabilities.h).
bool permitted(BuiltinCall& call, unsigned group, const QelChar* name);
// Reading a stream: the console (stdin) also needs QEL_CAP_INPUT.
bool mayRead(BuiltinCall& call, FILE* fp, const QelChar* name);

}  // namespace qel
