// Engine text: editing, comparison, UTF-8 conversion and the two formatters.
#include <cstdlib>
#include <cstring>
#include <cwctype>

#include "platform/format.h"
#include "qel/buffer.h"
#include "qel/platform.h"
#include "qel/string.h"
#include "value/heap.h"

namespace {

QelChar* allocText(unsigned int length) {
  auto* block = static_cast<QelChar*>(allocmem((length + 1) * sizeof(QelChar)));
  qel::heapTook(block);
  return block;
}

void freeText(QelChar* block) {
  qel::heapGave(block);
  free(block);
}

QelChar* copyText(const QelChar* text, unsigned int length) {
  QelChar* block = allocText(length);
  memcpy(block, text, length * sizeof(QelChar));
  block[length] = 0;
  return block;
}

QelChar* resizeText(QelChar* block, unsigned int length) {
  qel::heapGave(block);
  void* p = realloc(block, (length + 1) * sizeof(QelChar));
  if (!p) errorExit(1);
  qel::heapTook(p);
  return static_cast<QelChar*>(p);
}

QelChar foldCase(QelChar c) {
  if (c < 0x80) return (c >= 'A' && c <= 'Z') ? static_cast<QelChar>(c + 32) : c;
  if (c >= 0xD800 && c <= 0xDFFF) return c;
  return static_cast<QelChar>(towlower(static_cast<wint_t>(c)));
}

// The narrow copy handed out by a_str: one buffer per thread, so that a copy lives
// until the next a_str call on the same thread, whatever machines on other threads do.
QelBuffer& narrowBuffer() {
  thread_local QelBuffer buffer;
  return buffer;
}

bool isSurrogateHigh(uint32_t c) { return c >= 0xD800 && c <= 0xDBFF; }
bool isSurrogateLow(uint32_t c) { return c >= 0xDC00 && c <= 0xDFFF; }

}  // namespace

unsigned int qelStrLen(const QelChar* s) {
  if (!s) return 0;
  const QelChar* p = s;
  while (*p) ++p;
  return static_cast<unsigned int>(p - s);
}

int qelStrCmp(const QelChar* a, const QelChar* b) {
  if (!a) a = u"";
  if (!b) b = u"";
  while (*a && *a == *b) ++a, ++b;
  return static_cast<int>(*a) - static_cast<int>(*b);
}

size_t qelUtf8ToUtf16(const char* src, size_t srcLen, QelChar* dst, size_t cap) {
  const unsigned char* s = reinterpret_cast<const unsigned char*>(src);
  size_t n = 0;
  auto put = [&](uint32_t unit) {
    if (n < cap) dst[n] = static_cast<QelChar>(unit);
    ++n;
  };
  size_t i = 0;
  while (i < srcLen) {
    uint32_t c = s[i];
    if (c < 0x80) {
      put(c);
      ++i;
      continue;
    }
    int extra = (c >> 5) == 6 ? 1 : (c >> 4) == 14 ? 2 : (c >> 3) == 30 ? 3 : -1;
    uint32_t cp = 0;
    bool ok = extra > 0 && i + extra < srcLen;
    if (ok) {
      cp = c & (0x3Fu >> extra);
      for (int k = 1; k <= extra && ok; ++k) {
        unsigned char cc = s[i + k];
        ok = (cc & 0xC0) == 0x80;
        cp = (cp << 6) | (cc & 0x3F);
      }
      static const uint32_t kMin[4] = {0, 0x80, 0x800, 0x10000};
      ok = ok && cp >= kMin[extra] && cp <= 0x10FFFF;
    }
    if (!ok) {
      put(0xFFFD);
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      put(0xD800 + (cp >> 10));
      put(0xDC00 + (cp & 0x3FF));
    } else {
      put(cp);  // lone surrogates arrive here as three-byte sequences
    }
    i += extra + 1;
  }
  return n;
}

