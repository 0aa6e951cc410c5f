// Platform services: fatal exit, allocation, environment variables, directory search
// and the console character read.
//
// The process environment holds the engine's variables. Engine text is UTF-16; the
// environment, file names and the console are UTF-8. The conversions below do not
// depend on the C locale: a lone surrogate travels as its own 3-byte sequence, and a
// malformed byte sequence reads as U+FFFD.
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

const QelChar kReplacement = 0xFFFD;

bool isHighSurrogate(uint32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(uint32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

void appendUtf8(std::string& out, uint32_t c) {
  if (c < 0x80) {
    out += static_cast<char>(c);
  } else if (c < 0x800) {
    out += static_cast<char>(0xC0 | (c >> 6));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else if (c < 0x10000) {
    out += static_cast<char>(0xE0 | (c >> 12));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  } else {
    out += static_cast<char>(0xF0 | (c >> 18));
    out += static_cast<char>(0x80 | ((c >> 12) & 0x3F));
    out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
    out += static_cast<char>(0x80 | (c & 0x3F));
  }
}

// `length` QelChars of `text` as UTF-8.
std::string toUtf8(const QelChar* text, size_t length) {
  std::string out;
  out.reserve(length);
  for (size_t i = 0; i < length; ++i) {
    uint32_t c = text[i];
    if (isHighSurrogate(c) && i + 1 < length && isLowSurrogate(text[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (text[i + 1] - 0xDC00u);
      ++i;
    }
    appendUtf8(out, c);
  }
  return out;
}

std::string toUtf8(const QelChar* text) {
  size_t length = 0;
  while (text[length]) ++length;
  return toUtf8(text, length);
}

// Number of continuation bytes that follow `lead`, or -1 for a byte that cannot
// start a sequence.
int continuationCount(unsigned char lead) {
  if (lead < 0x80) return 0;
  if (lead >= 0xC2 && lead <= 0xDF) return 1;
  if (lead >= 0xE0 && lead <= 0xEF) return 2;
  if (lead >= 0xF0 && lead <= 0xF4) return 3;
  return -1;
}

// Whether `c`, decoded from `count` continuation bytes, is a value that length of
// sequence may carry. Surrogates are allowed: they are how lone surrogates travel.
bool validCodePoint(uint32_t c, int count) {
  switch (count) {
    case 1: return c >= 0x80;
    case 2: return c >= 0x800;
    case 3: return c >= 0x10000 && c <= 0x10FFFF;
    default: return true;
  }
}

void appendUtf16(std::u16string& out, uint32_t c) {
  if (c >= 0x10000) {
    c -= 0x10000;
    out += static_cast<QelChar>(0xD800 + (c >> 10));
    out += static_cast<QelChar>(0xDC00 + (c & 0x3FF));
  } else {
    out += static_cast<QelChar>(c);
  }
}

// UTF-8 text as engine text.
std::u16string fromUtf8(const char* text) {
  std::u16string out;
  const unsigned char* p = reinterpret_cast<const unsigned char*>(text);
  while (*p) {
    int count = continuationCount(*p);
    if (count < 0) {
      out += kReplacement;
      ++p;
      continue;
    }
    uint32_t c = count == 0 ? *p : (*p & (0x3Fu >> count));
    int taken = 0;
    while (taken < count && (p[1 + taken] & 0xC0) == 0x80) {
      c = (c << 6) | (p[1 + taken] & 0x3Fu);
      ++taken;
    }
    if (taken < count || !validCodePoint(c, count)) {
      out += kReplacement;
      p += 1 + taken;
      continue;
    }
    appendUtf16(out, c);
    p += 1 + count;
  }
  return out;
}

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
  const char* value = getenv(toUtf8(name).c_str());
  if (!value) return buffer;
  std::u16string text = fromUtf8(value);
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
  std::string name = toUtf8(assignment, static_cast<size_t>(equals - assignment));
  std::string value = toUtf8(equals + 1);
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
      if (opensForReading(toUtf8(result, dirLength + 1 + fileLength))) return result;
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

namespace qel {

int32_t readCodePoint(FILE* fp) {
  int lead = fgetc(fp);
  if (lead == EOF) return -1;
  int count = continuationCount(static_cast<unsigned char>(lead));
  if (count < 0) return kReplacement;
  if (count == 0) return lead;
  uint32_t c = static_cast<unsigned char>(lead) & (0x3Fu >> count);
  for (int i = 0; i < count; ++i) {
    int next = fgetc(fp);
    if (next == EOF) return kReplacement;
    if ((next & 0xC0) != 0x80) {
      // Not part of this character: leave it for the next read.
      ungetc(next, fp);
      return kReplacement;
    }
    c = (c << 6) | (static_cast<unsigned>(next) & 0x3Fu);
  }
  if (!validCodePoint(c, count)) return kReplacement;
  return static_cast<int32_t>(c);
}

}  // namespace qel

int _gettche() {
  int32_t c = qel::readCodePoint(stdin);
  return c < 0 ? 0xFFFF : static_cast<int>(c & 0xFFFF);
}
