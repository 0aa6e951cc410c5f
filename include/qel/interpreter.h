// The interpreter: the value stack, activation records and the dispatch loop.
//
// QelInterpreter is itself the value stack (a QelVector); SP is a cursor on it. Each
// running procedure has an activation record (QelProcInfo) with its frame slot BP
// (the called value; arguments at BP+1..BP+nargs) and its temporaries base FP. Runtime
// errors append a line to `errors()` and make every enclosing call answer false.
#pragma once

#include <atomic>

#include "qel/buffer.h"
#include "qel/opcodes.h"
#include "qel/vm.h"

class QelDebugger;
struct QelCallFrames;

// The activation record of one running procedure. Records live as long as the call
// that made them and link to the caller's record through `parent`.
class QEL_API QelProcInfo {
 public:
  QelProcInfo(QelVector* proc, ValPtr bp, ValPtr fp, int nargs)
      : proc_(proc), bp_(bp), fp_(fp), nargs_(nargs), parent_(nullptr), detached_(false) {}
  QelProcInfo(const QelProcInfo& p) = default;

  QelValue& operator[](unsigned int i) const { return (*proc_)[i]; }
  // The code bytes, or null when element 0 is not a buffer.
  operator unsigned char*() const;
  QelVector* procedure() const { return proc_; }
  int getNargs() const { return nargs_; }
  // The procedure's name, or "<unnamed>".
  const QelChar* getName() const;
  ValPtr& bp() { return bp_; }
  ValPtr& fp() { return fp_; }
  QelProcInfo* getCaller() const { return detached_ ? nullptr : parent_; }
  QelProcInfo* getParent() const { return parent_; }
  void setParent(QelProcInfo* p) { parent_ = p; }
  void setDetached(bool d) { detached_ = d; }

 private:
  QelVector* proc_;
  ValPtr bp_;
  ValPtr fp_;
  int nargs_;
  QelProcInfo* parent_;
  bool detached_;
};

class QEL_API QelInterpreter : public QelVector {
 public:
  explicit QelInterpreter(QelVirtualMachine& vm);
  ~QelInterpreter() override;

  QelVirtualMachine& getVirtualMachine() { return vm_; }
  QelProcInfo* getProcInfo() { return proc_; }
  QelString& errors() { return errors_; }
  ValPtr& sp() { return SP; }
  QelDebugger* getDebugger() { return debugger_; }
  bool getTrace() const { return trace_; }
  bool getStep() const { return step_; }

  void setDebugger(QelDebugger* debugger);
  // One nil slot with SP on it; errors cleared.
  void reset();
  // Runs the named procedure with string arguments; the result is left at SP.
  bool execute(const QelChar* name, int argc, const QelChar** argv);
  // Runs a procedure whose nargs arguments lie on the stack up to SP.
  bool call(int nargs, QelVector* byteCode);

  // Sends a message to the object at SP-n (name null: the name is at SP-n+1).
  bool send(int n, const QelChar* name);
  bool checkType(const QelValue& v, QelValueType expected);
  bool badType(QelValueType actual, QelValueType expected);
  bool noMethod(const QelChar* name);
  bool returnError(const QelChar* message, const QelChar* detail);
  // The string a value stands for, calling its "toString" when it is an object.
  QelString* getStringFromValue(QelValue& v);

  // The calls that were active where the last failure happened, innermost first. A
  // failure is noted call by call as it travels outwards; one whose caller goes on
  // anyway (a destructor's, for instance) is forgotten again.
  const std::vector<QelTraceFrame>& traceback() const { return traceback_; }
  struct FailureMark {
    size_t frames;
    bool unwinding;
  };
  FailureMark failureMark() const { return {traceback_.size(), unwinding_}; }
  // Forgets what a failure noted since `mark`: the caller went on.
  void forgetFailure(const FailureMark& mark);

  // The default deepest nesting of script calls before "stack overflow".
  static const int kMaxCallDepth;
  // Deepest nesting of calls that run on the native stack (sends from operators and
  // natives, calls from natives), whatever the machine's call depth allows.
  static const int kMaxNativeDepth;

  ValPtr SP;

 private:
  bool enterProc(QelProcInfo& record);
  void leaveProc(QelProcInfo& record);
  bool run(QelProcInfo& record, QelBuffer& code);
  void dropFrames();
  bool callValue(int n);
  // A "BC_" name sends to the base class of the member that sends it.
  static bool isBaseCallName(const QelChar* m) { return m[0] == 'B' && m[1] == 'C' && m[2] == '_'; }
  QelClass* baseCallOwner(const QelChar* method, const QelClass* receiverClass) const;
  bool missingMethod(const QelChar* method);
  // Ends a send whose receiver stood at `receiver`: the result takes its slot and the
  // stack ends there, whether the method succeeded or failed.
  void endSend(int receiver);

  bool binaryPrologue(const QelChar* name, const QelChar* reflected, bool& handled);
  bool doOP_ADD();
  bool doOP_SUB();
  bool doOP_MUL();
  bool doOP_DIV();
  bool doOP_REM();
  bool doOP_BAND();
  bool doOP_BOR();
  bool doOP_XOR();
  bool doOP_BNOT();
  bool doOP_SHL();
  bool doOP_SHR();
  bool doOP_NEG();
  bool doOP_INCDEC(int delta);
  bool doCompare();
  bool doOP_VREF();
  bool doOP_VSET();
  bool doOP_MKREF();
  bool doOP_DELETE();
  bool doOP_NEW();
  bool numericBinary(int op);
  bool bitwiseBinary(int op);
  void popTo(int slot);
  // Notes a failing script call standing at `pc`, or a failing native.
  void noteProcedure(QelVector* proc, uint32_t pc);
  void noteNative(const QelChar* className, const QelChar* name);
  void noteFrame(QelTraceFrame&& frame);
  const QelChar* nativeName(QelNativeFunction fn);

  QelDictionary& classes_;
  QelDictionary& symbols_;
  IQelPrinter& printer_;
  QelVirtualMachine& vm_;
  QelString errors_;
  QelProcInfo* proc_;
  QelDebugger* debugger_;
  bool trace_;
  bool step_;
  int depth_;
  QelCallFrames* frames_ = nullptr;  // callers waiting in the dispatch loop
  std::vector<QelTraceFrame> traceback_;
  bool unwinding_ = false;  // a failure is on its way out and being noted
  // The machine's limits, taken when the interpreter is made.
  int maxDepth_;
  int nativeDepth_ = 0;       // runs of the dispatch loop nested on the native stack
  bool counting_;             // an instruction limit is set
  uint64_t budget_;           // instructions this execution may still run
  std::atomic<bool>& interrupt_;
};
