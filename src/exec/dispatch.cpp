// The dispatch loop: runs a procedure's decoded operations on the value stack.
//
// The loop keeps SP and the stack's storage in locals. Releasing a value can run a
// script destructor, which pushes on this very stack and may move it; so every step
// that can release a value, call out or fail first stores SP back into the
// interpreter's cursor (SAVE) and afterwards reloads both (LOAD). Plain values, which
// hold nothing on an object, are copied without either. Such a step may also have
// changed the procedure's code (a script can write into a code buffer) or switched
// tracing on: before the next operation the loop checks both, builds the decoded form
// again from the bytes where they changed, and, while tracing or stepping, runs each
// instruction alone, showing it to the debugger first, exactly as the code has it.
#include <atomic>
#include <memory>
#include <vector>

#include "exec/decoded.h"
#include "exec/messages.h"
#include "value/heap.h"
#include "qel/debugger.h"
#include "qel/interpreter.h"

#if defined(__GNUC__)
#define QEL_UNLIKELY(x) __builtin_expect(!!(x), 0)
#define QEL_LIKELY(x) __builtin_expect(!!(x), 1)
#else
#define QEL_UNLIKELY(x) (x)
#define QEL_LIKELY(x) (x)
#endif

using namespace qel;

namespace {

const QelValue kNil;

// The stack never grows past this many slots (2 GiB): a runaway script fails with
// "stack overflow" instead of exhausting the machine's memory.
const uint64_t kMaxStackSlots = uint64_t(1) << 27;

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

// The integer result of a fused operator or comparison on two integers.
inline int32_t fusedResult(uint8_t op, int32_t a, int32_t b) {
  switch (op) {
    case OP_ADD: return wrapAdd(a, b);
    case OP_SUB: return wrapDiff(a, b);
    case OP_MUL: return wrapMul(a, b);
    case OP_BAND: return a & b;
    case OP_BOR: return a | b;
    case OP_XOR: return a ^ b;
    default: return relationHolds(op, wrapDiff(a, b)) ? 1 : 0;  // integers compare by their wrapping difference
  }
}

// Where fused loads read in the running activation (temporaries, arguments, literals)
// and how many of each can be read there without a check failing. Refreshed whenever
// the stack may have moved or grown, or the temporaries' base changed; a count that
// lags behind only sends a load down the slower path.
struct Sources {
  QelValue* base[3];
  uint64_t count[3];

