// The engine's text type: a counted, null-terminated UTF-16 string.
//
// Storage is a block of exactly length+1 characters, or null for an empty string;
// every reader treats null storage as "". Narrow text at the engine's edges is UTF-8.
// Besides editing, a QelString offers the engine's printf-style `format` and the
// script formatter, which formats a script format text against a run of values.
#pragma once

#include <cstdarg>

#include "qel/vector.h"

class QEL_API QelString : public QelRefObject {
 public:
  QelString() : str_(nullptr) {}
  QelString(const QelChar* text);
  QelString(const QelChar* text, unsigned int length);
  // UTF-8 text converted to UTF-16.
  QelString(const char* text);
  QelString(const QelString& s);
  QelString(QelString&& s) noexcept : str_(s.str_) { s.str_ = nullptr; }
  // The script formatter: `count` values are available from `args` on.
  QelString(const QelChar* format, unsigned int count, ValPtr& args);
  QelString& operator=(const QelString& s);
  ~QelString() override;

  unsigned int length() const;
  const QelChar* c_str() const { return str_ ? str_ : emptyText(); }
  const QelChar* w_str() const { return c_str(); }
  // UTF-8 copy in a buffer of the calling thread, valid until the next a_str call on
  // that thread.
  const char* a_str() const;
  QelChar& operator[](unsigned int i) { return str_[i]; }
  QelChar operator[](unsigned int i) const { return str_[i]; }
  bool empty() const { return !str_ || !str_[0]; }

  int compare(const QelString& s) const;
  int icompare(const QelString& s) const;
  bool operator<(const QelString& s) const { return compare(s) < 0; }
  bool equals(const QelChar* text) const;
  int32_t find(const QelString& s, unsigned int from) const;
  int32_t find(QelChar c, unsigned int from) const;
  QelString substr(unsigned int pos, int32_t n) const;

  QelString& operator+=(const QelString& s);
  QelString& operator+=(const QelChar* s);
  QelString& operator+=(QelChar c);
  QelString operator+(const QelString& s) const;
  QelString& append(const QelChar* s, unsigned int n);
  QelString& erase(unsigned int pos, int32_t n);
  QelString& insert(unsigned int pos, const QelString& s);
  QelString& insert(unsigned int pos, QelChar c, unsigned int count);
  QelString& replace(const QelString& from, const QelString& to);
  QelString& replace(QelChar a, QelChar b);
  // Frees the characters; the string is then a valid empty string.
  void clear();

  // printf-style formatting of engine text (%s takes QelChar text, %S UTF-8 text).
  static QelString format(const QelChar* text, ...);
  static QelString vformat(const QelChar* text, va_list args);
  // Takes over a block obtained from allocmem holding a terminated text.
  static QelString adopt(QelChar* block);

 private:
  static const QelChar* emptyText();

  QelChar* str_;
};

// Length of a terminated UTF-16 text (0 for null).
QEL_API unsigned int qelStrLen(const QelChar* s);
// Ordinal comparison of two terminated texts (null reads as "").
QEL_API int qelStrCmp(const QelChar* a, const QelChar* b);
// UTF-8 to UTF-16 and back. Lone surrogates survive the round trip (encoded as
// three bytes); invalid UTF-8 bytes read as U+FFFD. Each answers the number of units
// the full conversion needs, writing at most `cap` of them (no terminator added).
QEL_API size_t qelUtf8ToUtf16(const char* src, size_t srcLen, QelChar* dst, size_t cap);
QEL_API size_t qelUtf16ToUtf8(const QelChar* src, size_t srcLen, char* dst, size_t cap);
