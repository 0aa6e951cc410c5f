// Platform services: fatal exit, allocation, environment variables, directory search,
// the console character read and the random generator.
//
// The process environment holds the engine's variables. Engine text is UTF-16; the
// environment, file names and the console are UTF-8, converted without the C locale.
//
// Machines may run on several threads at once. A result handed out in a buffer lives
// in a buffer of the calling thread, until the next call of the same function on that
// thread. The environment and the generator belong to the whole process: the engine
// uses them under a lock.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "qel/platform.h"
#include "platform/files.h"
#include "platform/process.h"

namespace {

bool isHighSurrogate(uint32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(uint32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

// Whether `path` names something that opens for reading and is not a directory.
bool opensForReading(const std::string& path) {
  FILE* fp = fopen(path.c_str(), "r");
  if (!fp) return false;
  struct stat info;
  bool isFile = fstat(fileno(fp), &info) == 0 && !S_ISDIR(info.st_mode);
  fclose(fp);
  return isFile;
}

bool isListSeparator(QelChar c) { return c == u':' || c == u';'; }

}  // namespace

void errorExit(int code) { exit(code); }

void* allocmem(unsigned int size) {
  void* block = malloc(size);
  // malloc(0) may legitimately answer null; callers must still get a block.
  if (!block && size == 0) block = malloc(1);
  if (!block) errorExit(1);
  return block;
}

namespace {

std::mutex gEnvironmentLock;
std::mutex gRandomLock;

const size_t kEnvironmentCapacity = 4096;  // characters, the terminator included

// The calling thread's buffer for _tgetenv, made on its first read.
QelChar* environmentBuffer() {
  thread_local std::unique_ptr<QelChar[]> buffer;
  if (!buffer) buffer.reset(new QelChar[kEnvironmentCapacity]);
  return buffer.get();
}

// The UTF-8 value of an environment variable, read under the environment lock; false
// when it is not set.
bool readEnvironment(const std::string& name, std::string& value) {
  std::lock_guard<std::mutex> hold(gEnvironmentLock);
  const char* found = getenv(name.c_str());
  if (!found) return false;
  value = found;
  return true;
}

}  // namespace

namespace qel {

std::mutex& environmentLock() { return gEnvironmentLock; }

int drawRandom() {
  std::lock_guard<std::mutex> hold(gRandomLock);
  return rand();
}

void seedRandom(unsigned int seed) {
  std::lock_guard<std::mutex> hold(gRandomLock);
  srand(seed);
}

}  // namespace qel

const QelChar* _tgetenv(const QelChar* name) {
  QelChar* buffer = environmentBuffer();
  buffer[0] = 0;
  std::string value;
  if (!name || !readEnvironment(qel::toUtf8(name), value)) return buffer;
  std::u16string text = qel::fromUtf8(value.c_str());
  size_t length = text.size();
  if (length > kEnvironmentCapacity - 1) {
    length = kEnvironmentCapacity - 1;
    // Keep a surrogate pair whole rather than leave its first half behind.
    if (isHighSurrogate(text[length - 1]) && isLowSurrogate(text[length])) --length;
  }
  memcpy(buffer, text.data(), length * sizeof(QelChar));
  buffer[length] = 0;
  return buffer;
}

int _tputenv(const QelChar* assignment) {
  if (!assignment) return -1;
  const QelChar* equals = assignment;
  while (*equals && *equals != u'=') ++equals;
  if (!*equals) return -1;
  std::string name = qel::toUtf8(assignment, static_cast<size_t>(equals - assignment));
  std::string value = qel::toUtf8(equals + 1);
  std::lock_guard<std::mutex> hold(gEnvironmentLock);
  int result = value.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
  if (result == 0) return 0;
  return errno != 0 ? errno : -1;
}

const QelChar* searchDirList(const QelChar* dirList, const QelChar* file) {
  // The calling thread's result, kept until its next search.
  thread_local std::u16string result;
  if (!dirList || !file) return nullptr;

  size_t fileLength = 0;
  while (file[fileLength]) ++fileLength;
  // The list may live in a buffer that the search itself overwrites (_tgetenv's).
  std::u16string list(dirList);

  size_t start = 0;
  while (start < list.size()) {
    size_t end = start;
    while (end < list.size() && !isListSeparator(list[end])) ++end;
    if (end > start) {
      result.assign(list, start, end - start);
      result += u'/';
      result.append(file, fileLength);
      if (opensForReading(qel::toUtf8(result.c_str(), result.size()))) return result.c_str();
    }
    start = end + 1;
  }
  return nullptr;
}

const QelChar* searchEnv(const QelChar* variable, const QelChar* file) {
  if (!variable || !file) return nullptr;
  return searchDirList(_tgetenv(variable), file);
}

const QelChar* searchPath(const QelChar* file) {
  if (!file) return nullptr;
  const QelChar* found = searchEnv(u"Path", file);
  return found ? found : searchEnv(u"PATH", file);
}

int _gettche() {
  int32_t c = qel::readCodePoint(stdin);
  return c < 0 ? 0xFFFF : static_cast<int>(c & 0xFFFF);
}
