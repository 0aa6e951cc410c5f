// Machines on several threads at once. Each thread runs machines of its own, round
// after round, through strings and their narrow text, files, time, the environment,
// native libraries and their handles, module files and printers; and the results that
// live until the next call live that long on their own thread, whatever other threads
// do meanwhile.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <atomic>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "qel/dictionary_io.h"
#include "qel/platform.h"
#include "qel/printer.h"
#include "qel/vm.h"

namespace {

const int kThreads = 8;
const int kRounds = 40;

std::string narrow(const QelChar* text) { return QelString(text).a_str(); }
std::u16string wide(const std::string& text) { return QelString(text.c_str()).c_str(); }

// What the calling thread's callback printers delivered.
thread_local std::string tPrinted;
void collect(const char* text) { tPrinted += text; }

// A directory of its own for the test's files, removed with them at the end.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "qel-threads-XXXXXX").string();
    path_ = mkdtemp(&pattern[0]) ? pattern : std::string();
  }
  ~ScratchDir() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  std::string file(const std::string& name) const { return path_ + "/" + name; }
  bool ok() const { return !path_.empty(); }

 private:
  std::string path_;
};

// Every branch of the script touches state that machines on other threads touch too.
// It answers a number saying which check failed, or what the host compares.
const QelChar kScript[] = uR"(
work(id, round, path, lib; name, text, f, line, h, add, chain, link, i) {
  text = newstring("thread %s round %s", id, round);
  print(text, "\n");
  name = "QEL_THREADS_" + id + "_" + round;
  if (setenv(name, text) != 1 || getenv(name) != text) return 1;
  if (getenv("QEL_THREADS_SHARED") != "shared by all") return 2;
  setenv(name, "");
  if (getenv(name) != "") return 3;
  f = fopen(path, "w");
  fputs(text, f);
  fputs("\n", f);
  fclose(f);
  f = fopen(path, "r");
  line = fgetws(f);
  fclose(f);
  if (line != text) return 4;
  h = LoadLibrary(lib);
  add = GetProcAddress(h, "qelTestAdd");
  // Doubles, which are never taken for the handles of "addr" results.
  if (CallLibFunc(add, double(id), double(round)) != int(id) + int(round)) return 5;
  if (FreeLibrary(h) != 1) return 6;
  h = LoadLibrary("libc.so.6");
  if (CallLibFunc(GetProcAddress(h, "strlen"), addr(newbuffer(text))) != strlen(text)) return 7;
  FreeLibrary(h);
  for (i = 0; i < 600; i++) {
    link = newvector(1, 1);
    link[0] = chain;
    chain = link;
  }
  chain = nil;
  srand(int(id));
  rand();
  return T(ctime(1000000000), localtime(100), moduleLoads() > 0, text);
}
)";

// A result as text: strings as they are, integers in decimal, vectors as their
// elements between brackets.
std::string render(const QelValue& v) {
  if (QelString* s = v) return s->a_str();
  QelVector* elements = v;
  if (!elements) return std::to_string(v.toLong());
  std::string text = "[";
  for (unsigned i = 0; i < elements->size(); ++i) text += (i ? " " : "") + render((*elements)[i]);
  return text + "]";
}

// How the script's ctime(1000000000) and localtime(100) render, worked out before the
// threads start.
std::string expectedTimes() {
  uint32_t seconds = 1000000000, early = 100;
  std::string text = narrow(_tctime(&seconds)) + " [";
  const struct tm* t = localtime(&early);
  for (int field : {t->tm_sec, t->tm_min, t->tm_hour, t->tm_mday, t->tm_mon, t->tm_year, t->tm_wday, -1, -1}) {
    text += std::to_string(field) + " ";
  }
  text.back() = ']';
  return text;
}

struct Files {
  std::string scratch;  // the thread's own text file
  std::string module;   // the thread's own module file
  std::string native;   // the test's native library
};

// Runs "work" on the machine; "" when the run and its result are right.
std::string runWork(QelVirtualMachine& vm, int id, int round, const Files& files, const std::string& times) {
  std::u16string idText = wide(std::to_string(id)), roundText = wide(std::to_string(round));
  std::u16string path = wide(files.scratch), lib = wide(files.native);
  const QelChar* argv[] = {idText.c_str(), roundText.c_str(), path.c_str(), lib.c_str()};
  std::string text = "thread " + std::to_string(id) + " round " + std::to_string(round);
  tPrinted.clear();
  QelStringPrinter errors;
  if (!vm.execute(u"work", 4, argv, false, &errors)) return "run failed: " + narrow(errors.c_str());
  if (tPrinted != text + "\n") return "printed [" + tPrinted + "]";
  std::string result = render(vm.getResult()), expected = "[" + times + " 1 " + text + "]";
  return result == expected ? "" : "result " + result + ", expected " + expected;
}

