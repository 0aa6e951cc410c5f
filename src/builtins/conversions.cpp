// Conversion and type-inspection built-ins: "int", "float", "double", "string",
// "buffer", "gettypename", "gettype", "getclassname" and "dynamic_cast".
//
// Text is read the way the wide C runtime reads it ("int" as wcstol in automatic base,
// "float" and "double" through the scan formats "%f" and "%lf"), always with '.' as the
// decimal point whatever locale the host has set.
#include <locale.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <cwchar>
#include <string>

#include "builtins/args.h"
#include "qel/class.h"

using namespace qel;

namespace {

// The engine's UTF-16 text as the runtime's wide text; only ASCII matters to numbers.
std::wstring toWide(const QelChar* text) {
  std::wstring wide;
  for (; *text; ++text) wide.push_back(static_cast<wchar_t>(*text));
  return wide;
}

// The text of a string argument ("" for a string value that holds none).
const QelChar* textOf(const QelValue& v) {
  QelString* s = v;
  return s ? s->c_str() : u"";
}

// wcstol(text, null, 0) with the engine's 32-bit long: out-of-range values saturate.
int32_t parseLong(const QelChar* text) {
  std::wstring wide = toWide(text);
  long value = wcstol(wide.c_str(), nullptr, 0);
  if (value > INT32_MAX) return INT32_MAX;
  if (value < INT32_MIN) return INT32_MIN;
  return static_cast<int32_t>(value);
}

// One swscanf conversion in the "C" numeric locale; true when it converted.
bool scanText(const QelChar* text, const wchar_t* format, void* out) {
  static locale_t cLocale = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(0));
  std::wstring wide = toWide(text);
  locale_t previous = cLocale ? uselocale(cLocale) : static_cast<locale_t>(0);
  int converted = swscanf(wide.c_str(), format, out);
  if (cLocale) uselocale(previous);
  return converted == 1;
}

// The scan stores a float into the first half of an 8-byte slot whose other half is
// zero; the slot is read as a double and narrowed, so every scanned text gives 0.0.
float floatFromScannedSlot(float scanned) {
  uint32_t bits;
  memcpy(&bits, &scanned, sizeof bits);
  uint64_t slot = bits;
  double asDouble;
  memcpy(&asDouble, &slot, sizeof asDouble);
  return static_cast<float>(asDouble);
}

float floatFromBits(uint32_t bits) {
  float f;
  memcpy(&f, &bits, sizeof f);
  return f;
}

double doubleFromBits(const QelBuffer& b) {
  uint64_t bits = static_cast<uint64_t>(b.getDW(0)) | (static_cast<uint64_t>(b.getDW(4)) << 32);
  double d;
  memcpy(&d, &bits, sizeof d);
  return d;
}

QelValue newString(const QelString& text) { return QelValue(new QelString(text), false); }

// A new 4-byte buffer holding the integer.
QelValue wordBuffer(int32_t value) {
  QelBuffer* b = new QelBuffer(4);
  b->push_backDW(static_cast<uint32_t>(value));
  return QelValue(b, false);
}

// A new 8-byte buffer holding the double's bytes in memory order.
QelValue doubleBuffer(double value) {
  unsigned char bytes[sizeof value];
  memcpy(bytes, &value, sizeof value);
  QelBuffer* b = new QelBuffer(sizeof value);
  b->append(bytes, sizeof value);
  return QelValue(b, false);
}

// "string" of an object: its "toString" method runs and what it leaves is the result.
bool stringOfObject(BuiltinCall& call) {
  QelObject* obj = call[1];
  QelClass* cls = obj ? obj->getClass() : nullptr;
  QelDictionaryEntry* member = cls ? cls->findMember(u"toString", true) : nullptr;
  if (!member || member->getSymbolType() != QST_METHOD) return call.fail(kMsgInvalidArgumentType);
  // The send runs on the argument's own slot and leaves the method's value there.
  QelInterpreter* interp = call.interpreter();
  if (!interp->send(0, u"toString")) return false;
  QelValue produced(interp->SP.at(0));
  return call.result(std::move(produced));
}

}  // namespace

bool QelDefaultFunctions::Qel_int(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  const QelValue& v = call[1];
  if (v.isString()) return call.result(QelValue(parseLong(textOf(v))));
  if (v.isNumber()) return call.result(QelValue(v.toLong()));
  if (QelBuffer* b = v) {
    if (b->size() == 2) return call.result(QelValue(static_cast<int32_t>(static_cast<int16_t>(b->getW(0)))));
    if (b->size() == 4) return call.result(QelValue(static_cast<int32_t>(b->getDW(0))));
  }
  return call.fail(kMsgInvalidArgumentType);
}

