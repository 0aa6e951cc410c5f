// The printf-style formatter: conversions, text arguments across encodings, and
// the length, buffer, allocating, appending and stream forms.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "platform/format.h"
#include "probes.h"
#include "qel/platform.h"
#include "qel/string.h"

namespace {

// Formats wide text through formatAlloc and checks that the length-only form agrees.
std::u16string W(const QelChar* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int counted = _vscwprintf(fmt, ap);
  va_end(ap);
  va_start(ap, fmt);
  unsigned length = 0;
  QelChar* block = qel::formatAlloc(fmt, ap, &length);
  va_end(ap);
  std::u16string text(block, length);
  free(block);
  EXPECT_EQ(counted, static_cast<int>(length));
  EXPECT_EQ(text.size(), std::char_traits<char16_t>::length(text.c_str())) << "no terminator inside";
  return text;
}

// Formats narrow text into an exact buffer; checks the length-only form too.
std::string A(const char* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  int counted = _vscprintf(fmt, ap);
  va_end(ap);
  std::string text(counted > 0 ? counted : 0, '\x7F');
  va_start(ap, fmt);
  int written = qel::formatIntoA(&text[0], text.size() + 1, fmt, ap);
  va_end(ap);
  EXPECT_EQ(counted, written);
  return text;
}

// Variadic front ends of the va_list forms.
#define FORWARD(call)  \
  va_list ap;          \
  va_start(ap, fmt);   \
  auto n = call;       \
  va_end(ap);          \
  return static_cast<int>(n)
int Into(QelChar* dst, size_t cap, const QelChar* fmt, ...) { FORWARD(qel::formatInto(dst, cap, fmt, ap)); }
int ToFile(FILE* fp, const QelChar* fmt, ...) { FORWARD(qel::formatToFile(fp, fmt, ap)); }
int Append(qel::TextBuilder& out, const QelChar* fmt, ...) { FORWARD(qel::formatAppend(out, fmt, ap)); }

// What the C library prints for one floating conversion.
std::string libcA(const char* fmt, double v) {
  char buf[2048];
  snprintf(buf, sizeof buf, fmt, v);
  return buf;
}
std::u16string libc(const char* fmt, double v) { return widen(libcA(fmt, v)); }

}  // namespace

TEST(FormatIntegers, WidthPrecisionAndFlags) {
  EXPECT_EQ(W(u"[%5d][%-5d][%05d][%+d][% d][%+d]", 42, 42, -42, 7, 7, -7), u"[   42][42   ][-0042][+7][ 7][-7]");
  EXPECT_EQ(W(u"[%.3d][%8.3d][%-8.3d|][%08.3d]", 5, -5, 5, 5), u"[005][    -005][005     |][     005]");
  EXPECT_EQ(W(u"[%.0d][%5.0d][%.0x][%#.0o][%d]", 0, 0, 0, 0, 0), u"[][     ][][0][0]");
  EXPECT_EQ(W(u"%x %X %#x %#X %#x %o %#o %#o", 255, 255, 255, 255, 0, 8, 8, 0), u"ff FF 0xff 0XFF 0 10 010 0");
  EXPECT_EQ(W(u"[%#08x][%-#8x][%#.4x]", 0x1f, 0x1f, 0x1f), u"[0x00001f][0x1f    ][0x001f]");
  EXPECT_EQ(W(u"%i %u %+u % x", -3, 3u, 3u, 3u), u"-3 3 3 3");  // + and space are for signed only
  EXPECT_EQ(W(u"[%*.*d][%-*d][%*d][%.*d]", 6, 3, 7, 4, 1, -4, 2, -1, 9), u"[   007][1   ][2   ][9]");
  EXPECT_EQ(A("%d|%5u|%-#6x|%lld|%.3o", INT32_MIN, 7u, 10, -1LL, 8), "-2147483648|    7|0xa   |-1|010");
}

