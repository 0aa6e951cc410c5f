// Module and value-stream built-ins: reading a module file into the running machine,
// and writing or reading one value in the module value format.
#include "builtins/args.h"
#include "qel/dictionary_io.h"

using namespace qel;

// loadmodule(name): 1 when the module file was read into the machine, else 0.
bool QelDefaultFunctions::Qel_loadmodule(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelString* name = call.string(1);
  if (!name) return call.fail(kMsgInvalidArgumentType);
  QelString path;  // a copy: the argument's string may be released while the module is read
  if (!vm->permitsModuleFile(name->c_str(), path)) return call.fail(u"loadmodule", u": not permitted");
  QelDictionaryIO io(*vm);
  if (!vm->permits(QEL_CAP_NATIVE)) io.refuseNativeModules();
  return call.result(QelValue(static_cast<int32_t>(io.readModule(path) ? 1 : 0)));
}

// freadval(file): the next value of the stream, or null when none can be read.
bool QelDefaultFunctions::Qel_freadval(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  FILE* fp = call.stream(1);
  if (!fp) return call.fail(kMsgInvalidArgumentType);
  if (!mayRead(call, fp, u"freadval")) return false;
  QelValue value;
  QelDictionaryIO io(*vm);
  if (!io.readSingleValue(fp, value)) value.dispose();
  return call.result(std::move(value));
}

// fwriteval(value, file): 1 when the value was written, else 0.
bool QelDefaultFunctions::Qel_fwriteval(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  FILE* fp = call.stream(2);
  if (!fp) return call.fail(kMsgInvalidArgumentType);
  QelValue value(call[1]);
  QelDictionaryIO io(*vm);
  return call.result(QelValue(static_cast<int32_t>(io.writeSingleValue(fp, value) ? 1 : 0)));
}