bool QelDefaultFunctions::Qel_float(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  const QelValue& v = call[1];
  if (v.isString()) {
    float scanned;
    if (!scanText(textOf(v), L"%f", &scanned)) return call.fail(kMsgInvalidFormat, textOf(v));
    return call.result(QelValue(floatFromScannedSlot(scanned)));
  }
  if (v.isNumber()) return call.result(QelValue(v.toFloat()));
  if (QelBuffer* b = v) {
    // A 4-byte buffer holds the bits of a float, an 8-byte one those of a double.
    if (b->size() == 4) return call.result(QelValue(floatFromBits(b->getDW(0))));
    if (b->size() == 8) return call.result(QelValue(static_cast<float>(doubleFromBits(*b))));
  }
  return call.fail(kMsgInvalidArgumentType);
}

bool QelDefaultFunctions::Qel_double(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  const QelValue& v = call[1];
  if (v.isString()) {
    double scanned;
    if (!scanText(textOf(v), L"%lf", &scanned)) return call.fail(kMsgInvalidFormat, textOf(v));
    return call.result(QelValue(scanned));
  }
  if (v.isNumber()) return call.result(QelValue(v.toDouble()));
  if (QelBuffer* b = v) {
    if (b->size() == 4) return call.result(QelValue(static_cast<double>(floatFromBits(b->getDW(0)))));
    if (b->size() == 8) return call.result(QelValue(doubleFromBits(*b)));
  }
  return call.fail(kMsgInvalidArgumentType);
}

bool QelDefaultFunctions::Qel_string(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  const QelValue& v = call[1];
  switch (v.getType()) {
    case QVT_INTEGER:
      return call.result(newString(QelString::format(u"%ld", v.toLong())));
    case QVT_FLOAT:
    case QVT_DOUBLE:
      return call.result(newString(QelString::format(u"%f", v.toDouble())));
    case QVT_STRING:
    case QVT_STRINGREF:
      // The same string value, not a copy.
      return call.result(QelValue(v));
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF: {
      QelCharBuffer* b = v;
      if (!b) break;
      return call.result(newString(QelString(b->data(), b->size())));
    }
    case QVT_OBJECT:
    case QVT_OBJECTREF:
      return stringOfObject(call);
    default:
      break;
  }
  return call.fail(kMsgInvalidArgumentType);
}

bool QelDefaultFunctions::Qel_buffer(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  const QelValue& v = call[1];
  switch (v.getType()) {
    case QVT_INTEGER:
      return call.result(wordBuffer(v.toLong()));
    case QVT_FLOAT:
      // The float's value, truncated, is stored (not its bits): "float" reads a 4-byte
      // buffer as bits, deliberately asymmetric.
      return call.result(wordBuffer(v.toLong()));
    case QVT_DOUBLE:
      return call.result(doubleBuffer(v.toDouble()));
    case QVT_BUFFER:
    case QVT_BUFFERREF:
      if (static_cast<QelBuffer*>(v)) return call.result(QelValue(v));
      break;
    default:
      break;
  }
  return call.fail(kMsgInvalidArgumentType);
}

bool QelDefaultFunctions::Qel_gettypename(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  // A number outside the table names no type.
  if (!call.isInteger(1) || call.integer(1) < 0 || call.integer(1) >= QVT_TYPE_COUNT) {
    return call.fail(kMsgInvalidArgumentType);
  }
  return call.result(newString(getValueTypeName(static_cast<QelValueType>(call.integer(1)))));
}

bool QelDefaultFunctions::Qel_gettype(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  return call.result(QelValue(static_cast<int32_t>(call.typeOf(1))));
}

bool QelDefaultFunctions::Qel_getclassname(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelObject* obj = call[1];
  QelClass* cls = obj ? obj->getClass() : nullptr;
  if (!cls) return call.fail(kMsgInvalidArgumentType);
  // A copy: editing the result leaves the class's name alone.
  return call.result(newString(cls->nameText()));
}

bool QelDefaultFunctions::Qel_dynamic_cast(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelClass* target = call[1];
  if (!target && call[1].isString()) {
    QelDictionaryEntry* entry = vm->classes().find(textOf(call[1]));
    if (entry) target = entry->getValue();
  }
  if (!target) return call.fail(kMsgNotAClass);
  QelObject* obj = call[2];
  QelClass* cls = obj ? obj->getClass() : nullptr;
  if (cls && cls->isSubtypeOf(target)) return call.result(QelValue(call[2]));
  return call.none();
}
