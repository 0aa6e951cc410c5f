// The engine's printf-style formatter.
//
// One engine, templated over the format's character type (QelChar or char) and an
// output sink, does all the work: the length routines run it with a sink that only
// counts, formatInto with a sink that fills a fixed buffer, formatAlloc and
// formatAppend with a sink that grows (a TextBuilder), and formatToFile with a sink
// that turns QelChars into UTF-8 and writes them to the stream in chunks. Nothing is
// allocated per conversion, except a heap buffer for a floating conversion whose
// digits do not fit a local one.
#include "platform/format.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <type_traits>

#include "qel/platform.h"

namespace qel {
namespace {

// ---------------------------------------------------------------------------------
// UTF-8 / UTF-16 steps. Lone surrogates travel as 3-byte sequences both ways so that
// they survive a round trip; malformed UTF-8 reads as U+FFFD, one per maximal
// malformed prefix.

constexpr uint32_t kReplacement = 0xFFFD;

// Decodes the character at s (which is not at its terminator); answers the number of
// bytes it took.
size_t decodeUtf8(const unsigned char* s, uint32_t& cp) {
  unsigned b = s[0];
  if (b < 0x80) {
    cp = b;
    return 1;
  }
  size_t need;
  uint32_t value;
  unsigned lo = 0x80, hi = 0xBF;
  if (b >= 0xC2 && b <= 0xDF) {
    need = 1;
    value = b & 0x1F;
  } else if (b >= 0xE0 && b <= 0xEF) {
    need = 2;
    value = b & 0x0F;
    if (b == 0xE0) lo = 0xA0;  // no overlong forms
  } else if (b >= 0xF0 && b <= 0xF4) {
    need = 3;
    value = b & 0x07;
    if (b == 0xF0) lo = 0x90;  // no overlong forms
    if (b == 0xF4) hi = 0x8F;  // nothing past U+10FFFF
  } else {
    cp = kReplacement;
    return 1;
  }
  for (size_t i = 1; i <= need; ++i) {
    unsigned c = s[i];  // a terminator fails the test and is never passed
    if (c < lo || c > hi) {
      cp = kReplacement;
      return i;
    }
    lo = 0x80;
    hi = 0xBF;
    value = (value << 6) | (c & 0x3F);
  }
  cp = value;
  return need + 1;
}

// Reads one character of UTF-16: a surrogate pair or a single unit.
size_t decodeUtf16(const char16_t* s, uint32_t& cp) {
  uint32_t u = s[0];
  if (u >= 0xD800 && u <= 0xDBFF && s[1] >= 0xDC00 && s[1] <= 0xDFFF) {
    cp = 0x10000 + ((u - 0xD800) << 10) + (s[1] - 0xDC00u);
    return 2;
  }
  cp = u;
  return 1;
}

size_t encodeUtf16(uint32_t cp, char16_t* out) {
  if (cp < 0x10000) {
    out[0] = static_cast<char16_t>(cp);
    return 1;
  }
  cp -= 0x10000;
  out[0] = static_cast<char16_t>(0xD800 + (cp >> 10));
  out[1] = static_cast<char16_t>(0xDC00 + (cp & 0x3FF));
  return 2;
}

size_t encodeUtf8(uint32_t cp, char* out) {
  if (cp < 0x80) {
    out[0] = static_cast<char>(cp);
    return 1;
  }
  if (cp < 0x800) {
    out[0] = static_cast<char>(0xC0 | (cp >> 6));
    out[1] = static_cast<char>(0x80 | (cp & 0x3F));
    return 2;
  }
  if (cp < 0x10000) {
    out[0] = static_cast<char>(0xE0 | (cp >> 12));
    out[1] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
    out[2] = static_cast<char>(0x80 | (cp & 0x3F));
    return 3;
  }
  out[0] = static_cast<char>(0xF0 | (cp >> 18));
  out[1] = static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
  out[2] = static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
  out[3] = static_cast<char>(0x80 | (cp & 0x3F));
  return 4;
}

// Converts a terminated text of the other character type to the output's encoding,
// whole characters only and at most `limit` units, handing the units to `emit` in
// pieces. Answers the number of units produced.
template <class To, class From, class Emit>
size_t transcode(const From* s, size_t limit, Emit&& emit) {
  static_assert(!std::is_same_v<To, From>, "nothing to convert");
  To piece[64];
  size_t used = 0, total = 0;
  while (*s) {
    uint32_t cp;
    To units[4];
    size_t k;
    if constexpr (std::is_same_v<From, char>) {
      s += decodeUtf8(reinterpret_cast<const unsigned char*>(s), cp);
      k = encodeUtf16(cp, units);
    } else {
      s += decodeUtf16(s, cp);
      k = encodeUtf8(cp, units);
    }
    if (k > limit - total) break;
    if (used + k > sizeof piece / sizeof piece[0]) {
      emit(piece, used);
      used = 0;
    }
    for (size_t i = 0; i < k; ++i) piece[used++] = units[i];
    total += k;
  }
  if (used) emit(piece, used);
  return total;
}

// ---------------------------------------------------------------------------------
// Sinks. Each takes units of the output type through put, write and fill; the engine
// does the counting.

template <class C>
struct CountSink {
  void put(C) {}
  void write(const C*, size_t) {}
  void fill(C, size_t) {}
};

// Keeps the first `room` units and drops the rest.
template <class C>
struct BufferSink {
  C* at;
  size_t room;

