// The scanner: token streams, literals, comments, push-back, error reports, nesting
// and file sources.
#include <gtest/gtest.h>

#include <cstdio>
#include <string>

#include "qel/scanner.h"

namespace {

std::string utf8(const QelChar* text) { return QelString(text).a_str(); }

// One token as "<name>:value" (identifiers, strings, numbers), 'c' for <any>, else its name.
std::string describe(QelScanner& s, QelToken t) {
  std::string name = utf8(s.getTokenName(t));
  switch (t) {
    case QT_IDENT:
    case QT_STRING:
      return name + ":" + utf8(s.getTokenString());
    case QT_LONG:
      return name + ":" + std::to_string(s.getLong());
    case QT_FLOAT: {
      char buf[64];
      snprintf(buf, sizeof buf, "%g", s.getDouble());
      return name + ":" + buf;
    }
    case QT_ANY:
      return "'" + name + "'";
    default:
      return name;
  }
}

// All tokens up to the end, separated by spaces.
std::string scanAll(QelScanner& s) {
  std::string out;
  for (int i = 0; i < 10000; ++i) {
    QelToken t = s.getToken();
    if (t == QT_EOF) return out;
    if (!out.empty()) out += ' ';
    out += describe(s, t);
  }
  return out + " ...no end";
}

std::string scan(const QelChar* text) {
  QelScanner s(text, u"test");
  return scanAll(s);
}

}  // namespace

// literals.qel runs the usual literals, escapes and comments through the whole engine;
// these are the token streams a script's output cannot show.
TEST(ScannerTokens, IdentifiersOperatorsAndComments) {
  EXPECT_EQ(scan(u"TRON TROFF TRSTEP tron"), "TRON TROFF TRSTEP <ident>:tron");  // case-sensitive
  EXPECT_EQ(scan(u"_a1 classy x_y9 \u00e9t\u00e9 \u03b1\u03b2"),
            "<ident>:_a1 <ident>:classy <ident>:x_y9 <ident>:\u00e9t\u00e9 <ident>:\u03b1\u03b2");
  EXPECT_TRUE(QelScanner::isIdChar(u'_'));
  EXPECT_FALSE(QelScanner::isIdChar(u'$'));
  EXPECT_FALSE(QelScanner::isIdChar(0xFFFF));
  EXPECT_EQ(scan(u"$x"), "'$' <ident>:x");
  EXPECT_EQ(scan(u"a<<=b"), "<ident>:a <<= <ident>:b");
  EXPECT_EQ(scan(u"a< <b"), "<ident>:a '<' '<' <ident>:b");
  EXPECT_EQ(scan(u"+++-->"), "++ '+' -- '>'");  // longest match from the left
  QelScanner s(u"x", u"t");
  EXPECT_STREQ(utf8(s.getTokenName(QT_NULL)).c_str(), "null");
  EXPECT_STREQ(utf8(s.getTokenName(static_cast<QelToken>(48))).c_str(), "invalid token");
  // Comments.
  EXPECT_EQ(scan(u"a /**/ b /*** c **/ d"), "<ident>:a <ident>:b <ident>:d");
  EXPECT_EQ(scan(u"a /* /* b */ c */"), "<ident>:a <ident>:c '*' '/'");  // no nesting
  EXPECT_EQ(scan(u"a /* open to the end"), "<ident>:a");
  EXPECT_EQ(scan(u"#"), "'#'");
}

TEST(ScannerNumbers, IntegersAndFloats) {
  EXPECT_EQ(scan(u"0x 0xg"), "<long>:0 <long>:0 <ident>:g");
  EXPECT_EQ(scan(u"0x1e5 0x1.5"), "<long>:485 <long>:1 '.' <long>:5");
  EXPECT_EQ(scan(u"12ab -3"), "<long>:12 <ident>:ab '-' <long>:3");
  // Beyond the 32-bit range the conversion saturates.
  EXPECT_EQ(scan(u"2147483647 2147483648 0xFFFFFFFF 037777777777"),
            "<long>:2147483647 <long>:2147483647 <long>:2147483647 <long>:2147483647");
  std::u16string digits(5000, u'9');
  EXPECT_EQ(scan(digits.c_str()), "<long>:2147483647");
  EXPECT_EQ(scan(u"1.5e-3 3e 4E+2"), "<float>:0.0015 <float>:3 <float>:400");
  EXPECT_EQ(scan(u"1.2.3"), "<float>:1.2 '.' <long>:3");
  EXPECT_EQ(scan(u"1e.5"), "<float>:1 '.' <long>:5");
  std::u16string big = std::u16string(400, u'9') + u".5";
  EXPECT_EQ(scan(big.c_str()), "<float>:inf");
}

