// Strings (empty storage, UTF-8, both formatters), byte and character buffers. The
// editing operations are what the string built-ins call: builtins_strings.qel runs them.
#include <gtest/gtest.h>

#include <climits>
#include <initializer_list>
#include <string>

#include "qel/buffer.h"
#include "qel/string.h"

namespace {

std::u16string text(const QelString& s) { return s.c_str(); }

// The script formatter applied to `format` and the values.
std::u16string scriptFormat(const QelChar* format, std::initializer_list<QelValue> values) {
  QelVector args;
  for (const QelValue& v : values) args.push_back(v);
  ValPtr cursor(&args, 0);
  return text(QelString(format, static_cast<unsigned int>(args.size()), cursor));
}

QelValue bytesValue(const char* bytes, unsigned int n) {
  QelBuffer* b = new QelBuffer(n);
  for (unsigned int i = 0; i < n; ++i) b->push_back(static_cast<unsigned char>(bytes[i]));
  return QelValue(b);
}

QelValue charsValue(const QelChar* chars, unsigned int n) {
  QelCharBuffer* b = new QelCharBuffer(n);
  for (unsigned int i = 0; i < n; ++i) b->push_back(chars[i]);
  return QelValue(b);
}

}  // namespace

TEST(StringBasics, EmptyStringsAndCopies) {
  QelString none, fromNull(static_cast<const QelChar*>(nullptr));
  const QelChar* emptyText = none.c_str();
  ASSERT_NE(emptyText, nullptr);
  EXPECT_EQ(fromNull.c_str(), emptyText);  // null storage reads as ""
  QelString copy(none), sum = none + none;
  EXPECT_EQ(copy.c_str(), emptyText);
  EXPECT_EQ(sum.length(), 0u);

  QelString s(u"abc");
  s.clear();  // a cleared string is a valid empty string
  EXPECT_EQ(s.c_str(), emptyText);
  s += u'x';
  s += u"yz";
  s += static_cast<const QelChar*>(nullptr);
  s += s;
  EXPECT_EQ(text(s), u"xyzxyz");
  s.clear();
  s = none;
  EXPECT_EQ(s.c_str(), emptyText);
}

TEST(StringUtf8, RoundTripsAndInvalidBytes) {
  const char* utf8 = "h\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80";  // h, e-acute, euro, emoji
  QelString s(utf8);
  EXPECT_EQ(text(s), u"h\u00e9\u20ac\U0001F600");
  EXPECT_STREQ(s.a_str(), utf8);

  EXPECT_EQ(text(QelString("a\xFF" "b")), u"a\uFFFD" u"b");
  EXPECT_EQ(text(QelString("\xC0\xAF")), u"\uFFFD\uFFFD");  // an overlong '/' is rejected
  EXPECT_EQ(text(QelString("\xE2\x82")), u"\uFFFD\uFFFD");    // truncated sequence

  const QelChar lone[] = {0xD800, u'x', 0};  // a lone surrogate survives the round trip
  QelString loneString(lone);
  EXPECT_STREQ(loneString.a_str(), "\xED\xA0\x80x");
  EXPECT_EQ(text(QelString(loneString.a_str())), std::u16string(lone));

  // Three bytes per unit: the narrow copy must not be cut at two bytes per unit.
  QelString cjk(u"\u4e2d\u6587\u5b57");
  EXPECT_STREQ(cjk.a_str(), "\xE4\xB8\xAD\xE6\x96\x87\xE5\xAD\x97");

  // One shared buffer: the first pointer now holds the second text.
  QelString alpha(u"alpha"), omega(u"omega");
  const char* first = alpha.a_str();
  omega.a_str();
  EXPECT_STREQ(first, "omega");
}

TEST(StringFormat, EngineFormatter) {
  EXPECT_EQ(text(QelString::format(u"%d|%s|%S|%c", 7, u"w\u00e9", "n\xC3\xA9", u'z')), u"7|w\u00e9|n\u00e9|z");
  EXPECT_EQ(text(QelString::format(u"%ld %5.2f %x", int32_t(-1), 2.5, 255u)), u"-1  2.50 ff");
  EXPECT_EQ(QelString::format(nullptr).length(), 0u);
}

