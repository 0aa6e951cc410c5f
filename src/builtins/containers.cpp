// The container built-ins: constructors of vectors, strings, buffers, character
// buffers and dictionaries, the size queries and the dictionary operations.
//
// A constructor that is asked for more than kMaxBlockBytes of storage (a negative
// count reads as a huge one) treats the request as a failed allocation: the result
// then holds a null reference, and a vector stays empty, as its own failed
// allocation leaves it.
#include <cstring>

#include "builtins/args.h"
#include "qel/buffer.h"
#include "qel/dictionary.h"
#include "qel/platform.h"

using namespace qel;

namespace {

const uint64_t kMaxBlockBytes = uint64_t(1) << 30;

bool withinLimit(uint32_t count, size_t elementSize) {
  return uint64_t(count) * elementSize <= kMaxBlockBytes;
}

// Where a buffer constructor takes its contents from.
enum class Source { kCount, kString, kChars, kBytes, kNone };

Source sourceOf(QelValueType type) {
  switch (type) {
    case QVT_INTEGER:
      return Source::kCount;
    case QVT_STRING:
    case QVT_STRINGREF:
      return Source::kString;
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF:
      return Source::kChars;
    case QVT_BUFFER:
    case QVT_BUFFERREF:
      return Source::kBytes;
    default:
      return Source::kNone;
  }
}

// The fill element of a count-made buffer: argument 2 as integer, or 0.
int32_t fillValue(const BuiltinCall& call) { return call.count() >= 2 ? call.integer(2) : 0; }

// ---- newstring ----

// Argument 1 copies of argument 2's character, a blank by default.
bool repeatedCharacter(BuiltinCall& call) {
  if (!call.arity(1, 2)) return false;
  int32_t count = call.integer(1);
  QelChar c = call.count() == 2 ? static_cast<QelChar>(call.integer(2)) : u' ';
  if (count <= 0) return call.result(QelValue(new QelString()));
  if (!withinLimit(static_cast<uint32_t>(count) + 1, sizeof(QelChar))) {
    return call.result(QelValue(static_cast<QelString*>(nullptr)));
  }
  unsigned int n = static_cast<unsigned int>(count);
  QelChar* block = static_cast<QelChar*>(allocmem((n + 1) * sizeof(QelChar)));
  for (unsigned int i = 0; i < n; ++i) block[i] = c;
  block[n] = 0;
  return call.result(QelValue(new QelString(QelString::adopt(block))));
}

// A copy of the string, or the format text applied to the arguments after it.
bool copiedOrFormatted(BuiltinCall& call, const QelValue& first) {
  QelString* s = first;
  if (call.count() == 1) return call.result(QelValue(s ? new QelString(*s) : new QelString()));
  int valuesFrom = call.cursor().current() - call.count() + 2;
  ValPtr values(call.cursor().vector(), valuesFrom);
  unsigned int count = static_cast<unsigned int>(call.count() - 1);
  return call.result(QelValue(new QelString(s ? s->c_str() : nullptr, count, values)));
}

bool stringOfChars(BuiltinCall& call) {
  if (!call.arity(1, 1)) return false;
  QelCharBuffer* b = call[1];
  if (!b || b->size() == 0) return call.result(QelValue(new QelString()));
  return call.result(QelValue(new QelString(b->data(), b->size())));
}

// One character per byte, each byte widened.
bool stringOfBytes(BuiltinCall& call) {
  if (!call.arity(1, 1)) return false;
  QelBuffer* b = call[1];
  if (!b || b->size() == 0) return call.result(QelValue(new QelString()));
  unsigned int n = b->size();
  QelChar* block = static_cast<QelChar*>(allocmem((n + 1) * sizeof(QelChar)));
  for (unsigned int i = 0; i < n; ++i) block[i] = (*b)[i];
  block[n] = 0;
  return call.result(QelValue(new QelString(QelString::adopt(block))));
}

// ---- newbuffer and newcbuffer ----

QelBuffer* bytesOfCount(const BuiltinCall& call) {
  uint32_t n = static_cast<uint32_t>(call.integer(1));
  if (!withinLimit(n, 1)) return nullptr;
  QelBuffer* b = new QelBuffer(n);
  b->setSize(n);
  if (n) memset(b->data(), static_cast<unsigned char>(fillValue(call)), n);
  return b;
}

// The low byte of every character up to and including the terminator, then one more
// zero: the doubled terminator is deliberate.
QelBuffer* bytesOfString(const QelString* s) {
  if (!s) return new QelBuffer();
  unsigned int len = s->length();
  QelBuffer* b = new QelBuffer(len + 2);
  const QelChar* text = s->c_str();
  for (unsigned int i = 0; i <= len; ++i) b->push_back(static_cast<unsigned char>(text[i]));
  b->push_back(0);
  return b;
}

QelBuffer* bytesOfChars(const QelCharBuffer* cb) {
  if (!cb) return new QelBuffer();
  QelBuffer* b = new QelBuffer(cb->size());
  for (unsigned int i = 0; i < cb->size(); ++i) b->push_back(static_cast<unsigned char>((*cb)[i]));
  return b;
}

QelBuffer* makeBuffer(const BuiltinCall& call, Source from) {
  switch (from) {
    case Source::kCount:
      return bytesOfCount(call);
    case Source::kString:
      return bytesOfString(call.string(1));
    case Source::kChars:
      return bytesOfChars(call[1]);
    case Source::kBytes: {
      QelBuffer* src = call[1];
      return src ? new QelBuffer(*src) : new QelBuffer();
    }
    default:
      return nullptr;
  }
}

QelCharBuffer* charsOfCount(const BuiltinCall& call) {
  uint32_t n = static_cast<uint32_t>(call.integer(1));
  if (!withinLimit(n, sizeof(QelChar))) return nullptr;
  QelChar c = static_cast<QelChar>(fillValue(call));
  QelCharBuffer* b = new QelCharBuffer(n);
  for (uint32_t i = 0; i < n; ++i) b->push_back(c);
  return b;
}

// Every character up to and including the terminator, then one more zero: the doubled
// terminator is deliberate, as for byte buffers.
QelCharBuffer* charsOfString(const QelString* s) {
  if (!s) return new QelCharBuffer();
  unsigned int len = s->length();
  QelCharBuffer* b = new QelCharBuffer(len + 2);
  b->append(s->c_str(), len + 1);
  b->push_back(0);
  return b;
}

// Appends each byte of `bytes`, widened.
void appendWidened(QelCharBuffer& to, const QelBuffer& bytes) {
  for (unsigned int i = 0; i < bytes.size(); ++i) to.push_back(bytes[i]);
}

QelCharBuffer* makeCharBuffer(const BuiltinCall& call, Source from) {
  switch (from) {
    case Source::kCount:
      return charsOfCount(call);
    case Source::kString:
      return charsOfString(call.string(1));
    case Source::kChars: {
      QelCharBuffer* src = call[1];
      return src ? new QelCharBuffer(*src) : new QelCharBuffer();
    }
    case Source::kBytes: {
      QelBuffer* src = call[1];
      QelCharBuffer* b = new QelCharBuffer(src ? src->size() : 0);
      if (src) appendWidened(*b, *src);
      return b;
    }
    default:
      return nullptr;
  }
}

// ---- CBuf ----

// Integers add one character, strings their text, character buffers their contents,
// buffers their bytes widened; anything else adds nothing.
void appendValue(QelCharBuffer& to, const QelValue& v) {
  switch (v.getType()) {
    case QVT_INTEGER:
      to.push_back(static_cast<QelChar>(v.toLong()));
      break;
    case QVT_STRING:
    case QVT_STRINGREF:
      if (QelString* s = v) to.append(s->c_str(), s->length());
      break;
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF:
      if (QelCharBuffer* b = v) to.append(b->data(), b->size());
      break;
    case QVT_BUFFER:
    case QVT_BUFFERREF:
      if (QelBuffer* b = v) appendWidened(to, *b);
      break;
    default:
      break;
  }
}

// The dictionary of argument 1, or null.
QelDictionary* dictionaryArg(const BuiltinCall& call) { return call[1]; }

}  // namespace

