// The dispatch loop: fetch an opcode, decode its operand, act on the value stack.
//
// SP lives in the interpreter's cursor and every slot is reached through data() at
// the moment of use: releasing a value can run a script destructor that pushes on
// this very stack and moves it, so no slot pointer is held across such a step.
#include "qel/debugger.h"
#include "qel/interpreter.h"

#include "exec/messages.h"

#if defined(__GNUC__)
#define QEL_UNLIKELY(x) __builtin_expect(!!(x), 0)
#else
#define QEL_UNLIKELY(x) (x)
#endif

namespace {

using namespace qel;

const QelValue kNil;

inline uint32_t readDW(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

inline int32_t wrapDiff(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

inline bool relationHolds(uint8_t op, int32_t c) {
  switch (op) {
    case OP_LT: return c < 0;
    case OP_LE: return c <= 0;
    case OP_EQ: return c == 0;
    case OP_NE: return c != 0;
    case OP_GE: return c >= 0;
    default: return c > 0;
  }
}

}  // namespace

bool QelInterpreter::run(QelProcInfo& record, const unsigned char* code, unsigned int codeSize) {
  QelVector& proc = *record.procedure();
  int32_t& sp = SP.indexRef();
  const int bp = record.bp().current();
  int fp = record.fp().current();
  const unsigned int nargs = static_cast<unsigned int>(record.getNargs());
  unsigned int pc = 0;
  unsigned int width = 1;
  uint32_t operand = 0;

#define STACK (data())
#define TOP (data()[sp])
#define FAIL(msg) return returnError(msg, nullptr)
#define ENSURE_SLOT(i)                                                 \
  do {                                                                 \
    if (QEL_UNLIKELY(static_cast<unsigned>(i) >= size())) {            \
      while (static_cast<unsigned>(i) >= size()) push_null();          \
    }                                                                  \
  } while (0)
#define PUSH_SLOT() \
  do {              \
    ++sp;           \
    ENSURE_SLOT(sp); \
  } while (0)
#define READ_INDEX()                                                      \
  do {                                                                    \
    if (QEL_UNLIKELY(pc + width > codeSize)) FAIL(kMsgOperandOutside);       \
    if (width == 1) {                                                     \
      operand = code[pc];                                                 \
    } else if (width == 2) {                                              \
      operand = static_cast<uint32_t>(code[pc] | (code[pc + 1] << 8));    \
    } else {                                                              \
      operand = readDW(code + pc);                                        \
    }                                                                     \
    pc += width;                                                          \
  } while (0)
#define READ_BRANCH()                                                \
  do {                                                               \
    if (QEL_UNLIKELY(pc + 4 > codeSize)) FAIL(kMsgOperandOutside);      \
    operand = readDW(code + pc);                                     \
  } while (0)
#define BOTH_INTEGERS() (STACK[sp - 1].getType() == QVT_INTEGER && TOP.getType() == QVT_INTEGER)
#define NEED_OPERANDS(n) \
  if (QEL_UNLIKELY(sp < (n))) FAIL(kMsgStackCorrupted)

  for (;;) {
    if (QEL_UNLIKELY(pc >= codeSize)) FAIL(kMsgRanOffCode);
    const uint8_t op = code[pc];
    if (QEL_UNLIKELY(trace_ || step_)) {
      if (debugger_) {
        debugger_->traceInstruction(SP, ValPtr(this, bp), ValPtr(this, fp), static_cast<unsigned char>(width),
                                    const_cast<unsigned char*>(code), pc);
      }
      if (step_) step_ = vm_.dbgWait();
    }
    ++pc;
    switch (op) {
      case OP_NOP:
        break;
      case OP_BRT:
        READ_BRANCH();
        pc = TOP.toLong() != 0 ? operand : pc + 4;
        break;
      case OP_BRF:
        READ_BRANCH();
        pc = TOP.toLong() == 0 ? operand : pc + 4;
        break;
      case OP_BR:
        READ_BRANCH();
        pc = operand;
        break;
      case OP_NIL:
        TOP.dispose();
        break;
      case OP_PUSH:
        PUSH_SLOT();
        break;
      case OP_NOT:
        // Both outcomes of the zero test store 1: logical negation always yields 1.
        TOP.setLong(1);
        break;
      case OP_NEG:
        if (TOP.getType() == QVT_INTEGER) {
          TOP.rawLong() = static_cast<int32_t>(0u - static_cast<uint32_t>(TOP.rawLong()));
        } else if (!doOP_NEG()) {
          return false;
        }
        break;
      case OP_ADD:
        NEED_OPERANDS(1);
        if (BOTH_INTEGERS()) {
          int32_t r = static_cast<int32_t>(static_cast<uint32_t>(STACK[sp - 1].rawLong()) +
                                           static_cast<uint32_t>(TOP.rawLong()));
          STACK[sp - 1].rawLong() = r;
          --sp;
        } else if (!doOP_ADD()) {
          return false;
        }
        break;
      case OP_SUB:
        NEED_OPERANDS(1);
        if (BOTH_INTEGERS()) {
          STACK[sp - 1].rawLong() = wrapDiff(STACK[sp - 1].rawLong(), TOP.rawLong());
          --sp;
        } else if (!doOP_SUB()) {
          return false;
        }
        break;
      case OP_MUL:
        NEED_OPERANDS(1);
        if (BOTH_INTEGERS()) {
          STACK[sp - 1].rawLong() = static_cast<int32_t>(static_cast<uint32_t>(STACK[sp - 1].rawLong()) *
                                                         static_cast<uint32_t>(TOP.rawLong()));
          --sp;
        } else if (!doOP_MUL()) {
          return false;
        }
        break;
      case OP_DIV:
        NEED_OPERANDS(1);
        if (!doOP_DIV()) return false;
        break;
      case OP_REM:
        NEED_OPERANDS(1);
        if (!doOP_REM()) return false;
        break;
      case OP_BAND:
        NEED_OPERANDS(1);
        if (BOTH_INTEGERS()) {
          STACK[sp - 1].rawLong() = STACK[sp - 1].rawLong() & TOP.rawLong();
          --sp;
        } else if (!doOP_BAND()) {
          return false;
        }
        break;
      case OP_BOR:
        NEED_OPERANDS(1);
        if (BOTH_INTEGERS()) {
          STACK[sp - 1].rawLong() = STACK[sp - 1].rawLong() | TOP.rawLong();
          --sp;
        } else if (!doOP_BOR()) {
          return false;
        }
        break;
      case OP_XOR:
        NEED_OPERANDS(1);
        if (BOTH_INTEGERS()) {
          STACK[sp - 1].rawLong() = STACK[sp - 1].rawLong() ^ TOP.rawLong();
          --sp;
        } else if (!doOP_XOR()) {
          return false;
        }
        break;
      case OP_BNOT:
        if (TOP.getType() == QVT_INTEGER) {
          TOP.rawLong() = ~TOP.rawLong();
        } else if (!doOP_BNOT()) {
          return false;
        }
        break;
      case OP_SHL:
        NEED_OPERANDS(1);
        if (!doOP_SHL()) return false;
        break;
      case OP_SHR:
        NEED_OPERANDS(1);
        if (!doOP_SHR()) return false;
        break;
      case OP_LT:
      case OP_LE:
      case OP_EQ:
      case OP_NE:
      case OP_GE:
      case OP_GT:
        NEED_OPERANDS(1);
        if (BOTH_INTEGERS()) {
          // Integers compare by their wrapping difference.
          int32_t c = wrapDiff(STACK[sp - 1].rawLong(), TOP.rawLong());
          STACK[sp - 1].rawLong() = relationHolds(op, c) ? 1 : 0;
          --sp;
        } else {
          if (!doCompare()) return false;
          TOP.setLong(relationHolds(op, TOP.toLong()) ? 1 : 0);
        }
        break;
      case OP_INC:
      case OP_DEC: {
        int delta = op == OP_INC ? 1 : -1;
        if (TOP.getType() == QVT_INTEGER) {
          TOP.rawLong() = static_cast<int32_t>(static_cast<uint32_t>(TOP.rawLong()) + static_cast<uint32_t>(delta));
        } else if (!doOP_INCDEC(delta)) {
          return false;
        }
        break;
      }
      case OP_LIT:
        READ_INDEX();
        if (QEL_UNLIKELY(operand >= proc.size())) FAIL(kMsgBadLiteral);
        TOP.assignFast(proc[operand]);
        break;
      case OP_RETURN:
        return true;
      case OP_CALL:
        READ_INDEX();
        if (!callValue(static_cast<int>(operand))) return false;
        break;
      case OP_REF:
      case OP_SET: {
        READ_INDEX();
        const QelValue& lit = operand < proc.size() ? proc[operand] : kNil;
        QelDictionaryEntry* var = lit;
        if (!var) return returnError(u"invalid variable reference ", getValueTypeName(lit.getType()));
        if (op == OP_REF) {
          TOP = var->getValue();
        } else {
          QelValue v(TOP);
          var->value() = std::move(v);
        }
        break;
      }
      case OP_VREF:
        NEED_OPERANDS(1);
        if (!doOP_VREF()) return false;
        break;
      case OP_VSET:
        NEED_OPERANDS(2);
        if (!doOP_VSET()) return false;
        break;
      case OP_MREF:
      case OP_MSET: {
        READ_INDEX();
        QelObject* obj = SP.at(bp - sp);
        if (!obj) FAIL(kMsgObjectExpected);
        QelVector* members = obj->getMemberData();
        if (!members) FAIL(kMsgMemberDataExpected);
        if (QEL_UNLIKELY(operand >= members->size())) FAIL(kMsgSubscript);
        if (op == OP_MREF) {
          TOP = (*members)[operand];
        } else {
          QelValue keep(obj, false);
          QelValue v(TOP);
          (*members)[operand] = std::move(v);
        }
        break;
      }
      case OP_AREF:
      case OP_ASET:
        READ_INDEX();
        if (operand >= nargs) FAIL(kMsgTooFewArguments);
        if (op == OP_AREF) {
          TOP.assignFast(SP.at(bp + 1 + static_cast<int>(operand) - sp));
        } else {
          int slot = bp + 1 + static_cast<int>(operand);
          if (slot < 0) FAIL(kMsgSubscript);
          ENSURE_SLOT(slot);
          QelValue v(TOP);
          STACK[slot] = std::move(v);
        }
        break;
      case OP_TREF:
      case OP_TSET: {
        READ_INDEX();
        int64_t slot = static_cast<int64_t>(fp) + 1 + operand;
        if (op == OP_TREF) {
          // Temporaries are not bounds-tested; a slot past the stack reads nil.
          if (slot >= 0 && slot < static_cast<int64_t>(size())) {
            TOP.assignFast(STACK[slot]);
          } else {
            TOP.dispose();
          }
        } else {
          if (slot < 0 || slot > static_cast<int64_t>(sp) + 65536) FAIL(kMsgSubscript);
          ENSURE_SLOT(slot);
          if (TOP.isPlain() && STACK[slot].isPlain()) {
            STACK[slot].assignFast(TOP);
          } else {
            QelValue v(TOP);
            STACK[slot] = std::move(v);
          }
        }
        break;
      }
      case OP_TSPACE:
        READ_INDEX();
        if (QEL_UNLIKELY(operand > 65536)) FAIL(kMsgStackOverflow);
        fp = sp;
        for (uint32_t i = 0; i < operand; ++i) {
          PUSH_SLOT();
          TOP.dispose();
        }
        break;
      case OP_SEND:
        READ_INDEX();
        if (!send(static_cast<int>(operand), nullptr)) return false;
        break;
      case OP_DUP2:
        NEED_OPERANDS(1);
        PUSH_SLOT();
        PUSH_SLOT();
        STACK[sp - 1] = STACK[sp - 3];
        STACK[sp] = STACK[sp - 2];
        break;
      case OP_NEW:
        if (!doOP_NEW()) return false;
        break;
      case OP_DELETE:
        doOP_DELETE();
        break;
      case OP_DUP:
        PUSH_SLOT();
        STACK[sp] = STACK[sp - 1];
        break;
      case OP_POP:
        NEED_OPERANDS(1);  // the stack keeps its bottom slot
        TOP.dispose();
        --sp;
        break;
      case OP_MKREF:
        doOP_MKREF();
        break;
      case OP_TRON:
        if (debugger_) {
          if (!trace_ && !step_) debugger_->setCurrentProc(proc_);
          trace_ = true;
        }
        break;
      case OP_TROFF:
        trace_ = false;
        break;
      case OP_TRSTEP:
        if (debugger_) {
          if (!trace_ && !step_) debugger_->setCurrentProc(proc_);
          step_ = true;
        }
        break;
      case OP_RBYTE:
        width = 1;
        break;
      case OP_RWORD:
        width = 2;
        break;
      case OP_RDWORD:
        width = 4;
        break;
      default:
        // Bytes that are no opcode are skipped.
        break;
    }
  }
#undef STACK
#undef TOP
#undef FAIL
#undef ENSURE_SLOT
#undef PUSH_SLOT
#undef READ_INDEX
#undef READ_BRANCH
#undef BOTH_INTEGERS
#undef NEED_OPERANDS
}
