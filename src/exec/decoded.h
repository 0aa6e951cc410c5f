// The interpreter's internal form of a procedure's code.
//
// The bytecode stays the contract: listings, module files and the trace show it. Before
// a procedure first runs, its code is decoded once into an array of operations, one per
// instruction the code can reach (every (offset, operand width) pair that execution can
// arrive at, from offset 0 and from every branch target), with operands read, widths
// applied and branch targets resolved to array positions. Common sequences of
// instructions are then fused: the first operation of such a run carries a fused kind
// that does the work of the whole run at once when its operands are plain values, and
// otherwise falls back to the first instruction's own work, the rest following one by
// one. Every effect on the stack, including what is left in the slots above the top,
// is the same as the instructions' own.
//
// The decoded form is kept with the code buffer and built again when the buffer's
// bytes change; an activation holds a count on the form it runs.
#pragma once

#include <cstdint>
#include <unordered_map>
#include <vector>

#include "qel/buffer.h"
#include "qel/opcodes.h"

class QelClass;
class QelDictionaryEntry;

namespace qel {

// What a decoded operation does: an instruction of the code (its opcode), one of the
// two ways code can end badly, or a fused run.
enum DecodedKind : uint16_t {
  DK_RAN_OFF = 256,      // execution reached the end of the code
  DK_BAD_OPERAND,        // the instruction's operand lies beyond the code
  // Fused runs ("L" is one of OP_TREF, OP_AREF, OP_LIT; "op" a binary operator that
  // cannot fail on two integers, or a comparison):
  DK_LOAD_PUSH,          // L x; OP_PUSH
  DK_LOAD_LOAD_OP,       // L x; OP_PUSH; L y; op
  DK_PUSH_LOAD_OP,       // OP_PUSH; L y; op
  DK_LOAD_LOAD_CMP_BR,   // L x; OP_PUSH; L y; comparison; OP_BRT or OP_BRF
  DK_STEP_TEMPORARY,     // OP_TREF t; OP_INC or OP_DEC; OP_TSET t
  DK_OP_STORE,           // op; OP_TSET t
  DK_KIND_COUNT
};

// Where a fused load reads: a temporary, an argument or a literal.
enum LoadSource : uint8_t { LS_TEMPORARY, LS_ARGUMENT, LS_LITERAL };

struct DecodedOp {
  const void* handler = nullptr;  // where the executor dispatches it (filled in by the executor)
  const void* plain = nullptr;    // where it dispatches the instruction alone (tracing)
  uint16_t kind = 0;              // an opcode, or a DecodedKind
  uint8_t op = 0;                 // the instruction's opcode
  uint8_t width = 1;              // the operand width in force when it runs
  uint32_t pc = 0;                // the instruction's offset in the code
  uint32_t operand = 0;           // its index operand, or its branch's target offset
  uint32_t next = 0;              // the operation of the instruction that follows
  uint32_t target = 0;            // a branch's target operation
  // A fused run: the operation after the run, and the run's parts.
  uint32_t after = 0;
  uint8_t srcX = 0, srcY = 0;     // where x and y are loaded from (a LoadSource)
  uint8_t binary = 0;             // the operator or comparison
  uint8_t branch = 0;             // OP_BRT or OP_BRF
  uint32_t x = 0, y = 0;          // the load operands
  uint32_t branchTarget = 0;      // where a fused branch goes when taken
  // The same places as pointers, set once the form is complete; a fused run's exits
  // skip plain branches they lead to.
  const DecodedOp* nextOp = nullptr;
  const DecodedOp* targetOp = nullptr;
  const DecodedOp* afterOp = nullptr;
  const DecodedOp* branchOp = nullptr;
  // A send's method cache: the member entry the lookup found for objects of `sendClass`,
  // good while no class table has changed since (QelDictionary::memberEpoch). The entry's
  // value is read at each send, so a method replaced in place is seen at once.
  mutable const QelClass* sendClass = nullptr;
  mutable QelDictionaryEntry* sendEntry = nullptr;
  mutable uint32_t sendEpoch = 0;
};

// The instruction a decoded operation starts with, whatever it fuses.
inline uint16_t plainKind(const DecodedOp& op) { return op.kind >= DK_LOAD_PUSH ? op.op : op.kind; }

class DecodedCode : public QelBufferCache {
 public:
  // Decodes the buffer's code; `resumePc`/`resumeWidth` name one more place execution
  // arrives at (where a running activation goes on after its code changed).
  static DecodedCode* build(const QelBuffer& code, uint32_t resumePc = 0, uint8_t resumeWidth = 1);

  // The form kept with a buffer when it still matches the bytes, else null.
  static DecodedCode* of(const QelBuffer& code) {
    QelBufferCache* c = code.cache();
    if (!c || c->maker() != &kMaker) return nullptr;
    DecodedCode* d = static_cast<DecodedCode*>(c);
    return d->matches(code) ? d : nullptr;
  }

  // Whether the form still matches the buffer it was built from.
  bool matches(const QelBuffer& code) const { return version_ == code.version() && size_ == code.size(); }
  // The operation for an instruction at `pc` reached with `width`, or -1.
  int64_t find(uint32_t pc, uint8_t width) const;

  void retain() { ++refs_; }
  void release() override {
    if (--refs_ == 0) delete this;
  }

  std::vector<DecodedOp> ops;
  std::vector<unsigned char> bytes;  // the code it was built from (the trace reads it)
  bool linked = false;               // handlers filled in

 private:
  static const char kMaker;
  DecodedCode() : QelBufferCache(&kMaker) {}
  ~DecodedCode() override {}
  uint32_t decodeFrom(uint32_t pc, uint8_t width, std::vector<uint64_t>& work);
  uint32_t place(uint32_t pc, uint8_t width, std::vector<uint64_t>& work);
  void fuse();
  void resolve();

  int refs_ = 1;
  uint32_t version_ = 0;
  uint32_t size_ = 0;
  std::unordered_map<uint64_t, uint32_t> index_;
  std::vector<bool> joined_;  // reached other than only from the instruction before
};

}  // namespace qel
