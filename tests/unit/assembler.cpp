// The test assembler and its helpers.
#include "assembler.h"

#include <cstdio>

namespace qeltest {

Asm& Asm::op(QelOpCode code, uint32_t operand) {
  if (qelOperandKind(code) == QOK_BRANCH) return op(code).raw32(operand);
  if (operand <= 0xFF) return op(code).raw({static_cast<uint8_t>(operand)});
  if (operand <= 0xFFFF) return op(OP_RWORD).op(code).raw16(static_cast<uint16_t>(operand)).op(OP_RBYTE);
  return op(OP_RDWORD).op(code).raw32(operand).op(OP_RBYTE);
}

Asm& Asm::br(QelOpCode code, int label) {
  op(code);
  fixups_.emplace_back(pc(), label);
  return raw32(0);
}

QelVector* Asm::finish() {
  for (const auto& f : fixups_) {
    uint32_t target = static_cast<uint32_t>(labels_[f.second]);
    for (int i = 0; i < 4; ++i) code_[f.first + i] = static_cast<uint8_t>(target >> (8 * i));
  }
  QelBuffer* buf = new QelBuffer();
  buf->append(code_.data(), static_cast<unsigned int>(code_.size()));
  QelVector* proc = new QelVector();
  proc->push_back(QelValue(buf, false));
  proc->push_back(cls_ ? QelValue(cls_, false) : QelValue());
  proc->push_back(QelValue(new QelString(name_), false));
  for (const QelValue& v : lits_) proc->push_back(v);
  return proc;
}

QelVector* Asm::install(QelVirtualMachine& vm) {
  QelVector* proc = finish();
  QelDictionaryEntry& e = vm.symbols()[name_];
  e.setValue(procValue(proc));
  e.setSymbolType(QST_STATIC_FUNCTION);
  return proc;
}

QelVector* Asm::installMethod() {
  QelVector* proc = finish();
  QelDictionaryEntry& e = cls_->funcMembers()[name_];
  e.setValue(procValue(proc));
  e.setSymbolType(QST_METHOD);
  return proc;
}

QelClass* makeClass(QelVirtualMachine& vm, const QelChar* name, QelClass* base) {
  QelClass* cls = new QelClass(vm, QelString(name), base);
  cls->fixupDataDefs();
  QelDictionaryEntry& e = vm.classes()[QelString(name)];
  e.setValue(QelValue(cls, false));
  e.setSymbolType(QST_CLASS);
  return cls;
}

std::string utf8(const QelChar* text) {
  std::string out;
  size_t n = qelStrLen(text);
  out.resize(qelUtf16ToUtf8(text, n, nullptr, 0));
  qelUtf16ToUtf8(text, n, &out[0], out.size());
  return out;
}

std::string show(const QelValue& v) {
  char buf[64];
  switch (v.getType()) {
    case QVT_NULL:
      return "nil";
    case QVT_INTEGER:
      return "int:" + std::to_string(v.toLong());
    case QVT_FLOAT:
    case QVT_DOUBLE:
      snprintf(buf, sizeof buf, "%s:%g", v.getType() == QVT_FLOAT ? "flt" : "dbl", v.toDouble());
      return buf;
    case QVT_STRING:
    case QVT_STRINGREF: {
      QelString* s = v;
      return s ? "str:" + utf8(*s) : "str:(null)";
    }
    default:
      return "type:" + utf8(getValueTypeName(v.getType()));
  }
}

}  // namespace qeltest
