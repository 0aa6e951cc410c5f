// The virtual machine: registration, execution, results and errors, re-initialisation,
// the step wait procedure, destructors outside a run and native modules.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <string>

#include "assembler.h"
#include "probes.h"

using namespace qeltest;

namespace {

bool first(QelVirtualMachine*, int, ValPtr&) { return true; }

// Records where its call slot lies and what its arguments are; answers "done".
int g_slot;
std::string g_seen;
bool recordArgs(QelVirtualMachine*, int nargs, ValPtr& args) {
  g_slot = args.current() - nargs;
  g_seen.clear();
  for (int k = 0; k <= nargs; ++k) g_seen += show(args.at(k - nargs)) + ";";
  args -= nargs;
  *args = str(u"done");
  return true;
}
int g_waits;
bool waitTwice() { return ++g_waits < 3; }
bool note(QelVirtualMachine*, int nargs, ValPtr& args) {
  g_seen += "dtor;";
  args -= nargs;
  return true;
}

class VM : public ::testing::Test {
 protected:
  QelStringPrinter out, err;
  QelVirtualMachine vm{&out};
};

int countOf(const std::string& text, const std::string& part) {
  int n = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) ++n;
  return n;
}

}  // namespace

TEST_F(VM, RegisterNativeFunctionsAndClasses) {
  EXPECT_TRUE(vm.registerNativeFunction(u"nat", first));
  EXPECT_FALSE(vm.registerNativeFunction(u"nat", nativeNoop));
  QelDictionaryEntry* e = vm.symbols().find(u"nat");
  EXPECT_EQ(static_cast<QelNativeFunction>(e->getValue()), first);  // the first stays
  EXPECT_FALSE(vm.registerNativeFunction(nullptr, first));
  EXPECT_FALSE(vm.registerNativeFunction(u"other", nullptr));
  EXPECT_FALSE(vm.registerNativeFunction(u"print", first));  // a built-in keeps its name
  Asm(u"script").op(OP_RETURN).install(vm);
  EXPECT_FALSE(vm.registerNativeFunction(u"script", first));
  EXPECT_EQ(vm.symbols().find(u"script")->getValue().getType(), QVT_BYTECODE);

  QelClass* cls = new QelClass(vm);
  EXPECT_TRUE(vm.registerNativeClass(u"Nat", cls));
  EXPECT_TRUE(cls->getIsNative());
  EXPECT_EQ(static_cast<QelClass*>(vm.classes().find(u"Nat")->getValue()), cls);
  QelClass other(vm);
  EXPECT_FALSE(vm.registerNativeClass(u"Nat", &other));
  EXPECT_FALSE(vm.registerNativeClass(u"X", nullptr));
}

TEST_F(VM, ExecuteResultsAndErrors) {
  const QelChar* argv[] = {u"one", u"two"};
  vm.registerNativeFunction(u"rec", recordArgs);
  EXPECT_TRUE(vm.execute(u"rec", 2, argv, false, &err));
  EXPECT_EQ(g_slot, 0);  // the initial nil slot
  EXPECT_EQ(g_seen, "nil;str:one;str:two;");
  EXPECT_EQ(show(vm.getResult()), "str:done");

  Asm(u"f").op(OP_AREF, 1).op(OP_RETURN).install(vm);
  EXPECT_TRUE(vm.execute(u"f", 2, argv, false, &err));
  // The result is a copy that outlives the interpreter, now its only owner.
  EXPECT_EQ(show(vm.getResult()), "str:two");
  EXPECT_EQ(static_cast<QelString*>(vm.getResult())->getRefCnt(), 1);
  EXPECT_EQ(vm.interpreter(), nullptr);

  // An unknown name: false, an empty error text and a nil result.
  EXPECT_FALSE(vm.execute(u"missing", 0, nullptr, false, &err));
  EXPECT_EQ(std::string(err.a_str()), "");
  EXPECT_EQ(show(vm.getResult()), "nil");
  EXPECT_FALSE(vm.execute(nullptr, 0, nullptr));

  // Errors go to the error printer, else to the machine's; the top is copied all the same.
  Asm(u"bad").load(1).push(0).op(OP_DIV).op(OP_RETURN).install(vm);
  EXPECT_FALSE(vm.execute(u"bad", 0, nullptr, false, &err));
  EXPECT_EQ(std::string(err.a_str()), "divide 0 error\n");
  EXPECT_EQ(show(vm.getResult()), "int:0");
  EXPECT_EQ(std::string(out.a_str()), "");
  EXPECT_FALSE(vm.execute(u"bad", 0, nullptr));
  EXPECT_EQ(std::string(out.a_str()), "divide 0 error\n");
}

