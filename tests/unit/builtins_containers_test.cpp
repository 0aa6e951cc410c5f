// The exact error text of wrong calls to the container and string built-ins, and the
// sources of "newcbuffer", which it chooses by the type in the call slot: a script call
// always fills the slot with the function itself, but a host that calls the native
// directly can put any value there.
#include <gtest/gtest.h>

#include <string>
#include <utility>

#include "qel/buffer.h"
#include "qel/builtins.h"
#include "qel/printer.h"

namespace {

// Calls newcbuffer with `slot` in the call slot and the arguments after it; answers its
// characters as numbers, or "failed".
std::string newcbuffer(const QelValue& slot, std::initializer_list<QelValue> arguments) {
  QelVirtualMachine vm;
  QelVector stack;
  stack.push_back(slot);
  for (const QelValue& a : arguments) stack.push_back(a);
  int nargs = static_cast<int>(arguments.size());
  ValPtr args(&stack, nargs);
  if (!QelDefaultFunctions::Qel_newcbuffer(&vm, nargs, args))
    return args.current() == nargs ? "failed" : "moved";
  if (args.current() != 0) return "not at the call slot";
  QelCharBuffer* b = stack[0];
  if (!b) return "no buffer";
  std::string shown;
  for (unsigned int i = 0; i < b->size(); ++i) shown += std::to_string((*b)[i]) + " ";
  return shown;
}

TEST(NewCBuffer, SourceFollowsTheCallSlot) {
  QelValue text(new QelString(u"ab"));
  QelBuffer* bytes = new QelBuffer();
  bytes->push_back(0xF0);
  bytes->push_back(1);
  QelCharBuffer* chars = new QelCharBuffer();
  chars->push_back(0x141);
  QelValue bytesValue(bytes), charsValue(chars);

  EXPECT_EQ(newcbuffer(QelValue(0), {QelValue(3), QelValue(0x10041)}), "65 65 65 ");
  EXPECT_EQ(newcbuffer(QelValue(0), {QelValue(2)}), "0 0 ");
  // The doubled terminator is deliberate.
  EXPECT_EQ(newcbuffer(text, {text}), "97 98 0 0 ");
  EXPECT_EQ(newcbuffer(bytesValue, {bytesValue}), "240 1 ");
  EXPECT_EQ(newcbuffer(charsValue, {charsValue}), "321 ");
  // The data always come from argument 1, whatever its type.
  EXPECT_EQ(newcbuffer(text, {QelValue(3)}), "");
  EXPECT_EQ(newcbuffer(bytesValue, {text}), "");
  // The function itself in the slot: no source matches.
  EXPECT_EQ(newcbuffer(QelValue(QelDefaultFunctions::Qel_newcbuffer), {QelValue(3)}), "failed");
}

// The error text of `call` made by a script, or "succeeded".
std::string errorOf(const std::u16string& call) {
  QelStringPrinter out, err;
  QelVirtualMachine vm(&out);
  std::u16string text = u"f() { return " + call + u"; }";
  if (!vm.compileText(text.c_str(), false, false, &err)) return "compile error";
  if (vm.execute(u"f", 0, nullptr, false, &err)) return "succeeded";
  return err.a_str();
}

// builtins_containers.qel and builtins_strings.qel check the usual wrong calls; these
// are the orders of the checks and the texts they do not reach.
TEST(ContainerAndStringBuiltins, ErrorTexts) {
  // Count checks come first; then argument 1; the texts differ between functions.
  const std::pair<const char16_t*, const char*> cases[] = {
      {u"newvector(1, 2, 3)", "too many arguments\n"},
      {u"newstring(CBuf(), 1)", "too many arguments\n"},
      {u"newstring(nil, 1, 2)", "invalid value type\n"},
      {u"newbuffer(nil)", "invalid value type\n"},
      {u"vecsize(newbuffer(1))", "invalid argument type\n"},
      {u"dictcontains(newdict(), 1)", "invalid argument type\n"},
      {u"strinsert(5, 0, \"x\", 2)", "too many arguments\n"},
      {u"strinsert(5, -1, 'x')", "invalid argument type - string expected\n"},
      {u"strfind(5, 0)", "invalid argument type - string expected\n"},
      {u"strreplace(\"abc\", \"a\", 1)", "invalid argument type - string expected\n"},
      {u"strlen(5)", "invalid argument type\n"},
      {u"strsplit(\"a\", nil)", "invalid argument type\n"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(errorOf(c.first), c.second) << std::string(QelString(c.first).a_str());
}

}  // namespace
