// The scanner: source readers, line handling, tokens, literals and error reports.
#include "qel/scanner.h"

#include <locale.h>
#include <stdlib.h>
#include <wctype.h>

#include <string>

namespace {

const QelChar kEnd = QEL_END_OF_SOURCE;

const QelChar* const kTokenNames[] = {
    u"<notoken>", u"<error>", u"<eof>",    u"<string>",  u"<ident>", u"<long>", u"<float>",
    u"class",     u"static",  u"if",       u"else",      u"while",   u"return", u"for",
    u"break",     u"continue", u"do",      u"new",       u"delete",  u"null",   u"<=",
    u"==",        u"!=",      u">=",       u"<<",        u">>",      u"&&",     u"||",
    u"++",        u"--",      u"+=",       u"-=",        u"*=",      u"/=",     u"%=",
    u"&=",        u"|=",      u"^=",       u"~=",        u"<<=",     u">>=",    u"=>",
    u"::",        u"->",      u"TRON",     u"TROFF",     u"TRSTEP",
};
static_assert(sizeof(kTokenNames) / sizeof(kTokenNames[0]) == QT_ANY, "a display name per named token");

struct Keyword {
  const QelChar* text;
  QelToken token;
};

// Searched in order; "nil" and "null" are deliberately two spellings of one token.
const Keyword kKeywords[] = {
    {u"class", QT_CLASS},   {u"static", QT_STATIC}, {u"if", QT_IF},       {u"else", QT_ELSE},
    {u"while", QT_WHILE},   {u"return", QT_RETURN}, {u"for", QT_FOR},     {u"break", QT_BREAK},
    {u"continue", QT_CONTINUE}, {u"do", QT_DO},     {u"new", QT_NEW},     {u"delete", QT_DELETE},
    {u"nil", QT_NULL},      {u"null", QT_NULL},     {u"TRON", QT_TRON},   {u"TROFF", QT_TROFF},
    {u"TRSTEP", QT_TRSTEP}, {nullptr, QT_NOTOKEN},
};

// Character classes come from the Unicode tables of the C.UTF-8 locale, whatever
// locale the host has set; without it only ASCII letters and spaces count.
locale_t classLocale() {
  static locale_t loc = newlocale(LC_CTYPE_MASK, "C.UTF-8", static_cast<locale_t>(0));
  return loc;
}

bool isDigit(QelChar c) { return c >= '0' && c <= '9'; }

bool isHexDigit(QelChar c) { return isDigit(c) || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }

bool isLetter(QelChar c) {
  if (c < 0x80) return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
  locale_t loc = classLocale();
  return loc && iswalpha_l(c, loc);
}

bool isSpace(QelChar c) {
  if (c < 0x80) return c == ' ' || (c >= '\t' && c <= '\r');
  locale_t loc = classLocale();
  return loc && iswspace_l(c, loc);
}

// The long-integer conversion in automatic base: "0x"/"0X" hexadecimal, a leading
// '0' octal, else decimal; it stops at the first character unusable in that base.
// Numbers carry no sign here; a value beyond the 32-bit range saturates.
int32_t toLongAutoBase(const QelChar* s) {
  unsigned base = 10;
  if (s[0] == '0') {
    if ((s[1] == 'x' || s[1] == 'X') && isHexDigit(s[2])) {
      base = 16;
      s += 2;
    } else {
      base = 8;
    }
  }
  uint32_t value = 0;
  for (;; ++s) {
    unsigned d;
    QelChar c = *s;
    if (isDigit(c)) d = c - '0';
    else if (c >= 'a' && c <= 'z') d = c - 'a' + 10;
    else if (c >= 'A' && c <= 'Z') d = c - 'A' + 10;
    else break;
    if (d >= base) break;
    if (value > (static_cast<uint32_t>(INT32_MAX) - d) / base) return INT32_MAX;
    value = value * base + d;
  }
  return static_cast<int32_t>(value);
}

// Scans the longest leading floating-point number of the text, always with '.' as
// the decimal point. Number texts hold ASCII characters only.
double toDouble(const QelChar* s) {
  static locale_t loc = newlocale(LC_NUMERIC_MASK, "C", static_cast<locale_t>(0));
  std::string narrow;
  for (; *s; ++s) narrow.push_back(static_cast<char>(*s));
  return loc ? strtod_l(narrow.c_str(), nullptr, loc) : strtod(narrow.c_str(), nullptr);
}

}  // namespace

