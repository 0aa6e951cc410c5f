// Built-ins seen from the host: the system group without a run in progress, the
// script's command arguments after the marker, and the "?" of a procedure name.
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