  void refresh(QelValue* stk, unsigned int stackSize, int fp, int bp, unsigned int nargs, QelVector& proc) {
    auto span = [stackSize](int64_t first) {
      return first >= 0 && first < static_cast<int64_t>(stackSize) ? static_cast<uint64_t>(stackSize - first) : 0;
    };
    base[LS_TEMPORARY] = stk + (fp + 1);
    count[LS_TEMPORARY] = span(static_cast<int64_t>(fp) + 1);
    base[LS_ARGUMENT] = stk + (bp + 1);
    uint64_t args = span(static_cast<int64_t>(bp) + 1);
    count[LS_ARGUMENT] = args < nargs ? args : nargs;
    base[LS_LITERAL] = proc.data();
    count[LS_LITERAL] = proc.size();
  }
  // The value at `index` of a source, or null where the plain load would not find it.
  const QelValue* at(uint8_t source, uint32_t index) const {
    return index < count[source] ? base[source] + index : nullptr;
  }
};

// The decoded form the buffer keeps, built when missing or out of date (every form
// starts at offset 0); the caller holds a count on it.
DecodedCode* decodedFor(QelBuffer& buffer) {
  DecodedCode* code = DecodedCode::of(buffer);
  if (!code) {
    code = DecodedCode::build(buffer);
    buffer.setCache(code);
  }
  code->retain();
  return code;
}

// The form for a code that changed under a running activation, which goes on at
// (pc, width); the caller holds a count on it.
DecodedCode* redecoded(QelBuffer& buffer, uint32_t pc, uint8_t width) {
  DecodedCode* code = DecodedCode::of(buffer);
  if (!code || code->find(pc, width) < 0) {
    code = DecodedCode::build(buffer, pc, width);
    buffer.setCache(code);
  }
  code->retain();
  return code;
}

// The procedure a call would run, when it is one (code with data); else null.
QelVector* calledProcedure(const QelValue& callee) {
  QelValueType t = callee.getType();
  if (t != QVT_BYTECODE && t != QVT_BYTECODEREF) return nullptr;
  QelVector* proc = static_cast<QelVector*>(callee.getRef());
  if (!proc || proc->size() <= 2) return nullptr;
  QelBuffer* code = (*proc)[0];
  return code && code->size() > 0 ? proc : nullptr;
}

// The vector an owning value holds when another owner keeps it alive too; else null.
inline QelVector* sharedVector(const QelValue& v) {
  if (v.getType() != QVT_VECTOR) return nullptr;
  QelVector* vec = static_cast<QelVector*>(v.getRef());
  return vec && vec->getRefCnt() > 1 ? vec : nullptr;
}

inline bool sameText(const QelChar* a, const QelChar* b) {
  for (; *a == *b; ++a, ++b) {
    if (!*a) return true;
  }
  return false;
}

// The class of the object a send goes to, when the send can take the cached path: a
// plain object receiver and a string name that is no "BC_" send; else null.
QelClass* cachedSendClass(const QelValue& receiver, const QelValue& name) {
  if (receiver.getType() != QVT_OBJECT || name.getType() != QVT_STRING) return nullptr;
  auto* obj = static_cast<QelObject*>(receiver.getRef());
  auto* text = static_cast<QelString*>(name.getRef());
  if (!obj || !text || text->c_str()[0] == 'B') return nullptr;  // "BC_" sends depend on the sender
  return obj->getClass();
}

// The member a send of `name` to objects of `cls` runs, from the operation's cache when
// no class table changed since it was filled; null when the class has no such member.
QelDictionaryEntry* cachedMethod(const DecodedOp& op, QelClass* cls, const QelChar* name) {
  uint32_t epoch = QelDictionary::memberEpoch();
  if (op.sendClass == cls && op.sendEpoch == epoch && sameText(op.sendEntry->getKey()->c_str(), name)) {
    return op.sendEntry;
  }
  QelDictionaryEntry* entry = cls->findFunction(name);
  if (entry) {
    op.sendClass = cls;
    op.sendEntry = entry;
    op.sendEpoch = epoch;
  }
  return entry;
}

}  // namespace

// A script procedure called from a running one runs in the same loop: its caller's
// state waits in a frame until it returns. Frames come in blocks that stay in place,
// since the activation records inside them are linked to one another.
struct QelCallFrames {
  struct Frame {
    QelProcInfo record{nullptr, ValPtr(), ValPtr(), 0};  // the callee's
    // The caller's state, restored when the callee returns.
    QelProcInfo* callerRecord;
    QelVector* callerProc;
    QelBuffer* callerBuffer;
    DecodedCode* callerCode;
    int callerBp, callerFp;
    unsigned int callerNargs;
    const DecodedOp* resume;  // the caller's OP_CALL or OP_SEND
    int frameSlot;            // where the callee stood; its result goes there
    QelClass* sendClass;      // a send's receiver class, held while its method runs; null for a call
  };
  static const size_t kBlock = 64;

  Frame& push() {
    if (used == blocks.size() * kBlock) blocks.emplace_back(new Frame[kBlock]);
    ++used;
    return top();
  }
  Frame& top() { return blocks[(used - 1) / kBlock][(used - 1) % kBlock]; }
  void pop() { --used; }

  std::vector<std::unique_ptr<Frame[]>> blocks;
  size_t used = 0;
};

void QelInterpreter::dropFrames() {
  delete frames_;
  frames_ = nullptr;
}

