// The string built-ins. Argument 1 is always a string; "strerase", "strinsert" and
// "strreplace" edit it in place and answer that same string, while "substr" and
// "strsplit" make new strings.
#include <utility>

#include "builtins/args.h"

using namespace qel;

namespace {

// Argument 1's string, or null after reporting "string expected".
QelString* firstString(BuiltinCall& call) {
  QelString* s = call.string(1);
  if (!s) call.fail(kMsgStringExpected);
  return s;
}

// Argument k when it is a string value; a string value without a string reads as "".
const QelString& textOf(const BuiltinCall& call, int k) {
  static const QelString empty;
  QelString* s = call.string(k);
  return s ? *s : empty;
}

// Argument k as integer, or `absent` when there is no argument k.
int32_t optionalInteger(const BuiltinCall& call, int k, int32_t absent) {
  return call.count() >= k ? call.integer(k) : absent;
}

// The answer of the editing functions: the edited string itself, counted once more.
bool sameString(BuiltinCall& call, QelString* s) { return call.result(QelValue(s)); }

bool isSeparator(QelChar c, const QelChar* separators) {
  for (; *separators; ++separators) {
    if (*separators == c) return true;
  }
  return false;
}

// The tokens of `text` between runs of separators, each a new string; no empty token.
QelVector* splitText(const QelString& text, const QelChar* separators) {
  QelVector* tokens = new QelVector();
  const QelChar* p = text.c_str();
  while (*p) {
    while (*p && isSeparator(*p, separators)) ++p;
    const QelChar* start = p;
    while (*p && !isSeparator(*p, separators)) ++p;
    if (p > start) tokens->push_back(QelValue(new QelString(start, static_cast<unsigned int>(p - start))));
  }
  tokens->shrink();
  return tokens;
}

}  // namespace

bool QelDefaultFunctions::Qel_strlen(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelString* s = call.string(1);
  if (!s) return call.fail(kMsgInvalidArgumentType);
  return call.result(QelValue(static_cast<int32_t>(s->length())));
}

bool QelDefaultFunctions::Qel_strcmp(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelString* a = call.string(1);
  QelString* b = call.string(2);
  if (!a || !b) return call.fail(kMsgInvalidArgumentType);
  return call.result(QelValue(static_cast<int32_t>(a->compare(*b))));
}

bool QelDefaultFunctions::Qel_stricmp(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelString* a = call.string(1);
  QelString* b = call.string(2);
  if (!a || !b) return call.fail(kMsgInvalidArgumentType);
  return call.result(QelValue(static_cast<int32_t>(a->icompare(*b))));
}

bool QelDefaultFunctions::Qel_strsplit(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelString* s = call.string(1);
  QelString* separators = call.string(2);
  if (!s || !separators) return call.fail(kMsgInvalidArgumentType);
  return call.result(QelValue(splitText(*s, separators->c_str())));
}

bool QelDefaultFunctions::Qel_strfind(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 3)) return false;
  QelString* s = firstString(call);
  if (!s) return false;
  unsigned int start = static_cast<uint32_t>(optionalInteger(call, 3, 0));
  if (call[2].isString()) return call.result(QelValue(s->find(textOf(call, 2), start)));
  QelChar c = static_cast<QelChar>(call.integer(2));
  if (c == 0) return call.fail(kMsgStringOrCharExpected);
  return call.result(QelValue(s->find(c, start)));
}

bool QelDefaultFunctions::Qel_strerase(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 3)) return false;
  QelString* s = firstString(call);
  if (!s) return false;
  s->erase(static_cast<uint32_t>(call.integer(2)), optionalInteger(call, 3, -1));
  return sameString(call, s);
}

bool QelDefaultFunctions::Qel_strinsert(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(3, 4)) return false;
  bool insertsText = call[3].isString();
  // A count goes only with a character.
  if (insertsText && nargs == 4) return call.fail(kMsgTooManyArguments);
  QelString* s = firstString(call);
  if (!s) return false;
  int32_t position = call.integer(2);
  if (position < 0) return call.fail(kMsgInvalidInsertion);
  if (insertsText) {
    s->insert(static_cast<unsigned int>(position), textOf(call, 3));
    return sameString(call, s);
  }
  QelChar c = static_cast<QelChar>(call.integer(3));
  uint32_t count = static_cast<uint32_t>(optionalInteger(call, 4, 1));
  // The characters land where QelString::insert places them, deliberately (not at the
  // position).
  s->insert(static_cast<unsigned int>(position), c, count);
  return sameString(call, s);
}

bool QelDefaultFunctions::Qel_strreplace(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(3, 3)) return false;
  QelString* s = firstString(call);
  if (!s) return false;
  if (call[2].isString()) {
    if (!call.string(3)) return call.fail(kMsgStringExpected);
    s->replace(textOf(call, 2), textOf(call, 3));
  } else {
    s->replace(static_cast<QelChar>(call.integer(2)), static_cast<QelChar>(call.integer(3)));
  }
  return sameString(call, s);
}

bool QelDefaultFunctions::Qel_substr(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 3)) return false;
  QelString* s = firstString(call);
  if (!s) return false;
  int32_t start = call.integer(2);
  if (start < 0) return call.fail(kMsgInvalidStart);
  QelString part = s->substr(static_cast<unsigned int>(start), optionalInteger(call, 3, -1));
  return call.result(QelValue(new QelString(std::move(part))));
}
