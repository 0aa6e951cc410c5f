// A small assembler for the tests: builds procedure vectors by opcode name.
//
// A procedure is a vector: element 0 the code buffer, 1 the owning class or nil, 2
// the name, 3.. the literal pool. Index operands get the narrowest width that holds
// them (OP_RWORD/OP_RDWORD before the instruction, OP_RBYTE after it); branches take
// a label and carry a 4-byte absolute offset. Also: helpers to build classes and to
// show values and engine text as narrow strings in expectations.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

#include "qel/buffer.h"
#include "qel/interpreter.h"
#include "qel/opcodes.h"
#include "qel/vm.h"

namespace qeltest {

class Asm {
 public:
  explicit Asm(const QelChar* name, QelClass* cls = nullptr) : name_(name), cls_(cls) {}

  // Appends a literal to the pool and answers its index (3 for the first one).
  uint32_t lit(const QelValue& v) {
    lits_.push_back(v);
    return static_cast<uint32_t>(lits_.size() + 2);
  }
  // Pads the pool with nils so that the next literal gets index n.
  Asm& padTo(uint32_t n) {
    if (lits_.size() + 3 < n) lits_.resize(n - 3);
    return *this;
  }

  // OP_LIT of a new literal; push() makes room with OP_PUSH first.
  Asm& load(const QelValue& v) { return op(OP_LIT, lit(v)); }
  Asm& push(const QelValue& v) { return op(OP_PUSH).load(v); }
  // An instruction without operand, or with an index/count operand of automatic width.
  Asm& op(QelOpCode code) { return raw({code}); }
  Asm& op(QelOpCode code, uint32_t operand);
  // A branch (OP_BR, OP_BRT, OP_BRF) to a label bound now or later.
  Asm& br(QelOpCode code, int label);
  int newLabel() {
    labels_.push_back(-1);
    return static_cast<int>(labels_.size()) - 1;
  }
  Asm& bind(int label) {
    labels_[label] = pc();
    return *this;
  }
  // Bytes as they stand, and little-endian words.
  Asm& raw(std::initializer_list<uint8_t> bytes) {
    code_.insert(code_.end(), bytes);
    return *this;
  }
  Asm& raw16(uint16_t v) { return raw({static_cast<uint8_t>(v), static_cast<uint8_t>(v >> 8)}); }
  Asm& raw32(uint32_t v) { return raw16(static_cast<uint16_t>(v)).raw16(static_cast<uint16_t>(v >> 16)); }

  uint32_t pc() const { return static_cast<uint32_t>(code_.size()); }
  const std::vector<uint8_t>& code() const { return code_; }

  // A new, uncounted procedure vector (labels resolved).
  QelVector* finish();
  // finish(), stored in the machine's symbols under the name as a script function.
  QelVector* install(QelVirtualMachine& vm);
  // finish(), stored as a function member of the class given to the constructor.
  QelVector* installMethod();

 private:
  QelString name_;
  QelClass* cls_;
  std::vector<QelValue> lits_;
  std::vector<uint8_t> code_;
  std::vector<int64_t> labels_;
  std::vector<std::pair<uint32_t, int>> fixups_;
};

// A script class without data members, registered in vm.classes().
QelClass* makeClass(QelVirtualMachine& vm, const QelChar* name, QelClass* base = nullptr);

inline QelValue str(const QelChar* text) { return QelValue(new QelString(text), false); }
inline QelValue procValue(QelVector* proc) { return QelValue(proc, true, false); }

std::string utf8(const QelChar* text);
inline std::string utf8(const QelString& s) { return utf8(s.c_str()); }
// "nil", "int:3", "flt:1.5", "dbl:2.5", "str:abc", or "type:QVT_..." for the rest.
std::string show(const QelValue& v);

}  // namespace qeltest
