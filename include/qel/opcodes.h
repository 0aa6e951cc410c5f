// The instruction set, defined once.
//
// A procedure's code is a byte sequence: an opcode byte and its operand. Branches
// carry a 4-byte little-endian absolute code offset. Index and count operands are
// 1, 2 or 4 bytes wide, as set by the width opcodes OP_RBYTE/OP_RWORD/OP_RDWORD for
// the rest of the activation (each activation starts with width 1). The top slot of
// the value stack is a working register: most instructions replace it in place.
//
// QEL_OPCODES lists every opcode with its value, its operand kind and its effect; the
// enum, the name table, the listing and the tracer are all generated from it.
#pragma once

#include "qel/config.h"

// Operand kinds: how an instruction's operand is read and how the listing shows it.
enum QelOperandKind : uint8_t {
  QOK_NONE,    // no operand
  QOK_BRANCH,  // 4-byte code offset, "%04x "
  QOK_LIT,     // literal index, "lit[%d] "
  QOK_ARGS,    // argument count of a call or send, "(%d arguments) "
  QOK_VAR,     // literal index of a global variable, "var[%d] "
  QOK_MEMBER,  // data member slot, "member[%d] "
  QOK_ARG,     // argument index, "arg[%d] "
  QOK_TMP,     // temporary index, "tmp[%d] "
  QOK_COUNT,   // plain count, "%d "
  QOK_WIDTH,   // sets the index operand width; no operand
};

