// The sources of "newcbuffer", which it chooses by the type in the call slot: a script
// call always fills the slot with the function itself, but a host that calls the native
// directly can put any value there.
#include <gtest/gtest.h>

#include <string>

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

}  // namespace