  void put(C c) {
    if (room) {
      *at++ = c;
      --room;
    }
  }
  void write(const C* s, size_t n) {
    if (n > room) n = room;
    if (!n) return;  // `at` may be null when nothing fits
    memcpy(at, s, n * sizeof(C));
    at += n;
    room -= n;
  }
  void fill(C c, size_t n) {
    if (n > room) n = room;
    for (size_t i = 0; i < n; ++i) at[i] = c;
    at += n;
    room -= n;
  }
};

// Appends to a growing text.
struct GrowSink {
  TextBuilder& out;

  void put(char16_t c) { out.put(c); }
  void write(const char16_t* s, size_t n) { out.write(s, n); }
  void fill(char16_t c, size_t n) { out.fill(c, n); }
};

// Writes QelChars to a stream as UTF-8 through a local buffer. A high surrogate waits
// for the next unit, so that a pair split between two pieces still becomes one
// 4-byte sequence.
struct FileSink {
  FILE* fp;
  char bytes[1024];
  size_t used = 0;
  char16_t high = 0;
  bool failed = false;

  explicit FileSink(FILE* f) : fp(f) {}

  void flush() {
    if (used && !failed && fwrite(bytes, 1, used, fp) != used) failed = true;
    used = 0;
  }
  void encode(uint32_t cp) {
    if (sizeof bytes - used < 4) flush();
    used += encodeUtf8(cp, bytes + used);
  }
  void put(char16_t c) {
    if (high) {
      if (c >= 0xDC00 && c <= 0xDFFF) {
        encode(0x10000 + ((high - 0xD800u) << 10) + (c - 0xDC00u));
        high = 0;
        return;
      }
      encode(high);
      high = 0;
    }
    if (c >= 0xD800 && c <= 0xDBFF) {
      high = c;
    } else if (c < 0x80 && used < sizeof bytes) {
      bytes[used++] = static_cast<char>(c);
    } else {
      encode(c);
    }
  }
  void write(const char16_t* s, size_t n) {
    for (size_t i = 0; i < n; ++i) put(s[i]);
  }
  void fill(char16_t c, size_t n) {
    for (size_t i = 0; i < n; ++i) put(c);
  }
  void finish() {
    if (high) encode(high);
    high = 0;
    flush();
  }
};

// ---------------------------------------------------------------------------------
// The engine.

enum class Size { kNone, kHH, kH, kL, kLL, kBigL, kI, kI32, kI64, kW, kZ, kJ, kT };

struct Directive {
  bool left = false, plus = false, space = false, alt = false, zero = false;
  bool hasPrecision = false;
  size_t width = 0;
  size_t precision = 0;
  Size size = Size::kNone;
};

// Lets helpers consume arguments from one shared list.
struct Args {
  va_list ap;
};

bool isDigit(unsigned c) { return c >= '0' && c <= '9'; }

template <class C, class Sink>
class Engine {
 public:
  Engine(Sink& sink, va_list ap) : sink_(sink) { va_copy(args_.ap, ap); }
  ~Engine() { va_end(args_.ap); }
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // Formats the whole text; answers its length in output units.
  size_t run(const C* fmt);

