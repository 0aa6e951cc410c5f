// Built-ins seen from the host: the system group without a run in progress, the
// script's command arguments, 2- and 3-byte buffers, compiling from a stream, and the
// "?" of a procedure name.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>
#include <vector>

#include "assembler.h"
#include "qel/builtins.h"

using namespace qeltest;

namespace {

// Compiles `source` and runs its procedure "f"; answers the result shown, or the
// error text when the run fails.
std::string run(QelVirtualMachine& vm, const QelChar* source) {
  QelStringPrinter messages;
  if (!vm.compileText(source, false, false, &messages)) return "compile: " + utf8(messages.c_str());
  QelStringPrinter errors;
  if (!vm.execute(u"f", 0, nullptr, false, &errors)) return "error: " + utf8(errors.c_str());
  QelVector* v = vm.getResult();
  if (vm.getResult().getType() != QVT_VECTOR || !v) return show(vm.getResult());
  std::string shown = "[";
  for (unsigned i = 0; i < v->size(); ++i) shown += (i ? " " : "") + show((*v)[i]);
  return shown + "]";
}

// A global variable holding a buffer of the given bytes.
void defineBuffer(QelVirtualMachine& vm, const QelChar* name, std::vector<unsigned char> bytes) {
  QelBuffer* b = new QelBuffer();
  b->append(bytes.data(), static_cast<unsigned>(bytes.size()));
  QelDictionaryEntry& e = vm.symbols()[QelString(name)];
  e.setValue(QelValue(b));
  e.setSymbolType(QST_STATIC_DATA);
}

std::string userArgs(std::vector<const QelChar*> argv) {
  QelVirtualMachine vm;
  vm.cmdargc() = static_cast<int>(argv.size());
  vm.cmdargv() = argv.data();
  return run(vm, u"f() { return getusrargs(); }");
}

}  // namespace

TEST(SystemBuiltins, NeedARunInProgress) {
  QelStringPrinter out;
  QelVirtualMachine vm(&out);
  QelVector stack;
  stack.push_back(QelValue(int32_t(5)));
  ValPtr args = stack.last();
  EXPECT_FALSE(QelDefaultFunctions::Qel_srand(&vm, 1, args));
  EXPECT_FALSE(QelDefaultFunctions::Qel_CallLibFunc(&vm, 1, args));
  EXPECT_EQ(utf8(out.c_str()), "missing interpreter\nmissing interpreter\n");
  EXPECT_FALSE(QelDefaultFunctions::Qel_rand(nullptr, 0, args));
  // Nothing else is touched: the argument is still in place.
  EXPECT_EQ(args.current(), 0);
  EXPECT_EQ(show(stack[0]), "int:5");
}

TEST(SystemBuiltins, UserArgumentsFollowTheMarker) {
  EXPECT_EQ(userArgs({u"s.qel", u"a", u"#", u"b", u"c"}), "[str:b str:c]");
  EXPECT_EQ(userArgs({u"s.qel", u"a", u"#b", u"c"}), "[str:b str:c]");
  EXPECT_EQ(userArgs({u"#", u"x#"}), "[str:x#]");
  EXPECT_EQ(userArgs({u"s.qel", u"a"}), "[]");
  EXPECT_EQ(userArgs({}), "[]");

  QelVirtualMachine vm;
  std::vector<const QelChar*> argv{u"s.qel", u"a", u"#b"};
  vm.cmdargc() = 3;
  vm.cmdargv() = argv.data();
  EXPECT_EQ(run(vm, u"f() { return getargs(); }"), "[str:s.qel str:a str:#b]");
}

TEST(ConversionBuiltins, BufferSizesDecide) {
  QelVirtualMachine vm;
  defineBuffer(vm, u"two", {0xFE, 0xFF});
  defineBuffer(vm, u"three", {1, 2, 3});
  EXPECT_EQ(run(vm, u"f() { return int(two); }"), "int:-2");
  EXPECT_EQ(run(vm, u"f() { return int(three); }"), "error: invalid argument type\n");
  EXPECT_EQ(run(vm, u"f() { return double(two); }"), "error: invalid argument type\n");
}

TEST(CompileBuiltin, CompilesTheRestOfAStreamAndClosesIt) {
  FILE* fp = tmpfile();
  ASSERT_NE(fp, nullptr);
  fputs("skipped\nfromFile() { return 21 * 2; }\n", fp);
  rewind(fp);
  char line[16];
  ASSERT_NE(fgets(line, sizeof line, fp), nullptr);

  QelStringPrinter out;
  QelVirtualMachine vm(&out);
  QelDictionaryEntry& e = vm.symbols()[QelString(u"src")];
  e.setValue(QelValue(static_cast<void*>(fp)));
  e.setSymbolType(QST_STATIC_DATA);
  EXPECT_EQ(run(vm, u"f() { return compile(src, \"stream\") * 100 + fromFile(); }"), "int:142");
  // The compiler closed the stream: the script's file is refused from then on.
  EXPECT_EQ(run(vm, u"f() { return fgets(src); }"), "error: invalid argument type\n");

  // Errors are the compiler's report, under the given source name; the result is 0.
  EXPECT_EQ(run(vm, u"f() { return compile(\"g( {\", \"snippet\"); }"), "int:0");
  EXPECT_NE(utf8(out.c_str()).find("in snippet line 1"), std::string::npos) << utf8(out.c_str());
}

TEST(NativeLibraryBuiltins, QuestionMarkStandsForW) {
  QelVirtualMachine vm;
  std::string source = std::string("f(; lib, a, b) {\n") + "  lib = LoadLibrary(\"" + QEL_LIBRARY_PATH +
                       "\");\n"
                       "  a = GetProcAddress(lib, \"_ZN9QelBuffer10push_back?EDs\");\n"
                       "  b = GetProcAddress(lib, \"_ZN9QelBuffer10push_backWEDs\");\n"
                       "  FreeLibrary(lib);\n"
                       "  return (a != 0) * 10 + (a == b);\n"
                       "}\n";
  QelString text(source.c_str());
  EXPECT_EQ(run(vm, text.c_str()), "int:11");
}
