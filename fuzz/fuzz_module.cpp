// Fuzz target: the input is a module file. It is read into a fresh machine and, when the
// read succeeds, the module's "main" runs under the instruction budget.
#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = qelfuzz::writeScratch(1, data, size);
  {
    qelfuzz::BoundedPrinter out;
    QelVirtualMachine vm(&out);
    qelfuzz::sandbox(vm);
    qelfuzz::limitInstructions(vm);
    QelString file(path.c_str());
    if (vm.readModule(file.c_str())) qelfuzz::runMain(vm, out);
  }
  qelfuzz::closeScriptStreams();
  return 0;
}
