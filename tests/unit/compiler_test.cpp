// The compiler's emitted code, seen through the listing and the procedure vectors.
#include <gtest/gtest.h>

#include <string>

#include "qel/compiler.h"

namespace {

std::string narrow(const QelChar* text) { return QelString(text).a_str(); }

struct Compiled {
  bool ok;
  std::string listing;
  std::string messages;
};

Compiled compileWithListing(QelVirtualMachine& vm, const QelChar* source) {
  QelStringPrinter listing, messages;
  bool ok = vm.compileText(source, false, true, &messages, &listing);
  return {ok, narrow(listing.c_str()), narrow(messages.c_str())};
}

QelVector* procedure(QelVirtualMachine& vm, const QelChar* name) {
  QelDictionaryEntry* e = vm.symbols().find(name);
  return e ? static_cast<QelVector*>(e->getValue()) : nullptr;
}

std::vector<uint8_t> codeOf(QelVector* proc) {
  QelBuffer* code = (*proc)[0];
  return std::vector<uint8_t>(code->data(), code->data() + code->size());
}

}  // namespace

TEST(CompilerListing, ArgumentsTemporariesAndReturn) {
  QelVirtualMachine vm;
  Compiled c = compileWithListing(vm, u"f(a, b; t) { t = a; return t + b; }");
  ASSERT_TRUE(c.ok) << c.messages;
  EXPECT_EQ(c.listing,
            "::f (15 bytes)\n"
            "0000: 28 OP_TSPACE 1 \n"
            "0002: 05   OP_PUSH \n"
            "0003: 24   OP_AREF arg[0] \n"
            "0005: 27   OP_TSET tmp[0] \n"
            "0007: 26   OP_TREF tmp[0] \n"
            "0009: 05   OP_PUSH \n"
            "000a: 24   OP_AREF arg[1] \n"
            "000c: 08    OP_ADD \n"
            "000d: 1c OP_RETURN \n"
            "000e: 1c OP_RETURN \n");
}

TEST(CompilerListing, EmptyBodyAndIndexedCompoundAssignment) {
  QelVirtualMachine vm;
  Compiled c = compileWithListing(vm, u"g() {}\nh(a, i) { a[i] += 2; }");
  ASSERT_TRUE(c.ok) << c.messages;
  EXPECT_EQ(codeOf(procedure(vm, u"g")), (std::vector<uint8_t>{OP_PUSH, OP_NIL, OP_RETURN}));
  EXPECT_EQ(codeOf(procedure(vm, u"h")),
            (std::vector<uint8_t>{OP_PUSH, OP_AREF, 0, OP_PUSH, OP_AREF, 1, OP_DUP2, OP_VREF, OP_PUSH, OP_LIT, 3,
                                  OP_ADD, OP_VSET, OP_RETURN}));
}

TEST(CompilerCode, LoopsPatchTheirBreakChains) {
  QelVirtualMachine vm;
  Compiled c = compileWithListing(vm, u"w(a) { while (a) { if (a) break; break; } }");
  ASSERT_TRUE(c.ok) << c.messages;
  std::vector<uint8_t> code = codeOf(procedure(vm, u"w"));
  // Every exit branch of the loop lands on the instruction after it: the final return.
  uint32_t end = static_cast<uint32_t>(code.size() - 1);
  int exits = 0;
  for (size_t pc = 0; pc < code.size();) {
    uint8_t op = code[pc];
    if (op == OP_BRT || op == OP_BRF || op == OP_BR) {
      uint32_t target = code[pc + 1] | code[pc + 2] << 8 | code[pc + 3] << 16 | code[pc + 4] << 24;
      if (target == end) ++exits;
      pc += 5;
    } else {
      pc += qelOperandKind(op) == QOK_NONE || qelOperandKind(op) == QOK_WIDTH ? 1 : 2;
    }
  }
  EXPECT_EQ(exits, 3);  // the loop test and both breaks
}

