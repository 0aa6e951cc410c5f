// Writing native functions: the calling convention in one helper.
//
// A native function is `bool f(QelVirtualMachine* vm, int nargs, ValPtr& args)`. Wrap the
// three in a QelNativeCall, check the count first (`arity`), read the arguments by
// position (1-based, in script order) and end with `result` (the value replaces the
// call slot below argument 1), `none` (a null result) or `fail` (a runtime error whose
// message joins the interpreter's error text; the run then fails):
//
//   bool twice(QelVirtualMachine* vm, int nargs, ValPtr& args) {
//     QelNativeCall call(vm, nargs, args);
//     if (!call.arity(1, 1)) return false;
//     if (!call.isInteger(1)) return call.fail(u"integer expected");
//     return call.result(QelValue(2 * call.integer(1)));
//   }
//
// A native method receives its object as argument 1 ("this"), its script arguments after
// it. Argument references point into the interpreter's stack: a native that runs script
// code (a send, a compilation) copies what it still needs first, since the stack may move.
#pragma once

#include <cstdio>

#include "qel/interpreter.h"

class QEL_API QelNativeCall {
 public:
  // No upper limit on the argument count.
  static const int kAny = -1;

  QelNativeCall(QelVirtualMachine* vm, int nargs, ValPtr& args) : vm_(vm), nargs_(nargs), args_(args) {}

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

  // Argument k; a shared nil outside the stack.
  const QelValue& operator[](int k) const { return args_.at(k - nargs_); }
  // The call slot below argument 1 (it held the called function).
  const QelValue& callSlot() const { return args_.at(-nargs_); }
  QelValueType typeOf(int k) const { return (*this)[k].getType(); }
  bool isInteger(int k) const { return typeOf(k) == QVT_INTEGER; }
  int32_t integer(int k) const { return (*this)[k].toLong(); }
  // The string of a QVT_STRING or QVT_STRINGREF argument with a string, else null.
  QelString* string(int k) const { return (*this)[k]; }
  // The object of a QVT_OBJECT or QVT_OBJECTREF argument, else null.
  QelObject* object(int k) const { return (*this)[k]; }
  // The stream of a QVT_FILE argument, else null; null too for a stream already closed.
  FILE* stream(int k) const;
  // The cursor the native was called with, for passing the arguments on.
  ValPtr& cursor() const { return args_; }

 private:
  QelVirtualMachine* vm_;
  int nargs_;
  ValPtr& args_;
};