TEST(FormatIntegers, ArgumentSizes) {
  // Plain and l conversions read 32 bits and wrap there.
  EXPECT_EQ(W(u"%d %u %x %o", INT32_MIN, -1, -1, -1), u"-2147483648 4294967295 ffffffff 37777777777");
  EXPECT_EQ(W(u"%ld %lu %I32d", INT32_MIN, -1, -5), u"-2147483648 4294967295 -5");
  // A 64-bit value in a plain slot shows its low 32 bits.
  EXPECT_EQ(W(u"%d|%ld", 0x100000005LL, 0x1FFFFFFFFLL), u"5|-1");
  EXPECT_EQ(W(u"%lld %I64d %I64u %llx", INT64_MIN, -2LL, -1LL, 0x123456789abcLL),
            u"-9223372036854775808 -2 18446744073709551615 123456789abc");
  EXPECT_EQ(W(u"%hd %hu %hhd %hhu %hx", 0x18000, -1, 0x1FF, -1, 0x12345), u"-32768 65535 -1 255 2345");
  // The arguments after a 64-bit one are still found.
  EXPECT_EQ(W(u"%lld %d %I64x %s", 1LL << 40, 7, 0xABCLL, u"end"), u"1099511627776 7 abc end");
}

TEST(FormatFloating, AgreesWithTheCLibrary) {
  const double values[] = {0.0, -0.0, 1.0, -2.5, 3.14159265358979, 1e-7, 123456789.125, 1e300, -1e-300};
  const char* formats[] = {"%f",  "%e",  "%E",   "%g",    "%G",     "%a",   "%A",     "%.0f", "%#.0f", "%.3e",
                         "%+f", "% g", "%#g",  "%12.4f", "%-12.2e|", "%012.3f", "%+015e", "%020a", "%-+10g|",
                         "%F",  "%.10g"};
  for (double v : values) {
    for (const char* f : formats) {
      EXPECT_EQ(W(widen(f).c_str(), v), libc(f, v)) << f << " of " << v;
      EXPECT_EQ(A(f, v), libcA(f, v)) << f << " of " << v;
    }
  }
  // Infinities and NaNs are not zero-padded.
  EXPECT_EQ(W(u"[%08f][%-6f][%+f]", HUGE_VAL, -HUGE_VAL, HUGE_VAL), libc("[%08f]", HUGE_VAL) + u"[-inf  ][+inf]");
  EXPECT_EQ(W(u"%*.*f|%.*f", 10, 2, 3.14159, -1, 2.5), u"      3.14|2.500000");
}

TEST(FormatText, WideAndNarrowArguments) {
  EXPECT_EQ(W(u"[%-5s|][%5s][%.2s][%ls][%ws][%s]", u"ab", u"ab", u"abc", u"l", u"w", static_cast<QelChar*>(nullptr)),
            u"[ab   |][   ab][ab][l][w][(null)]");
  EXPECT_EQ(W(u"[%S][%hs][%hS][%-4S|][%4hs][%.3S]", "x", "y", "z", "é", "€", static_cast<char*>(nullptr)),
            u"[x][y][z][é   |][   €][(nu]");
  // UTF-8 arguments become UTF-16; the precision counts QelChars and never splits a pair.
  EXPECT_EQ(W(u"%S|%.1S|%.2S|%.3S", "a\xF0\x9D\x84\x9E", "\xF0\x9D\x84\x9E", "\xF0\x9D\x84\x9E", "é€𝄞"),
            u"a𝄞||𝄞|é€");
  // Malformed UTF-8: each bad stretch reads as one U+FFFD.
  EXPECT_EQ(W(u"%S", "a\xFF" "b\xE2\x82" "c\xC0\x80\xF4\x90\x80\x80" "d\xE2\x82"),
            u"a\uFFFDb\uFFFDc\uFFFD\uFFFD\uFFFD\uFFFD\uFFFD\uFFFDd\uFFFD");
  EXPECT_EQ(W(u"%.3S", "ab\xFF" "c"), u"ab\uFFFD");

  // The narrow formatter: %s is UTF-8, %S and %ls are UTF-16 made UTF-8; lengths are bytes.
  EXPECT_EQ(A("[%s][%S][%ls][%ws][%hs][%5S][%-4S|]", "é", u"é", u"€", u"𝄞", "h", u"é", u"€"),
            "[é][é][€][𝄞][h][   é][€ |]");
  EXPECT_EQ(A("%.1S|%.2S|%.3S|%.4S|%S", u"é", u"é", u"𝄞", u"𝄞", static_cast<QelChar*>(nullptr)), "|é||𝄞|(null)");
  EXPECT_EQ(A("%.2s|%.5s", "abc", "ab"), "ab|ab");
}

