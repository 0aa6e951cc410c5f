// What the compiler does that the listing of the script tests does not show: wide
// literal indexes, the pooling of names, where a listing goes, and what a failed
// compilation keeps.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "qel/compiler.h"

namespace {

QelVector* procedure(QelVirtualMachine& vm, const QelChar* name) {
  QelDictionaryEntry* e = vm.symbols().find(name);
  return e ? static_cast<QelVector*>(e->getValue()) : nullptr;
}

std::vector<uint8_t> codeOf(QelVector* proc) {
  QelBuffer* code = (*proc)[0];
  return std::vector<uint8_t>(code->data(), code->data() + code->size());
}

}  // namespace

// More than 256 literals: the later ones are loaded with wide operands, and run so.
TEST(CompilerCode, WideLiteralIndexes) {
  QelVirtualMachine vm;
  std::u16string source = u"many(; t) { t = 0; ";
  for (int i = 1; i <= 270; ++i) source += u"t += " + std::u16string(QelString::format(u"%d", i).c_str()) + u"; ";
  ASSERT_TRUE(vm.compileText((source + u"return t; }").c_str()));
  std::vector<uint8_t> code = codeOf(procedure(vm, u"many"));
  // Literal 3 holds the 0, so 1..252 take the indexes up to 255 in one operand byte
  // and 253 (literal 256) is the first with a word.
  for (std::vector<uint8_t> form : {std::vector<uint8_t>{OP_LIT, 0xFF, OP_ADD},
                                    std::vector<uint8_t>{OP_RWORD, OP_LIT, 0x00, 0x01, OP_RBYTE}})
    EXPECT_NE(std::search(code.begin(), code.end(), form.begin(), form.end()), code.end());
  ASSERT_TRUE(vm.execute(u"many", 0, nullptr));
  EXPECT_EQ(static_cast<int32_t>(vm.getResult()), 270 * 271 / 2);
}

TEST(CompilerCode, MethodNamesAndVariablesArePooled) {
  QelStringPrinter out;
  QelVirtualMachine vm(&out);
  // Without a listing printer the listing goes to the machine's printer.
  ASSERT_TRUE(vm.compileText(u"p(o) { o->m(); o->m(); g = 1; g = 2; \"s\"; \"s\"; }", false, true));
  EXPECT_EQ(std::string(out.a_str()).rfind("::p (", 0), 0u);
  QelVector* proc = procedure(vm, u"p");
  int strings = 0, vars = 0;
  for (unsigned i = 3; i < proc->size(); ++i) {
    strings += (*proc)[i].getType() == QVT_STRING;
    vars += (*proc)[i].getType() == QVT_VAR;
  }
  EXPECT_EQ(strings, 3);  // "m" once, each string literal anew
  EXPECT_EQ(vars, 1);
}

TEST(CompilerErrors, FailedDefinitionsKeepWhatCameBefore) {
  QelVirtualMachine vm;
  QelStringPrinter messages;
  EXPECT_FALSE(vm.compileText(u"a() { return 1; }\nclass A : A {}\nb() {}", false, false, &messages));
  EXPECT_NE(procedure(vm, u"a"), nullptr);
  EXPECT_EQ(procedure(vm, u"b"), nullptr);
  EXPECT_NE(std::string(messages.a_str()).find("class can't be its own base"), std::string::npos);
}
