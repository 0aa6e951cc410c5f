// The interpreter: activation records, the dispatch loop, calls and method sends.
#include "qel/interpreter.h"

#include "exec/messages.h"
#include "qel/debugger.h"
#include "qel/lines.h"

const int QelInterpreter::kMaxCallDepth = 2000;
const int QelInterpreter::kMaxNativeDepth = 2000;

namespace {

using namespace qel;

bool isCodeBuffer(const QelValue& v) {
  QelBuffer* b = v;
  return b && b->size() > 0;
}

// A procedure: at least code, class and name, and element 0 a buffer with data.
bool isProcedure(const QelVector* proc) { return proc && proc->size() > 2 && isCodeBuffer((*proc)[0]); }

}  // namespace

// ---- Activation records ----

QelProcInfo::operator unsigned char*() const {
  QelBuffer* code = (*proc_)[0];
  return code ? code->data() : nullptr;
}

const QelChar* QelProcInfo::getName() const {
  if (proc_->size() > 2) {
    if (QelString* s = (*proc_)[2]) return s->c_str();
  }
  return u"<unnamed>";
}

// ---- Construction and state ----

QelInterpreter::QelInterpreter(QelVirtualMachine& vm)
    : classes_(vm.classes()),
      symbols_(vm.symbols()),
      printer_(vm.printer()),
      vm_(vm),
      proc_(nullptr),
      debugger_(nullptr),
      trace_(false),
      step_(false),
      depth_(0),
      maxDepth_(vm.getMaxCallDepth()),
      counting_(vm.getInstructionLimit() != 0),
      budget_(vm.getInstructionLimit()),
      interrupt_(vm.interruptFlag()) {
  addRef();  // values that refer to the stack never free it
  reset();
}

QelInterpreter::~QelInterpreter() {
  proc_ = nullptr;
  clear();
  dropFrames();
}

void QelInterpreter::setDebugger(QelDebugger* debugger) {
  if (debugger == debugger_) return;
  if (debugger_) {
    debugger_->setInterpreter(nullptr);
    debugger_->setCurrentProc(nullptr);
    trace_ = false;
    step_ = false;
  }
  debugger_ = debugger;
  if (debugger_) {
    debugger_->setInterpreter(this);
    debugger_->setCurrentProc(nullptr);
    trace_ = debugger_->getTrace();
  }
}

void QelInterpreter::reset() {
  clear();
  SP = ValPtr(this, -1);
  ++SP;  // grows the empty stack by its one nil slot
  errors_.clear();
  traceback_.clear();
  unwinding_ = false;
}

bool QelInterpreter::execute(const QelChar* name, int argc, const QelChar** argv) {
  reset();
  if (!name) return false;
  QelDictionaryEntry* entry = symbols_.find(name);
  if (!entry) return false;
  for (int i = 0; i < argc; ++i) {
    push_back(QelValue(new QelString(argv ? argv[i] : nullptr), false));
  }
  SP = last();
  QelValue callee(entry->getValue());
  switch (callee.getType()) {
    case QVT_CODE:
      if (static_cast<QelNativeFunction>(callee)(&vm_, argc, SP)) return true;
      noteNative(nullptr, entry->getKey()->c_str());
      return false;
    case QVT_BYTECODE:
    case QVT_BYTECODEREF:
      return call(argc, callee);
    default:
      return false;
  }
}

bool QelInterpreter::enterProc(QelProcInfo& record) {
  if (depth_ >= maxDepth_) return returnError(kMsgStackOverflow, nullptr);
  ++depth_;
  record.setParent(proc_);
  proc_ = &record;
  if ((trace_ || step_) && debugger_) debugger_->setCurrentProc(proc_);
  return true;
}

void QelInterpreter::leaveProc(QelProcInfo& record) {
  --depth_;
  proc_ = record.getParent();
  record.setParent(nullptr);
  if ((trace_ || step_) && debugger_) debugger_->setCurrentProc(proc_);
}

bool QelInterpreter::call(int nargs, QelVector* byteCode) {
  QelBuffer* code = isProcedure(byteCode) ? static_cast<QelBuffer*>((*byteCode)[0]) : nullptr;
  if (!code) return returnError(u"no bytecode: ", u"interpret(QelVector* byteCode)\n");
  // The procedure and its code stay alive while they run, even if the script
  // redefines the function meanwhile.
  byteCode->addRef();
  code->addRef();
  int sp = SP.current();
  QelProcInfo record(byteCode, ValPtr(this, sp - nargs), ValPtr(this, sp), nargs);
  bool ok = false;
  if (nativeDepth_ >= kMaxNativeDepth) {
    returnError(kMsgStackOverflow, nullptr);
  } else if (enterProc(record)) {
    ++nativeDepth_;
    ok = run(record, *code);
    --nativeDepth_;
    leaveProc(record);
  }
  code->release();
  byteCode->release();
  return ok;
}

