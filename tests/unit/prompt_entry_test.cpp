// How the prompt reads entries: when one goes on to the next line, and whether it
// declares items or holds statements.
#include <gtest/gtest.h>

#include "entry.h"

using namespace qelcli;

TEST(PromptEntry, OpenUntilEveryBracketStringAndCommentCloses) {
  EXPECT_FALSE(entryIsOpen("1 + 2"));
  EXPECT_TRUE(entryIsOpen("f(x) {\n"));
  EXPECT_TRUE(entryIsOpen("v = [1, (2\n"));
  EXPECT_FALSE(entryIsOpen("v = [1, (2)]\n"));
  EXPECT_TRUE(entryIsOpen("s = \"two\n"));  // strings may span lines
  EXPECT_FALSE(entryIsOpen("s = \"a ( \\\" {\";"));
  EXPECT_FALSE(entryIsOpen("c = '(';"));
  EXPECT_TRUE(entryIsOpen("x = 1; /* a note (\n"));
  EXPECT_FALSE(entryIsOpen("x = 1; /* ( */ // {\n"));
  EXPECT_FALSE(entryIsOpen("x = 1; @ {\n"));
  EXPECT_FALSE(entryIsOpen("} oops"));  // too many closers: the compiler says so
}

TEST(PromptEntry, DeclarationsAndStatements) {
  EXPECT_TRUE(declaresItems("square(x) { return x * x; }"));
  EXPECT_TRUE(declaresItems("  Counter::add(k) {\n"));
  EXPECT_TRUE(declaresItems("Counter::~Counter() {}"));
  EXPECT_TRUE(declaresItems("class Counter { n; Counter(); }"));
  EXPECT_TRUE(declaresItems("#defvar limit 10"));
  EXPECT_TRUE(declaresItems("f(a, (b)) // c\n{ }"));
  EXPECT_FALSE(declaresItems("square(7);"));
  EXPECT_FALSE(declaresItems("Counter::make(3)"));
  EXPECT_FALSE(declaresItems("if (x) { y = 1; }"));
  EXPECT_FALSE(declaresItems("while (i < 3) { ++i; }"));  // keywords are no function names
  EXPECT_FALSE(declaresItems("#! a comment line"));
  EXPECT_FALSE(declaresItems("{ x = 1; }"));
}

TEST(PromptEntry, ExpressionTextWithoutItsClosingSemicolon) {
  EXPECT_EQ(withoutClosingSemicolon("1 + 2;  // sum\n"), "1 + 2");
  EXPECT_EQ(withoutClosingSemicolon("s = \"a;\"\n"), "s = \"a;\"");
  EXPECT_EQ(withoutClosingSemicolon("a = 1; b = 2;"), "a = 1; b = 2");
  EXPECT_EQ(withoutClosingSemicolon("  \n"), "");
}