// One round: a machine compiles and runs the script, writes itself to a module file,
// and a second machine reads the file back and runs the script again.
std::string runRound(int id, int round, const Files& files, const std::string& times) {
  QelCallbackPrinter out(collect);
  QelStringPrinter messages;
  QelVirtualMachine vm(&out);
  QelString native(files.native.c_str()), module(files.module.c_str());
  if (!vm.loadNativeModule(native.c_str())) return "loadNativeModule failed";
  // The first round also prints declarations and the listing, through the formatter.
  bool verbose = round == 0;
  if (!vm.compileText(kScript, verbose, verbose, &messages)) return "compile failed: " + narrow(messages.c_str());
  if (verbose && messages.c_str()[0] == 0) return "no listing";
  std::string problem = runWork(vm, id, round, files, times);
  if (!problem.empty()) return problem;

  if (!QelDictionaryIO(vm).writeModule(module)) return "writeModule failed";
  QelVirtualMachine copy(&out);
  if (!QelDictionaryIO(copy).readModule(module)) return "readModule failed";
  return runWork(copy, id, round, files, times);
}

class Threads : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(scratch.ok());
    ASSERT_EQ(_tputenv(u"QEL_THREADS_SHARED=shared by all"), 0);
  }
  void TearDown() override { _tputenv(u"QEL_THREADS_SHARED="); }

  ScratchDir scratch;
};

}  // namespace

TEST_F(Threads, MachinesRunOnEightThreadsAtOnce) {
  const std::string times = expectedTimes();
  std::vector<std::string> failures(kThreads);
  std::vector<std::thread> threads;
  for (int id = 0; id < kThreads; ++id) {
    threads.emplace_back([&, id] {
      Files files{scratch.file("text" + std::to_string(id) + ".txt"),
                  scratch.file("module" + std::to_string(id) + ".qem"), QEL_TEST_MODULE_PATH};
      for (int round = 0; round < kRounds && failures[id].empty(); ++round) {
        std::string problem = runRound(id, round, files, times);
        if (!problem.empty()) failures[id] = "round " + std::to_string(round) + ": " + problem;
      }
    });
  }
  for (std::thread& t : threads) t.join();
  for (int id = 0; id < kThreads; ++id) EXPECT_EQ(failures[id], "") << "thread " << id;
}

// Each thread's result of a_str, _tgetenv, _tctime, localtime and searchDirList stays
// as it was while another thread calls the same functions, and is replaced by the
// next call on its own thread.
TEST_F(Threads, ResultsLiveUntilTheNextCallOnTheSameThread) {
  for (const char* name : {"mine.txt", "theirs.txt"}) fclose(fopen(scratch.file(name).c_str(), "w"));
  std::u16string dir = wide(scratch.file(""));
  ASSERT_EQ(_tputenv(u"QEL_LIFETIME_MINE=mine"), 0);
  ASSERT_EQ(_tputenv(u"QEL_LIFETIME_THEIRS=theirs"), 0);

  QelString mine(u"my narrow text");
  const char* narrowText = mine.a_str();
  const QelChar* env = _tgetenv(u"QEL_LIFETIME_MINE");
  uint32_t epoch = 0;
  const QelChar* when = _tctime(&epoch);
  const std::u16string whenText = when;
  uint32_t fiveSeconds = 5;
  const struct tm* broken = localtime(&fiveSeconds);
  const QelChar* found = searchDirList(dir.c_str(), u"mine.txt");
  ASSERT_NE(found, nullptr);
  const std::u16string foundText = found;
  auto intact = [&] {
    return strcmp(narrowText, "my narrow text") == 0 && std::u16string(env) == u"mine" && when == whenText &&
           broken->tm_sec == 5 && found == foundText;
  };

  std::atomic<bool> done{false};
  std::thread theirs([&] {
    for (int i = 0; i < 2000; ++i) {
      QelString(u"their narrow text, longer").a_str();
      _tgetenv(u"QEL_LIFETIME_THEIRS");
      uint32_t later = 1000000000u + static_cast<uint32_t>(i);
      _tctime(&later);
      uint32_t seconds = 7;
      localtime(&seconds);
      searchDirList(dir.c_str(), u"theirs.txt");
    }
    done = true;
  });
  bool stayed = true;
  while (!done) stayed = stayed && intact();
  theirs.join();
  EXPECT_TRUE(stayed);
  EXPECT_TRUE(intact());

  // The next call on this thread overwrites each result in place.
  QelString(u"next").a_str();
  EXPECT_STREQ(narrowText, "next");
  _tgetenv(u"QEL_LIFETIME_THEIRS");
  EXPECT_EQ(std::u16string(env), u"theirs");
  fiveSeconds = 9;
  localtime(&fiveSeconds);
  EXPECT_EQ(broken->tm_sec, 9);
  _tputenv(u"QEL_LIFETIME_MINE=");
  _tputenv(u"QEL_LIFETIME_THEIRS=");
}