bool QelInterpreter::run(QelProcInfo& record, QelBuffer& buffer) {
  if (!frames_) frames_ = new QelCallFrames();
  QelCallFrames& frames = *frames_;
  const size_t frameBase = frames.used;
  // The running activation.
  QelProcInfo* rec = &record;
  QelVector* procp = record.procedure();
  QelBuffer* buf = &buffer;
  DecodedCode* code = decodedFor(buffer);
  int bp = record.bp().current();
  int fp = record.fp().current();
  unsigned int nargs = static_cast<unsigned int>(record.getNargs());
  int sp = SP.current();
  QelValue* stk = data();
  const DecodedOp* cur = code->ops.data();
  uint32_t operand = 0;
  Sources sources;
  bool stale = true;  // the sources must be refreshed before a fused load reads them
  HeapTally& heap = tHeapTally;
  // A script procedure about to run in this loop: its arguments, the slot it stands in
  // and, for a send, the receiver's class.
  QelVector* entering = nullptr;
  int enteringArgs = 0, enteringFrame = 0;
  QelClass* enteringClass = nullptr;
  bool leftSend = false;  // the callee that just returned was a send's method
  // Set after a step that may have changed the code or switched tracing on, and kept
  // set while tracing: the next dispatch looks at both.
  bool check = true;

#if QEL_COMPUTED_GOTO
#define DISPATCH_KIND(k) goto* targets[k];
#define DISPATCH_FAST() goto* cur->handler;
#define DISPATCH_PLAIN() goto* cur->plain;
#define CASE(name) L_##name:
#define DEFAULT_CASE L_default:
#else
#define DISPATCH_KIND(k) \
  kind = (k);            \
  goto run_kind;
#define DISPATCH_FAST() DISPATCH_KIND(cur->kind)
#define DISPATCH_PLAIN() DISPATCH_KIND(plainKind(*cur))
#define CASE(name) case name:
#define DEFAULT_CASE default:
#endif
#define GO(op)     \
  do {             \
    cur = (op);    \
    goto dispatch; \
  } while (0)
#define NEXT() GO(cur->nextOp)
#define SAVE() SP.setIndex(sp)
#define LOAD()          \
  do {                  \
    sp = SP.current();  \
    stk = data();       \
    check = true;       \
    stale = true;       \
  } while (0)
#define REFRESH() sources.refresh(stk, size(), fp, bp, nargs, *procp)
#define FRESH_SOURCES()            \
  do {                             \
    if (QEL_UNLIKELY(stale)) {     \
      REFRESH();                   \
      stale = false;               \
    }                              \
  } while (0)
#define PROC (*procp)
// Every branch and call looks for an interrupt request, so no loop or recursion misses it.
#define POLL()                                                      \
  do {                                                              \
    if (QEL_UNLIKELY(interrupt_.load(std::memory_order_relaxed))) { \
      goto interrupted;                                             \
    }                                                               \
  } while (0)
// Ends a callee run in this loop (as a call ends: its record, then its code and
// procedure let go; a send then leaves the result in the receiver's slot and lets go
// of the class, setting `leftSend`) and takes the caller's state back from the top
// frame, which it pops first: a release may run a destructor, whose calls take frames
// from here on.
#define LEAVE_CALLEE()                             \
  do {                                             \
    const QelCallFrames::Frame& f_ = frames.top(); \
    QelClass* sendClass_ = f_.sendClass;           \
    int sendSlot_ = f_.frameSlot;                  \
    QelProcInfo* calleeRec_ = rec;                 \
    QelVector* calleeProc_ = procp;                \
    QelBuffer* calleeBuf_ = buf;                   \
    DecodedCode* calleeCode_ = code;               \
    rec = f_.callerRecord;                         \
    procp = f_.callerProc;                         \
    buf = f_.callerBuffer;                         \
    code = f_.callerCode;                          \
    bp = f_.callerBp;                              \
    fp = f_.callerFp;                              \
    nargs = f_.callerNargs;                        \
    frames.pop();                                  \
    leaveProc(*calleeRec_);                        \
    calleeCode_->release();                        \
    calleeBuf_->release();                         \
    calleeProc_->release();                        \
    leftSend = sendClass_ != nullptr;              \
    if (leftSend) {                                \
      endSend(sendSlot_);                          \
      sendClass_->release();                       \
    }                                              \
  } while (0)
#define TOP (stk[sp])
#define FAIL(msg)                            \
  do {                                       \
    SAVE();                                  \
    returnError(msg, nullptr);               \
    goto failed;                             \
  } while (0)
// Runs an operation that works on the interpreter's cursor. Whatever allocates runs
// here, so this is where an allocation past the memory limit fails the run.
#define SLOW(call)                               \
  do {                                           \
    SAVE();                                      \
    bool ok_ = (call);                           \
    LOAD();                                      \
    if (!ok_) goto failed;                       \
    if (QEL_UNLIKELY(heap.over)) goto exhausted; \
  } while (0)
// A statement that may release a value.
#define GUARDED(stmt) \
  do {                \
    SAVE();           \
    stmt;             \
    LOAD();           \
  } while (0)
// Over a plain value nothing is released, so nothing can run meanwhile.
#define ASSIGN(dst, src)                         \
  do {                                           \
    QelValue& d_ = (dst);                        \
    const QelValue& s_ = (src);                  \
    if (d_.isPlain()) {                          \
      if (s_.isPlain()) {                        \
        d_.assignPlain(s_);                      \
      } else {                                   \
        d_ = s_;                                 \
      }                                          \
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
      stale = true;                                                          \
    }                                                                        \
  } while (0)
#define PUSH_SLOT()  \
  do {               \
    ++sp;            \
    ENSURE_SLOT(sp); \
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
// The value a fused load reads, when it reads a plain value without failing; else null.

#if QEL_COMPUTED_GOTO
  // One jump target per kind, built once from the opcode list and published for every
  // later call (a race between machines on two threads builds it twice).
  static std::atomic<const void* const*> published{nullptr};
  const void* const* targets = published.load(std::memory_order_acquire);
  if (QEL_UNLIKELY(!targets)) {
    const void** table = new const void*[DK_KIND_COUNT];
    for (int i = 0; i < DK_KIND_COUNT; ++i) table[i] = &&L_default;
#define QEL_TARGET(name, value, kind) table[value] = &&L_##name;
    QEL_OPCODES(QEL_TARGET)
#undef QEL_TARGET
    table[DK_RAN_OFF] = &&L_DK_RAN_OFF;
    table[DK_BAD_OPERAND] = &&L_DK_BAD_OPERAND;
    table[DK_LOAD_PUSH] = &&L_DK_LOAD_PUSH;
    table[DK_LOAD_LOAD_OP] = &&L_DK_LOAD_LOAD_OP;
    table[DK_PUSH_LOAD_OP] = &&L_DK_PUSH_LOAD_OP;
    table[DK_LOAD_LOAD_CMP_BR] = &&L_DK_LOAD_LOAD_CMP_BR;
    table[DK_STEP_TEMPORARY] = &&L_DK_STEP_TEMPORARY;
    table[DK_OP_STORE] = &&L_DK_OP_STORE;
    const void* const* expected = nullptr;
    if (published.compare_exchange_strong(expected, table, std::memory_order_acq_rel)) {
      targets = table;
    } else {
      delete[] table;
      targets = expected;
    }
  }
  // Each form learns its jump targets once.
  auto link = [targets](DecodedCode& code) {
    for (DecodedOp& op : code.ops) {
      op.handler = targets[op.kind];
      op.plain = targets[plainKind(op)];
    }
    code.linked = true;
  };
  if (!code->linked) link(*code);
#else
  unsigned int kind = 0;
#endif

  for (;;) {
  dispatch:
    if (QEL_UNLIKELY(check)) {
      if (!code->matches(*buf)) {
        // The code changed under this activation: go on where it was, in the new code.
        DecodedCode* fresh = redecoded(*buf, cur->pc, cur->width);
        int64_t at = fresh->find(cur->pc, cur->width);
        code->release();
        code = fresh;
#if QEL_COMPUTED_GOTO
        if (!fresh->linked) link(*fresh);
#endif
        cur = &fresh->ops[static_cast<size_t>(at)];
      }
      check = trace_ || step_ || counting_;
      if (check) {
        if (counting_) {
          // Under an instruction limit every instruction runs alone and counts.
          POLL();
          if (QEL_UNLIKELY(budget_ == 0)) {
            budget_ = vm_.getInstructionLimit();  // a fresh allowance for the unwinding's destructors
            FAIL(kMsgInstructionLimit);
          }
          --budget_;
        }
        if ((trace_ || step_) && cur->kind != DK_RAN_OFF) {
          SAVE();
          if (debugger_) {
            debugger_->traceInstruction(SP, ValPtr(this, bp), ValPtr(this, fp), cur->width,
                                        code->bytes.data(), cur->pc);
          }
          if (step_) step_ = vm_.dbgWait();
          LOAD();
        }
        DISPATCH_PLAIN();
      }
    }
    DISPATCH_FAST();
#if !QEL_COMPUTED_GOTO
  run_kind:
    switch (kind) {
#endif
      CASE(DK_RAN_OFF)
        FAIL(kMsgRanOffCode);
      CASE(DK_BAD_OPERAND)
        FAIL(kMsgOperandOutside);
      CASE(OP_NOP)
        NEXT();
      CASE(OP_BRT)
        POLL();
        GO(TOP.toLong() != 0 ? cur->targetOp : cur->nextOp);
      CASE(OP_BRF)
        POLL();
        GO(TOP.toLong() == 0 ? cur->targetOp : cur->nextOp);
      CASE(OP_BR)
        POLL();
        GO(cur->targetOp);
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
          stk[sp - 1].rawLong() = relationHolds(cur->op, c) ? 1 : 0;
          --sp;
        } else {
          SLOW(doCompare());
          TOP.setLong(relationHolds(cur->op, TOP.toLong()) ? 1 : 0);  // an integer: nothing to release
        }
        NEXT();
      CASE(OP_INC)
      CASE(OP_DEC) {
        int delta = cur->op == OP_INC ? 1 : -1;
        if (TOP.getType() == QVT_INTEGER) {
          TOP.rawLong() = wrapAdd(TOP.rawLong(), delta);
        } else {
          SLOW(doOP_INCDEC(delta));
        }
        NEXT();
      }
      CASE(OP_LIT)
        operand = cur->operand;
        if (QEL_UNLIKELY(operand >= PROC.size())) FAIL(kMsgBadLiteral);
        ASSIGN(TOP, PROC[operand]);
        NEXT();
      CASE(OP_RETURN) {
        SAVE();
        if (frames.used == frameBase) {
          code->release();
          return true;
        }
        // Back to the caller: as when a call returns, the result takes the callee's
        // slot and the stack ends there.
        const DecodedOp* resume = frames.top().resume;
        int frame = frames.top().frameSlot;
        LEAVE_CALLEE();
        LOAD();
        if (leftSend) GO(resume->nextOp);
        if (frame < sp) {
          GUARDED(stk[frame] = std::move(stk[sp]));
          GUARDED(popTo(frame));
        } else if (frame > sp) {
          cur = resume;  // the caller's call fails
          FAIL(kMsgStackCorrupted);
        }
        GO(resume->nextOp);
      }
      CASE(OP_SEND) {
        // A send to a script method of a plain object runs here as a call does, with the
        // receiver copied into the name's slot as its first argument; others take send's path.
        int n = static_cast<int>(cur->operand);
        int frame = sp - n;
        QelClass* cls = n >= 1 && frame >= 0 ? cachedSendClass(stk[frame], stk[frame + 1]) : nullptr;
        QelDictionaryEntry* method =
            cls ? cachedMethod(*cur, cls, static_cast<QelString*>(stk[frame + 1].getRef())->c_str()) : nullptr;
        entering = method ? calledProcedure(method->getValue()) : nullptr;
        if (entering && depth_ < maxDepth_) {
          cls->addRef();
          enteringClass = cls;
          enteringArgs = n;
          enteringFrame = frame;
          ASSIGN(stk[frame + 1], stk[frame]);
          goto enter_callee;
        }
        SLOW(send(n, nullptr));
        NEXT();
      }
      CASE(OP_CALL) {
        int n = static_cast<int>(cur->operand);
        int frame = sp - n;
        entering = frame >= 0 ? calledProcedure(stk[frame]) : nullptr;
        if (entering && depth_ < maxDepth_) {
          enteringClass = nullptr;
          enteringArgs = n;
          enteringFrame = frame;
          goto enter_callee;
        }
        SLOW(callValue(n));
        NEXT();
      }
      enter_callee: {
        // A script procedure runs here: the caller waits in a frame.
        if (QEL_UNLIKELY(interrupt_.load(std::memory_order_relaxed))) {
          if (enteringClass) enteringClass->release();
          goto interrupted;
        }
        QelCallFrames::Frame& f = frames.push();
        f.sendClass = enteringClass;
        f.callerRecord = rec;
        f.callerProc = procp;
        f.callerBuffer = buf;
        f.callerCode = code;
        f.callerBp = bp;
        f.callerFp = fp;
        f.callerNargs = nargs;
        f.resume = cur;
        f.frameSlot = enteringFrame;
        procp = entering;
        buf = (*entering)[0];
        entering->addRef();
        buf->addRef();
        f.record = QelProcInfo(entering, ValPtr(this, enteringFrame), ValPtr(this, sp), enteringArgs);
        rec = &f.record;
        SAVE();
        enterProc(f.record);
        code = decodedFor(*buf);
#if QEL_COMPUTED_GOTO
        if (!code->linked) link(*code);
#endif
        bp = enteringFrame;
        fp = sp;
        nargs = static_cast<unsigned int>(enteringArgs);
        check = trace_ || step_ || counting_;  // a fresh form matches its code
        stale = true;
        GO(code->ops.data());
      }
      CASE(OP_REF)
      CASE(OP_SET) {
        operand = cur->operand;
        const QelValue& lit = operand < PROC.size() ? PROC[operand] : kNil;
        QelDictionaryEntry* var = lit;
        if (!var) {
          SAVE();
          returnError(u"invalid variable reference ", getValueTypeName(lit.getType()));
          goto failed;
        }
        if (cur->op == OP_REF) {
          ASSIGN(TOP, var->getValue());
        } else {
          ASSIGN(var->value(), TOP);
        }
        NEXT();
      }
      CASE(OP_VREF) {
        NEED_OPERANDS(1);
        // A plain element of a vector held elsewhere too: no count can reach 0 here.
        QelVector* v = sharedVector(stk[sp - 1]);
        if (v && TOP.getType() == QVT_INTEGER && static_cast<uint32_t>(TOP.lowWord()) < v->size()) {
          const QelValue& e = (*v)[static_cast<uint32_t>(TOP.lowWord())];
          if (e.isPlain()) {
            v->release();
            stk[sp - 1].assignPlain(e);
            --sp;
            NEXT();
          }
        }
        SLOW(doOP_VREF());
        NEXT();
      }
      CASE(OP_VSET) {
        NEED_OPERANDS(2);
        QelVector* v = sharedVector(stk[sp - 2]);
        if (v && stk[sp - 1].getType() == QVT_INTEGER && static_cast<uint32_t>(stk[sp - 1].lowWord()) < v->size() &&
            TOP.isPlain()) {
          QelValue& e = (*v)[static_cast<uint32_t>(stk[sp - 1].lowWord())];
          if (e.isPlain()) {
            e.assignPlain(TOP);
            v->release();
            stk[sp - 2].assignPlain(TOP);
            sp -= 2;
            NEXT();
          }
        }
        SLOW(doOP_VSET());
        NEXT();
      }
      CASE(OP_MREF)
      CASE(OP_MSET) {
        operand = cur->operand;
        QelObject* obj = (bp >= 0 && static_cast<unsigned>(bp) < size()) ? static_cast<QelObject*>(stk[bp]) : nullptr;
        if (!obj) FAIL(kMsgObjectExpected);
        QelVector* members = obj->getMemberData();
        if (!members) FAIL(kMsgMemberDataExpected);
        if (QEL_UNLIKELY(operand >= members->size())) FAIL(kMsgSubscript);
        if (cur->op == OP_MREF) {
          ASSIGN(TOP, (*members)[operand]);
        } else {
          QelValue keep(obj, false);  // the object outlives the store
          ASSIGN((*members)[operand], TOP);
        }
        NEXT();
      }
      CASE(OP_AREF)
      CASE(OP_ASET) {
        operand = cur->operand;
        if (operand >= nargs) FAIL(kMsgTooFewArguments);
        int64_t slot = static_cast<int64_t>(bp) + 1 + operand;
        if (slot < 0) FAIL(kMsgSubscript);
        if (cur->op == OP_AREF) {
          ASSIGN(TOP, slot < static_cast<int64_t>(size()) ? stk[slot] : kNil);
        } else {
          ENSURE_SLOT(slot);
          ASSIGN(stk[slot], TOP);
        }
        NEXT();
      }
      CASE(OP_TREF)
      CASE(OP_TSET) {
        int64_t slot = static_cast<int64_t>(fp) + 1 + cur->operand;
        if (cur->op == OP_TREF) {
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
        operand = cur->operand;
        if (QEL_UNLIKELY(operand > 65536)) FAIL(kMsgStackOverflow);
        fp = sp;
        stale = true;
        for (uint32_t i = 0; i < operand; ++i) {
          PUSH_SLOT();
          if (!TOP.isNull()) GUARDED(TOP.dispose());
        }
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
          check = true;
        }
        NEXT();
      CASE(OP_TROFF)
        trace_ = false;
        check = true;
        NEXT();
      CASE(OP_TRSTEP)
        if (debugger_) {
          if (!trace_ && !step_) debugger_->setCurrentProc(proc_);
          step_ = true;
          check = true;
        }
        NEXT();
      CASE(OP_RBYTE)
      CASE(OP_RWORD)
      CASE(OP_RDWORD)
        // The width is already applied to the operands that follow.
        NEXT();

      // ---- Fused runs: the whole run at once on plain values, else its first instruction ----

      CASE(DK_LOAD_PUSH) {
        FRESH_SOURCES();
        const QelValue* x = sources.at(cur->srcX, cur->x);
        if (QEL_LIKELY(x && x->isPlain() && TOP.isPlain())) {
          TOP.assignPlain(*x);
          PUSH_SLOT();
          GO(cur->afterOp);
        }
        DISPATCH_PLAIN();
      }
      CASE(DK_LOAD_LOAD_OP)
      CASE(DK_LOAD_LOAD_CMP_BR) {
        ENSURE_SLOT(sp + 1);  // the run's push makes the slot above exist
        FRESH_SOURCES();
        const QelValue* x = sources.at(cur->srcX, cur->x);
        const QelValue* y = sources.at(cur->srcY, cur->y);
        // (y must not be the top itself: the run reads it after x is stored there.)
        if (QEL_LIKELY(x && y && x->getType() == QVT_INTEGER && y->getType() == QVT_INTEGER && y != &TOP &&
                       TOP.isPlain() && stk[sp + 1].isPlain())) {
          int32_t a = x->lowWord(), b = y->lowWord();
          stk[sp + 1].assignPlain(*y);  // the right operand stays in the slot above, as the run leaves it
          int32_t r = fusedResult(cur->binary, a, b);
          TOP.assignPlain(QelValue(r));
          if (cur->kind == DK_LOAD_LOAD_OP) GO(cur->afterOp);
          POLL();
          GO((r != 0) == (cur->branch == OP_BRT) ? cur->branchOp : cur->afterOp);
        }
        DISPATCH_PLAIN();
      }
      CASE(DK_PUSH_LOAD_OP) {
        ENSURE_SLOT(sp + 1);
        FRESH_SOURCES();
        const QelValue* y = sources.at(cur->srcY, cur->y);
        if (QEL_LIKELY(y && y->getType() == QVT_INTEGER && TOP.getType() == QVT_INTEGER && stk[sp + 1].isPlain())) {
          stk[sp + 1].assignPlain(*y);
          TOP.rawLong() = fusedResult(cur->binary, TOP.rawLong(), y->lowWord());
          GO(cur->afterOp);
        }
        DISPATCH_PLAIN();
      }
      CASE(DK_STEP_TEMPORARY) {
        FRESH_SOURCES();
        QelValue* t = const_cast<QelValue*>(sources.at(LS_TEMPORARY, cur->x));
        if (QEL_LIKELY(t && t->getType() == QVT_INTEGER && TOP.isPlain() && cur->x <= 65536)) {
          int32_t stepped = wrapAdd(t->rawLong(), cur->binary == OP_INC ? 1 : -1);
          TOP.assignPlain(QelValue(stepped));
          t->rawLong() = stepped;
          GO(cur->afterOp);
        }
        DISPATCH_PLAIN();
      }
      CASE(DK_OP_STORE) {
        FRESH_SOURCES();
        // The store's slot test: a temporary far above the top is an error, left to the
        // instructions themselves.
        QelValue* t = const_cast<QelValue*>(sources.at(LS_TEMPORARY, cur->x));
        if (QEL_LIKELY(sp >= 1 && BOTH_INTEGERS() && t && t->isPlain() &&
                       static_cast<int64_t>(fp) + 1 + cur->x <= static_cast<int64_t>(sp) - 1 + 65536)) {
          int32_t r = fusedResult(cur->binary, stk[sp - 1].rawLong(), TOP.rawLong());
          --sp;
          TOP.assignPlain(QelValue(r));
          t->assignPlain(TOP);
          GO(cur->afterOp);
        }
        DISPATCH_PLAIN();
      }

      DEFAULT_CASE
        // Bytes that are no opcode are skipped.
        NEXT();
#if !QEL_COMPUTED_GOTO
    }
#endif
  }
interrupted:
  interrupt_.store(false, std::memory_order_relaxed);
  SAVE();
  returnError(kMsgInterrupted, nullptr);
  goto failed;
exhausted:
  heap.over = false;  // what the unwinding's destructors allocate is looked at anew
  returnError(kMsgOutOfMemory, nullptr);
failed:
  // Every procedure this loop runs fails in turn, innermost first, each noted where it stood.
  noteProcedure(procp, cur->pc);
  while (frames.used > frameBase) {
    const DecodedOp* resume = frames.top().resume;
    LEAVE_CALLEE();
    noteProcedure(procp, resume->pc);
  }
  code->release();
  return false;
#undef DISPATCH_KIND
#undef DISPATCH_FAST
#undef DISPATCH_PLAIN
#undef CASE
#undef DEFAULT_CASE
#undef GO
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
#undef NEED_OPERANDS
#undef BOTH_INTEGERS
#undef INTEGER_BINARY
#undef REFRESH
#undef FRESH_SOURCES
#undef PROC
#undef LEAVE_CALLEE
#undef POLL
}
