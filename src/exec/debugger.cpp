// The listing of procedures and the trace of instructions.
#include "qel/debugger.h"

#include <cstdio>

namespace {

const unsigned int kBriefStringChars = 20;

uint32_t readOperand(const unsigned char* p, unsigned int width) {
  if (width == 1) return p[0];
  if (width == 2) return static_cast<uint32_t>(p[0] | (p[1] << 8));
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

unsigned int operandWidth(QelOperandKind kind, unsigned int width) {
  switch (kind) {
    case QOK_NONE:
    case QOK_WIDTH: return 0;
    case QOK_BRANCH: return 4;
    default: return width;
  }
}

unsigned int widthAfter(uint8_t op, unsigned int width) {
  if (op == OP_RBYTE) return 1;
  if (op == OP_RWORD) return 2;
  if (op == OP_RDWORD) return 4;
  return width;
}

const QelChar* classNameOf(const QelValue& v) {
  QelClass* cls = v;
  return cls ? cls->nameText() : u"";
}

// The element shown in place, so the trace never holds a count of its own on what it
// prints; nil past the end.
const QelValue& elementOrNil(const QelVector& v, uint32_t i) {
  static const QelValue kNil;
  return i < v.size() ? v[i] : kNil;
}

bool isBinaryOperator(uint8_t op) {
  return (op >= OP_ADD && op <= OP_XOR) || (op >= OP_SHL && op <= OP_GT) || op == OP_DUP2;
}

}  // namespace

QelDebugger::QelDebugger(QelVirtualMachine& vm, IQelPrinter* printer)
    : trace_(false), interpreter_(nullptr), proc_(nullptr), vm_(vm), printer_(printer ? printer : &vm.printer()) {}

const QelChar* QelDebugger::getOpCodeName(QelOpCode op) const { return qelOpCodeName(op); }

void QelDebugger::setCurrentProc(QelProcInfo* proc) {
  proc_ = proc;
  if (!proc_) return;
  const QelChar* name = proc_->getName();
  out()(u"-->current proc %s::%s, %d arguments\n", classNameOf((*proc_)[1]), name ? name : u"<noname>",
        proc_->getNargs());
}

void QelDebugger::decodeProcedure(QelVector* procedure) {
  if (!procedure || procedure->size() <= 2) return;
  QelBuffer* code = (*procedure)[0];
  if (!code || code->size() == 0) return;
  QelString* name = (*procedure)[2];
  out()(u"%s::%s (%u bytes)\n", classNameOf((*procedure)[1]), name ? name->c_str() : u"<unnamed>", code->size());
  const unsigned char* bytes = code->data();
  unsigned int size = code->size();
  unsigned int width = 1;
  for (unsigned int pc = 0; pc < size;) {
    uint8_t op = bytes[pc];
    out()(u"%04x: %02x %9s ", pc, op, getOpCodeName(static_cast<QelOpCode>(op)));
    QelOperandKind kind = qelOperandKind(op);
    unsigned int n = operandWidth(kind, width);
    if (pc + 1 + n > size) {
      out()(u"\n");
      break;  // an operand cut off by the end of the code
    }
    if (n) printOperand(op, readOperand(bytes + pc + 1, n));
    out()(u"\n");
    width = widthAfter(op, width);
    pc += 1 + n;
  }
}

void QelDebugger::printOperand(uint8_t op, uint32_t operand) {
  int value = static_cast<int>(operand);
  switch (qelOperandKind(op)) {
    case QOK_BRANCH: out()(u"%04x ", operand); break;
    case QOK_LIT: out()(u"lit[%d] ", value); break;
    case QOK_ARGS: out()(u"(%d arguments) ", value); break;
    case QOK_VAR: out()(u"var[%d] ", value); break;
    case QOK_MEMBER: out()(u"member[%d] ", value); break;
    case QOK_ARG: out()(u"arg[%d] ", value); break;
    case QOK_TMP: out()(u"tmp[%d] ", value); break;
    case QOK_COUNT: out()(u"%d ", value); break;
    default: break;
  }
}

void QelDebugger::printValue(const QelValue& v, bool brief) {
  QelValueType t = v.getType();
  out()(u"%s ", getValueTypeName(t));
  switch (t) {
    case QVT_INTEGER:
      out()(u"%ld ", v.toLong());
      return;
    case QVT_FLOAT:
    case QVT_DOUBLE:
      out()(u"%f ", v.toDouble());
      return;
    case QVT_FILE:
      if (v.ptr() == stdin) out()(u"stdin ");
      else if (v.ptr() == stdout) out()(u"stdout ");
      else if (v.ptr() == stderr) out()(u"stderr ");
      else out()(u"%p", v.ptr());
      return;
    case QVT_CODE:
    case QVT_CODEREF:
    case QVT_VAR:
      out()(u"%p ", v.ptr());
      break;
    case QVT_NULL:
      return;
    default: {
      QelRefObject* obj = v.getRef();
      if (brief) out()(u"%p ", v.ptr());
      else out()(u"%p (#%d) ", v.ptr(), obj ? obj->getRefCnt() : 0);
      break;
    }
  }
  if (brief || !v.ptr()) return;
  switch (t) {
    case QVT_CLASS:
    case QVT_CLASSREF:
      out()(u"(%s) ", classNameOf(v));
      break;
    case QVT_OBJECT:
    case QVT_OBJECTREF: {
      QelObject* obj = v;
      out()(u"(class %s) ", obj->getClass() ? obj->getClass()->nameText() : u"");
      break;
    }
    case QVT_STRING:
    case QVT_STRINGREF: {
      QelString* s = v;
      // The short form has no opening parenthesis; the long one has.
      if (s->length() <= kBriefStringChars) out()(u"\"%s\") ", s->c_str());
      else out()(u"(\"%s...\") ", s->substr(0, kBriefStringChars).c_str());
      break;
    }
    case QVT_VAR: {
      QelDictionaryEntry* e = v;
      QelString* key = e->getKey();
      out()(u"(key:%s value:", key ? key->c_str() : u"");
      // A variable may hold a reference to itself: a nested variable prints briefly.
      printValue(e->getValue(), brief || e->getValue().getType() == QVT_VAR);
      out()(u") ");
      break;
    }
    default:
      break;
  }
}

void QelDebugger::printLabeled(const QelChar* label, const QelValue& v, bool brief) {
  out()(u"%s", label);
  printValue(v, brief);
}

void QelDebugger::traceInstruction(ValPtr sp, ValPtr bp, ValPtr fp, unsigned char width, unsigned char* code,
                                   unsigned int pc) {
  if (!code) return;
  uint8_t op = code[pc];
  out()(u"%04x: %02x %9s SP:%04x ", pc, op, getOpCodeName(static_cast<QelOpCode>(op)), sp.current());
  unsigned int codeSize = 0;
  if (proc_) {
    QelBuffer* b = (*proc_)[0];
    codeSize = b ? b->size() : 0;
  }
  unsigned int n = operandWidth(qelOperandKind(op), width);
  uint32_t operand = 0;
  if (n && (!proc_ || pc + 1 + n <= codeSize)) {
    operand = readOperand(code + pc + 1, n);
  } else if (n) {
    out()(u"\n");
    return;  // the operand lies outside the code; the interpreter reports it
  }
  traceOperands(op, operand, sp, bp, fp, operand);
  out()(u"\n");
}

void QelDebugger::traceOperands(uint8_t op, uint32_t operand, ValPtr& sp, ValPtr& bp, ValPtr& fp, uint32_t target) {
  int index = static_cast<int>(operand);
  const QelValue& top = sp.at(0);
  switch (op) {
    case OP_NOP: case OP_PUSH: case OP_NOT: case OP_NEG: case OP_BNOT: case OP_INC: case OP_DEC:
    case OP_RETURN: case OP_DELETE: case OP_MKREF:
      printLabeled(u"SP[0]:", top, false);
      return;
    case OP_NIL: case OP_DUP: case OP_POP:
      printLabeled(u"SP[0]:", top, true);
      return;
    case OP_BRT:
      if (top.toLong() == 0) out()(u"(skip) ");
      else out()(u"%04x ", target);
      printLabeled(u"SP[0]:", top, false);
      return;
    case OP_BRF:
      if (top.toLong() == 0) out()(u"%04x ", target);
      else out()(u"(skip) ");
      printLabeled(u"SP[0]:", top, false);
      return;
    case OP_BR:
      out()(u"%04x", target);
      return;
    case OP_LIT:
      if (proc_) {
        out()(u"LIT[%d]:", index);
        printValue(elementOrNil(*proc_->procedure(), operand), false);
      }
      return;
    case OP_CALL:
      printValue(sp.at(-index), false);
      out()(u"(%d arguments)", index);
      return;
    case OP_REF:
    case OP_SET:
      if (proc_) {
        out()(u"VAR[%d]:", index);
        printValue(elementOrNil(*proc_->procedure(), operand), op == OP_SET);
      }
      if (op == OP_SET) printLabeled(u"SP[0](val):", top, false);
      return;
    case OP_VREF:
      printLabeled(u"SP[-1](src):", sp.at(-1), false);
      printLabeled(u"SP[0](index:)", top, false);  // the colon inside is the trace's own spelling
      return;
    case OP_VSET:
      printLabeled(u"SP[-2](dest):", sp.at(-2), false);
      printLabeled(u"SP[-1](index):", sp.at(-1), false);
      printLabeled(u"SP[0](val):", top, false);
      return;
    case OP_MREF:
    case OP_MSET: {
      const QelValue& obj = bp.at(0);
      printLabeled(u"BP[0](obj):", obj, false);
      QelObject* o = obj;
      if (o && o->getMemberData()) {
        QelVector* members = o->getMemberData();
        out()(u"member[%d]:", index);
        printValue(elementOrNil(*members, operand), op == OP_MSET);
      }
      if (op == OP_MSET) printLabeled(u"SP[0](val):", top, false);
      return;
    }
    case OP_AREF:
    case OP_ASET:
      if (proc_) {
        if (operand >= static_cast<uint32_t>(proc_->getNargs())) {
          out()(u"invalid index %d", index);
        } else {
          out()(u"BP[%d](arg[%d]):", index + 1, index);
          printValue(bp.at(index + 1), op == OP_ASET);
          if (op == OP_ASET) printLabeled(u"SP[0](val):", top, false);
        }
      }
      return;
    case OP_TREF:
    case OP_TSET:
      out()(u"FP[%d](tmp[%d]):", index + 1, index);
      printValue(fp.at(index + 1), op == OP_TSET);
      if (op == OP_TSET) printLabeled(u"SP[0](val):", top, false);
      return;
    case OP_TSPACE:
      out()(u"%d ", index);
      return;
    case OP_SEND:
      out()(u"SP[%d](obj):", -index);
      printValue(sp.at(-index), false);
      out()(u"SP[%d](name):", 1 - index);
      printValue(sp.at(1 - index), false);
      out()(u"(%d arguments)", index);
      return;
    case OP_NEW:
      printLabeled(u"SP[0](class):", top, false);
      return;
    default:
      if (isBinaryOperator(op)) {
        printLabeled(u"SP[-1]:", sp.at(-1), false);
        printLabeled(u"SP[0]:", top, false);
      }
      return;
  }
}
