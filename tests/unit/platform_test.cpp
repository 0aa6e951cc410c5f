// Platform services: environment, directory search, calendar time, the handle table,
// the console read and the fatal exit.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <string>

#include "probes.h"
#include "qel/platform.h"

namespace {

// Restores an environment variable when the test ends.
struct SavedEnv {
  explicit SavedEnv(const char* n) : name(n), had(getenv(n) != nullptr), value(had ? getenv(n) : "") {}
  ~SavedEnv() { had ? setenv(name.c_str(), value.c_str(), 1) : unsetenv(name.c_str()); }
  std::string name;
  bool had;
  std::string value;
};

std::u16string textOf(const QelChar* text) { return text ? std::u16string(text) : u"<null>"; }

}  // namespace

TEST(PlatformDeathTest, ErrorExitAndConsoleRead) {
  EXPECT_EXIT(errorExit(3), ::testing::ExitedWithCode(3), "");
  // The console read runs in a child, since it replaces stdin; the exit code names the failed read.
  auto readAll = [] {
    FILE* in = tmpfile();
    fputs("a\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80\xC3(\xFF", in);
    rewind(in);
    if (dup2(fileno(in), 0) < 0) exit(100);
    const int expected[] = {'a', 0xE9, 0x20AC, 0xF600, 0xFFFD, '(', 0xFFFD, 0xFFFF};
    for (int i = 0; i < 8; ++i)
      if (_gettche() != expected[i]) exit(i + 1);
    exit(0);
  };
  EXPECT_EXIT(readAll(), ::testing::ExitedWithCode(0), "");
  void* empty = allocmem(0);
  EXPECT_NE(empty, nullptr);
  free(empty);
}

// builtins_system.qel sets, reads and deletes variables through the built-ins; these
// are the forms and texts it does not reach.
TEST(PlatformEnv, AssignmentsAndTextConversion) {
  SavedEnv saved("QEL_PLATFORM_VAR");
  EXPECT_EQ(_tputenv(u"QEL_PLATFORM_VAR=a=b"), 0);  // only the first '=' separates
  EXPECT_STREQ(getenv("QEL_PLATFORM_VAR"), "a=b");
  EXPECT_EQ(_tputenv(u"QEL_PLATFORM_VAR="), 0);  // removed, not set to ""
  EXPECT_EQ(getenv("QEL_PLATFORM_VAR"), nullptr);
  EXPECT_EQ(_tputenv(u"QEL_PLATFORM_NO_EQUALS"), -1);
  EXPECT_EQ(getenv("QEL_PLATFORM_NO_EQUALS"), nullptr);
  EXPECT_NE(_tputenv(u"=value"), 0);
  EXPECT_EQ(textOf(_tgetenv(nullptr)), u"");

  EXPECT_EQ(_tputenv(u"QEL_PLATFORM_VAR=\u00E9\u20AC\U0001F600"), 0);
  EXPECT_STREQ(getenv("QEL_PLATFORM_VAR"), "\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80");
  EXPECT_EQ(textOf(_tgetenv(u"QEL_PLATFORM_VAR")), u"\u00E9\u20AC\U0001F600");
  std::u16string lone({0xD800, u'x'});
  EXPECT_EQ(_tputenv((u"QEL_PLATFORM_VAR=" + lone).c_str()), 0);
  EXPECT_EQ(textOf(_tgetenv(u"QEL_PLATFORM_VAR")), lone);
  setenv("QEL_PLATFORM_VAR", "a\xFF" "b\xC3", 1);
  EXPECT_EQ(textOf(_tgetenv(u"QEL_PLATFORM_VAR")), u"a\uFFFDb\uFFFD");

  setenv("QEL_PLATFORM_VAR", std::string(5000, 'a').c_str(), 1);
  EXPECT_EQ(textOf(_tgetenv(u"QEL_PLATFORM_VAR")), std::u16string(4095, u'a'));
  // A surrogate pair straddling the cut is dropped whole.
  setenv("QEL_PLATFORM_VAR", (std::string(4094, 'c') + "\xF0\x9F\x98\x80").c_str(), 1);
  EXPECT_EQ(textOf(_tgetenv(u"QEL_PLATFORM_VAR")), std::u16string(4094, u'c'));
}

class PlatformSearch : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/qel_platform_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    for (const char* d : {"/one", "/two", "/three"}) mkdir((root_ + d).c_str(), 0700);
    for (const char* f : {"/two/lib.q", "/three/lib.q", "/three/late.q"}) 
      if (FILE* fp = fopen((root_ + f).c_str(), "w")) fclose(fp);
  }
  void TearDown() override {
    for (const char* f : {"/two/lib.q", "/three/lib.q", "/three/late.q"}) remove((root_ + f).c_str());
    for (const char* d : {"/one", "/two", "/three", ""}) rmdir((root_ + d).c_str());
  }
  std::u16string dir(const char* name) const { return widen(root_ + "/" + name); }
  std::string root_;
};

