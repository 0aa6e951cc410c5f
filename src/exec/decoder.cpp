// Decoding a procedure's code into operations, and fusing common runs of them.
#include "exec/decoded.h"

namespace qel {

namespace {

uint64_t keyOf(uint32_t pc, uint8_t width) { return (static_cast<uint64_t>(pc) << 8) | width; }

uint32_t readWord(const unsigned char* p, unsigned int width) {
  uint32_t v = 0;
  for (unsigned int i = 0; i < width; ++i) v |= static_cast<uint32_t>(p[i]) << (8 * i);
  return v;
}

bool isLoad(uint16_t kind) { return kind == OP_TREF || kind == OP_AREF || kind == OP_LIT; }

bool isComparison(uint16_t kind) { return kind >= OP_LT && kind <= OP_GT; }

LoadSource sourceOf(uint16_t load) {
  return load == OP_TREF ? LS_TEMPORARY : load == OP_AREF ? LS_ARGUMENT : LS_LITERAL;
}

// The binary instructions a fused run may end with: the integer operators that cannot
// fail on two integers, and the comparisons.
bool isFusedBinary(uint16_t kind) {
  switch (kind) {
    case OP_ADD:
    case OP_SUB:
    case OP_MUL:
    case OP_BAND:
    case OP_BOR:
    case OP_XOR:
      return true;
    default:
      return isComparison(kind);
  }
}

}  // namespace

const char DecodedCode::kMaker = 0;

DecodedCode* DecodedCode::build(const QelBuffer& code, uint32_t resumePc, uint8_t resumeWidth) {
  DecodedCode* d = new DecodedCode();
  d->version_ = code.version();
  d->size_ = code.size();
  d->bytes.assign(code.data(), code.data() + code.size());
  std::vector<uint64_t> work;
  d->place(0, 1, work);
  d->joined_[0] = true;
  uint32_t resume = d->place(resumePc, resumeWidth, work);
  d->joined_[resume] = true;
  while (!work.empty()) {
    uint64_t key = work.back();
    work.pop_back();
    d->decodeFrom(static_cast<uint32_t>(key >> 8), static_cast<uint8_t>(key & 0xFF), work);
  }
  d->fuse();
  d->resolve();
  return d;
}

// Turns positions into pointers. A fused run's exits go straight past plain branches,
// which do nothing but jump (a few at most, so a loop of branches still ends).
void DecodedCode::resolve() {
  auto at = [this](uint32_t index) { return &ops[index]; };
  auto skipBranches = [this, at](uint32_t index) {
    for (int hops = 0; hops < 8 && ops[index].kind == OP_BR; ++hops) index = ops[index].target;
    return at(index);
  };
  for (DecodedOp& op : ops) {
    op.nextOp = at(op.next);
    op.targetOp = at(op.target);
    if (op.kind >= DK_LOAD_PUSH) {
      op.afterOp = skipBranches(op.after);
      op.branchOp = skipBranches(op.branchTarget);
    }
  }
}

int64_t DecodedCode::find(uint32_t pc, uint8_t width) const {
  auto it = index_.find(keyOf(pc, width));
  return it == index_.end() ? -1 : static_cast<int64_t>(it->second);
}

// The operation for (pc, width), made and queued for decoding when new. An operation
// reached a second time is a join: no fused run may swallow it.
uint32_t DecodedCode::place(uint32_t pc, uint8_t width, std::vector<uint64_t>& work) {
  auto inserted = index_.emplace(keyOf(pc, width), static_cast<uint32_t>(ops.size()));
  if (!inserted.second) {
    joined_[inserted.first->second] = true;
    return inserted.first->second;
  }
  DecodedOp op;
  op.pc = pc;
  op.width = width;
  ops.push_back(op);
  joined_.push_back(false);
  work.push_back(keyOf(pc, width));
  return inserted.first->second;
}

uint32_t DecodedCode::decodeFrom(uint32_t pc, uint8_t width, std::vector<uint64_t>& work) {
  uint32_t self = index_[keyOf(pc, width)];
  if (pc >= size_) {
    ops[self].kind = DK_RAN_OFF;
    return self;
  }
  uint8_t opcode = bytes[pc];
  ops[self].op = opcode;
  ops[self].kind = opcode;
  uint64_t after = static_cast<uint64_t>(pc) + 1;
  switch (qelOperandKind(opcode)) {
    case QOK_NONE:
      if (opcode != OP_RETURN) ops[self].next = place(pc + 1, width, work);
      break;
    case QOK_WIDTH: {
      uint8_t next = opcode == OP_RBYTE ? 1 : opcode == OP_RWORD ? 2 : 4;
      ops[self].next = place(pc + 1, next, work);
      break;
    }
    case QOK_BRANCH: {
      if (after + 4 > size_) {
        ops[self].kind = DK_BAD_OPERAND;
        break;
      }
      uint32_t targetPc = readWord(&bytes[after], 4);
      ops[self].operand = targetPc;
      uint32_t target = place(targetPc, width, work);
      ops[self].target = target;
      if (opcode != OP_BR) ops[self].next = place(pc + 5, width, work);
      break;
    }
    default: {
      if (after + width > size_) {
        ops[self].kind = DK_BAD_OPERAND;
        break;
      }
      ops[self].operand = readWord(&bytes[after], width);
      ops[self].next = place(static_cast<uint32_t>(after + width), width, work);
      break;
    }
  }
  return self;
}

// Marks the first operation of each common run with the run's fused kind. A run only
// covers operations that nothing but the one before it leads to.
void DecodedCode::fuse() {
  auto follows = [this](uint32_t from, uint16_t kind) -> int64_t {
    uint32_t n = ops[from].next;
    if (n == 0 || n >= ops.size() || joined_[n] || ops[n].kind != kind) return -1;
    return n;
  };
  auto nextIf = [this](uint32_t from, bool (*accept)(uint16_t)) -> int64_t {
    uint32_t n = ops[from].next;
    if (n == 0 || n >= ops.size() || joined_[n] || !accept(ops[n].kind)) return -1;
    return n;
  };
  for (uint32_t i = 0; i < ops.size(); ++i) {
    DecodedOp& head = ops[i];
    if (head.kind == OP_TREF) {
      int64_t step = nextIf(i, [](uint16_t k) { return k == OP_INC || k == OP_DEC; });
      int64_t store = step >= 0 ? follows(static_cast<uint32_t>(step), OP_TSET) : -1;
      if (store >= 0 && ops[store].operand == head.operand) {
        head.kind = DK_STEP_TEMPORARY;
        head.binary = ops[step].kind;
        head.x = head.operand;
        head.after = ops[store].next;
        continue;
      }
    }
    if (isLoad(head.kind)) {
      int64_t push = follows(i, OP_PUSH);
      if (push < 0) continue;
      int64_t load = nextIf(static_cast<uint32_t>(push), isLoad);
      int64_t binary = load >= 0 ? nextIf(static_cast<uint32_t>(load), isFusedBinary) : -1;
      if (binary < 0) {
        head.kind = DK_LOAD_PUSH;
        head.srcX = sourceOf(head.op);
        head.x = head.operand;
        head.after = ops[push].next;
        continue;
      }
      head.srcX = sourceOf(head.op);
      head.x = head.operand;
      head.srcY = sourceOf(ops[load].kind);
      head.y = ops[load].operand;
      head.binary = static_cast<uint8_t>(ops[binary].kind);
      int64_t branch = isComparison(ops[binary].kind)
                           ? nextIf(static_cast<uint32_t>(binary), [](uint16_t k) { return k == OP_BRT || k == OP_BRF; })
                           : -1;
      if (branch >= 0) {
        head.kind = DK_LOAD_LOAD_CMP_BR;
        head.branch = static_cast<uint8_t>(ops[branch].kind);
        head.branchTarget = ops[branch].target;
        head.after = ops[branch].next;
      } else {
        head.kind = DK_LOAD_LOAD_OP;
        head.after = ops[binary].next;
      }
      continue;
    }
    if (isFusedBinary(head.kind)) {
      int64_t store = follows(i, OP_TSET);
      if (store >= 0) {
        head.kind = DK_OP_STORE;
        head.binary = head.op;
        head.x = ops[store].operand;
        head.after = ops[store].next;
      }
      continue;
    }
    if (head.kind == OP_PUSH) {
      int64_t load = nextIf(i, isLoad);
      int64_t binary = load >= 0 ? nextIf(static_cast<uint32_t>(load), isFusedBinary) : -1;
      if (binary < 0) continue;
      head.kind = DK_PUSH_LOAD_OP;
      head.srcY = sourceOf(ops[load].kind);
      head.y = ops[load].operand;
      head.binary = static_cast<uint8_t>(ops[binary].kind);
      head.after = ops[binary].next;
    }
  }
}

}  // namespace qel