TEST_F(VM, ReinitRegistersTheBuiltinsAgain) {
  vm.registerNativeFunction(u"mine", first);
  Asm(u"f").op(OP_RETURN).install(vm);
  makeClass(vm, u"K");
  vm.symbols()[QelString(u"print")].setValue(QelValue(5));
  vm.reinit();
  EXPECT_EQ(vm.symbols().find(u"mine"), nullptr);
  EXPECT_EQ(vm.symbols().find(u"f"), nullptr);
  EXPECT_EQ(vm.classes().count(), 0u);
  EXPECT_EQ(vm.symbols().find(u"print")->getValue().getType(), QVT_CODE);
  EXPECT_EQ(static_cast<void*>(vm.symbols().find(u"stdout")->getValue()), static_cast<void*>(stdout));
  EXPECT_TRUE(vm.registerNativeFunction(u"mine", first));
}

// A script's fclose of a standard stream closes it for that machine's scripts only:
// the process's stream stays open for the printers, for other machines and for the
// machine itself once it starts afresh.
TEST_F(VM, ClosingAStandardStreamClosesItForTheMachineOnly) {
  const QelChar* source = u"closes() { return fclose(stderr); } writes() { return fputs(\"\", stderr); }";
  QelVirtualMachine other(&out);
  ASSERT_TRUE(vm.compileText(source));
  ASSERT_TRUE(other.compileText(source));
  ASSERT_TRUE(vm.execute(u"closes", 0, nullptr, false, &err));
  EXPECT_EQ(vm.getResult().toLong(), 0);
  EXPECT_FALSE(vm.execute(u"closes", 0, nullptr, false, &err));  // closed already
  EXPECT_FALSE(vm.execute(u"writes", 0, nullptr, false, &err));
  EXPECT_EQ(countOf(err.a_str(), "invalid argument"), 2);
  EXPECT_NE(fputs("", stderr), EOF);
  EXPECT_TRUE(other.execute(u"writes", 0, nullptr, false, &err));
  vm.reinit();
  ASSERT_TRUE(vm.compileText(source));
  EXPECT_TRUE(vm.execute(u"writes", 0, nullptr, false, &err));
}

TEST_F(VM, StepWaitProcedure) {
  // Without a wait procedure a step traces exactly one instruction.
  Asm(u"step").op(OP_TRSTEP).op(OP_NOP).op(OP_NOP).op(OP_NOP).op(OP_NOP).op(OP_RETURN).install(vm);
  QelStringPrinter trace;
  EXPECT_FALSE(vm.dbgWait());
  EXPECT_TRUE(vm.execute(u"step", 0, nullptr, false, &err, &trace));
  EXPECT_EQ(countOf(trace.a_str(), "OP_NOP"), 1);

  // Stepping goes on while the wait procedure answers true.
  EXPECT_EQ(vm.setDbgWaitProc(waitTwice), nullptr);
  g_waits = 0;
  trace.clear();
  EXPECT_TRUE(vm.execute(u"step", 0, nullptr, false, &err, &trace));
  EXPECT_EQ(countOf(trace.a_str(), "OP_NOP"), 3);
  EXPECT_EQ(g_waits, 3);
  EXPECT_EQ(vm.setDbgWaitProc(nullptr), waitTwice);
  EXPECT_FALSE(vm.dbgWait());

  // Tracing from the start announces the procedure and traces every instruction.
  trace.clear();
  EXPECT_TRUE(vm.execute(u"step", 0, nullptr, true, &err, &trace));
  EXPECT_EQ(std::string(trace.a_str()).rfind("-->current proc ::step, 0 arguments\n0000: 82 OP_TRSTEP", 0),
            0u);
  EXPECT_EQ(countOf(trace.a_str(), "\n"), 7);
  EXPECT_EQ(std::string(out.a_str()), "");
}