// ---- Source readers ----

QelFileSourceReader::~QelFileSourceReader() {
  if (fp_) fclose(fp_);
}

QelChar QelFileSourceReader::get() {
  if (!fp_) return kEnd;
  int c = fgetc(fp_);
  return c == EOF ? kEnd : static_cast<QelChar>(static_cast<unsigned char>(c));
}

QelChar QelTextSourceReader::get() {
  QelChar c = text_.c_str()[next_];
  if (c == 0 || c == kEnd) return kEnd;
  ++next_;
  return c;
}

// ---- Construction and the nested chain ----

QelScanner::QelScanner(QelSourceReader* reader, const QelChar* name)
    : tokenText_(50),
      doubleValue_(0),
      longValue_(0),
      tokenChar_{0, 0},
      reader_(reader),
      current_(QT_NOTOKEN),
      pushedBack_(false),
      pushedBackChar_(0),
      lastSourceChar_(0),
      line_(50),
      position_(0),
      lineNumber_(0),
      nested_(nullptr),
      name_(name) {
  // The buffers are members, never freed through reference counting.
  tokenText_.addRef();
  line_.addRef();
}

QelScanner::QelScanner(void* fp, const QelChar* name)
    : QelScanner(new QelFileSourceReader(static_cast<std::FILE*>(fp)), name) {}

QelScanner::QelScanner(const QelChar* text, const QelChar* name)
    : QelScanner(new QelTextSourceReader(text), name) {}

QelScanner::~QelScanner() {
  // Unlinked level by level, so a deep chain does not recurse.
  QelScanner* n = nested_;
  nested_ = nullptr;
  while (n) {
    QelScanner* next = n->nested_;
    n->nested_ = nullptr;
    delete n;
    n = next;
  }
  delete reader_;
}

QelScanner* QelScanner::innermost() {
  QelScanner* s = this;
  while (s->nested_) s = s->nested_;
  return s;
}

const QelScanner* QelScanner::innermost() const {
  const QelScanner* s = this;
  while (s->nested_) s = s->nested_;
  return s;
}

void QelScanner::attach(QelScanner* scanner) { innermost()->nested_ = scanner; }

void QelScanner::push(void* fp, const QelChar* name) { attach(new QelScanner(fp, name)); }

void QelScanner::push(const QelChar* text, const QelChar* name) { attach(new QelScanner(text, name)); }

// ---- Tokens ----

QelToken QelScanner::getToken() {
  // The innermost scanner answers; one that reaches its end is dropped and its
  // parent goes on. Only the outermost scanner's end is ever delivered.
  for (;;) {
    QelScanner* parent = nullptr;
    QelScanner* s = this;
    while (s->nested_) {
      parent = s;
      s = s->nested_;
    }
    QelToken t;
    if (s->pushedBack_) {
      s->pushedBack_ = false;
      t = s->current_;
    } else {
      t = s->readToken();
      s->current_ = t;
    }
    if (t != QT_EOF || !parent) return t;
    parent->nested_ = nullptr;
    delete s;
  }
}

bool QelScanner::back() {
  QelScanner* s = innermost();
  if (s->pushedBack_) return false;
  s->pushedBack_ = true;
  return true;
}

const QelChar* QelScanner::getTokenName(QelToken t) const {
  if (t >= QT_NOTOKEN && t < QT_ANY) return kTokenNames[t];
  if (t == QT_ANY) return innermost()->tokenChar_;
  return u"invalid token";
}

const QelChar* QelScanner::getTokenString() const { return innermost()->tokenText_.data(); }
double QelScanner::getDouble() const { return innermost()->doubleValue_; }
int32_t QelScanner::getLong() const { return innermost()->longValue_; }
QelChar QelScanner::getChar() const { return innermost()->tokenChar_[0]; }
QelToken QelScanner::currentToken() const { return innermost()->current_; }
const QelChar* QelScanner::getSourceName() const { return innermost()->name_.c_str(); }
int32_t QelScanner::getLineNumber() const { return innermost()->lineNumber_; }
unsigned int QelScanner::getPosition() const { return innermost()->position_; }

// ---- Characters ----

