// Where a failed run stood: the active calls, innermost first, with the source lines the
// compiler kept beside each procedure. Failures a caller goes on from (a destructor's, a
// "toString" that failed) leave nothing behind; the error text itself is unchanged.
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "assembler.h"
#include "qel/lines.h"

using namespace qeltest;

namespace {

class Traceback : public ::testing::Test {
 protected:
  // Runs `entry`; answers the traceback text ("" when the run succeeded).
  std::string run(const QelChar* entry = u"main") {
    err.clear();
    bool ok = vm.execute(entry, 0, nullptr, false, &err);
    EXPECT_EQ(ok, vm.lastTraceFrames().empty());
    return utf8(vm.lastTraceback());
  }
  QelStringPrinter out, err;
  QelVirtualMachine vm{&out};
};

bool poke(QelVirtualMachine* vm, int, ValPtr&) {
  return vm->interpreter()->returnError(u"poke refused", nullptr);
}

}  // namespace

TEST(LineTable, MarksAndLookups) {
  QelLineTable t(u"f.qel");
  EXPECT_EQ(t.lineAt(0), 0);
  t.mark(0, 3);
  t.mark(0, 4);  // nothing compiled since: the code from 0 is line 4's
  t.mark(5, 4);  // same line: no new mark
  t.mark(9, 7);
  t.mark(12, 8);
  t.mark(12, 7);  // back to line 7 at 12: merges into the mark at 9
  EXPECT_EQ(t.lineAt(0), 4);
  EXPECT_EQ(t.lineAt(8), 4);
  EXPECT_EQ(t.lineAt(9), 7);
  EXPECT_EQ(t.lineAt(1000), 7);
  EXPECT_EQ(utf8(t.source()), "f.qel");
}

TEST_F(Traceback, NestedCallsMethodsAndNatives) {
  ASSERT_TRUE(vm.compileText(
      u"class Box { n; Box(); size(k); }\n"
      u"Box::Box() { n = 1; }\n"
      u"Box::size(k) {\n"
      u"  return strlen(k);\n"
      u"}\n"
      u"measure(b) {\n"
      u"  return b->size(\n"
      u"    5);\n"
      u"}\n"
      u"main() { return measure(new Box()); }\n"));
  EXPECT_EQ(run(),
            "  at strlen\n"
            "  at Box::size (line 4)\n"
            "  at measure (line 7)\n"  // a call spread over lines stands where it starts
            "  at main (line 10)\n");
  // The error text is the interpreter's own, with nothing added.
  EXPECT_EQ(std::string(err.a_str()), "invalid argument type\n");
  const auto& frames = vm.lastTraceFrames();
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_TRUE(frames[0].native);
  EXPECT_EQ(frames[0].line, 0);
  EXPECT_EQ(utf8(frames[1].className), "Box");
  EXPECT_EQ(utf8(frames[1].name), "size");
  EXPECT_FALSE(frames[1].native);
  EXPECT_EQ(frames[3].line, 10);

  // A successful run leaves no traceback.
  ASSERT_TRUE(vm.compileText(u"main() { return 1; }"));
  EXPECT_EQ(run(), "");
}

TEST_F(Traceback, NativeMethodsAndCodeWithoutLines) {
  QelClass* cls = makeClass(vm, u"Gadget");
  QelDictionaryEntry& m = cls->funcMembers()[QelString(u"poke")];
  m.setValue(QelValue(poke));
  m.setSymbolType(QST_METHOD);
  ASSERT_TRUE(vm.compileText(u"use(g) { return g->poke(); }\n"));
  // A procedure built by hand has no lines; the procedure it calls has.
  Asm main(u"handmade");
  main.op(OP_PUSH).op(OP_REF, main.lit(QelValue(vm.symbols().find(u"use"))));
  main.op(OP_PUSH).op(OP_REF, main.lit(QelValue(vm.classes().find(u"Gadget")))).op(OP_NEW);
  main.op(OP_CALL, 1).op(OP_RETURN);
  main.install(vm);
  EXPECT_EQ(run(u"handmade"),
            "  at Gadget::poke\n"
            "  at use (line 1)\n"
            "  at handmade\n");
  EXPECT_EQ(std::string(err.a_str()), "poke refused\n");
}

TEST_F(Traceback, SourceFilesRecursionAndModules) {
  std::filesystem::path dir = std::filesystem::temp_directory_path() / ("qel-tb-" + std::to_string(getpid()));
  std::filesystem::create_directories(dir);
  std::string source = (dir / "deep.qel").string();
  std::ofstream(source) << "down(n) {\n"
                           "  if (n == 0) return 1 / 0;\n"
                           "  return down(n - 1);\n"
                           "}\n"
                           "ping(n) { if (n == 0) return nil[1]; return pong(n - 1); }\n"
                           "pong(n) { return ping(n); }\n"
                           "main() { return down(50); }\n"
                           "echo() { return ping(30); }\n";
  ASSERT_TRUE(vm.compileFile(QelString(source.c_str()).c_str()));
  EXPECT_EQ(run(), "  at down (" + source + ":2)\n  at down (" + source + ":3)\n  ... the same call 49 more times\n" +
                       "  at main (" + source + ":7)\n");
  EXPECT_EQ(vm.lastTraceFrames().size(), 52u);

  // A chain that does not repeat keeps its twenty innermost and outermost lines.
  std::string text = run(u"echo");
  EXPECT_EQ(vm.lastTraceFrames().size(), 62u);
  EXPECT_NE(text.find("  ... 22 more lines\n"), std::string::npos) << text;
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 41);

  // Procedures read from a module file have no lines.
  std::string module = (dir / "deep.qem").string();
  ASSERT_TRUE(vm.writeModule(QelString(module.c_str()).c_str()));
  QelVirtualMachine other(&out);
  ASSERT_TRUE(other.readModule(QelString(module.c_str()).c_str()));
  EXPECT_FALSE(other.execute(u"main", 0, nullptr));
  EXPECT_EQ(other.lastTraceFrames().size(), 52u);
  EXPECT_EQ(utf8(other.lastTraceback()), "  at down\n  ... the same call 50 more times\n  at main\n");
  std::filesystem::remove_all(dir);
}

TEST_F(Traceback, FailuresCallersGoOnFromAreForgotten) {
  ASSERT_TRUE(vm.compileText(
      u"class Grumpy { Grumpy(); dtor(); fail(); toString(); }\n"
      u"Grumpy::Grumpy() {}\n"
      u"Grumpy::dtor() { return nil[0]; }\n"
      u"Grumpy::fail() { return strlen(); }\n"
      u"Grumpy::toString() { return nil[0]; }\n"
      u"helper(; g) { g = new Grumpy(); return 0; }\n"
      u"main(; g) {\n"
      u"  helper();\n"  // its object's destructor fails: helper goes on
      u"  g = new Grumpy(); print(g);\n"  // so does its failing toString's caller
      u"  return nil[1];\n"
      u"}\n"
      // The receiver dies when the failing method ends; its destructor fails meanwhile.
      u"temporary() { return (new Grumpy())->fail(); }\n"));
  EXPECT_EQ(run(), "  at main (line 10)\n");
  EXPECT_EQ(run(u"temporary"), "  at strlen\n  at Grumpy::fail (line 4)\n  at temporary (line 12)\n");
  // The destructor's error still shows in the error text.
  EXPECT_EQ(std::string(err.a_str()), "too few arguments\ninvalid value type &s, QVT_NULL expected\n");
}