// ---- Constructors ----

bool QelDefaultFunctions::Qel_newvector(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 2)) return false;
  if (nargs == 0) return call.result(QelValue(new QelVector()));
  uint32_t n = static_cast<uint32_t>(call.integer(1));
  // One argument only reserves room: newvector(5) is empty, deliberately.
  bool setSize = nargs == 2 && call.integer(2) != 0;
  if (!withinLimit(n, sizeof(QelValue))) return call.result(QelValue(new QelVector()));
  return call.result(QelValue(new QelVector(n, setSize)));
}

bool QelDefaultFunctions::Qel_newstring(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, BuiltinCall::kAny)) return false;
  const QelValue& first = call[1];
  switch (sourceOf(first.getType())) {
    case Source::kCount:
      return repeatedCharacter(call);
    case Source::kString:
      return copiedOrFormatted(call, first);
    case Source::kChars:
      return stringOfChars(call);
    case Source::kBytes:
      return stringOfBytes(call);
    default:
      return call.fail(kMsgInvalidValueType);
  }
}

bool QelDefaultFunctions::Qel_newbuffer(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 2)) return false;
  Source from = sourceOf(call.typeOf(1));
  if (from == Source::kNone) return call.fail(kMsgInvalidValueType);
  return call.result(QelValue(makeBuffer(call, from)));
}

