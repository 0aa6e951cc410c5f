// Fuzz target: the input is a script. It is compiled into a fresh machine and, when it
// compiles, its "main" runs under the instruction budget.
#include <cstring>

#include "harness.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // "#import" loads a native library by name, which no script text can make safe.
  if (memmem(data, size, "import", 6)) return -1;
  std::u16string text = qelfuzz::toText(data, size);
  {
    qelfuzz::BoundedPrinter out;
    QelVirtualMachine vm(&out);
    qelfuzz::sandbox(vm);
    qelfuzz::limitInstructions(vm);
    if (vm.compileText(text.c_str(), false, false, &out, &out)) qelfuzz::runMain(vm, out);
  }
  qelfuzz::closeScriptStreams();
  return 0;
}