// A bare conversion ("%d", "%lx", "%c", "%s", ...) is written without the general
// formatter; with a width of 1 (or, for text, a long precision) the same conversion
// goes through it. Every value type must come out the same both ways.
TEST(StringFormat, BareConversionsMatchTheGeneralPath) {
  const QelValue values[] = {QelValue(int32_t(0)), QelValue(int32_t(1)), QelValue(int32_t(-1)),
                             QelValue(int32_t(65)), QelValue(int32_t(0x1F600)), QelValue(int32_t(INT_MIN)),
                             QelValue(int32_t(INT_MAX)), QelValue(-2.75f), QelValue(1e10), QelValue(-0.5),
                             QelValue(), QelValue(new QelString(u"\u00e9t\u00e9")), QelValue(new QelString()),
                             charsValue(u"ab\0c", 4), bytesValue("h\xC3\xA9\xFF", 4), QelValue(new QelVector())};
  const QelChar* const pairs[][2] = {
      {u"%d|", u"%1d|"}, {u"%i", u"%1i"}, {u"%u", u"%1u"}, {u"%o", u"%1o"}, {u"%x", u"%1x"},
      {u"%X", u"%1X"}, {u"%ld", u"%1d"}, {u"%hhu", u"%1hhu"}, {u"%I64x!", u"%1llx!"}, {u"%c.", u"%1c."},
      {u"%C", u"%1c"}, {u"%s|", u"%.99999s|"}, {u"%S", u"%.99999s"}, {u"%ls", u"%.99999s"}};
  for (const QelValue& v : values) {
    for (const auto& pair : pairs) {
      EXPECT_EQ(scriptFormat(pair[0], {v}), scriptFormat(pair[1], {v})) << QelString(pair[0]).a_str() << " of type " << v.getType();
    }
    // Integer conversions show the value's 32 bits as the engine's formatter does.
    for (const QelChar* format : {u"%d", u"%i", u"%u", u"%o", u"%x", u"%X"}) {
      EXPECT_EQ(scriptFormat(format, {v}), text(QelString::format(format, v.toLong())));
    }
  }
  // The texts of the values as %s shows them.
  EXPECT_EQ(scriptFormat(u"%s,%s,%s,%s,%s,%s,%s", {values[5], values[7], values[10], values[11], values[12],
                                                   values[13], values[14]}),
            u"-2147483648,-2.750000,(null),\u00e9t\u00e9,,ab,h\u00e9\uFFFD");
  EXPECT_EQ(scriptFormat(u"%s", {values[15]}), text(QelString::format(u"(QVT_VECTOR:%p)", values[15].ptr())));
}

// A conversion that writes a NUL ("%c" of 0) ends its piece there: the text after the
// letter goes too, and formatting goes on with the next token.
TEST(StringFormat, ANulCharacterEndsItsPiece) {
  const QelValue zero(int32_t(0)), five(int32_t(5));
  EXPECT_EQ(scriptFormat(u"a%cb%dc", {zero, five}), u"a5c");
  EXPECT_EQ(scriptFormat(u"a%1cb%dc", {zero, five}), u"a5c");
  EXPECT_EQ(scriptFormat(u"[%3c|%d", {zero, five}), u"[  5");
  EXPECT_EQ(scriptFormat(u"[%-3c|%d", {zero, five}), u"[5");
}

// Output of any length: past the formatter's stack buffer by one long conversion, by
// many short ones, and by literal text. builtins_containers.qel runs the formatter
// through "newstring".
TEST(StringFormat, LongOutputs) {
  std::u16string padded = scriptFormat(u"%99999d|", {QelValue(int32_t(7))});
  ASSERT_EQ(padded.size(), 100000u);
  EXPECT_EQ(padded.substr(99997), u" 7|");
  std::u16string format, expected;
  for (int i = 0; i < 300; ++i) {
    format += u"%s ";
    expected += u"abc ";
  }
  QelVector args;
  for (int i = 0; i < 300; ++i) args.push_back(QelValue(new QelString(u"abc")));
  ValPtr cursor(&args, 0);
  EXPECT_EQ(text(QelString(format.c_str(), 300, cursor)), expected);
  // Without values (which a script cannot ask for) and without a format: nothing.
  EXPECT_EQ(QelString(format.c_str(), 0, cursor).length(), 0u);
  EXPECT_EQ(QelString(nullptr, 1, cursor).length(), 0u);
  std::u16string literal(1000, u'x');
  EXPECT_EQ(scriptFormat((literal + u"%d").c_str(), {QelValue(int32_t(1))}), literal + u"1");
}