// Pops the stack down to `slot`, which becomes the top and the last element.
void QelInterpreter::popTo(int slot) {
  if (slot < 0) slot = 0;
  while (size() < static_cast<unsigned>(slot) + 1) push_null();
  truncate(static_cast<unsigned>(slot) + 1);
  SP.setIndex(slot);
}

// Runs the value at SP-n with the n values above it as arguments.
bool QelInterpreter::callValue(int n) {
  int frame = SP.current() - n;
  if (frame < 0) return returnError(kMsgStackCorrupted, nullptr);
  // The callee stays in its slot while it runs; a procedure holds itself alive.
  const QelValue& callee = (*this)[frame];
  QelValueType type = callee.getType();
  bool ok;
  switch (type) {
    case QVT_CODE:
    case QVT_CODEREF: {
      QelNativeFunction fn = reinterpret_cast<QelNativeFunction>(callee.ptr());
      if (!fn) return returnError(u"call to non-procedure, type ", getValueTypeName(type));
      ok = fn(&vm_, n, SP);
      if (!ok) noteNative(nullptr, nativeName(fn));
      break;
    }
    case QVT_BYTECODE:
    case QVT_BYTECODEREF:
      ok = call(n, static_cast<QelVector*>(callee.getRef()));
      break;
    case QVT_OBJECT:
    case QVT_OBJECTREF:
      ok = send(n, u"OP_CALL");
      break;
    default:
      return returnError(u"call to non-procedure, type ", getValueTypeName(type));
  }
  if (!ok) return false;
  unwinding_ = false;  // whatever failed inside was dealt with
  int sp = SP.current();
  if (frame < sp) {
    // The slot above is dropped next: the result moves down rather than being copied.
    (*this)[frame] = std::move((*this)[sp]);
    popTo(frame);
  } else if (frame > sp) {
    return returnError(kMsgStackCorrupted, nullptr);
  }
  return true;
}

// ---- Method sends ----

bool QelInterpreter::send(int n, const QelChar* name) {
  int receiver = SP.current() - n;
  const QelValue& recv = SP.at(-n);
  if (!checkType(recv, QVT_OBJECT)) return false;
  QelObject* obj = recv;
  QelClass* cls = obj ? obj->getClass() : nullptr;
  if (!cls) return returnError(u"QelInterpreter::send : object expected\n", nullptr);
  QelValue keepClass(cls, false);

  // The name is read in place: a send allocates nothing.
  QelValue nameHolder;
  const QelChar* method;
  int count;
  if (!name) {
    const QelValue& nameValue = SP.at(1 - n);
    if (!checkType(nameValue, QVT_STRING)) return false;
    nameHolder = nameValue;
    method = static_cast<QelString*>(nameHolder) ? static_cast<QelString*>(nameHolder)->c_str() : u"";
    (*this)[receiver + 1] = (*this)[receiver];
    count = n;
  } else {
    method = name;
    ++SP;
    for (int i = SP.current() - 1; i >= receiver; --i) (*this)[i + 1] = (*this)[i];
    count = n + 1;
  }

  QelDictionaryEntry* entry = nullptr;
  if (QelClass* owner = baseCallOwner(method, cls)) {
    // A "BC_" send from a member of class P runs P's base's member: each destructor
    // of a chain runs once, derived first.
    method += 3;
    cls = owner->getBaseClass();
    if (!cls) return missingMethod(method);
  }
  entry = cls->funcMembers().find(method);
  while (!entry) {
    // "BC_" sends skip to the base classes: a derived destructor reaches its base's.
    if (isBaseCallName(method)) method += 3;
    cls = cls->getBaseClass();
    if (!cls) return missingMethod(method);
    entry = cls->funcMembers().find(method);
  }

  QelValue callee(entry->getValue());
  bool ok;
  switch (callee.getType()) {
    case QVT_CODE:
    case QVT_CODEREF: {
      QelNativeFunction fn = reinterpret_cast<QelNativeFunction>(callee.ptr());
      ok = fn ? fn(&vm_, count, SP) : returnError(method, u" : NULL pointer to native function\n");
      if (!ok) noteNative(cls->nameText(), method);
      break;
    }
    case QVT_BYTECODE:
    case QVT_BYTECODEREF: {
      QelVector* proc = callee;
      ok = proc ? call(count, proc) : returnError(method, u" : NULL pointer to bytecode\n");
      break;
    }
    default:
      // No blank before "has": the message reads as it always has.
      ok = returnError(method, u"has no method implementation\n");
      break;
  }
  if (ok) unwinding_ = false;
  endSend(receiver);
  return ok;
}

void QelInterpreter::endSend(int receiver) {
  if (receiver < 0) return;
  QelValue result(SP.at(0));
  while (size() < static_cast<unsigned>(receiver) + 1) push_null();
  (*this)[receiver] = result;
  popTo(receiver);
}

