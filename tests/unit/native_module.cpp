// A native extension library loaded by the machine tests. It registers "moduleLoads",
// which answers how many times the library has registered itself.
#include "qel/vm.h"

namespace {

int g_registrations = 0;

bool moduleLoads(QelVirtualMachine*, int nargs, ValPtr& args) {
  args -= nargs;
  *args = QelValue(g_registrations);
  return true;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void RegisterNativeModule(QelVirtualMachine* vm) {
  ++g_registrations;
  vm->registerNativeFunction(u"moduleLoads", moduleLoads);
}