size_t qelUtf16ToUtf8(const QelChar* src, size_t srcLen, char* dst, size_t cap) {
  size_t n = 0;
  auto put = [&](uint32_t byte) {
    if (n < cap) dst[n] = static_cast<char>(byte);
    ++n;
  };
  for (size_t i = 0; i < srcLen; ++i) {
    uint32_t c = src[i];
    if (isSurrogateHigh(c) && i + 1 < srcLen && isSurrogateLow(src[i + 1])) {
      c = 0x10000 + ((c - 0xD800) << 10) + (src[i + 1] - 0xDC00);
      ++i;
    }
    if (c < 0x80) {
      put(c);
    } else if (c < 0x800) {
      put(0xC0 | (c >> 6));
      put(0x80 | (c & 0x3F));
    } else if (c < 0x10000) {
      put(0xE0 | (c >> 12));
      put(0x80 | ((c >> 6) & 0x3F));
      put(0x80 | (c & 0x3F));
    } else {
      put(0xF0 | (c >> 18));
      put(0x80 | ((c >> 12) & 0x3F));
      put(0x80 | ((c >> 6) & 0x3F));
      put(0x80 | (c & 0x3F));
    }
  }
  return n;
}

const QelChar* QelString::emptyText() {
  static const QelChar empty[1] = {0};
  return empty;
}

QelString::QelString(const QelChar* text) : str_(nullptr) {
  if (text) str_ = copyText(text, qelStrLen(text));
}

QelString::QelString(const QelChar* text, unsigned int length) : str_(nullptr) {
  if (text) str_ = copyText(text, length);
}

QelString::QelString(const char* text) : str_(nullptr) {
  if (!text) return;
  size_t len = strlen(text);
  size_t n = qelUtf8ToUtf16(text, len, nullptr, 0);
  str_ = allocText(static_cast<unsigned int>(n));
  qelUtf8ToUtf16(text, len, str_, n);
  str_[n] = 0;
}

QelString::QelString(const QelString& s) : QelRefObject(), str_(nullptr) {
  if (s.str_) str_ = copyText(s.str_, s.length());
}

QelString& QelString::operator=(const QelString& s) {
  if (this == &s) return *this;
  QelChar* copy = s.str_ ? copyText(s.str_, s.length()) : nullptr;
  freeText(str_);
  str_ = copy;
  return *this;
}

QelString::~QelString() { freeText(str_); }

unsigned int QelString::length() const { return qelStrLen(str_); }

const char* QelString::a_str() const {
  if (!str_) return "";
  unsigned int len = length();
  QelBuffer& buf = narrowBuffer();
  size_t n = qelUtf16ToUtf8(str_, len, nullptr, 0);
  buf.clear();
  if (buf.capacity() < n + 1) buf.setCapacity(static_cast<unsigned int>(n + 1));
  qelUtf16ToUtf8(str_, len, reinterpret_cast<char*>(buf.data()), n);
  buf.data()[n] = 0;
  return reinterpret_cast<const char*>(buf.data());
}

int QelString::compare(const QelString& s) const { return qelStrCmp(c_str(), s.c_str()); }

int QelString::icompare(const QelString& s) const {
  const QelChar* a = c_str();
  const QelChar* b = s.c_str();
  while (*a && foldCase(*a) == foldCase(*b)) ++a, ++b;
  return static_cast<int>(foldCase(*a)) - static_cast<int>(foldCase(*b));
}

bool QelString::equals(const QelChar* text) const { return qelStrCmp(c_str(), text) == 0; }

int32_t QelString::find(const QelString& s, unsigned int from) const {
  unsigned int len = length();
  if (!str_ || from >= len) return -1;
  unsigned int n = s.length();
  if (n == 0) return static_cast<int32_t>(from);
  const QelChar* t = s.c_str();
  for (unsigned int i = from; i + n <= len; ++i) {
    if (str_[i] == t[0] && memcmp(str_ + i, t, n * sizeof(QelChar)) == 0) return static_cast<int32_t>(i);
  }
  return -1;
}

