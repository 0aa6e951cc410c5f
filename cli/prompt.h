// The interactive prompt: entries typed at a terminal, compiled into one machine and run
// at once.
#pragma once

#include "qel.h"

namespace qelcli {

// Reads entries until Ctrl-D or the end of input; answers the exit status (0).
int runPrompt(QelVirtualMachine& vm, IQelPrinter& out, IQelPrinter& err);

}  // namespace qelcli
