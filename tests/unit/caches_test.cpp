// What the interpreter keeps beside the code it runs (the decoded form of each
// procedure, each send's method cache, each class's destructor flag) never shows: sends
// see member changes made while they run, after reinit and after a module read, and an
// activation whose code is rewritten under it goes on in the new code.
#include <gtest/gtest.h>
#include <unistd.h>

#include <string>

#include "assembler.h"

using namespace qeltest;

namespace {

QelVirtualMachine* g_vm;

QelClass* classNamed(const QelChar* name) { return g_vm->classes().find(name)->getValue(); }

// change(i): after the send of round i, changes what "who" means for a Kid.
bool change(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  switch (args.at(0).toLong()) {
    case 1:  // replaced in place
      vm->compileText(u"Base::who() { return 2; }");
      break;
    case 3:  // now the kid's own
      vm->compileText(u"class Kid : Base { who(); } Kid::who() { return 3; }");
      break;
    case 4:  // gone again
      classNamed(u"Kid")->funcMembers().erase(QelString(u"who"));
      break;
  }
  args -= nargs;
  return true;
}

// Rewrites the first "OP_LIT <literal from>" of procedure `name` to load literal `to`.
void patchLiteral(QelVirtualMachine& vm, const QelChar* name, int from, int to) {
  QelVector* proc = vm.symbols().find(name)->getValue();
  uint8_t fromIndex = 0, toIndex = 0;
  for (unsigned int i = 3; i < proc->size(); ++i) {
    if ((*proc)[i].getType() != QVT_INTEGER) continue;
    if ((*proc)[i].toLong() == from) fromIndex = static_cast<uint8_t>(i);
    if ((*proc)[i].toLong() == to) toIndex = static_cast<uint8_t>(i);
  }
  QelBuffer* code = (*proc)[0];
  const QelBuffer& bytes = *code;
  for (unsigned int pc = 0; pc + 1 < bytes.size(); ++pc) {
    if (bytes[pc] == OP_LIT && bytes[pc + 1] == fromIndex) {
      (*code)[pc + 1] = toIndex;
      return;
    }
  }
}

// retarget(): patchLiteral with the test's settings.
const QelChar* g_proc;
int g_from, g_to;
bool retarget(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  patchLiteral(*vm, g_proc, g_from, g_to);
  args -= nargs;
  return true;
}

class Caches : public ::testing::Test {
 protected:
  Caches() { g_vm = &vm; }
  std::string run(const QelChar* source, const QelChar* entry, bool trace = false) {
    if (source && !vm.compileText(source)) return "compile error";
    err.clear();
    if (!vm.execute(entry, 0, nullptr, trace, &err, &trace_)) return "error:" + std::string(err.a_str());
    return show(vm.getResult());
  }
  QelStringPrinter out, err, trace_;
  QelVirtualMachine vm{&out};
};

const QelChar kTotal[] =
    u"class C { C(); v(); } C::C() {}\n"
    u"total(o; i, s) { s = 0; for (i = 0; i < 10; ++i) s += o->v(); return s; }\n"
    u"first() { return total(new C()); }\n";

}  // namespace

TEST_F(Caches, SendsSeeMemberChangesMadeWhileTheyRun) {
  vm.registerNativeFunction(u"change", change);
  const QelChar* source =
      u"class Base { Base(); who(); } Base::Base() {} Base::who() { return 1; }\n"
      u"class Kid : Base { Kid(); } Kid::Kid() {}\n"
      u"run(; k, i, s) {\n"
      u"  k = new Kid(); s = 0;\n"
      u"  for (i = 0; i < 6; ++i) { s = s * 10 + k->who(); change(i); }\n"
      u"  return s;\n"
      u"}\n";
  EXPECT_EQ(run(source, u"run"), "int:112232");
}

TEST_F(Caches, SendsAfterReinitAndAModuleRead) {
  std::string path = ::testing::TempDir() + "qel_caches_" + std::to_string(getpid()) + ".qem";
  QelString wide(path.c_str());
  {
    QelVirtualMachine writer;
    ASSERT_TRUE(writer.compileText(u"class C { C(); v(); } C::C() {} C::v() { return 3; }\n"
                                   u"make() { return new C(); }\n"));
    ASSERT_TRUE(writer.writeModule(wide.c_str()));
  }
  const std::string undefined = "error:vhas no method implementation\n\n";
  EXPECT_EQ(run(kTotal, u"first"), undefined);
  EXPECT_EQ(run(u"C::v() { return 1; }", u"first"), "int:10");
  vm.reinit();
  EXPECT_EQ(run(kTotal, u"first"), undefined);
  EXPECT_EQ(run(u"C::v() { return 2; }", u"first"), "int:20");
  // The module's C replaces the class: "total"'s send meets objects of both.
  ASSERT_TRUE(vm.readModule(wide.c_str()));
  EXPECT_EQ(run(u"second() { return total(make()) * 100 + total(new C()); }", u"second"), "int:3030");
  unlink(path.c_str());
}

TEST_F(Caches, CodeRewrittenUnderARunningActivation) {
  vm.registerNativeFunction(u"retarget", retarget);
  for (bool trace : {false, true}) {
    ASSERT_TRUE(vm.compileText(u"inner() { retarget(); return 1; }\n"
                               u"outer() { if (0) return 100; return inner() + 10; }\n"
                               u"self() { if (0) return 8; retarget(); return 7; }\n"));
    // The caller's code changes while it waits for its callee, and a procedure's own while it runs.
    g_proc = u"outer", g_from = 10, g_to = 100;
    EXPECT_EQ(run(nullptr, u"outer", trace), "int:101");
    EXPECT_EQ(run(nullptr, u"outer", trace), "int:101");
    g_proc = u"self", g_from = 7, g_to = 8;
    EXPECT_EQ(run(nullptr, u"self", trace), "int:8");
  }
}