//  X(name, value, operand kind)          effect (top = SP, below = SP-1)
#define QEL_OPCODES(X)                                                                       \
  X(OP_NOP, 0x00, QOK_NONE)     /* nothing */                                                \
  X(OP_BRT, 0x01, QOK_BRANCH)   /* jump if the top is non-zero; the top stays */             \
  X(OP_BRF, 0x02, QOK_BRANCH)   /* jump if the top is zero; the top stays */                 \
  X(OP_BR, 0x03, QOK_BRANCH)    /* jump */                                                   \
  X(OP_NIL, 0x04, QOK_NONE)     /* top := nil */                                             \
  X(OP_PUSH, 0x05, QOK_NONE)    /* SP+1; the new top keeps what the slot held */             \
  X(OP_NOT, 0x06, QOK_NONE)     /* top := 1, whatever the top was */                         \
  X(OP_NEG, 0x07, QOK_NONE)     /* top := -top */                                            \
  X(OP_ADD, 0x08, QOK_NONE)     /* below := below + top; pop */                              \
  X(OP_SUB, 0x09, QOK_NONE)     /* below := below - top; pop */                              \
  X(OP_MUL, 0x0A, QOK_NONE)     /* below := below * top; pop */                              \
  X(OP_DIV, 0x0B, QOK_NONE)     /* below := below / top; pop */                              \
  X(OP_REM, 0x0C, QOK_NONE)     /* below := below % top; pop */                              \
  X(OP_BAND, 0x0D, QOK_NONE)    /* below := below & top; pop */                              \
  X(OP_BOR, 0x0E, QOK_NONE)     /* below := below | top; pop */                              \
  X(OP_XOR, 0x0F, QOK_NONE)     /* below := below ^ top; pop */                              \
  X(OP_BNOT, 0x10, QOK_NONE)    /* top := ~top */                                            \
  X(OP_SHL, 0x11, QOK_NONE)     /* below := below << top; pop */                             \
  X(OP_SHR, 0x12, QOK_NONE)     /* below := below >> top; pop */                             \
  X(OP_LT, 0x13, QOK_NONE)      /* below := compare(below, top) < 0; pop */                  \
  X(OP_LE, 0x14, QOK_NONE)      /* below := compare(below, top) <= 0; pop */                 \
  X(OP_EQ, 0x15, QOK_NONE)      /* below := compare(below, top) == 0; pop */                 \
  X(OP_NE, 0x16, QOK_NONE)      /* below := compare(below, top) != 0; pop */                 \
  X(OP_GE, 0x17, QOK_NONE)      /* below := compare(below, top) >= 0; pop */                 \
  X(OP_GT, 0x18, QOK_NONE)      /* below := compare(below, top) > 0; pop */                  \
  X(OP_INC, 0x19, QOK_NONE)     /* top := top + 1 */                                         \
  X(OP_DEC, 0x1A, QOK_NONE)     /* top := top - 1 */                                         \
  X(OP_LIT, 0x1B, QOK_LIT)      /* top := procedure element [index] */                       \
  X(OP_RETURN, 0x1C, QOK_NONE)  /* leave; the result is the top */                          \
  X(OP_CALL, 0x1D, QOK_ARGS)    /* call SP-n with n arguments; result at SP-n */             \
  X(OP_REF, 0x1E, QOK_VAR)      /* top := the variable's value */                            \
  X(OP_SET, 0x1F, QOK_VAR)      /* the variable := top */                                    \
  X(OP_VREF, 0x20, QOK_NONE)    /* below := below[top]; pop */                               \
  X(OP_VSET, 0x21, QOK_NONE)    /* SP-2[SP-1] := top; the result replaces SP-2 */            \
  X(OP_MREF, 0x22, QOK_MEMBER)  /* top := member [index] of the object at BP */              \
  X(OP_MSET, 0x23, QOK_MEMBER)  /* member [index] of the object at BP := top */              \
  X(OP_AREF, 0x24, QOK_ARG)     /* top := argument i (BP+1+i) */                             \
  X(OP_ASET, 0x25, QOK_ARG)     /* argument i := top */                                      \
  X(OP_TREF, 0x26, QOK_TMP)     /* top := temporary i (FP+1+i) */                            \
  X(OP_TSET, 0x27, QOK_TMP)     /* temporary i := top */                                     \
  X(OP_TSPACE, 0x28, QOK_COUNT) /* FP := SP; push n nils */                                  \
  X(OP_SEND, 0x29, QOK_ARGS)    /* send: receiver SP-n, name SP-n+1, arguments above */      \
  X(OP_DUP2, 0x2A, QOK_NONE)    /* push copies of the two top values */                      \
  X(OP_NEW, 0x2B, QOK_NONE)     /* top := new object of the class at the top */             \
  X(OP_DELETE, 0x2C, QOK_NONE)  /* destroy an unowned referenced object; top := nil */       \
  X(OP_DUP, 0x2D, QOK_NONE)     /* push a copy of the top */                                 \
  X(OP_POP, 0x2E, QOK_NONE)     /* top := nil; SP-1 */                                       \
  X(OP_MKREF, 0x2F, QOK_NONE)   /* turn the top into its reference kind */                   \
  X(OP_TRON, 0x80, QOK_NONE)    /* tracing on */                                             \
  X(OP_TROFF, 0x81, QOK_NONE)   /* tracing off */                                            \
  X(OP_TRSTEP, 0x82, QOK_NONE)  /* single-stepping on */                                     \
  X(OP_RBYTE, 0xF0, QOK_WIDTH)  /* index operands are 1 byte wide from here on */            \
  X(OP_RWORD, 0xF1, QOK_WIDTH)  /* index operands are 2 bytes wide from here on */           \
  X(OP_RDWORD, 0xF2, QOK_WIDTH) /* index operands are 4 bytes wide from here on */

enum QelOpCode : uint8_t {
#define QEL_OPCODE_ENUM(name, value, kind) name = value,
  QEL_OPCODES(QEL_OPCODE_ENUM)
#undef QEL_OPCODE_ENUM
};

// Name of an opcode ("OP_ADD"), or "<unknown>" for a byte that is no opcode.
QEL_API const QelChar* qelOpCodeName(uint8_t op);
// Operand kind of an opcode; QOK_NONE for a byte that is no opcode.
QEL_API QelOperandKind qelOperandKind(uint8_t op);