int32_t QelString::find(QelChar c, unsigned int from) const {
  unsigned int len = length();
  if (!str_ || from >= len) return -1;
  for (unsigned int i = from; i < len; ++i) {
    if (str_[i] == c) return static_cast<int32_t>(i);
  }
  return -1;
}

QelString QelString::substr(unsigned int pos, int32_t n) const {
  unsigned int len = length();
  if (pos >= len || n == 0) return QelString();
  unsigned int rest = len - pos;
  unsigned int count = (n < 0 || static_cast<unsigned int>(n) > rest) ? rest : static_cast<unsigned int>(n);
  return QelString(str_ + pos, count);
}

QelString& QelString::append(const QelChar* s, unsigned int n) {
  if (!s || n == 0) return *this;
  unsigned int len = length();
  str_ = resizeText(str_, len + n);
  memcpy(str_ + len, s, n * sizeof(QelChar));
  str_[len + n] = 0;
  return *this;
}

QelString& QelString::operator+=(const QelString& s) {
  if (this == &s) {
    QelString copy(s);
    return append(copy.c_str(), copy.length());
  }
  return append(s.c_str(), s.length());
}

QelString& QelString::operator+=(const QelChar* s) { return append(s, qelStrLen(s)); }

QelString& QelString::operator+=(QelChar c) { return append(&c, 1); }

QelString QelString::operator+(const QelString& s) const {
  QelString sum(*this);
  sum += s;
  return sum;
}

QelString& QelString::erase(unsigned int pos, int32_t n) {
  unsigned int len = length();
  if (n == 0 || len == 0 || pos >= len) return *this;
  unsigned int rest = len - pos;
  unsigned int count = (n < 0 || static_cast<unsigned int>(n) > rest) ? rest : static_cast<unsigned int>(n);
  memmove(str_ + pos, str_ + pos + count, (len - pos - count + 1) * sizeof(QelChar));
  unsigned int newLen = len - count;
  if (newLen == 0) {
    freeText(str_);
    str_ = nullptr;
  } else {
    str_ = resizeText(str_, newLen);
  }
  return *this;
}

QelString& QelString::insert(unsigned int pos, const QelString& s) {
  unsigned int len = length();
  unsigned int n = s.length();
  if (n == 0 || pos > len) return *this;
  if (pos == len) return *this += s;
  QelString copy(s);  // s may be this very string
  str_ = resizeText(str_, len + n);
  memmove(str_ + pos + n, str_ + pos, (len - pos + 1) * sizeof(QelChar));
  memcpy(str_ + pos, copy.c_str(), n * sizeof(QelChar));
  return *this;
}

// Inserting a repeated character walks down from the old terminator: each step moves
// the lower character `count` places up and writes `c` in its place. For a position
// below the length this keeps the first length-count+1 characters, then the copies of
// `c`, then the last count-1 characters of the old text.
QelString& QelString::insert(unsigned int pos, QelChar c, unsigned int count) {
  unsigned int len = length();
  if (count == 0 || pos > len) return *this;
  if (pos == len) return *this += c;
  if (count > len + 1) {
    // Beyond length+1 copies the moved text lands behind a terminator: what remains
    // is length+1 copies of c, so that is what is kept.
    str_ = resizeText(str_, len + 1);
    for (unsigned int k = 0; k <= len; ++k) str_[k] = c;
    str_[len + 1] = 0;
    return *this;
  }
  str_ = resizeText(str_, len + count);
  for (unsigned int k = 0; k < count; ++k) str_[len + 1 + k] = 0;
  unsigned int i = len;  // old terminator position
  for (unsigned int k = 0; k < count; ++k) {
    str_[i + count] = str_[i];
    str_[i] = c;
    if (i == 0) break;
    --i;
  }
  str_[len + count] = 0;
  return *this;
}

QelString& QelString::replace(const QelString& from, const QelString& to) {
  if (from.empty()) return *this;
  QelString what(from), with(to);
  unsigned int whatLen = what.length(), withLen = with.length();
  int32_t at = find(what, 0);
  while (at >= 0) {
    erase(static_cast<unsigned int>(at), whatLen);
    unsigned int next = static_cast<unsigned int>(at);
    if (withLen) {
      insert(next, with);
      next += withLen;
    }
    at = find(what, next);
  }
  return *this;
}

