// The limits a host sets on a machine: an instruction budget, an interrupt from another
// thread, a memory limit and the call depth. Each stops a run with its runtime error,
// lets the destructors of dying objects run, and leaves the machine ready for the next run.
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

#include "assembler.h"

using namespace qeltest;

namespace {

const QelChar kScripts[] =
    u"class Guard { Guard(); ~Guard(); } Guard::Guard() {} Guard::~Guard() { print(\"~Guard \"); }\n"
    u"spin(; g) { g = new Guard(); while (1) {} }\n"
    u"hoard(; g, v) { g = new Guard(); v = T(1); while (1) v = T(v, v); }\n"
    u"down(n) { if (n == 0) return 0; return down(n - 1) + 1; }\n"
    u"class R { R(); OP_ADD(x); } R::R() {} R::OP_ADD(x) { return this + x; }\n"
    u"spiral(; r) { r = new R(); return r + 1; }\n"
    u"work(; i, s) { s = \"\"; for (i = 0; i < 1000; ++i) s = s + \"x\"; return strlen(s); }\n";

class Limits : public ::testing::Test {
 protected:
  Limits() { EXPECT_TRUE(vm.compileText(kScripts)); }
  // "error:<text>" or the result shown; what the scripts printed goes to `out`.
  std::string run(const QelChar* entry, const QelChar* arg = nullptr) {
    err.clear();
    const QelChar* argv[] = {arg};
    if (!vm.execute(entry, arg ? 1 : 0, argv, false, &err)) return "error:" + std::string(err.a_str());
    return show(vm.getResult());
  }
  // The machine still runs scripts normally after a stopped run.
  void expectUsable() {
    EXPECT_EQ(run(u"work"), "int:1000");
    EXPECT_EQ(run(u"down", u"30"), "error:invalid value type &s, QVT_INTEGER expected\n") << "string argument";
  }
  QelStringPrinter out, err;
  QelVirtualMachine vm{&out};
};

}  // namespace

TEST_F(Limits, InstructionBudget) {
  vm.setInstructionLimit(100000);
  out.clear();
  EXPECT_EQ(run(u"spin"), "error:instruction limit exceeded\n");
  EXPECT_EQ(std::string(out.a_str()), "~Guard ");
  EXPECT_EQ(run(u"work"), "int:1000") << "each execution gets the whole budget";
  vm.setInstructionLimit(1000);
  EXPECT_EQ(run(u"work"), "error:instruction limit exceeded\n");
  vm.setInstructionLimit(0);
  expectUsable();
}

TEST_F(Limits, InterruptFromAnotherThread) {
  out.clear();
  std::thread stopper([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    vm.interrupt();
  });
  EXPECT_EQ(run(u"spin"), "error:interrupted\n");
  stopper.join();
  EXPECT_EQ(std::string(out.a_str()), "~Guard ");
  // A request made while nothing runs does not stop the next run.
  vm.interrupt();
  expectUsable();
}

TEST_F(Limits, MemoryLimit) {
  vm.setMemoryLimit(4 << 20);
  out.clear();
  EXPECT_EQ(run(u"hoard"), "error:out of memory\n");
  EXPECT_EQ(std::string(out.a_str()), "~Guard ");
  expectUsable();
  vm.setMemoryLimit(0);
}

TEST_F(Limits, CallDepth) {
  EXPECT_EQ(vm.getMaxCallDepth(), QelInterpreter::kMaxCallDepth);
  vm.setMaxCallDepth(50);
  EXPECT_EQ(vm.compileText(u"deep(n) { return down(int(n)); }"), true);
  EXPECT_EQ(run(u"deep", u"45"), "int:45");
  EXPECT_EQ(run(u"deep", u"60").rfind("error:stack overflow\n", 0), 0u);
  expectUsable();
  // However deep scripts may nest, sends from operators stay within the native stack.
  vm.setMaxCallDepth(100000000);
  EXPECT_EQ(run(u"deep", u"100000"), "int:100000");
  EXPECT_EQ(run(u"spiral").rfind("error:stack overflow\n", 0), 0u);
  expectUsable();
}
