// Opcode names and operand kinds, generated from the one opcode list.
#include "qel/opcodes.h"

namespace {

struct OpInfo {
  const QelChar* name;
  QelOperandKind kind;
};

struct OpTable {
  OpInfo ops[256];
  OpTable() {
    for (OpInfo& op : ops) op = {u"<unknown>", QOK_NONE};
#define QEL_OPCODE_INFO(name, value, kind) ops[value] = {u## #name, kind};
    QEL_OPCODES(QEL_OPCODE_INFO)
#undef QEL_OPCODE_INFO
  }
};

const OpTable& table() {
  static const OpTable t;
  return t;
}

}  // namespace

const QelChar* qelOpCodeName(uint8_t op) { return table().ops[op].name; }

QelOperandKind qelOperandKind(uint8_t op) { return table().ops[op].kind; }