TEST(BufferBytes, GrowthPushPopAndCopies) {
  QelBuffer b;
  const unsigned capacities[] = {1, 1, 2, 4};
  EXPECT_EQ(b.capacity(), capacities[0]);
  for (unsigned i = 0; i < 3; ++i) {
    EXPECT_EQ(b.push_back(static_cast<unsigned char>(i + 1)), i);
    EXPECT_EQ(b.capacity(), capacities[i + 1]);
  }
  EXPECT_EQ(b[3], 0);  // the tail is zero
  EXPECT_EQ(b.setCapacity(0), 3u);  // never below the size
  EXPECT_EQ(b.setCapacity(8), 8u);
  for (unsigned i = 3; i < 8; ++i) EXPECT_EQ(b[i], 0);
  EXPECT_FALSE(b.setSize(9));
  EXPECT_EQ(b.size(), 3u);
  b += b;  // appending to itself doubles it
  EXPECT_EQ(b.size(), 6u);
  EXPECT_EQ(b[5], 3);
  EXPECT_EQ(b.pop_back(), 3);
  EXPECT_EQ(b[5], 0);  // the popped cell is zeroed
  b.clear();
  EXPECT_EQ(b.pop_back(), 0);
  EXPECT_EQ(b.capacity(), 8u);
}

TEST(BufferBytes, LittleEndianWords) {
  QelBuffer b;
  EXPECT_EQ(b.push_backW(0x1234), 0u);
  EXPECT_EQ(b[0], 0x34);
  EXPECT_EQ(b[1], 0x12);
  EXPECT_EQ(b.getW(0), 0x1234);
  EXPECT_EQ(b.pop_backW(), 0x1234);
  EXPECT_EQ(b.size(), 0u);

  QelBuffer five(5);
  ASSERT_TRUE(five.setSize(5));
  five.setDW(1, 0xAABBCCDD);
  const unsigned char expected[] = {0x00, 0xDD, 0xCC, 0xBB, 0xAA};
  for (int i = 0; i < 5; ++i) EXPECT_EQ(five[i], expected[i]) << i;
  EXPECT_EQ(five.getDW(1), 0xAABBCCDDu);
  EXPECT_EQ(five.push_backDW(0x01020304), 5u);
  EXPECT_EQ(five[5], 0x04);
  EXPECT_EQ(five.pop_backDW(), 0x01020304u);

  QelBuffer shortOne;
  shortOne.push_back(0x7F);
  EXPECT_EQ(shortOne.pop_backW(), 0x7F00);  // the missing low byte reads 0
  shortOne.push_backW(0xBEEF);
  EXPECT_EQ(shortOne.pop_backDW(), 0xBEEF0000u);
}

TEST(BufferChars, GrowthAndAdjustSize) {
  QelCharBuffer c;
  for (QelChar ch : u"a\u00e9c") c.push_back(ch);  // with the terminator: 4 characters
  EXPECT_EQ(c.capacity(), 4u);
  EXPECT_EQ(c.pop_back(), 0);
  EXPECT_EQ(c.pop_back(), u'c');
  EXPECT_EQ(c[2], 0);
  c += c;
  EXPECT_EQ(std::u16string(c.data(), c.size()), u"a\u00e9a\u00e9");

  QelCharBuffer eight(8);
  eight.data()[0] = u'a';
  eight.data()[1] = u'b';
  eight.adjustSize();
  EXPECT_EQ(eight.size(), 2u);
  QelCharBuffer full(3);
  for (int i = 0; i < 3; ++i) full.data()[i] = u'x';
  full.adjustSize();  // termination is forced in the last cell
  EXPECT_EQ(full.size(), 2u);
  EXPECT_EQ(full[2], 0);
}