// The class owning the running procedure when `method` is a "BC_" send from one of
// its members to an object of it (or of a class derived from it); else null.
QelClass* QelInterpreter::baseCallOwner(const QelChar* method, const QelClass* receiverClass) const {
  if (!isBaseCallName(method) || !proc_) return nullptr;
  QelVector* proc = proc_->procedure();
  QelClass* owner = proc && proc->size() > 1 ? static_cast<QelClass*>((*proc)[1]) : nullptr;
  return owner && receiverClass->isSubtypeOf(owner) ? owner : nullptr;
}

// A missing destructor is no error: the send succeeds and nothing runs.
bool QelInterpreter::missingMethod(const QelChar* method) {
  if (qelStrCmp(method, u"dtor") == 0 || qelStrCmp(method, u"BC_dtor") == 0) return true;
  return noMethod(method);
}

// ---- Type checks and errors ----

bool QelInterpreter::checkType(const QelValue& v, QelValueType expected) {
  QelValueType t = v.getType();
  if (t == expected) return true;
  switch (expected) {
    case QVT_CODE:
    case QVT_BYTECODE:
    case QVT_BUFFER:
    case QVT_CHARBUFFER:
    case QVT_CLASS:
    case QVT_OBJECT:
    case QVT_VECTOR:
    case QVT_DICTIONARY:
      // A string reference deliberately does not pass for a string.
      if (t == expected + QVT_REF_OFFSET) return true;
      break;
    default:
      break;
  }
  return badType(t, expected);
}

bool QelInterpreter::badType(QelValueType actual, QelValueType expected) {
  // "&s" is printed as it stands: the one placeholder shows the actual type.
  QelString text = QelString::format(u"invalid value type &s, %s expected", getValueTypeName(actual),
                                     getValueTypeName(expected));
  if (text.length() > 100) text.erase(100, -1);
  return returnError(text.c_str(), nullptr);
}

bool QelInterpreter::noMethod(const QelChar* name) { return returnError(u"no method for name ", name); }

bool QelInterpreter::returnError(const QelChar* message, const QelChar* detail) {
  if (message) errors_ += message;
  if (detail) errors_ += detail;
  errors_ += u'\n';
  return false;
}

QelString* QelInterpreter::getStringFromValue(QelValue& v) {
  if (QelString* s = v) return s;
  QelObject* obj = v;
  QelClass* cls = obj ? obj->getClass() : nullptr;
  if (!cls || !cls->findFunction(u"toString")) return nullptr;
  int saved = SP.current();
  QelValue copy(v);
  SP.setIndex(static_cast<int>(size()) - 1);
  ++SP;
  *SP = copy;
  QelString* result = nullptr;
  FailureMark mark = failureMark();
  if (send(0, u"toString")) {
    result = *SP;
  } else {
    forgetFailure(mark);  // the caller reports what it makes of the missing text
  }
  SP.setIndex(saved);
  return result;
}

// ---- Where failures happened ----

void QelInterpreter::forgetFailure(const FailureMark& mark) {
  if (traceback_.size() > mark.frames) traceback_.resize(mark.frames);
  unwinding_ = mark.unwinding;
}

void QelInterpreter::noteFrame(QelTraceFrame&& frame) {
  if (!unwinding_) {
    // A new failure: what an earlier one noted no longer applies.
    traceback_.clear();
    unwinding_ = true;
  }
  traceback_.push_back(std::move(frame));
}

void QelInterpreter::noteProcedure(QelVector* proc, uint32_t pc) {
  QelTraceFrame frame;
  if (proc && proc->size() > 2) {
    if (QelClass* cls = (*proc)[1]) frame.className = cls->nameText();
    if (QelString* name = (*proc)[2]) frame.name = *name;
  }
  if (frame.name.length() == 0) frame.name = u"<unnamed>";
  QelBuffer* code = proc && proc->size() > 0 ? static_cast<QelBuffer*>((*proc)[0]) : nullptr;
  if (const QelLineTable* lines = code ? code->lines() : nullptr) {
    frame.source = lines->source();
    frame.line = lines->lineAt(pc);
  }
  noteFrame(std::move(frame));
}

void QelInterpreter::noteNative(const QelChar* className, const QelChar* name) {
  QelTraceFrame frame;
  if (className) frame.className = className;
  frame.name = name;
  frame.native = true;
  noteFrame(std::move(frame));
}

// The global name a native function is registered under (looked up only when it fails).
const QelChar* QelInterpreter::nativeName(QelNativeFunction fn) {
  for (QelDictionaryEntry* e = symbols_.getFirst(); e; e = e->getNext()) {
    const QelValue& v = e->getValue();
    if ((v.getType() == QVT_CODE || v.getType() == QVT_CODEREF) && v.ptr() == reinterpret_cast<void*>(fn)) {
      return e->getKey()->c_str();
    }
  }
  return u"<native>";
}