TEST(ScannerLiterals, CharactersAndStrings) {
  EXPECT_EQ(scan(u"'\\q' '\\012'"), "<long>:113 <long>:10");
  EXPECT_EQ(scan(u"'\\1.5'"), "<error> <error>");  // the quote left over opens another literal
  QelScanner s(u"'ab'", u"c.qel");
  ASSERT_EQ(s.getToken(), QT_ERROR);
  EXPECT_EQ(utf8(s.getTokenString()), "--> closing single quote expected \nin c.qel line 1 pos 3 \n'ab'\n\n");
  QelScanner open(u"'", u"c.qel");
  EXPECT_EQ(open.getToken(), QT_ERROR);
  EXPECT_EQ(open.getToken(), QT_EOF);

  EXPECT_EQ(scan(u"\"\" \"\\z\""), "<string>: <string>:z");
  EXPECT_EQ(scan(u"\"open\nto the end"), "<string>:open\nto the end\n");  // accepted
  EXPECT_EQ(scan(u"\"ends in \\"), "<string>:ends in \n");  // escaped line end
  EXPECT_EQ(scan(u"\"\\2.5\" x"), "<error> <string>: x\n");
  std::u16string longText = u"\"" + std::u16string(20000, u'z') + u"\\65\"";
  QelScanner t(longText.c_str(), u"t");
  ASSERT_EQ(t.getToken(), QT_STRING);
  EXPECT_EQ(std::u16string(t.getTokenString()), std::u16string(20000, u'z') + u"A");
}

TEST(ScannerPushBack, OneTokenOnly) {
  QelScanner s(u"abc 12", u"t");
  EXPECT_EQ(s.back(), true);  // before any token: QT_NOTOKEN comes back
  EXPECT_EQ(s.getToken(), QT_NOTOKEN);
  ASSERT_EQ(s.getToken(), QT_IDENT);
  EXPECT_TRUE(s.back());
  EXPECT_FALSE(s.back());
  EXPECT_EQ(s.getToken(), QT_IDENT);
  EXPECT_EQ(utf8(s.getTokenString()), "abc");
  EXPECT_EQ(s.getToken(), QT_LONG);
  EXPECT_TRUE(s.back());
  EXPECT_EQ(s.getToken(), QT_LONG);
  EXPECT_EQ(s.getLong(), 12);
}

TEST(ScannerErrors, MessageIsTextNotAFormat) {
  QelScanner t(u"first line\n  x = 'ab';\n", u"test.qel");
  for (int i = 0; i < 4; ++i) t.getToken();
  ASSERT_EQ(t.getToken(), QT_ERROR);
  EXPECT_EQ(t.parseError(u"100% wrong"), QT_ERROR);
  EXPECT_EQ(utf8(t.getTokenString()), "--> 100% wrong \nin test.qel line 2 pos 9 \n  x = 'ab';\n\n");
}

TEST(ScannerLines, CharactersAndLineEnds) {
  QelScanner s(u"ab\ncd\n", u"t");
  std::u16string got;
  for (QelChar c; (c = s.get()) != QEL_END_OF_SOURCE;) got += c;
  EXPECT_EQ(got, u"ab\ncd\n\n");  // a final '\n' yields one more, empty, line
  EXPECT_EQ(s.getLineNumber(), 3);
  EXPECT_EQ(s.get(), QEL_END_OF_SOURCE);
  QelScanner cr(u"a\r\nb", u"t");
  EXPECT_EQ(scanAll(cr), "<ident>:a <ident>:b");
  // U+FFFF is the end marker: a text holding it ends there.
  EXPECT_EQ(scan(u"a \uffff b"), "<ident>:a");
  QelScanner empty(u"", u"t");
  EXPECT_EQ(empty.getToken(), QT_EOF);
  EXPECT_EQ(utf8((empty.parseError(u"m"), empty.getTokenString())), "--> m \nin t line 1 pos 1 \n\n\n");
}

// include.qel and compile_expressions.qel check included files end to end.
TEST(ScannerNesting, ChainsAndPushBack) {
  QelScanner s(u"z", u"a");
  s.push(u"b1", u"b");
  s.push(u"c1", u"c");  // attached after "b", so it comes first
  EXPECT_EQ(s.getToken(), QT_IDENT);
  EXPECT_TRUE(s.back());
  EXPECT_EQ(scanAll(s), "<ident>:c1 <ident>:b1 <ident>:z");
  QelScanner deep(u"end", u"a");
  for (int i = 0; i < 2000; ++i) deep.push(u"", u"n");
  EXPECT_EQ(scanAll(deep), "<ident>:end");
  QelScanner dropped(u"", u"a");
  for (int i = 0; i < 2000; ++i) dropped.push(u"x", u"n");  // freed with the scanner
}

TEST(ScannerFile, BytesAndOwnership) {
  std::FILE* fp = std::tmpfile();
  ASSERT_NE(fp, nullptr);
  const unsigned char bytes[] = {'a', ' ', 0xE9, '\n', 'b', 0, 'c', ' ', 'd', '\n', 0, 'e', '\n', '"', 0xFF, '"'};
  fwrite(bytes, 1, sizeof bytes, fp);
  rewind(fp);
  QelScanner s(static_cast<void*>(fp), u"file.qel");  // closes the stream
  // A byte is a character; a NUL byte ends its line.
  EXPECT_EQ(s.getToken(), QT_IDENT);
  EXPECT_EQ(s.getToken(), QT_IDENT);
  EXPECT_EQ(s.getTokenString()[0], 0xE9);
  EXPECT_EQ(s.getToken(), QT_IDENT);
  EXPECT_EQ(utf8(s.getTokenString()), "b");
  EXPECT_EQ(s.getToken(), QT_STRING);
  EXPECT_EQ(std::u16string(s.getTokenString()), u"\u00ff");
  EXPECT_EQ(s.getLineNumber(), 4);
  EXPECT_EQ(s.getToken(), QT_EOF);
  QelScanner none(static_cast<void*>(nullptr), u"none");
  EXPECT_EQ(none.getToken(), QT_EOF);
}