bool QelDefaultFunctions::Qel_newcbuffer(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 2)) return false;
  // The branch follows the call slot's type, not argument 1's, deliberately: called as
  // usual the slot holds the function itself, and the call reports a type error.
  Source from = sourceOf(call.callSlot().getType());
  if (from == Source::kNone) return call.fail(kMsgInvalidArgumentType);
  return call.result(QelValue(makeCharBuffer(call, from)));
}

bool QelDefaultFunctions::Qel_T(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, BuiltinCall::kAny)) return false;
  QelVector* v = new QelVector(static_cast<unsigned int>(nargs), false);
  for (int k = 1; k <= nargs; ++k) v->push_back(call[k]);
  return call.result(QelValue(v));
}

// A second name for "T".
bool QelDefaultFunctions::Qel_Vec(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return Qel_T(vm, nargs, args);
}

bool QelDefaultFunctions::Qel_CBuf(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, BuiltinCall::kAny)) return false;
  QelCharBuffer* b = new QelCharBuffer(static_cast<unsigned int>(nargs));
  for (int k = 1; k <= nargs; ++k) appendValue(*b, call[k]);
  return call.result(QelValue(b));
}

bool QelDefaultFunctions::Qel_newdict(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 1)) return false;
  bool sorted = nargs == 1 && call.integer(1) != 0;
  return call.result(QelValue(new QelDictionary(sorted)));
}

// ---- Sizes ----

bool QelDefaultFunctions::Qel_vecsize(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelVector* v = call[1];
  if (!v) return call.fail(kMsgInvalidArgumentType);
  return call.result(QelValue(static_cast<int32_t>(v->size())));
}

bool QelDefaultFunctions::Qel_size(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  const QelValue& v = call[1];
  uint32_t n;
  if (QelVector* vec = v) {
    n = vec->size();
  } else if (QelBuffer* b = v) {
    n = b->size();
  } else if (QelCharBuffer* cb = v) {
    n = cb->size();
  } else if (QelDictionary* d = v) {
    n = d->count();
  } else {
    return call.fail(kMsgInvalidArgumentType);
  }
  return call.result(QelValue(static_cast<int32_t>(n)));
}

// ---- Dictionaries ----

bool QelDefaultFunctions::Qel_dictcontains(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelDictionary* d = dictionaryArg(call);
  QelString* key = call.string(2);
  if (!d || !key) return call.fail(kMsgInvalidArgumentType);
  return call.result(QelValue(static_cast<int32_t>(d->find(*key) != nullptr)));
}

bool QelDefaultFunctions::Qel_dicterase(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelDictionary* d = dictionaryArg(call);
  QelString* key = call.string(2);
  if (!d || !key) return call.fail(kMsgInvalidArgumentType);
  // The erased value may end an object whose destructor drops the dictionary.
  QelValue keep(d);
  return call.result(QelValue(static_cast<int32_t>(d->erase(*key))));
}

bool QelDefaultFunctions::Qel_dictclear(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelDictionary* d = dictionaryArg(call);
  if (!d) return call.fail(kMsgInvalidArgumentType);
  QelValue keep(d);
  d->clear();
  return call.none();
}

bool QelDefaultFunctions::Qel_dictgetkeys(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelDictionary* d = dictionaryArg(call);
  if (!d) return call.fail(kMsgInvalidArgumentType);
  QelVector* keys = new QelVector(d->count(), false);
  for (QelDictionaryEntry* e = d->getFirst(); e; e = e->getNext()) {
    QelString* key = e->getKey();
    keys->push_back(QelValue(key ? new QelString(*key) : new QelString()));
  }
  return call.result(QelValue(keys));
}

bool QelDefaultFunctions::Qel_dictgetvalues(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelDictionary* d = dictionaryArg(call);
  if (!d) return call.fail(kMsgInvalidArgumentType);
  QelVector* values = new QelVector(d->count(), false);
  for (QelDictionaryEntry* e = d->getFirst(); e; e = e->getNext()) values->push_back(e->getValue());
  return call.result(QelValue(values));
}