bool QelScanner::readLine() {
  while (lastSourceChar_ != kEnd) {
    line_.clear();
    QelChar c;
    while ((c = reader_->get()) != '\n' && c != kEnd) line_.push_back(c);
    lastSourceChar_ = c;
    line_.push_back('\n');
    line_.push_back(0);
    ++lineNumber_;
    position_ = 0;
    // A NUL byte from a file ends its line; a line starting with one is skipped.
    if (line_[0] != 0) return true;
  }
  return false;
}

QelChar QelScanner::get() {
  if (pushedBackChar_) {
    QelChar c = pushedBackChar_;
    pushedBackChar_ = 0;
    return c;
  }
  // The position stops at the line's terminator, so it never runs past the buffer.
  if (position_ < line_.size() && line_[position_] != 0) return line_[position_++];
  if (!readLine()) return kEnd;
  return line_[position_++];
}

QelChar QelScanner::skipSpaces() {
  QelChar c;
  do {
    c = get();
  } while (c != 0 && isSpace(c));
  return c;
}

bool QelScanner::isIdChar(QelChar c) { return c == '_' || isDigit(c) || isLetter(c); }

void QelScanner::clearText() { tokenText_.clear(); }

// Keeps the text terminated: the cells past the size are always zero.
void QelScanner::appendText(QelChar c) {
  if (tokenText_.size() + 1 >= tokenText_.capacity()) tokenText_.setCapacity(2 * tokenText_.capacity());
  tokenText_.push_back(c);
}

QelToken QelScanner::readToken() {
  for (;;) {
    QelChar c = skipSpaces();
    QelChar next;
    switch (c) {
      case kEnd:
        return QT_EOF;
      case '#':
        next = get();
        if (next != '!') {
          unget(next);
          break;
        }
        [[fallthrough]];
      case '@':
        while ((next = get()) != '\n' && next != kEnd) {
        }
        continue;
      case '/':
        next = get();
        if (next == '*') {
          // "/*/" does not close the comment: the '*' must be one after the opening.
          QelChar prev = 0;
          while ((next = get()) != kEnd && !(prev == '*' && next == '/')) prev = next;
          continue;
        }
        if (next == '/') {
          while ((next = get()) != '\n' && next != kEnd) {
          }
          continue;
        }
        if (next == '=') return QT_DIV_ASSIGN;
        unget(next);
        break;
      case '|':
        next = get();
        if (next == '=') return QT_OR_ASSIGN;
        if (next == '|') return QT_OR;
        unget(next);
        break;
      case '~':
        next = get();
        if (next == '=') return QT_NOT_ASSIGN;
        unget(next);
        break;
      case '^':
        next = get();
        if (next == '=') return QT_XOR_ASSIGN;
        unget(next);
        break;
      case '+':
        next = get();
        if (next == '+') return QT_INC;
        if (next == '=') return QT_ADD_ASSIGN;
        unget(next);
        break;
      case '!':
        next = get();
        if (next == '=') return QT_NE;
        unget(next);
        break;
      case '%':
        next = get();
        if (next == '=') return QT_REM_ASSIGN;
        unget(next);
        break;
      case '&':
        next = get();
        if (next == '&') return QT_AND;
        if (next == '=') return QT_AND_ASSIGN;
        unget(next);
        break;
      case '*':
        next = get();
        if (next == '=') return QT_MUL_ASSIGN;
        unget(next);
        break;
      case '-':
        next = get();
        if (next == '-') return QT_DEC;
        if (next == '=') return QT_SUB_ASSIGN;
        if (next == '>') return QT_ARROW;
        unget(next);
        break;
      case ':':
        next = get();
        if (next == ':') return QT_SCOPE;
        unget(next);
        break;
      case '=':
        next = get();
        if (next == '=') return QT_EQ;
        if (next == '>') return QT_REF_ASSIGN;
        unget(next);
        break;
      case '<':
        next = get();
        if (next == '=') return QT_LE;
        if (next == '<') {
          next = get();
          if (next == '=') return QT_SHL_ASSIGN;
          unget(next);
          return QT_SHL;
        }
        unget(next);
        break;
      case '>':
        next = get();
        if (next == '=') return QT_GE;
        if (next == '>') {
          next = get();
          if (next == '=') return QT_SHR_ASSIGN;
          unget(next);
          return QT_SHR;
        }
        unget(next);
        break;
      case '"':
        return readString();
      case '\'':
        return readChar();
      default:
        if (isDigit(c)) return readNumber(c);
        if (isIdChar(c)) return readIdentifier(c);
        break;
    }
    tokenChar_[0] = c;
    return QT_ANY;
  }
}

