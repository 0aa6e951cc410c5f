// The calling convention of the built-ins, in one place.
//
// A built-in wraps its (vm, nargs, args) in a BuiltinCall, checks the count first
// (`arity`), then the types through the typed readers, and ends with `result` (the
// value replaces the call slot below argument 1 and the arguments are popped),
// `none` (a null result) or `fail` (the message goes to the interpreter's error text
// and the stack stays as it was).
//
// Argument references point into the interpreter's stack: a built-in that runs
// script code (a send, a compilation) copies what it still needs first, since the
// stack may move.
#pragma once

#include <cstdio>

#include "exec/messages.h"
#include "qel/builtins.h"
#include "qel/interpreter.h"

namespace qel {

class BuiltinCall {
 public:
  // No upper limit on the argument count.
  static const int kAny = -1;

  BuiltinCall(QelVirtualMachine* vm, int nargs, ValPtr& args) : vm_(vm), nargs_(nargs), args_(args) {}

  QelVirtualMachine& vm() const { return *vm_; }
  QelInterpreter* interpreter() const { return vm_ ? vm_->interpreter() : nullptr; }
  int count() const { return nargs_; }

  // "too few arguments" below min, "too many arguments" above max (kAny: no limit).
  bool arity(int min, int max);
  // Appends message, detail and a line end to the error text; answers false.
  bool fail(const QelChar* message, const QelChar* detail = nullptr);
  // The result replaces the call slot; the cursor moves there. Answers true.
  bool result(QelValue value);
  // A null result.
  bool none() { return result(QelValue()); }

  // Argument k (1-based, in script order); a shared nil outside the stack.
  const QelValue& operator[](int k) const { return args_.at(k - nargs_); }
  // The call slot below argument 1 (it held the called function).
  const QelValue& callSlot() const { return args_.at(-nargs_); }
  QelValueType typeOf(int k) const { return (*this)[k].getType(); }
  bool isInteger(int k) const { return typeOf(k) == QVT_INTEGER; }
  int32_t integer(int k) const { return (*this)[k].toLong(); }
  // The string of a QVT_STRING or QVT_STRINGREF argument with a string, else null.
  QelString* string(int k) const { return (*this)[k]; }
  // The stream of a QVT_FILE argument, else null; null too for a stream already closed.
  FILE* stream(int k) const;
  // The cursor the built-in was called with, for passing the arguments on.
  ValPtr& cursor() const { return args_; }

 private:
  QelVirtualMachine* vm_;
  int nargs_;
  ValPtr& args_;
};

// The guard of the system group: false for a null machine; without a run in progress,
// "missing interpreter\n" through the machine's printer and false.
bool systemReady(QelVirtualMachine* vm);

}  // namespace qel
