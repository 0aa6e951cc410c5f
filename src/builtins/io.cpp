// File and console built-ins: thin wrappers over the runtime's streams, and "print",
// which writes through the machine's printer instead.
//
// A file is a QVT_FILE value holding the stream. Failures of the stream functions are
// no errors: they show only in the integers answered (or a null "fopen" result). A
// stream already closed is refused like any value that is not a file.
#include <algorithm>
#include <cstring>
#include <string>

#include "builtins/args.h"
#include "platform/files.h"

using namespace qel;

namespace {

const QelChar kFileExpected[] = u" (FILE expected)";
const QelChar kBufferExpected[] = u" (Buffer expected)";
const QelChar kIntExpected[] = u" (int expected)";
const unsigned int kChunk = 64 * 1024;

QelValue integer(int32_t n) { return QelValue(n); }

// A line read unit by unit up to a line feed, which is dropped; a carriage return
// before it stays. At the end of the stream the line is what was read so far.
template <class ReadUnit>
QelValue readLine(FILE* fp, ReadUnit readUnit) {
  std::u16string line;
  for (;;) {
    int32_t c = readUnit(fp);
    if ((c & 0xFFFF) == u'\n' || c < 0) break;
    line += static_cast<QelChar>(c);
  }
  return QelValue(new QelString(line.c_str(), static_cast<unsigned int>(line.size())), false);
}

int32_t readByte(FILE* fp) { return fgetc(fp); }

// The stream of a built-in taking one file; null after reporting a wrong call.
FILE* onlyStream(BuiltinCall& call) {
  if (!call.arity(1, 1)) return nullptr;
  FILE* fp = call.stream(1);
  if (!fp) call.fail(kMsgInvalidArgumentType);
  return fp;
}

// The operands of "fread"/"fwrite": the buffer first, the stream always last, and in
// between the count, or the item size and the count. Checked in that order.
struct Transfer {
  FILE* fp = nullptr;
  QelBuffer* buffer = nullptr;
  int32_t size = 1;
  int32_t count = 0;
  bool whole = false;  // (buffer, FILE): the whole stream or the whole buffer
};

bool transferOperands(BuiltinCall& call, Transfer& t) {
  if (!call.arity(2, 4)) return false;
  int n = call.count();
  t.fp = call.stream(n);
  if (!t.fp) return call.fail(kMsgInvalidArgumentType, kFileExpected);
  t.buffer = call[1];
  if (!t.buffer) return call.fail(kMsgInvalidArgumentType, kBufferExpected);
  t.whole = n == 2;
  if (t.whole) return true;
  if (!call.isInteger(n - 1)) return call.fail(kMsgInvalidArgumentType, kIntExpected);
  t.count = call.integer(n - 1);
  if (n == 4) {
    if (!call.isInteger(2)) return call.fail(kMsgInvalidArgumentType, kIntExpected);
    t.size = call.integer(2);
  }
  return true;
}

// Makes room for `more` bytes past the buffer's contents, doubling as it grows.
void reserveAfterContents(QelBuffer& b, uint64_t more) {
  uint64_t needed = b.size() + more;
  if (needed <= b.capacity()) return;
  uint64_t grown = std::max<uint64_t>(needed, std::min<uint64_t>(2ull * b.capacity(), UINT32_MAX));
  b.setCapacity(static_cast<unsigned int>(grown));
}

// Appends up to `limit` bytes of the stream to the buffer; answers the bytes read.
// Room is made as the bytes arrive, so a large request on a short stream costs little.
uint64_t appendFromStream(QelBuffer& b, FILE* fp, uint64_t limit) {
  limit = std::min<uint64_t>(limit, UINT32_MAX - b.size());
  uint64_t got = 0;
  while (got < limit) {
    unsigned int chunk = static_cast<unsigned int>(std::min<uint64_t>(kChunk, limit - got));
    reserveAfterContents(b, got + chunk);
    size_t n = fread(b.data() + b.size() + got, 1, chunk, fp);
    got += n;
    if (n < chunk) break;
  }
  return got;
}

}  // namespace

bool QelDefaultFunctions::Qel_fopen(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_FILES, u"fopen")) return false;
  if (!call.arity(2, 2)) return false;
  QelString* path = call.string(1);
  QelString* mode = call.string(2);
  if (!path || !mode) return call.fail(kMsgInvalidArgumentType);
  FILE* fp = openStream(path->c_str(), mode->c_str());
  return call.result(fp ? QelValue(static_cast<void*>(fp)) : QelValue());
}

bool QelDefaultFunctions::Qel_fclose(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  FILE* fp = onlyStream(call);
  if (!fp) return false;
  return call.result(integer(closeStream(vm, fp)));
}

bool QelDefaultFunctions::Qel_feof(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  FILE* fp = onlyStream(call);
  if (!fp) return false;
  return call.result(integer(feof(fp)));
}

bool QelDefaultFunctions::Qel_getc(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  FILE* fp = onlyStream(call);
  if (!fp || !mayRead(call, fp, u"getc")) return false;
  return call.result(integer(fgetc(fp)));
}