TEST(CompilerCode, ConstructorsAndDestructorsGetTheirEpilogues) {
  QelVirtualMachine vm;
  Compiled c = compileWithListing(vm,
                                  u"class A { A(); ~A(); }\nclass B : A { B(); ~B(); }\n"
                                  u"A::A() {}\nB::~B() {}\n");
  ASSERT_TRUE(c.ok) << c.messages;
  QelClass* b = vm.classes().find(u"B")->getValue();
  QelVector* dtor = b->funcMembers().find(u"dtor")->getValue();
  EXPECT_EQ(codeOf(dtor), (std::vector<uint8_t>{OP_PUSH, OP_NIL, OP_PUSH, OP_AREF, 0, OP_PUSH, OP_LIT, 3, OP_SEND, 1,
                                                OP_RETURN}));
  EXPECT_EQ(narrow(static_cast<QelString*>((*dtor)[3])->c_str()), "BC_dtor");
  QelClass* a = vm.classes().find(u"A")->getValue();
  QelVector* ctor = a->funcMembers().find(u"A")->getValue();
  EXPECT_EQ(codeOf(ctor), (std::vector<uint8_t>{OP_PUSH, OP_NIL, OP_AREF, 0, OP_RETURN}));
}

TEST(CompilerCode, WideLiteralIndexes) {
  QelVirtualMachine vm;
  std::u16string source = u"many() { ";
  for (int i = 0; i < 260; ++i) source += u"1;";
  source += u"}";
  ASSERT_TRUE(vm.compileText(source.c_str()));
  std::vector<uint8_t> code = codeOf(procedure(vm, u"many"));
  // Literals 3..255 use one operand byte; literal 256 (the 254th) switches to words.
  std::vector<uint8_t> wide = {OP_RWORD, OP_LIT, 0x00, 0x01, OP_RBYTE};
  auto at = std::search(code.begin(), code.end(), wide.begin(), wide.end());
  ASSERT_NE(at, code.end());
  EXPECT_EQ(at - code.begin(), 1 + 2 * 253);
}

TEST(CompilerCode, MethodNamesAndVariablesArePooled) {
  QelVirtualMachine vm;
  ASSERT_TRUE(vm.compileText(u"p(o) { o->m(); o->m(); g = 1; g = 2; \"s\"; \"s\"; }"));
  QelVector* proc = procedure(vm, u"p");
  int strings = 0, vars = 0;
  for (unsigned i = 3; i < proc->size(); ++i) {
    if ((*proc)[i].getType() == QVT_STRING) ++strings;
    if ((*proc)[i].getType() == QVT_VAR) ++vars;
  }
  EXPECT_EQ(strings, 3);  // "m" once, each string literal anew
  EXPECT_EQ(vars, 1);
}

TEST(CompilerErrors, ReportsAreCountedAndTheTopLevelStopsAtTen) {
  QelVirtualMachine vm;
  std::u16string source;
  for (int i = 0; i < 11; ++i) source += u"1;\n";
  Compiled c = compileWithListing(vm, source.c_str());
  EXPECT_FALSE(c.ok);
  size_t reports = 0;
  for (size_t at = c.messages.find("declaration expected"); at != std::string::npos;
       at = c.messages.find("declaration expected", at + 1)) {
    ++reports;
  }
  EXPECT_EQ(reports, 10u);
  EXPECT_EQ(c.messages.substr(0, 48), "--> declaration expected \nin  line 1 pos 2 \n1;\n\n");  // pos: the column last read
}

TEST(CompilerErrors, FailedDefinitionsKeepWhatCameBefore) {
  QelVirtualMachine vm;
  QelStringPrinter messages;
  EXPECT_FALSE(vm.compileText(u"a() { return 1; }\nclass A : A {}\nb() {}", false, false, &messages));
  EXPECT_NE(procedure(vm, u"a"), nullptr);
  EXPECT_EQ(procedure(vm, u"b"), nullptr);
  EXPECT_NE(narrow(messages.c_str()).find("class can't be its own base"), std::string::npos);
}
