// The debugger: procedure listings, instruction traces and value printing.
#include "qel/debugger.h"

#include <gtest/gtest.h>

#include <cctype>
#include <cstdio>
#include <string>

#include "assembler.h"

using namespace qeltest;

namespace {

struct TestDebugger : QelDebugger {
  using QelDebugger::printValue;
  using QelDebugger::QelDebugger;
};

// The text with each pointer (a run of 8 or more upper-case hex digits) shown as "<p>".
std::string masked(const std::string& text) {
  std::string out;
  for (size_t i = 0; i < text.size();) {
    size_t j = i;
    while (j < text.size() && isxdigit(static_cast<unsigned char>(text[j])) && !islower(text[j])) ++j;
    if (j - i >= 8) {
      out += "<p>";
      i = j;
    } else {
      out += text[i++];
    }
  }
  return out;
}

class Debugger : public ::testing::Test {
 protected:
  std::string listing(QelVector* proc) {
    text.clear();
    dbg.decodeProcedure(proc);
    return utf8(text.c_str());
  }
  std::string value(const QelValue& v, bool brief) {
    text.clear();
    dbg.printValue(v, brief);
    return masked(utf8(text.c_str()));
  }

  QelStringPrinter out, text;
  QelVirtualMachine vm{&out};
  TestDebugger dbg{vm, &text};
};

}  // namespace

// The listing of compiled scripts (compiled_code.out) shows most operand forms; these
// are the ones no compiled script has: a call's count, a wide operand between its width
// opcodes, an unknown byte and an operand cut off by the end of the code.
TEST_F(Debugger, ListingLayoutAndOperands) {
  Asm a(u"f", makeClass(vm, u"Cls"));
  a.padTo(300);
  a.op(OP_CALL, 1).op(OP_LIT, a.lit(1)).op(OP_RETURN).raw({0x77, OP_LIT});
  QelValue proc = procValue(a.finish());
  EXPECT_EQ(listing(proc),
            "Cls::f (10 bytes)\n"
            "0000: 1d   OP_CALL (1 arguments) \n"
            "0002: f1  OP_RWORD \n"
            "0003: 1b    OP_LIT lit[300] \n"
            "0006: f0  OP_RBYTE \n"
            "0007: 1c OP_RETURN \n"
            "0008: 77 <unknown> \n"
            "0009: 1b    OP_LIT \n");
}

TEST_F(Debugger, ListingOfNonProcedures) {
  EXPECT_EQ(listing(nullptr), "");
  QelBuffer* code = new QelBuffer();
  code->push_back(OP_RETURN);
  QelVector* two = new QelVector();
  QelValue keep(two, false, false);
  two->push_back(QelValue(code, false));
  two->push_back(QelValue());
  EXPECT_EQ(listing(two), "");  // two elements: not a procedure
  two->push_back(QelValue(5));
  EXPECT_EQ(listing(two), "::<unnamed> (1 bytes)\n0000: 1c OP_RETURN \n");
  (*two)[0] = QelValue(new QelBuffer(), false);
  EXPECT_EQ(listing(two), "");  // a code buffer without data

  EXPECT_EQ(utf8(dbg.getOpCodeName(OP_RDWORD)), "OP_RDWORD");
}

TEST_F(Debugger, TraceLabels) {
  Asm a(u"tr");
  a.op(OP_ASET, 2).op(OP_AREF, 0).op(OP_VREF).raw({OP_BRF}).raw32(0x10).raw({OP_BR}).raw32(0x10);
  a.op(OP_LIT, a.lit(42)).op(OP_TSPACE, 2).op(OP_TREF, 1).op(OP_ADD);
  QelValue proc = procValue(a.finish());
  unsigned char* code = static_cast<QelBuffer*>((*static_cast<QelVector*>(proc))[0])->data();

  QelVector stack;  // frame slot, two arguments, a container and an index
  stack.push_back(QelValue());
  stack.push_back(QelValue(7));
  stack.push_back(str(u"ab"));
  stack.push_back(QelValue(new QelVector(), false, false));
  stack.push_back(QelValue(1));
  ValPtr bp(&stack, 0), sp(&stack, 4);
  QelProcInfo record(proc, bp, bp, 2);
  dbg.setCurrentProc(&record);
  EXPECT_EQ(utf8(text.c_str()), "-->current proc ::tr, 2 arguments\n");

  auto trace = [&](unsigned int pc, ValPtr at) {
    text.clear();
    dbg.traceInstruction(at, bp, bp, 1, code, pc);
    return masked(utf8(text.c_str()));
  };
  EXPECT_EQ(trace(0, sp), "0000: 25   OP_ASET SP:0004 invalid index 2\n");
  EXPECT_EQ(trace(2, sp), "0002: 24   OP_AREF SP:0004 BP[1](arg[0]):QVT_INTEGER 7 \n");
  EXPECT_EQ(trace(4, sp),
            "0004: 20   OP_VREF SP:0004 SP[-1](src):QVT_VECTOR <p> (#1) SP[0](index:)QVT_INTEGER 1 \n");
  EXPECT_EQ(trace(5, sp), "0005: 02    OP_BRF SP:0004 (skip) SP[0]:QVT_INTEGER 1 \n");
  EXPECT_EQ(trace(5, bp), "0005: 02    OP_BRF SP:0000 0010 SP[0]:QVT_NULL \n");
  EXPECT_EQ(trace(10, sp), "000a: 03     OP_BR SP:0004 0010\n");
  EXPECT_EQ(trace(15, sp), "000f: 1b    OP_LIT SP:0004 LIT[3]:QVT_INTEGER 42 \n");
  EXPECT_EQ(trace(19, sp), "0013: 26   OP_TREF SP:0004 FP[2](tmp[1]):QVT_STRING <p> (#1) \"ab\") \n");
}

TEST_F(Debugger, PrintValueForms) {
  EXPECT_EQ(value(QelValue(5), false), "QVT_INTEGER 5 ");
  EXPECT_EQ(value(QelValue(1.5f), true), "QVT_FLOAT 1.500000 ");
  EXPECT_EQ(value(QelValue(), false), "QVT_NULL ");
  EXPECT_EQ(value(QelValue(static_cast<void*>(stdout)), false), "QVT_FILE stdout ");

  QelValue five = str(u"abcde");
  EXPECT_EQ(value(five, false), "QVT_STRING <p> (#1) \"abcde\") ");  // no opening parenthesis
  EXPECT_EQ(value(five, true), "QVT_STRING <p> ");
  EXPECT_EQ(value(str(u"abcdefghijklmnopqrstuvwxy"), false),
            "QVT_STRING <p> (#1) (\"abcdefghijklmnopqrst...\") ");
  EXPECT_EQ(value(QelValue(static_cast<QelString*>(nullptr), false), false), "QVT_STRING <p> (#0) ");

  QelClass* cls = makeClass(vm, u"Cls");
  QelValue obj(new QelObject(cls), false);
  EXPECT_EQ(value(QelValue(cls, true), false), "QVT_CLASSREF <p> (#2) (Cls) ");
  EXPECT_EQ(value(obj, false), "QVT_OBJECT <p> (#1) (class Cls) ");

  QelDictionaryEntry& g = vm.symbols()[QelString(u"g")];
  g.setValue(QelValue(3));
  EXPECT_EQ(value(QelValue(&g), false), "QVT_VAR <p> (key:g value:QVT_INTEGER 3 ) ");
  g.setValue(QelValue(&g));  // a variable holding itself prints one level deep
  EXPECT_EQ(value(QelValue(&g), false), "QVT_VAR <p> (key:g value:QVT_VAR <p> ) ");
}
