// The debugger: the listing of compiled procedures and the trace of running ones.
//
// decodeProcedure prints one line per instruction with its operand; traceInstruction
// prints the instruction about to run with the stack values it will use. A host may
// derive from QelDebugger and replace either.
#pragma once

#include "qel/interpreter.h"

class QEL_API QelDebugger {
 public:
  QelDebugger(QelVirtualMachine& vm, IQelPrinter* printer);
  virtual ~QelDebugger() {}

  virtual void decodeProcedure(QelVector* procedure);
  virtual void traceInstruction(ValPtr sp, ValPtr bp, ValPtr fp, unsigned char width, unsigned char* code,
                                unsigned int pc);
  virtual const QelChar* getOpCodeName(QelOpCode op) const;

  void setInterpreter(QelInterpreter* interpreter) { interpreter_ = interpreter; }
  // Prints "-->current proc ..." when a record is given.
  void setCurrentProc(QelProcInfo* proc);
  bool getTrace() const { return trace_; }
  void setTrace(bool trace) { trace_ = trace; }

 protected:
  void printValue(const QelValue& v, bool brief);
  IQelPrinter& out() { return *printer_; }

 private:
  void printOperand(uint8_t op, uint32_t operand);
  void traceOperands(uint8_t op, uint32_t operand, ValPtr& sp, ValPtr& bp, ValPtr& fp, uint32_t target);
  void printLabeled(const QelChar* label, const QelValue& v, bool brief);

  bool trace_;
  QelInterpreter* interpreter_;
  QelProcInfo* proc_;
  QelVirtualMachine& vm_;
  IQelPrinter* printer_;
};