bool QelDefaultFunctions::Qel_putc(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  FILE* fp = call.stream(2);
  if (!call.isInteger(1) || !fp) return call.fail(kMsgInvalidArgumentType);
  return call.result(integer(fputc(call.integer(1), fp)));
}

// "getwc" answers the low 16 bits, so the end of the stream reads 65535.
bool QelDefaultFunctions::Qel_getwc(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  FILE* fp = onlyStream(call);
  if (!fp || !mayRead(call, fp, u"getwc")) return false;
  return call.result(integer(readWideChar(fp) & 0xFFFF));
}

bool QelDefaultFunctions::Qel_putwc(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  FILE* fp = call.stream(2);
  if (!call.isInteger(1) || !fp) return call.fail(kMsgInvalidArgumentType);
  return call.result(integer(writeWideChar(static_cast<QelChar>(call.integer(1)), fp) & 0xFFFF));
}

bool QelDefaultFunctions::Qel_gets(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 0) || !permitted(call, QEL_CAP_INPUT, u"gets")) return false;
  if (!isLiveStream(vm, stdin)) return call.result(QelValue(new QelString(), false));
  return call.result(readLine(stdin, readWideChar));
}

// "fgets" reads bytes, each byte one character; "fgetws" reads UTF-8 characters.
bool QelDefaultFunctions::Qel_fgets(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  FILE* fp = onlyStream(call);
  if (!fp || !mayRead(call, fp, u"fgets")) return false;
  return call.result(readLine(fp, readByte));
}

bool QelDefaultFunctions::Qel_fgetws(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  FILE* fp = onlyStream(call);
  if (!fp || !mayRead(call, fp, u"fgetws")) return false;
  return call.result(readLine(fp, readWideChar));
}

bool QelDefaultFunctions::Qel_fputs(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelString* s = call.string(1);
  FILE* fp = call.stream(2);
  if (!s || !fp) return call.fail(kMsgInvalidArgument);
  return call.result(integer(fputs(s->a_str(), fp)));
}

bool QelDefaultFunctions::Qel_fputws(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelString* s = call.string(1);
  FILE* fp = call.stream(2);
  if (!s || !fp) return call.fail(kMsgInvalidArgument);
  return call.result(integer(writeWideText(s->c_str(), fp)));
}

// (buffer, FILE) appends the rest of the stream and answers the bytes read; with a
// count (and an item size) it appends at most that many items and answers the whole
// items read. The bytes of a last partial item are not kept.
bool QelDefaultFunctions::Qel_fread(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  Transfer t;
  if (!transferOperands(call, t) || !mayRead(call, t.fp, u"fread")) return false;
  QelBuffer& b = *t.buffer;
  unsigned int before = b.size();
  if (t.whole) {
    uint64_t got = appendFromStream(b, t.fp, UINT64_MAX);
    b.setSize(before + static_cast<unsigned int>(got));
    return call.result(integer(static_cast<int32_t>(got)));
  }
  if (t.size <= 0 || t.count <= 0) return call.result(integer(0));
  uint64_t got = appendFromStream(b, t.fp, static_cast<uint64_t>(t.size) * static_cast<uint64_t>(t.count));
  uint64_t items = got / static_cast<uint64_t>(t.size);
  unsigned int kept = static_cast<unsigned int>(items * static_cast<uint64_t>(t.size));
  memset(b.data() + before + kept, 0, static_cast<size_t>(got - kept));  // beyond the size all is zero
  b.setSize(before + kept);
  return call.result(integer(static_cast<int32_t>(items)));
}

// (buffer, FILE) writes the buffer's contents. With a count (and an item size) it
// writes that many items from the start of the buffer's storage, as far as the
// storage reaches, whatever the buffer's size: the script decides what to send.
bool QelDefaultFunctions::Qel_fwrite(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  Transfer t;
  if (!transferOperands(call, t)) return false;
  const QelBuffer& b = *t.buffer;
  if (t.whole) return call.result(integer(static_cast<int32_t>(fwrite(b.data(), 1, b.size(), t.fp))));
  if (t.size <= 0 || t.count <= 0) return call.result(integer(0));
  size_t items = std::min<size_t>(static_cast<size_t>(t.count), b.capacity() / static_cast<size_t>(t.size));
  return call.result(integer(static_cast<int32_t>(fwrite(b.data(), static_cast<size_t>(t.size), items, t.fp))));
}

// Writes each argument through the machine's printer, with nothing in between.
bool QelDefaultFunctions::Qel_print(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  IQelPrinter& out = vm->printer();
  for (int k = 1; k <= nargs; ++k) {
    const QelValue& v = call[k];
    switch (v.getType()) {
      case QVT_INTEGER:
        out(u"%ld", v.toLong());
        break;
      case QVT_FLOAT:
      case QVT_DOUBLE:
        out(u"%f", v.toDouble());
        break;
      case QVT_STRING:
      case QVT_STRINGREF: {
        QelString* s = v;
        if (s) out(u"%s", s->c_str());
        break;
      }
      default:
        out(u"(%s:%p)", getValueTypeName(v.getType()), v.ptr());
        break;
    }
  }
  return call.none();
}
