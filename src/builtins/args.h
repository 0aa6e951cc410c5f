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

}  // namespace qel