// A literal used once is counted by its procedure alone until it is copied: the trace
// shows the count before the copy at OP_LIT, and after it at the store.
TEST_F(VM, TraceShowsTheCountsOfLiterals) {
  ASSERT_TRUE(vm.compileText(u"lits(; s, v) { s = \"abc\"; v = [1]; return 0; }"));
  QelStringPrinter trace;
  EXPECT_TRUE(vm.execute(u"lits", 0, nullptr, true, &err, &trace));
  std::string text = trace.a_str();
  EXPECT_EQ(countOf(text.c_str(), "OP_LIT"), 3);
  EXPECT_EQ(countOf(text.c_str(), "LIT[3]:QVT_STRING"), 1);
  EXPECT_EQ(countOf(text.c_str(), "(#1) \"abc\") \n"), 1);
  EXPECT_EQ(countOf(text.c_str(), "SP[0](val):QVT_STRING"), 1);
  EXPECT_EQ(countOf(text.c_str(), "(#2) \"abc\") \n"), 1);
  EXPECT_EQ(countOf(text.c_str(), "LIT[4]:QVT_VECTOR"), 1);
  EXPECT_EQ(countOf(text.c_str(), "(#1) \n"), 1);
  EXPECT_EQ(countOf(text.c_str(), "(#2) \n"), 1);
}

TEST_F(VM, DestructorsRunOnlyDuringAnExecution) {
  // A script destructor runs only while an execution is in progress.
  QelClass* cls = makeClass(vm, u"D");
  Asm(u"dtor", cls).op(OP_PUSH).push(QelValue(note)).op(OP_CALL, 0).op(OP_RETURN).installMethod();
  g_seen.clear();
  QelValue(new QelObject(cls), false).dispose();
  EXPECT_EQ(g_seen, "");
  Asm(u"f").push(QelValue(cls, false)).op(OP_NEW).op(OP_NIL).op(OP_RETURN).install(vm);
  EXPECT_TRUE(vm.execute(u"f", 0, nullptr, false, &err));
  EXPECT_EQ(g_seen, "dtor;");
}

TEST_F(VM, NativeModules) {
  QelString path(QEL_TEST_MODULE_PATH), plain(QEL_LIBRARY_PATH);
  EXPECT_FALSE(vm.loadNativeModule(nullptr));
  ASSERT_TRUE(vm.loadNativeModule(path.c_str()));
  EXPECT_TRUE(vm.execute(u"moduleLoads", 0, nullptr, false, &err));
  EXPECT_EQ(show(vm.getResult()), "int:1");
  // Loading the same name again answers true without loading or registering again.
  EXPECT_TRUE(vm.loadNativeModule(path.c_str()));
  EXPECT_TRUE(vm.execute(u"moduleLoads", 0, nullptr, false, &err));
  EXPECT_EQ(show(vm.getResult()), "int:1");
  EXPECT_EQ(vm.modules().count(), 1u);
  // A library without the registration export fails but stays recorded.
  EXPECT_FALSE(vm.loadNativeModule(plain.c_str()));
  EXPECT_NE(vm.modules().find(plain), nullptr);
  EXPECT_FALSE(vm.loadNativeModule(u"/nonexistent/libnothing.so"));
  EXPECT_EQ(vm.modules().count(), 2u);
  vm.reinit();
  EXPECT_EQ(vm.modules().count(), 0u);
  EXPECT_EQ(vm.symbols().find(u"moduleLoads"), nullptr);
}

TEST_F(VM, ModulesSharedBetweenMachines) {
  QelString path(QEL_TEST_MODULE_PATH), plain(QEL_LIBRARY_PATH);
  {
    QelVirtualMachine other(&out);
    ASSERT_TRUE(other.loadNativeModule(path.c_str()));
    ASSERT_TRUE(vm.loadNativeModule(path.c_str()));
  }
  // The other machine's end leaves this machine's record of the library intact, so
  // freeing this machine's modules unloads exactly what it loaded.
  EXPECT_FALSE(vm.loadNativeModule(plain.c_str()));
  EXPECT_TRUE(vm.execute(u"moduleLoads", 0, nullptr, false, &err));
  vm.reinit();
  void* still = dlopen(path.a_str(), RTLD_NOW | RTLD_NOLOAD);
  EXPECT_EQ(still, nullptr);
  if (still) dlclose(still);
}
