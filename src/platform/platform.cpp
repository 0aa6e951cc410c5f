// Platform services: fatal exit, allocation, environment variables, directory search
// and the console character read.
//
// The process environment holds the engine's variables. Engine text is UTF-16; the
// environment, file names and the console are UTF-8, converted without the C locale.
//
// Not thread-safe: the results live in static buffers that the next call of the same
// function overwrites, and the engine calls these services from one thread.
#include <sys/stat.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "qel/platform.h"
#include "platform/files.h"

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

const QelChar* _tgetenv(const QelChar* name) {
  static QelChar buffer[4096];
  buffer[0] = 0;
  if (!name) return buffer;
  const char* value = getenv(qel::toUtf8(name).c_str());
  if (!value) return buffer;
  std::u16string text = qel::fromUtf8(value);
  size_t length = text.size();
  if (length > 4095) {
    length = 4095;
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
  int result = value.empty() ? unsetenv(name.c_str()) : setenv(name.c_str(), value.c_str(), 1);
  if (result == 0) return 0;
  return errno != 0 ? errno : -1;
}

const QelChar* searchDirList(const QelChar* dirList, const QelChar* file) {
  // One result buffer for every search, grown as needed and never released.
  static QelChar* result = nullptr;
  static size_t capacity = 0;
  if (!dirList || !file) return nullptr;

  size_t fileLength = 0;
  while (file[fileLength]) ++fileLength;
  // The list may live in a buffer that the search itself overwrites (_tgetenv's).
  std::u16string list(dirList);

  size_t start = 0;
  while (start < list.size()) {
    size_t end = start;
    while (end < list.size() && !isListSeparator(list[end])) ++end;
    size_t dirLength = end - start;
    if (dirLength > 0) {
      size_t needed = dirLength + 1 + fileLength + 1;
      if (needed > capacity) {
        void* grown = realloc(result, needed * sizeof(QelChar));
        if (!grown) errorExit(1);
        result = static_cast<QelChar*>(grown);
        capacity = needed;
      }
      memcpy(result, list.data() + start, dirLength * sizeof(QelChar));
      result[dirLength] = u'/';
      memcpy(result + dirLength + 1, file, fileLength * sizeof(QelChar));
      result[dirLength + 1 + fileLength] = 0;
      if (opensForReading(qel::toUtf8(result, dirLength + 1 + fileLength))) return result;
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