QelString& QelString::replace(QelChar a, QelChar b) {
  if (!str_) return *this;
  for (QelChar* p = str_; *p; ++p) {
    if (*p == a) *p = b;
  }
  return *this;
}

void QelString::clear() {
  freeText(str_);
  str_ = nullptr;
}

QelString QelString::adopt(QelChar* block) {
  QelString s;
  s.str_ = block;
  qel::heapTook(block);  // text the formatter built
  return s;
}

QelString QelString::vformat(const QelChar* text, va_list args) {
  if (!text) return QelString();
  unsigned int length = 0;
  QelChar* block = qel::formatAlloc(text, args, &length);
  return adopt(block);
}

QelString QelString::format(const QelChar* text, ...) {
  va_list args;
  va_start(args, text);
  QelString s = vformat(text, args);
  va_end(args);
  return s;
}

// ---- The script formatter -------------------------------------------------------
//
// The format is read in place, token by token: a token runs from a character other
// than '%' to the next '%' or the end. Everything goes into one growing text that the
// new string then adopts. A conversion reaches the general formatter as a directive
// made of '%', the flag, width and precision kept, and the letter (the size prefixes
// are dropped); a bare one ("%d", "%lx", "%s", ...) is written here directly, exactly
// as the general formatter writes it.

namespace {

using qel::TextBuilder;

// A set of ASCII characters, tested with one bit operation.
class CharSet {
 public:
  constexpr explicit CharSet(const char* members) : bits_{0, 0} {
    for (; *members; ++members) bits_[*members >> 6] |= uint64_t(1) << (*members & 63);
  }
  bool has(QelChar c) const { return c < 128 && ((bits_[c >> 6] >> (c & 63)) & 1); }

 private:
  uint64_t bits_[2];
};

// What may stand between the '%' and the letter, and the letters.
constexpr CharSet kFlags("+-0 #");
constexpr CharSet kSizePrefixes("whlI2346FN");
constexpr CharSet kConversions("diouxXfegEGcspCSaA");

// Widths and precisions are cut to five digits so a script cannot ask for gigabytes.
const unsigned int kMaxFieldDigits = 5;

// The argument size a run of size prefixes asks for: "h" a short, "hh" a char, "ll" and
// "I64" 64 bits; "l", "w", "I", "I32" name the 32-bit size the integers have anyway,
// and "F" and "N" (far and near pointers) change nothing.
enum class ArgSize { kInt, kShort, kChar, kLong64 };

ArgSize readSizePrefixes(const QelChar*& p) {
  const QelChar* start = p;
  while (kSizePrefixes.has(*p)) ++p;
  ArgSize size = ArgSize::kInt;
  for (const QelChar* q = start; q < p; ++q) {
    if (q[0] == 'l' && q + 1 < p && q[1] == 'l') return ArgSize::kLong64;
    if (q[0] == 'I' && q + 2 < p && q[1] == '6' && q[2] == '4') return ArgSize::kLong64;
    if (q[0] == 'h') size = (q + 1 < p && q[1] == 'h') ? ArgSize::kChar : ArgSize::kShort;
    if (size != ArgSize::kInt) return size;
  }
  return size;
}

// A conversion read from the start of a token.
struct Directive {
  QelChar text[20];  // '%', flag, 5 digits, '.', 5 digits, a size, the letter, a terminator
  unsigned int length = 0;
  QelChar letter = 0;
  ArgSize size = ArgSize::kInt;
  const QelChar* rest = nullptr;  // the literal text after the letter

