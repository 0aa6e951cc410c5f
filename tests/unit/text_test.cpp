// Strings (empty storage, UTF-8, both formatters), byte and character buffers. The
// editing operations are what the string built-ins call: builtins_strings.qel runs them.
#include <gtest/gtest.h>

#include <string>

#include "qel/buffer.h"
#include "qel/string.h"

namespace {

std::u16string text(const QelString& s) { return s.c_str(); }

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

// builtins_containers.qel runs the script formatter through "newstring"; a format
// without values and a null format cannot come from a script.
TEST(StringFormat, ScriptFormatterWithoutValues) {
  QelVector args;
  args.push_back(QelValue(int32_t(1)));
  ValPtr cursor(&args, 0);
  EXPECT_EQ(QelString(u"x=%d", 0, cursor).length(), 0u);
  EXPECT_EQ(QelString(nullptr, 1, cursor).length(), 0u);
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