TEST(FormatText, RoundTripsThroughBothEncodings) {
  const std::u16string samples[] = {u"plain", u"é€𝄞", std::u16string(u"lone \xD800 high"),
                                    std::u16string(u"lone \xDC00 low"), std::u16string(u"end \xD834")};
  for (const std::u16string& original : samples) {
    std::string narrow = A("%S", original.c_str());
    EXPECT_EQ(W(u"%S", narrow.c_str()), original);
    EXPECT_EQ(W(u"%hs", narrow.c_str()), original);
  }
  EXPECT_EQ(A("%S", std::u16string(u"\xD800").c_str()), "\xED\xA0\x80");
}

TEST(FormatText, Characters) {
  EXPECT_EQ(W(u"[%c][%lc][%wc][%3c][%-3c|][%C][%hc][%C]", u'é', u'€', u'x', u'a', u'b', 'N', 'h', 0xE9),
            u"[é][€][x][  a][b  |][N][h][\uFFFD]");
  EXPECT_EQ(A("[%c][%hc][%C][%lc][%3C][%-2C|]", 'a', 'b', u'é', u'€', u'é', u'€'), "[a][b][é][€][ é][€|]");
  // A NUL character is written and counted.
  EXPECT_EQ(A("a%cb", 0), std::string("a\0b", 3));
}

TEST(FormatMisc, PointerPercentUnknownAndTrailing) {
  void* p = reinterpret_cast<void*>(uintptr_t{0x1234ABCDEF});
  EXPECT_EQ(W(u"%p|%20p|%-18p|%#p", p, p, p, static_cast<void*>(nullptr)),
            u"0000001234ABCDEF|    0000001234ABCDEF|0000001234ABCDEF  |0000000000000000");
  EXPECT_EQ(A("%p", p), "0000001234ABCDEF");
  EXPECT_EQ(W(u"100%% %d%%", 5), u"100% 5%");
  // Unknown conversions come out as written and take no argument.
  EXPECT_EQ(W(u"%k %-5.2lq %y %d", 9), u"%k %-5.2lq %y 9");
  EXPECT_EQ(W(u"%*k %d", 4), u"%*k 4");
  // %n swallows its pointer.
  int sink = 77;
  EXPECT_EQ(W(u"a%nb%d", &sink, 3), u"ab3");
  EXPECT_EQ(sink, 77);
  // A format ending inside a conversion keeps its tail.
  EXPECT_EQ(W(u"x%-08"), u"x%-08");
  EXPECT_EQ(A("%d%", 1), "1%");
}

// W and A compare the length-only forms with every text they format; what is left is
// counting in the units of each encoding and a null format.
TEST(FormatLength, CountsUnitsOfTheOutput) {
  EXPECT_EQ(W(u"é€𝄞%S", "𝄞"), u"é€𝄞𝄞");
  EXPECT_EQ(A("é€𝄞%S", u"𝄞"), "é€𝄞𝄞");
  va_list none{};
  EXPECT_EQ(_vscwprintf(nullptr, none), -1);
}