  void add(QelChar c) { text[length++] = c; }
  // Nothing but the '%': no flag, width, precision or size.
  bool bare() const { return length == 1 && size == ArgSize::kInt; }
  // The directive for the general formatter, ending in `conversion`, with the size
  // prefix when `sized`.
  const QelChar* with(QelChar conversion, bool sized = false) {
    unsigned int n = length;
    if (sized) {
      static const QelChar* const kPrefix[] = {u"", u"h", u"hh", u"ll"};
      for (const QelChar* q = kPrefix[static_cast<int>(size)]; *q; ++q) text[n++] = *q;
    }
    text[n] = conversion;
    text[n + 1] = 0;
    return text;
  }
};

// Keeps the first kMaxFieldDigits of a run of digits; answers the end of the run.
const QelChar* copyDigits(const QelChar* p, Directive& d) {
  unsigned int kept = 0;
  for (; *p >= '0' && *p <= '9'; ++p) {
    if (kept++ < kMaxFieldDigits) d.add(*p);
  }
  return p;
}

// At most one flag, a width, a precision and any size prefixes; answers whether a
// conversion letter follows them. The '%' or terminator that ends the token is in
// none of the sets, so the reading stops there.
bool readDirective(const QelChar* p, Directive& d) {
  d.add('%');
  if (kFlags.has(*p)) d.add(*p++);
  p = copyDigits(p, d);
  if (*p == '.') {
    d.add(*p++);
    p = copyDigits(p, d);
  }
  d.size = readSizePrefixes(p);
  if (!kConversions.has(*p)) return false;
  d.letter = *p;
  d.rest = p + 1;
  return true;
}

// Appends the formatted text; answers false when it holds a NUL (a "%c" of 0): the
// piece ends there, so the NUL and whatever follows it are dropped.
bool appendFormatted(TextBuilder& out, const QelChar* format, ...) {
  size_t mark = out.length();
  va_list args;
  va_start(args, format);
  qel::formatAppend(out, format, args);
  va_end(args);
  for (size_t i = mark; i < out.length(); ++i) {
    if (!out.data()[i]) {
      out.truncate(i);
      return false;
    }
  }
  return true;
}

// The digits of `magnitude` in Base, after a '-' when `negative`, written straight
// into the text; decimal digits two at a time.
template <unsigned int Base>
void appendDigits(TextBuilder& out, uint32_t magnitude, bool negative, bool upper) {
  static const char kPairs[] =
      "00010203040506070809101112131415161718192021222324252627282930313233343536373839"
      "40414243444546474849505152535455565758596061626364656667686970717273747576777879"
      "8081828384858687888990919293949596979899";
  unsigned int n = 1;
  for (uint64_t power = Base; power <= magnitude; power *= Base) ++n;
  if (negative) ++n;
  QelChar* at = out.room(n);
  if (negative) at[0] = '-';
  QelChar* end = at + n;
  if (Base == 10) {
    for (; magnitude >= 100; magnitude /= 100) {
      unsigned int pair = (magnitude % 100) * 2;
      *--end = static_cast<QelChar>(kPairs[pair + 1]);
      *--end = static_cast<QelChar>(kPairs[pair]);
    }
  }
  const char* digits = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  do {
    *--end = static_cast<QelChar>(digits[magnitude % Base]);
    magnitude /= Base;
  } while (magnitude);
  out.added(n);
}

// A bare integer conversion of a 32-bit value: "%d" and "%i" signed, the others
// unsigned, as the general formatter writes them without flags.
void appendInteger(TextBuilder& out, QelChar letter, int32_t value) {
  uint32_t bits = static_cast<uint32_t>(value);
  switch (letter) {
    case 'o': appendDigits<8>(out, bits, false, false); break;
    case 'x': appendDigits<16>(out, bits, false, false); break;
    case 'X': appendDigits<16>(out, bits, false, true); break;
    case 'u': appendDigits<10>(out, bits, false, false); break;
    default: appendDigits<10>(out, value < 0 ? 0u - bits : bits, value < 0, false); break;
  }
}

// The text a value shows for a %s conversion. It never holds a NUL.
void appendTextOf(TextBuilder& out, const QelValue& v) {
  switch (v.getType()) {
    case QVT_STRING:
    case QVT_STRINGREF: {
      QelString* s = v;
      if (s) out.write(s->c_str(), s->length());
      return;
    }
    case QVT_INTEGER: appendInteger(out, 'd', v.toLong()); return;
    case QVT_FLOAT:
    case QVT_DOUBLE: appendFormatted(out, u"%f", v.toDouble()); return;
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF: {
      QelCharBuffer* b = v;
      if (!b) return;
      unsigned int n = 0;
      while (n < b->size() && (*b)[n]) ++n;
      out.write(b->data(), n);
      return;
    }
    case QVT_BUFFER:
    case QVT_BUFFERREF: {
      // The bytes up to the first 0 or the end, as UTF-8; each byte gives at most one
      // QelChar.
      QelBuffer* b = v;
      if (!b) return;
      unsigned int n = 0;
      while (n < b->size() && (*b)[n]) ++n;
      QelChar* at = out.room(n);
      out.added(qelUtf8ToUtf16(reinterpret_cast<const char*>(b->data()), n, at, n));
      return;
    }
    case QVT_NULL: out.write(u"(null)", 6); return;
    default: appendFormatted(out, u"(%s:%p)", getValueTypeName(v.getType()), v.ptr()); return;
  }
}

// Formats one value. The argument passed always matches the conversion, whatever the
// value's type. Answers false when the piece ended at a NUL.
bool appendConversion(TextBuilder& out, Directive& d, const QelValue& v) {
  switch (d.letter) {
    case 'd':
    case 'i':
    case 'o':
    case 'u':
    case 'x':
    case 'X':
      // A 64-bit size reads the integer widened, never a word the value does not hold.
      if (d.size == ArgSize::kLong64) return appendFormatted(out, d.with(d.letter, true), int64_t{v.toLong()});
      if (!d.bare()) return appendFormatted(out, d.with(d.letter, true), v.toLong());
      appendInteger(out, d.letter, v.toLong());
      return true;
    case 'c':
    case 'C': {
      QelChar c = static_cast<QelChar>(v.toLong());
      // "%hc" is a narrow character: one byte, where only ASCII stands for itself.
      if (d.size == ArgSize::kShort || d.size == ArgSize::kChar)
        return appendFormatted(out, d.with(u'c', true), static_cast<int>(c));
      if (!d.bare()) return appendFormatted(out, d.with(u'c'), static_cast<int>(c));
      if (!c) return false;
      out.put(c);
      return true;
    }
    case 'p': return appendFormatted(out, d.with(u'p'), v.ptr());
    case 's':
    case 'S': {
      if (d.bare()) {
        appendTextOf(out, v);
        return true;
      }
      QelChar local[128];
      TextBuilder text(local, sizeof local / sizeof local[0]);
      appendTextOf(text, v);
      return appendFormatted(out, d.with(u's'), text.terminated());
    }
    default: return appendFormatted(out, d.with(d.letter), v.toDouble());
  }
}

}  // namespace

QelString::QelString(const QelChar* text, unsigned int count, ValPtr& args) : str_(nullptr) {
  if (!text || !text[0] || count == 0) return;
  QelChar local[256];
  TextBuilder out(local, sizeof local / sizeof local[0]);
  unsigned int used = 0;
  const QelChar* p = text;
  // As soon as every value is used, the rest of the format is dropped.
  while (used < count) {
    while (*p == '%') ++p;  // a run of '%' is one separator
    if (!*p) break;
    const QelChar* token = p;
    while (*p && *p != '%') ++p;
    // Only a token after a '%' may be a conversion; any other is kept as it stands.
    Directive d;
    if (token != text && readDirective(token, d)) {
      if (appendConversion(out, d, args.at(static_cast<int>(used)))) out.write(d.rest, static_cast<size_t>(p - d.rest));
      ++used;
    } else {
      out.write(token, static_cast<size_t>(p - token));
    }
  }
  if (out.length()) {
    str_ = out.take();
    qel::heapTook(str_);  // text the builder made
  }
}
