// The guards the built-ins share: the system group's, and the capability groups'.
#include "builtins/args.h"

namespace qel {

bool systemReady(QelVirtualMachine* vm) {
  if (!vm) return false;
  if (vm->interpreter()) return true;
  vm->printer()(u"missing interpreter\n");
  return false;
}

bool permitted(BuiltinCall& call, unsigned group, const QelChar* name) {
  if (call.vm().permits(group)) return true;
  return call.fail(name, u": not permitted");
}

bool mayRead(BuiltinCall& call, FILE* fp, const QelChar* name) {
  return fp != stdin || permitted(call, QEL_CAP_INPUT, name);
}

}  // namespace qel