// Texts at and around the stack buffer's size, and far beyond it.
TEST(FormatAlloc, LongTextsLeaveTheStackBuffer) {
  for (int width : {254, 255, 256, 257, 100000}) {
    std::u16string padded = W(u"%*d", width, 3);
    ASSERT_EQ(padded.size(), static_cast<size_t>(width));
    EXPECT_EQ(padded.back(), u'3');
  }
  EXPECT_EQ(W(u"%.1000f", 1.0 / 3), libc("%.1000f", 1.0 / 3));
  EXPECT_EQ(W(u"%3000.2f|", -1.5), std::u16string(2995, u' ') + u"-1.50|");
}

TEST(FormatInto, TruncatesButAnswersTheFullLength) {
  QelChar buf[8];
  for (QelChar& c : buf) c = u'#';
  EXPECT_EQ(Into(buf, 5, u"%s-%d", u"abc", 12345), 9);
  EXPECT_EQ(std::u16string(buf), u"abc-");
  EXPECT_EQ(buf[5], u'#');
  EXPECT_EQ(Into(buf, 1, u"%d", 7), 1);
  EXPECT_EQ(buf[0], 0);
  buf[0] = u'#';
  EXPECT_EQ(Into(buf, 0, u"xyz"), 3);
  EXPECT_EQ(buf[0], u'#');
  EXPECT_EQ(Into(nullptr, 0, u"%S", "é"), 1);
  EXPECT_EQ(Into(buf, 8, u"%8d", 1), 8);
  EXPECT_EQ(std::u16string(buf), u"       ");
}



// A builder keeps its text whole as it moves from its local storage to the heap and
// grows there; `take` hands out an exact block and leaves the builder empty for reuse.
TEST(FormatAppend, BuildersGrowAndHandOutExactBlocks) {
  QelChar local[4];
  qel::TextBuilder out(local, 4);
  out.write(u"abc", 3);
  EXPECT_EQ(Append(out, u"%s-%d", u"de", -12), 6);  // leaves the local storage
  out.fill(u'.', 40);
  out.put(u'!');
  EXPECT_EQ(Append(out, u"%5x", 255), 5);
  out.truncate(out.length() - 1);
  std::u16string expected = u"abcde--12" + std::u16string(40, u'.') + u"!   f";
  ASSERT_EQ(out.length(), expected.size());
  EXPECT_EQ(std::u16string(out.terminated()), expected);
  QelChar* block = out.take();
  EXPECT_EQ(std::u16string(block), expected);
  free(block);

  EXPECT_EQ(out.length(), 0u);
  EXPECT_EQ(out.data(), local);
  out.put(u'z');
  block = out.take();  // from the local storage
  EXPECT_EQ(std::u16string(block), u"z");
  free(block);
  block = out.take();
  EXPECT_EQ(block[0], 0);
  free(block);
}

TEST(FormatToFile, WritesUtf8AndCountsQelChars) {
  FILE* fp = tmpfile();
  ASSERT_NE(fp, nullptr);
  EXPECT_EQ(ToFile(fp, u"é%s %d %S%c", u"€𝄞", -3, "ü", u'!'), 10);
  EXPECT_EQ(readAll(fp), "é€𝄞 -3 ü!");
  fclose(fp);

  // Long output, with surrogate pairs falling across every chunk boundary.
  fp = tmpfile();
  ASSERT_NE(fp, nullptr);
  std::u16string wide;
  for (int i = 0; i < 3000; ++i) wide += std::u16string((i % 7) ? u"x" : u"𝄞") + ((i % 5) ? u"" : u"é");
  wide += std::u16string(u"\xD800");
  EXPECT_EQ(ToFile(fp, u"%s", wide.c_str()), static_cast<int>(wide.size()));
  EXPECT_EQ(readAll(fp), QelString(wide.c_str()).a_str());  // the string's own conversion
  fclose(fp);

  FILE* readOnly = fopen("/dev/null", "r");
  ASSERT_NE(readOnly, nullptr);
  EXPECT_EQ(ToFile(readOnly, u"text"), -1);
  fclose(readOnly);
  EXPECT_EQ(ToFile(nullptr, u"text"), -1);
}
