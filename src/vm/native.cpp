// The native calling convention: count checks, errors and results.
#include "qel/native.h"

#include "exec/messages.h"
#include "platform/files.h"

using namespace qel;

bool QelNativeCall::arity(int min, int max) {
  if (nargs_ < min) return fail(kMsgTooFewArguments);
  if (max != kAny && nargs_ > max) return fail(kMsgTooManyArguments);
  return true;
}

bool QelNativeCall::fail(const QelChar* message, const QelChar* detail) {
  if (QelInterpreter* interp = interpreter()) return interp->returnError(message, detail);
  return false;
}

bool QelNativeCall::result(QelValue value) {
  QelVector* stack = args_.vector();
  int slot = args_.current() - nargs_;
  if (!stack || slot < 0) return fail(kMsgStackCorrupted);
  while (static_cast<unsigned>(slot) >= stack->size()) stack->push_null();
  // The old slot value may be an object whose destructor runs and moves the stack:
  // the cell is addressed afresh after the value is in place.
  (*stack)[static_cast<unsigned>(slot)] = std::move(value);
  args_.setIndex(slot);
  return true;
}

FILE* QelNativeCall::stream(int k) const {
  FILE* fp = static_cast<FILE*>(static_cast<void*>((*this)[k]));
  return isLiveStream(vm_, fp) ? fp : nullptr;
}
