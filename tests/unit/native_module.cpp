// A native extension library loaded by the machine tests. It registers "moduleLoads",
// which answers how many times the library has registered itself, and exports
// "qelTestAdd" for scripts to call through CallLibFunc. Machines on several threads
// load it at once.
#include <atomic>

#include "qel/vm.h"

namespace {

std::atomic<int> g_registrations{0};

bool moduleLoads(QelVirtualMachine*, int nargs, ValPtr& args) {
  args -= nargs;
  *args = QelValue(static_cast<int32_t>(g_registrations.load()));
  return true;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void RegisterNativeModule(QelVirtualMachine* vm) {
  ++g_registrations;
  vm->registerNativeFunction(u"moduleLoads", moduleLoads);
}

extern "C" __attribute__((visibility("default"))) int qelTestAdd(int a, int b) { return a + b; }
