// File and console built-ins.
#include "builtins/args.h"

using namespace qel;

// Writes each argument through the machine's printer, with nothing in between.
bool QelDefaultFunctions::Qel_print(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  IQelPrinter& out = vm->printer();
  for (int k = 1; k <= nargs; ++k) {
    const QelValue& v = call[k];
    switch (v.getType()) {
      case QVT_INTEGER:
        out(u"%ld", v.toLong());
        break;
      case QVT_FLOAT:
      case QVT_DOUBLE:
        out(u"%f", v.toDouble());
        break;
      case QVT_STRING:
      case QVT_STRINGREF: {
        QelString* s = v;
        if (s) out(u"%s", s->c_str());
        break;
      }
      default:
        out(u"(%s:%p)", getValueTypeName(v.getType()), v.ptr());
        break;
    }
  }
  return call.none();
}
