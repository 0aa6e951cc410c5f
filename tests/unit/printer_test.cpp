// Output printers: discarding, callback, string and file-stream sinks.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>

#include "probes.h"
#include "qel/vm.h"

namespace {

std::string g_received;
int g_calls = 0;
void collect(const char* text) {
  g_received += text;
  ++g_calls;
}

}  // namespace

TEST(PrinterSinks, DiscardingCallbackAndString) {
  QelVirtualMachine vm(nullptr);  // no printer: output is discarded
  EXPECT_EQ(vm.printer()(u"lost %d", 1), 0);

  QelCallbackPrinter silent(nullptr);
  EXPECT_EQ(silent(u"x %d", 5), 0);
  EXPECT_EQ(silent(nullptr), 0);

  g_received.clear();
  g_calls = 0;
  QelCallbackPrinter printer(&collect);
  EXPECT_EQ(printer(u"%s=%d;", u"caf\u00e9", 42), 8);
  EXPECT_EQ(printer(u""), 0);  // an empty result reaches no callback
  EXPECT_EQ(printer(nullptr), -1);
  EXPECT_EQ(g_received, "caf\xC3\xA9=42;");
  EXPECT_EQ(g_calls, 1);

  QelStringPrinter p;  // accumulates, adding nothing between the pieces
  EXPECT_EQ(p(u"%d items", 3), 7);
  EXPECT_EQ(p(u"%d items", 3), 7);
  EXPECT_EQ(std::u16string(p.c_str()), u"3 items3 items");
  EXPECT_EQ(p(nullptr), -1);
}

TEST(PrinterSinks, FileStreams) {
  FILE* fp = tmpfile();
  ASSERT_NE(fp, nullptr);
  {
    QelFileStreamPrinter p(fp, false);
    EXPECT_EQ(p(u"%s %d|", u"\u00e9", 1), 4);
    EXPECT_EQ(p(nullptr), -1);
  }
  // Not closed by the printer: the stream is still usable.
  EXPECT_NE(fputs("tail", fp), EOF);
  EXPECT_EQ(readAll(fp), "\xC3\xA9 1|tail");
  fclose(fp);

  char path[] = "/tmp/qel_printer_XXXXXX";
  int fd = mkstemp(path);
  ASSERT_GE(fd, 0);
  close(fd);
  std::u16string widePath(path, path + sizeof path - 1);
  {
    QelFileStreamPrinter owned(widePath.c_str(), u"wt");
    EXPECT_EQ(owned(u"line %d\n", 2), 7);
  }
  FILE* back = fopen(path, "rb");
  ASSERT_NE(back, nullptr);
  EXPECT_EQ(readAll(back), "line 2\n");
  fclose(back);
  unlink(path);

  QelFileStreamPrinter nowhere(static_cast<const QelChar*>(nullptr), u"w");
  EXPECT_EQ(nowhere(u"x"), -1);
}
