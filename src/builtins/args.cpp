// The system group's guard.
#include "builtins/args.h"

namespace qel {

bool systemReady(QelVirtualMachine* vm) {
  if (!vm) return false;
  if (vm->interpreter()) return true;
  vm->printer()(u"missing interpreter\n");
  return false;
}

}  // namespace qel