 private:
  void put(C c) {
    sink_.put(c);
    ++count_;
  }
  void write(const C* s, size_t n) {
    sink_.write(s, n);
    count_ += n;
  }
  void pad(size_t n, C c = C(' ')) {
    if (!n) return;
    sink_.fill(c, n);
    count_ += n;
  }
  void writeAscii(const char* s, size_t n) {
    if constexpr (std::is_same_v<C, char>) {
      write(s, n);
    } else {
      C piece[64];
      while (n) {
        size_t k = n < 64 ? n : 64;
        for (size_t i = 0; i < k; ++i) piece[i] = static_cast<unsigned char>(s[i]);
        write(piece, k);
        s += k;
        n -= k;
      }
    }
  }

  void integer(const Directive& sp, uint64_t magnitude, bool negative, bool isSigned, unsigned base, bool upper);
  void floating(const Directive& sp, char conversion);
  template <class T>
  void text(const Directive& sp, const T* s);
  void character(const Directive& sp, bool wide);

  Sink& sink_;
  Args args_;
  size_t count_ = 0;
};

template <class C, class Sink>
size_t Engine<C, Sink>::run(const C* fmt) {
  constexpr bool kWide = std::is_same_v<C, char16_t>;
  const C* p = fmt;
  while (*p) {
    const C* run = p;
    while (*p && *p != C('%')) ++p;
    if (p != run) write(run, static_cast<size_t>(p - run));
    if (!*p) break;

    const C* start = p++;
    if (*p == C('%')) {
      put(C('%'));
      ++p;
      continue;
    }

    Directive sp;
    for (;; ++p) {
      if (*p == C('-')) sp.left = true;
      else if (*p == C('+')) sp.plus = true;
      else if (*p == C(' ')) sp.space = true;
      else if (*p == C('#')) sp.alt = true;
      else if (*p == C('0')) sp.zero = true;
      else break;
    }
    // '*' values are read only once the conversion is known to be valid: an unknown
    // conversion consumes no argument.
    bool widthStar = false, precisionStar = false;
    if (*p == C('*')) {
      widthStar = true;
      ++p;
    } else {
      for (; isDigit(*p); ++p)
        if (sp.width < 100000000) sp.width = sp.width * 10 + (*p - C('0'));
    }
    if (*p == C('.')) {
      ++p;
      sp.hasPrecision = true;
      if (*p == C('*')) {
        precisionStar = true;
        ++p;
      } else {
        for (; isDigit(*p); ++p)
          if (sp.precision < 100000000) sp.precision = sp.precision * 10 + (*p - C('0'));
      }
    }
    switch (*p) {
      case C('h'):
        ++p;
        sp.size = Size::kH;
        if (*p == C('h')) {
          ++p;
          sp.size = Size::kHH;
        }
        break;
      case C('l'):
        ++p;
        sp.size = Size::kL;
        if (*p == C('l')) {
          ++p;
          sp.size = Size::kLL;
        }
        break;
      case C('I'):
        ++p;
        sp.size = Size::kI;
        if (p[0] == C('3') && p[1] == C('2')) {
          p += 2;
          sp.size = Size::kI32;
        } else if (p[0] == C('6') && p[1] == C('4')) {
          p += 2;
          sp.size = Size::kI64;
        }
        break;
      case C('L'): ++p; sp.size = Size::kBigL; break;
      case C('w'): ++p; sp.size = Size::kW; break;
      case C('z'): ++p; sp.size = Size::kZ; break;
      case C('j'): ++p; sp.size = Size::kJ; break;
      case C('t'): ++p; sp.size = Size::kT; break;
      default: break;
    }

    C conversion = *p;
    if (!conversion) {  // the text ends inside the conversion: copy it out as written
      write(start, static_cast<size_t>(p - start));
      break;
    }
    ++p;
    static const char kKnown[] = "diouxXeEfFgGaApcCsSn";
    if (conversion > 0x7F || !strchr(kKnown, static_cast<char>(conversion))) {
      write(start, static_cast<size_t>(p - start));
      continue;
    }

    if (widthStar) {
      int w = va_arg(args_.ap, int);
      if (w < 0) {
        sp.left = true;
        sp.width = static_cast<size_t>(-static_cast<int64_t>(w));
      } else {
        sp.width = static_cast<size_t>(w);
      }
    }
    if (precisionStar) {
      int pr = va_arg(args_.ap, int);
      if (pr < 0) {
        sp.hasPrecision = false;
        sp.precision = 0;
      } else {
        sp.precision = static_cast<size_t>(pr);
      }
    }

    bool wide64 = sp.size == Size::kLL || sp.size == Size::kI || sp.size == Size::kI64 ||
                  sp.size == Size::kZ || sp.size == Size::kJ || sp.size == Size::kT;
    // Text conversions: 'h' always means narrow, 'l' and 'w' wide, otherwise the
    // lower-case letter is the formatter's own kind and the upper-case the other.
    bool textWide = sp.size == Size::kH ? false
                    : (sp.size == Size::kL || sp.size == Size::kW)
                        ? true
                        : ((conversion == C('s') || conversion == C('c')) ? kWide : !kWide);

    switch (static_cast<char>(conversion)) {
      case 'd':
      case 'i': {
        int64_t v;
        if (wide64) {
          v = va_arg(args_.ap, long long);
        } else {
          int raw = va_arg(args_.ap, int);
          v = sp.size == Size::kH ? static_cast<short>(raw)
              : sp.size == Size::kHH ? static_cast<signed char>(raw)
                                     : raw;
        }
        bool negative = v < 0;
        uint64_t magnitude = negative ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
        integer(sp, magnitude, negative, true, 10, false);
        break;
      }
      case 'o':
      case 'u':
      case 'x':
      case 'X': {
        uint64_t v;
        if (wide64) {
          v = static_cast<unsigned long long>(va_arg(args_.ap, long long));
        } else {
          unsigned raw = static_cast<unsigned>(va_arg(args_.ap, int));
          v = sp.size == Size::kH ? static_cast<unsigned short>(raw)
              : sp.size == Size::kHH ? static_cast<unsigned char>(raw)
                                     : raw;
        }
        unsigned base = conversion == C('o') ? 8 : conversion == C('u') ? 10 : 16;
        integer(sp, v, false, false, base, conversion == C('X'));
        break;
      }
      case 'p': {
        uintptr_t v = reinterpret_cast<uintptr_t>(va_arg(args_.ap, void*));
        Directive ps = sp;
        ps.alt = ps.plus = ps.space = false;
        ps.hasPrecision = true;
        ps.precision = 16;
        integer(ps, v, false, false, 16, true);
        break;
      }
      case 'e':
      case 'E':
      case 'f':
      case 'F':
      case 'g':
      case 'G':
      case 'a':
      case 'A':
        floating(sp, static_cast<char>(conversion));
        break;
      case 'c':
      case 'C':
        character(sp, textWide);
        break;
      case 's':
      case 'S':
        if (textWide) text(sp, va_arg(args_.ap, const char16_t*));
        else text(sp, va_arg(args_.ap, const char*));
        break;
      case 'n':
        (void)va_arg(args_.ap, void*);
        break;
    }
  }
  return count_;
}

template <class C, class Sink>
void Engine<C, Sink>::integer(const Directive& sp, uint64_t magnitude, bool negative, bool isSigned,
                              unsigned base, bool upper) {
  const char* digitSet = upper ? "0123456789ABCDEF" : "0123456789abcdef";
  char digits[24];
  char* end = digits + sizeof digits;
  char* first = end;
  // A precision of 0 prints no digits for the value 0.
  if (magnitude != 0 || !sp.hasPrecision || sp.precision != 0) {
    do {
      *--first = digitSet[magnitude % base];
      magnitude /= base;
    } while (magnitude);
  }
  size_t ndigits = static_cast<size_t>(end - first);

  char prefix[3];
  size_t nprefix = 0;
  if (isSigned) {
    if (negative) prefix[nprefix++] = '-';
    else if (sp.plus) prefix[nprefix++] = '+';
    else if (sp.space) prefix[nprefix++] = ' ';
  }
  if (sp.alt && base == 16 && ndigits && !(ndigits == 1 && *first == '0')) {
    prefix[nprefix++] = '0';
    prefix[nprefix++] = upper ? 'X' : 'x';
  }
  size_t zeros = sp.hasPrecision && sp.precision > ndigits ? sp.precision - ndigits : 0;
  if (sp.alt && base == 8 && zeros == 0 && (ndigits == 0 || *first != '0')) zeros = 1;

  size_t total = nprefix + zeros + ndigits;
  size_t fill = sp.width > total ? sp.width - total : 0;
  if (!sp.left) {
    if (sp.zero && !sp.hasPrecision) {
      zeros += fill;
    } else {
      pad(fill);
    }
    fill = 0;
  }
  writeAscii(prefix, nprefix);
  pad(zeros, C('0'));
  writeAscii(first, ndigits);
  pad(fill);
}

template <class C, class Sink>
void Engine<C, Sink>::floating(const Directive& sp, char conversion) {
  double value = va_arg(args_.ap, double);
  // The C library makes the digits; width and justification are done here, so that a
  // wide field never needs more than the local buffer.
  char directive[8];
  size_t n = 0;
  directive[n++] = '%';
  if (sp.plus) directive[n++] = '+';
  if (sp.space) directive[n++] = ' ';
  if (sp.alt) directive[n++] = '#';
  directive[n++] = '.';
  directive[n++] = '*';
  directive[n++] = conversion;
  directive[n] = 0;
  int precision = sp.hasPrecision ? static_cast<int>(sp.precision) : -1;

  char local[512];
  char* digits = local;
  int length = snprintf(local, sizeof local, directive, precision, value);
  if (length < 0) return;
  if (static_cast<size_t>(length) >= sizeof local) {
    digits = static_cast<char*>(allocmem(static_cast<unsigned>(length) + 1));
    snprintf(digits, static_cast<size_t>(length) + 1, directive, precision, value);
  }
  size_t len = static_cast<size_t>(length);
  size_t fill = sp.width > len ? sp.width - len : 0;
  if (sp.left) {
    writeAscii(digits, len);
    pad(fill);
  } else if (sp.zero && std::isfinite(value)) {
    // Zeros go after the sign and after a hexadecimal "0x".
    size_t lead = 0;
    if (digits[0] == '-' || digits[0] == '+' || digits[0] == ' ') lead = 1;
    if ((conversion == 'a' || conversion == 'A') && len >= lead + 2 && digits[lead] == '0') lead += 2;
    writeAscii(digits, lead);
    pad(fill, C('0'));
    writeAscii(digits + lead, len - lead);
  } else {
    pad(fill);
    writeAscii(digits, len);
  }
  if (digits != local) free(digits);
}

template <class C, class Sink>
template <class T>
void Engine<C, Sink>::text(const Directive& sp, const T* s) {
  static const C kNull[] = {C('('), C('n'), C('u'), C('l'), C('l'), C(')'), C(0)};
  size_t limit = sp.hasPrecision ? sp.precision : SIZE_MAX;
  if constexpr (std::is_same_v<T, C>) {
    if (!s) s = kNull;
    size_t n = 0;
    while (n < limit && s[n]) ++n;
    size_t fill = sp.width > n ? sp.width - n : 0;
    if (!sp.left) pad(fill);
    write(s, n);
    if (sp.left) pad(fill);
  } else {
    if (!s) {
      text(sp, kNull);
      return;
    }
    if (!sp.left && sp.width) {
      size_t n = transcode<C>(s, limit, [](const C*, size_t) {});
      pad(sp.width > n ? sp.width - n : 0);
    }
    size_t n = transcode<C>(s, limit, [this](const C* piece, size_t k) { write(piece, k); });
    if (sp.left) pad(sp.width > n ? sp.width - n : 0);
  }
}

template <class C, class Sink>
void Engine<C, Sink>::character(const Directive& sp, bool wide) {
  int raw = va_arg(args_.ap, int);
  C units[4];
  size_t n;
  if constexpr (std::is_same_v<C, char16_t>) {
    // A narrow character is a UTF-8 byte: only ASCII stands for itself.
    unsigned u = wide ? static_cast<char16_t>(raw) : static_cast<unsigned char>(raw);
    units[0] = static_cast<char16_t>(!wide && u >= 0x80 ? kReplacement : u);
    n = 1;
  } else {
    if (wide) {
      n = encodeUtf8(static_cast<char16_t>(raw), units);
    } else {
      units[0] = static_cast<char>(raw);
      n = 1;
    }
  }
  size_t fill = sp.width > n ? sp.width - n : 0;
  if (!sp.left) pad(fill);
  write(units, n);
  if (sp.left) pad(fill);
}

int toInt(size_t n) { return n > static_cast<size_t>(INT_MAX) ? -1 : static_cast<int>(n); }

}  // namespace

int formatLength(const QelChar* fmt, va_list ap) {
  if (!fmt) return -1;
  CountSink<QelChar> sink;
  return toInt(Engine<QelChar, CountSink<QelChar>>(sink, ap).run(fmt));
}

int formatLengthA(const char* fmt, va_list ap) {
  if (!fmt) return -1;
  CountSink<char> sink;
  return toInt(Engine<char, CountSink<char>>(sink, ap).run(fmt));
}

int formatInto(QelChar* dst, size_t cap, const QelChar* fmt, va_list ap) {
  if (!fmt) return -1;
  BufferSink<QelChar> sink{dst, cap ? cap - 1 : 0};
  size_t n = Engine<QelChar, BufferSink<QelChar>>(sink, ap).run(fmt);
  if (cap) *sink.at = 0;
  return toInt(n);
}

int formatIntoA(char* dst, size_t cap, const char* fmt, va_list ap) {
  if (!fmt) return -1;
  BufferSink<char> sink{dst, cap ? cap - 1 : 0};
  size_t n = Engine<char, BufferSink<char>>(sink, ap).run(fmt);
  if (cap) *sink.at = 0;
  return toInt(n);
}

QelChar* formatAlloc(const QelChar* fmt, va_list ap, unsigned int* length) {
  static const QelChar kEmpty[] = {0};
  if (!fmt) fmt = kEmpty;
  // Most texts are short and never leave the stack before their block is made.
  QelChar local[256];
  TextBuilder out(local, sizeof local / sizeof local[0]);
  formatAppend(out, fmt, ap);
  if (length) *length = static_cast<unsigned>(out.length());
  return out.take();
}

size_t formatAppend(TextBuilder& out, const QelChar* fmt, va_list ap) {
  GrowSink sink{out};
  return Engine<QelChar, GrowSink>(sink, ap).run(fmt);
}

TextBuilder::~TextBuilder() {
  if (data_ != local_) free(data_);
}

void TextBuilder::grow(size_t n) {
  if (n > kMaxLength + 1 - length_) errorExit(1);
  size_t capacity = capacity_ > (kMaxLength + 1) / 2 ? kMaxLength + 1 : capacity_ * 2;
  if (capacity < length_ + n) capacity = length_ + n;
  unsigned bytes = static_cast<unsigned>(capacity * sizeof(QelChar));
  if (data_ == local_) {
    QelChar* block = static_cast<QelChar*>(allocmem(bytes));
    memcpy(block, data_, length_ * sizeof(QelChar));
    data_ = block;
  } else {
    void* p = realloc(data_, bytes);
    if (!p) errorExit(1);
    data_ = static_cast<QelChar*>(p);
  }
  capacity_ = capacity;
}

QelChar* TextBuilder::take() {
  if (length_ > kMaxLength) errorExit(1);
  unsigned bytes = static_cast<unsigned>((length_ + 1) * sizeof(QelChar));
  QelChar* block;
  if (data_ == local_) {
    block = static_cast<QelChar*>(allocmem(bytes));
    memcpy(block, data_, length_ * sizeof(QelChar));
  } else {
    block = static_cast<QelChar*>(realloc(data_, bytes));  // gives back the slack
    if (!block) errorExit(1);
  }
  block[length_] = 0;
  data_ = local_;
  length_ = 0;
  capacity_ = localCapacity_;
  return block;
}

int formatToFile(FILE* fp, const QelChar* fmt, va_list ap) {
  if (!fp || !fmt) return -1;
  FileSink sink(fp);
  size_t n = Engine<QelChar, FileSink>(sink, ap).run(fmt);
  sink.finish();
  return sink.failed ? -1 : toInt(n);
}

}  // namespace qel

int _vscprintf(const char* format, va_list args) { return qel::formatLengthA(format, args); }

int _vscwprintf(const QelChar* format, va_list args) { return qel::formatLength(format, args); }
