// The built-in library registered into every virtual machine.
//
// Each built-in is a native function (QelNativeFunction): `args` stands on the last
// argument, argument k of n is args[k-n], and the result replaces the call slot
// args[-n]. Failures append their message to the interpreter's error text.
#pragma once

#include "qel/vm.h"

class QEL_API QelDefaultFunctions {
 public:
  // Enters the predefined streams and every built-in into the machine's symbols.
  static void registerFunctions(QelVirtualMachine* vm);

  static bool Qel_print(QelVirtualMachine* vm, int nargs, ValPtr& args);

 private:
  static void registerFiles(QelVirtualMachine* vm);
  static void registerIOFunctions(QelVirtualMachine* vm);
};