TEST_F(PlatformSearch, DirectoryLists) {
  // Either separator; empty parts skipped; the earliest directory holding the file wins.
  std::u16string list = u";" + dir("one") + u"::" + dir("two") + u";" + dir("three");
  EXPECT_EQ(textOf(searchDirList(list.c_str(), u"lib.q")), dir("two") + u"/lib.q");
  EXPECT_EQ(textOf(searchDirList(list.c_str(), u"late.q")), dir("three") + u"/late.q");
  list = dir("one") + u";" + dir("three") + u":" + dir("two");
  EXPECT_EQ(textOf(searchDirList(list.c_str(), u"lib.q")), dir("three") + u"/lib.q");

  EXPECT_EQ(searchDirList(list.c_str(), u"absent.q"), nullptr);
  EXPECT_EQ(searchDirList(u":;", u"lib.q"), nullptr);
  EXPECT_EQ(searchDirList(nullptr, u"lib.q"), nullptr);
  EXPECT_EQ(searchDirList(list.c_str(), nullptr), nullptr);
  // A directory of that name is not a match.
  EXPECT_EQ(searchDirList(widen(root_).c_str(), u"one"), nullptr);
}

TEST_F(PlatformSearch, PathVariables) {
  // searchEnv runs in use.qel (QELLIB with a missing directory first).
  SavedEnv savedPath("PATH"), savedMixed("Path");
  unsetenv("Path");
  setenv("PATH", (root_ + "/one:" + root_ + "/two").c_str(), 1);
  EXPECT_EQ(textOf(searchPath(u"lib.q")), dir("two") + u"/lib.q");
  EXPECT_EQ(searchPath(u"late.q"), nullptr);
  // "Path" comes first; "PATH" is still tried when "Path" lacks the file.
  setenv("Path", (root_ + "/three").c_str(), 1);
  EXPECT_EQ(textOf(searchPath(u"lib.q")), dir("three") + u"/lib.q");
  setenv("Path", (root_ + "/one").c_str(), 1);
  EXPECT_EQ(textOf(searchPath(u"lib.q")), dir("two") + u"/lib.q");
}

class PlatformTime : public ::testing::Test {
 protected:
  void useZone(const char* zone) {
    setenv("TZ", zone, 1);
    tzset();
  }
  void TearDown() override { tzset(); }
  SavedEnv savedZone_{"TZ"};
};

// builtins_system.qel shows ctime and localtime in UTC, the wrapping product included;
// here: the clocks, another zone, the unsigned range and null arguments.
TEST_F(PlatformTime, ClocksZonesAndRange) {
  uint32_t stored = 0;
  uint32_t now = time(&stored);
  EXPECT_EQ(now, stored);
  uint32_t libc = static_cast<uint32_t>(::time(static_cast<time_t*>(nullptr)));
  EXPECT_LE(libc - now + 1u, 2u);  // within a second either way
  uint32_t ticks = qelTickCount();
  usleep(20000);
  EXPECT_GE(qelTickCount() - ticks, 15u);

  uint32_t t = 0;
  useZone("CET-1");
  EXPECT_EQ(textOf(_tctime(&t)), u"Thu Jan 01 01:00:00 1970\n");
  EXPECT_EQ(localtime(&t)->tm_hour, 1);
  useZone("UTC0");
  t = 0xFFFFFFFFu;  // unsigned seconds: the last one is in 2106
  EXPECT_EQ(textOf(_tctime(&t)), u"Sun Feb 07 06:28:15 2106\n");
  EXPECT_EQ(_tctime(nullptr), nullptr);
  EXPECT_EQ(localtime(static_cast<const uint32_t*>(nullptr)), nullptr);
}

// builtins_system.qel hands library, procedure and "addr" handles around and frees a
// library twice; here: unknown numbers and the reuse of released ones.
TEST(PlatformHandles, AddressesAndHandles) {
  int a = 0, b = 0, c = 0;
  int32_t ha = qelHandleFor(&a), hb = qelHandleFor(&b);
  EXPECT_EQ(qelHandleFor(nullptr), 0);
  EXPECT_EQ(qelAddressOf(0), nullptr);
  EXPECT_EQ(qelAddressOf(INT32_MAX), nullptr);
  qelReleaseHandle(ha);
  EXPECT_EQ(qelAddressOf(ha), nullptr);
  // Released numbers may serve again, never for two live addresses at once.
  int32_t hc = qelHandleFor(&c), ha2 = qelHandleFor(&a);
  EXPECT_NE(hc, hb);
  EXPECT_NE(ha2, hb);
  EXPECT_NE(ha2, hc);
  EXPECT_EQ(qelAddressOf(hc), &c);
  EXPECT_EQ(qelAddressOf(ha2), &a);
  for (int32_t h : {ha2, hb, hc}) qelReleaseHandle(h);
}
