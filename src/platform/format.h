// The engine's printf-style formatter.
//
// Formats engine text (QelChar) and narrow text (char, UTF-8) by the wide-printf
// conventions of the engine's original platform:
//   %[flags][width][.precision][size]conversion
//   flags "-+ #0"; width and precision as digits or '*';
//   size prefixes h, hh, l, ll, L, I, I32, I64, w, z, j, t;
//   conversions d i o u x X e E f F g G a A p c C s S n %.
// In the wide formatter %s and %ls/%ws take const QelChar*, %S and %hs take const
// char* (UTF-8); %c and %lc/%wc take a QelChar (passed as int), %C and %hc a char.
// The narrow formatter mirrors this: %s/%hs char*, %S/%ls/%ws QelChar*, %c char,
// %C/%lc wide char. A null string argument prints "(null)".
// Integer conversions read a 32-bit argument, %ld included (the engine's long is 32
// bits); only ll, I64 (and I, j, z, t: pointer width) read 64 bits. %p reads a pointer
// and prints it as 16 upper-case hexadecimal digits. %n consumes its pointer and
// writes nothing. An unknown conversion letter is copied out as written.
//
// Formatting allocates nothing beyond the result.
//
// TextBuilder gathers text of unknown length in one pass: first in storage the
// caller provides (usually a stack array), then in a heap block that doubles as it
// fills. `take` hands the text out in a block of exactly length+1 characters, the
// form every QelString holds.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>

#include "qel/config.h"

namespace qel {

class QEL_API TextBuilder {
 public:
  // Longest text a builder holds: a string's block of length+1 QelChars must have a
  // size that fits an unsigned int. Going past it ends the process with code 1, as
  // an exhausted allocation does.
  static const size_t kMaxLength = 0x7FFFFFFE;

  // `local` (capacity characters, at least 1) is used until it is full.
  TextBuilder(QelChar* local, size_t capacity)
      : data_(local), local_(local), length_(0), capacity_(capacity), localCapacity_(capacity) {}
  ~TextBuilder();
  TextBuilder(const TextBuilder&) = delete;
  TextBuilder& operator=(const TextBuilder&) = delete;

  size_t length() const { return length_; }
  const QelChar* data() const { return data_; }

  // Room for n more characters, answered as where they go; `added` then counts the
  // ones written there.
  QelChar* room(size_t n) {
    if (capacity_ - length_ < n) grow(n);
    return data_ + length_;
  }
  void added(size_t n) { length_ += n; }

  void put(QelChar c) {
    *room(1) = c;
    ++length_;
  }
  void write(const QelChar* s, size_t n) {
    if (!n) return;
    memcpy(room(n), s, n * sizeof(QelChar));
    length_ += n;
  }
  void fill(QelChar c, size_t n) {
    QelChar* at = room(n);
    for (size_t i = 0; i < n; ++i) at[i] = c;
    length_ += n;
  }
  // Drops everything from position n on.
  void truncate(size_t n) {
    if (n < length_) length_ = n;
  }
  // The text so far, followed by a terminator that is not counted.
  const QelChar* terminated() {
    *room(1) = 0;
    return data_;
  }
  // The text in a block from allocmem of exactly length+1 characters, terminated;
  // the builder is then empty again.
  QelChar* take();

 private:
  void grow(size_t n);

  QelChar* data_;
  QelChar* local_;
  size_t length_;
  size_t capacity_;
  size_t localCapacity_;
};

// Number of QelChars the text would have.
QEL_API int formatLength(const QelChar* fmt, va_list ap);
// Number of UTF-8 bytes the narrow text would have.
QEL_API int formatLengthA(const char* fmt, va_list ap);
// snprintf semantics: writes at most cap-1 characters and a terminator (when cap > 0)
// and answers the full length.
QEL_API int formatInto(QelChar* dst, size_t cap, const QelChar* fmt, va_list ap);
QEL_API int formatIntoA(char* dst, size_t cap, const char* fmt, va_list ap);
// The formatted text in a block from allocmem of exactly length+1 characters.
QEL_API QelChar* formatAlloc(const QelChar* fmt, va_list ap, unsigned int* length);
// Appends the formatted text to `out`; answers the number of QelChars appended.
QEL_API size_t formatAppend(TextBuilder& out, const QelChar* fmt, va_list ap);
// Writes the text to a stream as UTF-8; answers the number of QelChars produced,
// or -1 when the stream fails.
QEL_API int formatToFile(FILE* fp, const QelChar* fmt, va_list ap);

}  // namespace qel
