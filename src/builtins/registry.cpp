// Registration of the predefined variables and the built-in functions, in the
// library's fixed order.
#include <cstdio>

#include "qel/builtins.h"

namespace {

struct BuiltinEntry {
  const QelChar* name;
  QelNativeFunction fn;
};

// Overwrites an existing entry in place: registration never fails.
void registerAll(QelVirtualMachine* vm, const BuiltinEntry* table, size_t count) {
  for (size_t i = 0; i < count; ++i) {
    QelDictionaryEntry& e = vm->symbols()[QelString(table[i].name)];
    e.setValue(QelValue(table[i].fn));
    e.setSymbolType(QST_STATIC_FUNCTION);
  }
}

void registerStream(QelVirtualMachine* vm, const QelChar* name, FILE* stream) {
  QelDictionaryEntry& e = vm->symbols()[QelString(name)];
  e.setValue(QelValue(static_cast<void*>(stream)));
  e.setSymbolType(QST_STATIC_DATA);
}

}  // namespace

void QelDefaultFunctions::registerFiles(QelVirtualMachine* vm) {
  registerStream(vm, u"stdin", stdin);
  registerStream(vm, u"stdout", stdout);
  registerStream(vm, u"stderr", stderr);
}

void QelDefaultFunctions::registerIOFunctions(QelVirtualMachine* vm) {
  static const BuiltinEntry kIO[] = {
      {u"print", Qel_print},
  };
  registerAll(vm, kIO, sizeof kIO / sizeof kIO[0]);
}

void QelDefaultFunctions::registerFunctions(QelVirtualMachine* vm) {
  registerFiles(vm);
  registerIOFunctions(vm);
}
