#include "platform/files.h"

#include <cstring>
#include <mutex>
#include <unordered_map>
#include <unordered_set>

#include "qel/string.h"

namespace qel {

namespace {

// Surrogate halves waiting on a stream: the low half of a character read, the high
// half of a pair being written.
struct PendingUnits {
  int32_t read = -1;
  int32_t write = -1;
};

struct StreamTable {
  std::mutex lock;
  std::unordered_set<FILE*> dead;
  std::unordered_map<FILE*, PendingUnits> pending;
};

StreamTable& streams() {
  static StreamTable* table = new StreamTable;  // outlives every machine
  return *table;
}

bool isHighSurrogate(uint32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isLowSurrogate(uint32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

int putUtf8(uint32_t c, FILE* fp) {
  char bytes[4];
  QelChar units[2];
  size_t n;
  if (c >= 0x10000) {
    units[0] = static_cast<QelChar>(0xD800 + ((c - 0x10000) >> 10));
    units[1] = static_cast<QelChar>(0xDC00 + ((c - 0x10000) & 0x3FF));
    n = qelUtf16ToUtf8(units, 2, bytes, sizeof bytes);
  } else {
    units[0] = static_cast<QelChar>(c);
    n = qelUtf16ToUtf8(units, 1, bytes, sizeof bytes);
  }
  return fwrite(bytes, 1, n, fp) == n ? 0 : -1;
}

// Writes a high surrogate left waiting by writeWideChar on its own.
int flushPendingWrite(FILE* fp, PendingUnits& p) {
  if (p.write < 0) return 0;
  uint32_t high = static_cast<uint32_t>(p.write);
  p.write = -1;
  return putUtf8(high, fp);
}

}  // namespace

std::string toUtf8(const QelChar* text) { return toUtf8(text, qelStrLen(text)); }

std::string toUtf8(const QelChar* text, size_t length) {
  if (!text) return std::string();
  std::string out(qelUtf16ToUtf8(text, length, nullptr, 0), '\0');
  qelUtf16ToUtf8(text, length, &out[0], out.size());
  return out;
}

std::u16string fromUtf8(const char* text) {
  size_t length = strlen(text);
  std::u16string out(qelUtf8ToUtf16(text, length, nullptr, 0), u'\0');
  qelUtf8ToUtf16(text, length, &out[0], out.size());
  return out;
}

// One UTF-8 character, read byte by byte: the bytes of its sequence are decoded as a
// whole, and a byte that cannot continue it is left for the next read.
int32_t readCodePoint(FILE* fp) {
  int lead = fgetc(fp);
  if (lead == EOF) return -1;
  char bytes[4] = {static_cast<char>(lead)};
  int count = lead < 0x80 ? 0 : (lead >> 5) == 6 ? 1 : (lead >> 4) == 14 ? 2 : (lead >> 3) == 30 ? 3 : 0;
  for (int i = 1; i <= count; ++i) {
    int next = fgetc(fp);
    if (next == EOF) return 0xFFFD;
    if ((next & 0xC0) != 0x80) {
      ungetc(next, fp);
      return 0xFFFD;
    }
    bytes[i] = static_cast<char>(next);
  }
  QelChar units[2];
  size_t n = qelUtf8ToUtf16(bytes, static_cast<size_t>(count) + 1, units, 2);
  if (n == 2 && isHighSurrogate(units[0]) && isLowSurrogate(units[1])) {
    return 0x10000 + ((units[0] - 0xD800) << 10) + (units[1] - 0xDC00);
  }
  return n == 1 ? units[0] : 0xFFFD;
}

FILE* openFile(const QelChar* path, const QelChar* mode) {
  if (!path || !mode) return nullptr;
  std::string m;
  for (const QelChar* p = mode; *p; ++p) {
    if (*p != 't') m += static_cast<char>(*p);
  }
  return fopen(toUtf8(path).c_str(), m.c_str());
}

FILE* openStream(const QelChar* path, const QelChar* mode) {
  FILE* fp = openFile(path, mode);
  if (fp) {
    StreamTable& t = streams();
    std::lock_guard<std::mutex> hold(t.lock);
    t.dead.erase(fp);  // the allocator may hand out a closed stream's address again
    t.pending.erase(fp);
  }
  return fp;
}

int closeStream(FILE* fp) {
  if (!isLiveStream(fp)) return EOF;
  {
    StreamTable& t = streams();
    std::lock_guard<std::mutex> hold(t.lock);
    auto p = t.pending.find(fp);
    if (p != t.pending.end()) {
      flushPendingWrite(fp, p->second);
      t.pending.erase(p);
    }
    t.dead.insert(fp);
  }
  return fclose(fp);
}

void streamClosed(FILE* fp) {
  if (!fp) return;
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  t.pending.erase(fp);
  t.dead.insert(fp);
}

bool isLiveStream(FILE* fp) {
  if (!fp) return false;
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  return t.dead.count(fp) == 0;
}

int32_t readWideChar(FILE* fp) {
  StreamTable& t = streams();
  {
    std::lock_guard<std::mutex> hold(t.lock);
    auto p = t.pending.find(fp);
    if (p != t.pending.end() && p->second.read >= 0) {
      int32_t low = p->second.read;
      p->second.read = -1;
      return low;
    }
  }
  int32_t c = readCodePoint(fp);
  if (c < 0x10000) return c;
  std::lock_guard<std::mutex> hold(t.lock);
  t.pending[fp].read = 0xDC00 + ((c - 0x10000) & 0x3FF);
  return 0xD800 + ((c - 0x10000) >> 10);
}

int32_t writeWideChar(QelChar c, FILE* fp) {
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  PendingUnits& p = t.pending[fp];
  if (p.write >= 0 && isLowSurrogate(c)) {
    uint32_t pair = 0x10000 + ((static_cast<uint32_t>(p.write) - 0xD800) << 10) + (c - 0xDC00u);
    p.write = -1;
    return putUtf8(pair, fp) == 0 ? c : -1;
  }
  if (flushPendingWrite(fp, p) != 0) return -1;
  if (isHighSurrogate(c)) {
    p.write = c;  // written with the low half that should follow
    return c;
  }
  return putUtf8(c, fp) == 0 ? c : -1;
}

int writeWideText(const QelChar* text, FILE* fp) {
  {
    StreamTable& t = streams();
    std::lock_guard<std::mutex> hold(t.lock);
    auto p = t.pending.find(fp);
    if (p != t.pending.end() && flushPendingWrite(fp, p->second) != 0) return EOF;
  }
  return fputs(toUtf8(text).c_str(), fp);
}

}  // namespace qel
