// The dispatch loop: fetch an opcode, decode its operand, act on the value stack.
//
// The loop keeps SP and the stack's storage in locals. Releasing a value can run a
// script destructor, which pushes on this very stack and may move it; so every step
// that can release a value, call out or fail first stores SP back into the
// interpreter's cursor (SAVE) and afterwards reloads both (LOAD). Plain values, which
// hold nothing on an object, are copied without either.
#include <atomic>

#include "exec/messages.h"
#include "qel/debugger.h"
#include "qel/interpreter.h"

#if defined(__GNUC__)
#define QEL_UNLIKELY(x) __builtin_expect(!!(x), 0)
#else
#define QEL_UNLIKELY(x) (x)
#endif

namespace {

using namespace qel;

const QelValue kNil;

// The stack never grows past this many slots (2 GiB): a runaway script fails with
// "stack overflow" instead of exhausting the machine's memory.
const uint64_t kMaxStackSlots = uint64_t(1) << 27;

inline uint32_t readDW(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
         (static_cast<uint32_t>(p[3]) << 24);
}

inline int32_t wrapAdd(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) + static_cast<uint32_t>(b));
}

inline int32_t wrapDiff(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) - static_cast<uint32_t>(b));
}

inline int32_t wrapMul(int32_t a, int32_t b) {
  return static_cast<int32_t>(static_cast<uint32_t>(a) * static_cast<uint32_t>(b));
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
  int sp = SP.current();
  QelValue* stk = data();
  const int bp = record.bp().current();
  int fp = record.fp().current();
  const unsigned int nargs = static_cast<unsigned int>(record.getNargs());
  unsigned int pc = 0;
  unsigned int width = 1;
  uint32_t operand = 0;

#if QEL_COMPUTED_GOTO
#define DISPATCH_SWITCH goto* targets[op];
#define CASE(name) L_##name:
#define DEFAULT_CASE L_default:
#define NEXT() goto dispatch
#else
#define DISPATCH_SWITCH switch (op)
#define CASE(name) case name:
#define DEFAULT_CASE default:
#define NEXT() break
#endif
#define SAVE() SP.setIndex(sp)
#define LOAD()          \
  do {                  \
    sp = SP.current();  \
    stk = data();       \
  } while (0)
#define TOP (stk[sp])
#define FAIL(msg)                            \
  do {                                       \
    SAVE();                                  \
    return returnError(msg, nullptr);        \
  } while (0)
// Runs an operation that works on the interpreter's cursor.
#define SLOW(call)        \
  do {                    \
    SAVE();               \
    bool ok_ = (call);    \
    LOAD();               \
    if (!ok_) return false; \
  } while (0)
// A statement that may release a value.
#define GUARDED(stmt) \
  do {                \
    SAVE();           \
    stmt;             \
    LOAD();           \
  } while (0)
#define ASSIGN(dst, src)                         \
  do {                                           \
    QelValue& d_ = (dst);                        \
    const QelValue& s_ = (src);                  \
    if (d_.isPlain() && s_.isPlain()) {          \
      d_.assignPlain(s_);                        \
    } else {                                     \
      QelValue t_(s_);                           \
      GUARDED(d_ = std::move(t_));               \
    }                                            \
  } while (0)
#define ENSURE_SLOT(i)                                                       \
  do {                                                                       \
    if (QEL_UNLIKELY(static_cast<unsigned>(i) >= size())) {                  \
      if (static_cast<uint64_t>(i) >= kMaxStackSlots) FAIL(kMsgStackOverflow); \
      while (static_cast<unsigned>(i) >= size()) push_null();                \
      stk = data();                                                          \
    }                                                                        \
  } while (0)
#define PUSH_SLOT()  \
  do {               \
    ++sp;            \
    ENSURE_SLOT(sp); \
  } while (0)
#define READ_INDEX()                                                   \
  do {                                                                 \
    if (QEL_UNLIKELY(pc + width > codeSize)) FAIL(kMsgOperandOutside); \
    if (width == 1) {                                                  \
      operand = code[pc];                                              \
    } else if (width == 2) {                                           \
      operand = static_cast<uint32_t>(code[pc] | (code[pc + 1] << 8)); \
    } else {                                                           \
      operand = readDW(code + pc);                                     \
    }                                                                  \
    pc += width;                                                       \
  } while (0)
#define READ_BRANCH()                                               \
  do {                                                              \
    if (QEL_UNLIKELY(pc + 4 > codeSize)) FAIL(kMsgOperandOutside);  \
    operand = readDW(code + pc);                                    \
  } while (0)
#define NEED_OPERANDS(n) \
  if (QEL_UNLIKELY(sp < (n))) FAIL(kMsgStackCorrupted)
#define BOTH_INTEGERS() (stk[sp - 1].getType() == QVT_INTEGER && TOP.getType() == QVT_INTEGER)
// An integer operation on the two top values with a slow path for everything else.
#define INTEGER_BINARY(expr, slow)      \
  NEED_OPERANDS(1);                     \
  if (BOTH_INTEGERS()) {                \
    int32_t a = stk[sp - 1].rawLong();  \
    int32_t b = TOP.rawLong();          \
    stk[sp - 1].rawLong() = (expr);     \
    --sp;                               \
  } else {                              \
    SLOW(slow());                       \
  }

#if QEL_COMPUTED_GOTO
  // One jump target per byte value, built once from the opcode list and published
  // for every later call (a race between machines on two threads builds it twice).
  static std::atomic<const void* const*> published{nullptr};
  const void* const* targets = published.load(std::memory_order_acquire);
  if (QEL_UNLIKELY(!targets)) {
    const void** table = new const void*[256];
    for (int i = 0; i < 256; ++i) table[i] = &&L_default;
#define QEL_TARGET(name, value, kind) table[value] = &&L_##name;
    QEL_OPCODES(QEL_TARGET)
#undef QEL_TARGET
    const void* const* expected = nullptr;
    if (published.compare_exchange_strong(expected, table, std::memory_order_acq_rel)) {
      targets = table;
    } else {
      delete[] table;
      targets = expected;
    }
  }
#endif
  uint8_t op;
  for (;;) {
#if QEL_COMPUTED_GOTO
  dispatch:
#endif
    if (QEL_UNLIKELY(pc >= codeSize)) FAIL(kMsgRanOffCode);
    op = code[pc];
    if (QEL_UNLIKELY(trace_ || step_)) {
      SAVE();
      if (debugger_) {
        debugger_->traceInstruction(SP, ValPtr(this, bp), ValPtr(this, fp), static_cast<unsigned char>(width),
                                    const_cast<unsigned char*>(code), pc);
      }
      if (step_) step_ = vm_.dbgWait();
      LOAD();
    }
    ++pc;
    DISPATCH_SWITCH {
      CASE(OP_NOP)
        NEXT();
      CASE(OP_BRT)
        READ_BRANCH();
        pc = TOP.toLong() != 0 ? operand : pc + 4;
        NEXT();
      CASE(OP_BRF)
        READ_BRANCH();
        pc = TOP.toLong() == 0 ? operand : pc + 4;
        NEXT();
      CASE(OP_BR)
        READ_BRANCH();
        pc = operand;
        NEXT();
      CASE(OP_NIL)
        GUARDED(TOP.dispose());
        NEXT();
      CASE(OP_PUSH)
        PUSH_SLOT();
        NEXT();
      CASE(OP_NOT)
        // Both outcomes of the zero test store 1: logical negation always yields 1.
        GUARDED(TOP.setLong(1));
        NEXT();
      CASE(OP_NEG)
        if (TOP.getType() == QVT_INTEGER) {
          TOP.rawLong() = wrapDiff(0, TOP.rawLong());
        } else {
          SLOW(doOP_NEG());
        }
        NEXT();
      CASE(OP_ADD)
        INTEGER_BINARY(wrapAdd(a, b), doOP_ADD);
        NEXT();
      CASE(OP_SUB)
        INTEGER_BINARY(wrapDiff(a, b), doOP_SUB);
        NEXT();
      CASE(OP_MUL)
        INTEGER_BINARY(wrapMul(a, b), doOP_MUL);
        NEXT();
      CASE(OP_DIV)
        NEED_OPERANDS(1);
        SLOW(doOP_DIV());
        NEXT();
      CASE(OP_REM)
        NEED_OPERANDS(1);
        SLOW(doOP_REM());
        NEXT();
      CASE(OP_BAND)
        INTEGER_BINARY(a & b, doOP_BAND);
        NEXT();
      CASE(OP_BOR)
        INTEGER_BINARY(a | b, doOP_BOR);
        NEXT();
      CASE(OP_XOR)
        INTEGER_BINARY(a ^ b, doOP_XOR);
        NEXT();
      CASE(OP_BNOT)
        if (TOP.getType() == QVT_INTEGER) {
          TOP.rawLong() = ~TOP.rawLong();
        } else {
          SLOW(doOP_BNOT());
        }
        NEXT();
      CASE(OP_SHL)
        NEED_OPERANDS(1);
        SLOW(doOP_SHL());
        NEXT();
      CASE(OP_SHR)
        NEED_OPERANDS(1);
        SLOW(doOP_SHR());
        NEXT();
      CASE(OP_LT)
      CASE(OP_LE)
      CASE(OP_EQ)
      CASE(OP_NE)
      CASE(OP_GE)
      CASE(OP_GT)
        NEED_OPERANDS(1);
        if (BOTH_INTEGERS()) {
          // Integers compare by their wrapping difference.
          int32_t c = wrapDiff(stk[sp - 1].rawLong(), TOP.rawLong());
          stk[sp - 1].rawLong() = relationHolds(op, c) ? 1 : 0;
          --sp;
        } else {
          SLOW(doCompare());
          TOP.setLong(relationHolds(op, TOP.toLong()) ? 1 : 0);  // an integer: nothing to release
        }
        NEXT();
      CASE(OP_INC)
      CASE(OP_DEC) {
        int delta = op == OP_INC ? 1 : -1;
        if (TOP.getType() == QVT_INTEGER) {
          TOP.rawLong() = wrapAdd(TOP.rawLong(), delta);
        } else {
          SLOW(doOP_INCDEC(delta));
        }
        NEXT();
      }
      CASE(OP_LIT)
        READ_INDEX();
        if (QEL_UNLIKELY(operand >= proc.size())) FAIL(kMsgBadLiteral);
        ASSIGN(TOP, proc[operand]);
        NEXT();
      CASE(OP_RETURN)
        SAVE();
        return true;
      CASE(OP_CALL)
        READ_INDEX();
        SLOW(callValue(static_cast<int>(operand)));
        NEXT();
      CASE(OP_REF)
      CASE(OP_SET) {
        READ_INDEX();
        const QelValue& lit = operand < proc.size() ? proc[operand] : kNil;
        QelDictionaryEntry* var = lit;
        if (!var) {
          SAVE();
          return returnError(u"invalid variable reference ", getValueTypeName(lit.getType()));
        }
        if (op == OP_REF) {
          ASSIGN(TOP, var->getValue());
        } else {
          ASSIGN(var->value(), TOP);
        }
        NEXT();
      }
      CASE(OP_VREF)
        NEED_OPERANDS(1);
        SLOW(doOP_VREF());
        NEXT();
      CASE(OP_VSET)
        NEED_OPERANDS(2);
        SLOW(doOP_VSET());
        NEXT();
      CASE(OP_MREF)
      CASE(OP_MSET) {
        READ_INDEX();
        QelObject* obj = (bp >= 0 && static_cast<unsigned>(bp) < size()) ? static_cast<QelObject*>(stk[bp]) : nullptr;
        if (!obj) FAIL(kMsgObjectExpected);
        QelVector* members = obj->getMemberData();
        if (!members) FAIL(kMsgMemberDataExpected);
        if (QEL_UNLIKELY(operand >= members->size())) FAIL(kMsgSubscript);
        if (op == OP_MREF) {
          ASSIGN(TOP, (*members)[operand]);
        } else {
          QelValue keep(obj, false);  // the object outlives the store
          ASSIGN((*members)[operand], TOP);
        }
        NEXT();
      }
      CASE(OP_AREF)
      CASE(OP_ASET) {
        READ_INDEX();
        if (operand >= nargs) FAIL(kMsgTooFewArguments);
        int64_t slot = static_cast<int64_t>(bp) + 1 + operand;
        if (slot < 0) FAIL(kMsgSubscript);
        if (op == OP_AREF) {
          ASSIGN(TOP, slot < static_cast<int64_t>(size()) ? stk[slot] : kNil);
        } else {
          ENSURE_SLOT(slot);
          ASSIGN(stk[slot], TOP);
        }
        NEXT();
      }
      CASE(OP_TREF)
      CASE(OP_TSET) {
        READ_INDEX();
        int64_t slot = static_cast<int64_t>(fp) + 1 + operand;
        if (op == OP_TREF) {
          // Temporaries are not bounds-tested; a slot past the stack reads nil.
          ASSIGN(TOP, (slot >= 0 && slot < static_cast<int64_t>(size())) ? stk[slot] : kNil);
        } else {
          if (slot < 0 || slot > static_cast<int64_t>(sp) + 65536) FAIL(kMsgSubscript);
          ENSURE_SLOT(slot);
          ASSIGN(stk[slot], TOP);
        }
        NEXT();
      }
      CASE(OP_TSPACE)
        READ_INDEX();
        if (QEL_UNLIKELY(operand > 65536)) FAIL(kMsgStackOverflow);
        fp = sp;
        for (uint32_t i = 0; i < operand; ++i) {
          PUSH_SLOT();
          if (!TOP.isNull()) GUARDED(TOP.dispose());
        }
        NEXT();
      CASE(OP_SEND)
        READ_INDEX();
        SLOW(send(static_cast<int>(operand), nullptr));
        NEXT();
      CASE(OP_DUP2)
        NEED_OPERANDS(1);
        PUSH_SLOT();
        PUSH_SLOT();
        ASSIGN(stk[sp - 1], stk[sp - 3]);
        ASSIGN(TOP, stk[sp - 2]);
        NEXT();
      CASE(OP_NEW)
        SLOW(doOP_NEW());
        NEXT();
      CASE(OP_DELETE)
        SLOW(doOP_DELETE());
        NEXT();
      CASE(OP_DUP)
        PUSH_SLOT();
        ASSIGN(TOP, stk[sp - 1]);
        NEXT();
      CASE(OP_POP)
        NEED_OPERANDS(1);  // the stack keeps its bottom slot
        GUARDED(TOP.dispose());
        --sp;
        NEXT();
      CASE(OP_MKREF)
        TOP.makeReference();  // gives up a count without ever deleting
        NEXT();
      CASE(OP_TRON)
        if (debugger_) {
          if (!trace_ && !step_) debugger_->setCurrentProc(proc_);
          trace_ = true;
        }
        NEXT();
      CASE(OP_TROFF)
        trace_ = false;
        NEXT();
      CASE(OP_TRSTEP)
        if (debugger_) {
          if (!trace_ && !step_) debugger_->setCurrentProc(proc_);
          step_ = true;
        }
        NEXT();
      CASE(OP_RBYTE)
        width = 1;
        NEXT();
      CASE(OP_RWORD)
        width = 2;
        NEXT();
      CASE(OP_RDWORD)
        width = 4;
        NEXT();
      DEFAULT_CASE
        // Bytes that are no opcode are skipped.
        NEXT();
    }
  }
#undef DISPATCH_SWITCH
#undef CASE
#undef DEFAULT_CASE
#undef NEXT
#undef SAVE
#undef LOAD
#undef TOP
#undef FAIL
#undef SLOW
#undef GUARDED
#undef ASSIGN
#undef ENSURE_SLOT
#undef PUSH_SLOT
#undef READ_INDEX
#undef READ_BRANCH
#undef NEED_OPERANDS
#undef BOTH_INTEGERS
#undef INTEGER_BINARY
}