// ---- Literals ----

QelChar QelScanner::readLiteralChar() {
  QelChar c = get();
  if (c != '\\') return c;
  c = get();
  switch (c) {
    case 'a': return 7;
    case 'b': return 8;
    case 'f': return 12;
    case 'n': return 10;
    case 'r': return 13;
    case 't': return 9;
    case 'v': return 11;
    case kEnd:
      unget(kEnd);
      return '\\';
    default:
      if (isDigit(c)) {
        // A numeric escape follows: the caller reads it with readNumber.
        unget(c);
        return 0;
      }
      return c;
  }
}

QelToken QelScanner::readString() {
  clearText();
  for (;;) {
    QelChar c = get();
    if (c == kEnd) {
      // A string left open at the end is deliberately accepted as it stands.
      unget(kEnd);
      break;
    }
    if (c == '"') break;
    unget(c);
    c = readLiteralChar();
    if (c == 0) {
      // Numeric escapes take the automatic base: "\65" and "\0x41" are both 'A'.
      QelCharBuffer saved(tokenText_);
      QelToken t = readNumber(get());
      if (t != QT_LONG) return parseError(u"number literal expected");
      tokenText_ = saved;
      c = static_cast<QelChar>(longValue_);
    }
    appendText(c);
  }
  return QT_STRING;
}

QelToken QelScanner::readChar() {
  QelChar c = readLiteralChar();
  if (c == 0) {
    if (readNumber(get()) != QT_LONG) return parseError(u"number literal expected");
    c = static_cast<QelChar>(longValue_);
  }
  longValue_ = c;
  tokenChar_[0] = c;
  // No escape is needed for an apostrophe: "'''" is the code 39.
  if (get() != '\'') return parseError(u"closing single quote expected");
  return QT_LONG;
}

QelToken QelScanner::readIdentifier(QelChar first) {
  clearText();
  appendText(first);
  QelChar c;
  while ((c = get()) != kEnd && isIdChar(c)) appendText(c);
  unget(c);
  const QelChar* text = tokenText_.data();
  for (const Keyword* k = kKeywords; k->text; ++k) {
    if (qelStrCmp(k->text, text) == 0) return k->token;
  }
  return QT_IDENT;
}

QelToken QelScanner::readNumber(QelChar first) {
  clearText();
  appendText(first);
  doubleValue_ = 0;
  longValue_ = 0;
  QelToken type = QT_LONG;
  bool hex = false;
  QelChar last = first;
  QelChar c;
  for (;;) {
    c = get();
    if (c == kEnd) break;
    if (isDigit(c)) {
    } else if (hex) {
      if (!isHexDigit(c)) break;
    } else if (c == '.') {
      if (type == QT_FLOAT) break;
      type = QT_FLOAT;
    } else if (c == 'e' || c == 'E') {
      type = QT_FLOAT;
      appendText(c);
      last = c;
      c = get();
      if (!isDigit(c) && c != '+' && c != '-') break;
    } else if (c == 'x' || c == 'X') {
      // Only the last character counts: "10x1F" is one token, and its value is 10.
      if (last != '0') break;
      hex = true;
    } else {
      break;
    }
    appendText(c);
    last = c;
  }
  unget(c);
  if (type == QT_FLOAT) {
    // "1e5e3" scans as far as it reads as a number: 100000.
    doubleValue_ = toDouble(tokenText_.data());
  } else {
    // "08" is 0: the octal conversion stops at the '8'.
    longValue_ = toLongAutoBase(tokenText_.data());
  }
  return type;
}

// ---- Errors ----

QelToken QelScanner::parseError(const QelChar* message) {
  QelScanner* s = innermost();
  QelString report = QelString::format(u"--> %s \nin %s line %ld pos %u \n%s\n", message ? message : u"",
                                       s->name_.c_str(), s->lineNumber_, s->position_, s->line_.data());
  s->tokenText_.clear();
  if (s->tokenText_.capacity() <= report.length()) s->tokenText_.setCapacity(report.length() + 1);
  s->tokenText_.append(report.c_str(), report.length());
  return QT_ERROR;
}
