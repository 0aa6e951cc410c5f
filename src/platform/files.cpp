#include "platform/files.h"

#include <stdio_ext.h>
#include <sys/types.h>

#include <cstring>
#include <mutex>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "qel/string.h"

namespace qel {

namespace {

// Surrogate halves waiting on a stream: the low half of a character read, the high
// half of a pair being written.
struct PendingUnits {
  int32_t read = -1;
  int32_t write = -1;
};

// A script's stream: a stream of the engine's own whose reads, writes and seeks go to
// the file below, unbuffered there (the stream above has the buffer).
struct ScriptFile {
  FILE* file = nullptr;  // null while the stream is closed and waits to be taken again
  int mode = 0;          // which kind of open made the stream (kModes)
};

// The kinds of open a stream keeps: what it may do is fixed when it is made.
const char* const kModes[] = {"r", "w", "a", "r+", "w+", "a+"};
const int kModeCount = 6;

// The kind of a mode text ("rb" is "r", "a+b" and "ab+" are "a+"), or -1.
int modeKind(const std::string& mode) {
  if (mode.empty()) return -1;
  int base = mode[0] == 'r' ? 0 : mode[0] == 'w' ? 1 : mode[0] == 'a' ? 2 : -1;
  if (base < 0) return -1;
  return mode.find('+') != std::string::npos ? base + 3 : base;
}

ssize_t scriptRead(void* cookie, char* buf, size_t n) {
  FILE* f = static_cast<ScriptFile*>(cookie)->file;
  if (!f) return -1;
  size_t got = fread(buf, 1, n, f);
  return got == 0 && ferror(f) ? -1 : static_cast<ssize_t>(got);
}

ssize_t scriptWrite(void* cookie, const char* buf, size_t n) {
  FILE* f = static_cast<ScriptFile*>(cookie)->file;
  if (!f) return -1;
  size_t put = fwrite(buf, 1, n, f);
  return put == 0 && n > 0 ? -1 : static_cast<ssize_t>(put);
}

int scriptSeek(void* cookie, off64_t* at, int whence) {
  FILE* f = static_cast<ScriptFile*>(cookie)->file;
  if (!f || fseeko(f, *at, whence) != 0) return -1;
  *at = ftello(f);
  return *at < 0 ? -1 : 0;
}

int scriptClose(void* cookie);

const cookie_io_functions_t kScriptFileFunctions = {scriptRead, scriptWrite, scriptSeek, scriptClose};

// The bits of the standard streams in a machine's set of closed ones.
unsigned standardBit(FILE* fp) { return fp == stdin ? 1u : fp == stdout ? 2u : fp == stderr ? 4u : 0u; }

struct StreamTable {
  std::mutex lock;
  std::unordered_set<FILE*> dead;
  std::unordered_map<FILE*, PendingUnits> pending;
  std::unordered_map<FILE*, ScriptFile*> scriptFiles;  // every stream of a script's, open or not
  std::vector<FILE*> waiting[kModeCount];              // closed ones, by kind, to be taken again
  std::unordered_map<const QelVirtualMachine*, unsigned> closedStandard;
};

StreamTable& streams() {
  static StreamTable* table = new StreamTable;  // outlives every machine
  return *table;
}

// Only a stream that cannot be taken again is ever closed for good (see closeStream).
int scriptClose(void* cookie) {
  ScriptFile* sf = static_cast<ScriptFile*>(cookie);
  int status = sf->file ? fclose(sf->file) : 0;
  delete sf;
  return status;
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
  std::string m = toUtf8(mode);
  int kind = modeKind(m);
  FILE* file = kind >= 0 ? openFile(path, mode) : nullptr;
  if (!file) return nullptr;
  setvbuf(file, nullptr, _IONBF, 0);
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  FILE* fp;
  if (!t.waiting[kind].empty()) {
    fp = t.waiting[kind].back();
    t.waiting[kind].pop_back();
    t.scriptFiles[fp]->file = file;
  } else {
    ScriptFile* sf = new ScriptFile;
    sf->file = file;
    sf->mode = kind;
    fp = fopencookie(sf, kModes[kind], kScriptFileFunctions);
    if (!fp) {
      delete sf;
      fclose(file);
      return nullptr;
    }
    t.scriptFiles[fp] = sf;
  }
  t.dead.erase(fp);  // the allocator may hand out a foreign stream's address again
  t.pending.erase(fp);
  return fp;
}

namespace {

// Closes a live stream under the table's lock; see closeStream.
int closeLocked(StreamTable& t, const QelVirtualMachine* vm, FILE* fp) {
  auto p = t.pending.find(fp);
  if (p != t.pending.end()) {
    flushPendingWrite(fp, p->second);
    t.pending.erase(p);
  }
  if (unsigned bit = standardBit(fp)) {
    t.closedStandard[vm] |= bit;
    return fflush(fp) == 0 ? 0 : EOF;
  }
  t.dead.insert(fp);
  auto script = t.scriptFiles.find(fp);
  if (script == t.scriptFiles.end()) return fclose(fp);  // a stream a host or native made
  int status = fflush(fp) == 0 ? 0 : EOF;
  ScriptFile* sf = script->second;
  if (fwide(fp, 0) > 0) {
    // A native made it a wide stream: it cannot serve the engine's byte reads again.
    t.scriptFiles.erase(script);
    return fclose(fp) == 0 ? status : EOF;
  }
  __fpurge(fp);  // unread input and an ungetc'd character go with the file
  clearerr(fp);
  if (fclose(sf->file) != 0) status = EOF;
  sf->file = nullptr;
  t.waiting[sf->mode].push_back(fp);
  return status;
}

bool isLiveLocked(StreamTable& t, const QelVirtualMachine* vm, FILE* fp) {
  if (!fp) return false;
  if (unsigned bit = standardBit(fp)) {
    auto closed = t.closedStandard.find(vm);
    return closed == t.closedStandard.end() || (closed->second & bit) == 0;
  }
  return t.dead.count(fp) == 0;
}

}  // namespace

int closeStream(const QelVirtualMachine* vm, FILE* fp) {
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  if (!isLiveLocked(t, vm, fp)) return EOF;
  return closeLocked(t, vm, fp);
}

bool isLiveStream(const QelVirtualMachine* vm, FILE* fp) {
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  return isLiveLocked(t, vm, fp);
}

FILE* takeStream(const QelVirtualMachine* vm, FILE* fp) {
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  if (!isLiveLocked(t, vm, fp)) return nullptr;
  if (!standardBit(fp) && !t.scriptFiles.count(fp)) {
    // A foreign stream is handed over as it is: the taker closes it.
    t.pending.erase(fp);
    t.dead.insert(fp);
    return fp;
  }
  std::string bytes;
  for (int c; (c = fgetc(fp)) != EOF;) bytes.push_back(static_cast<char>(c));
  closeLocked(t, vm, fp);
  // A copy in memory that the taker reads and closes; it frees its own buffer.
  FILE* copy = fmemopen(nullptr, bytes.size() + 1, "w+");
  if (!copy) return nullptr;
  if (fwrite(bytes.data(), 1, bytes.size(), copy) != bytes.size() || fseek(copy, 0, SEEK_SET) != 0) {
    fclose(copy);
    return nullptr;
  }
  return copy;
}

int streamDescriptor(FILE* fp) {
  if (!fp) return -1;
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  auto script = t.scriptFiles.find(fp);
  if (script == t.scriptFiles.end()) return fileno(fp);
  return script->second->file ? fileno(script->second->file) : -1;
}

void forgetClosedStandardStreams(const QelVirtualMachine* vm) {
  StreamTable& t = streams();
  std::lock_guard<std::mutex> hold(t.lock);
  t.closedStandard.erase(vm);
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
