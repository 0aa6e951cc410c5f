// The scanner: turns script source into tokens for the compiler.
//
// A scanner reads an open FILE stream (one byte per character, no decoding) or a
// text in memory, keeps the current source line for error reports and allows one
// token of push-back. Included sources are scanned by a chain of nested scanners:
// the compiler always talks to the outermost scanner, which forwards to the
// innermost active one until that one reaches its end. Lexical errors, and every
// error the compiler reports, are formatted by `parseError` into the token text.
#pragma once

#include <cstdio>

#include "qel/buffer.h"
#include "qel/string.h"

// Tokens, in their numeric order. Every single-character operator or punctuator
// is QT_ANY with the character available from getChar().
enum QelToken : int32_t {
  QT_NOTOKEN = 0,  // "<notoken>": nothing read yet
  QT_ERROR,        // "<error>": the token text holds the formatted report
  QT_EOF,          // "<eof>"
  QT_STRING,       // "<string>": the token text holds the decoded characters
  QT_IDENT,        // "<ident>": the token text holds the identifier
  QT_LONG,         // "<long>": integer or character literal, see getLong()
  QT_FLOAT,        // "<float>": see getDouble()
  QT_CLASS,        // keywords 7..18
  QT_STATIC,
  QT_IF,
  QT_ELSE,
  QT_WHILE,
  QT_RETURN,
  QT_FOR,
  QT_BREAK,
  QT_CONTINUE,
  QT_DO,
  QT_NEW,
  QT_DELETE,
  QT_NULL,         // written "null" or "nil"
  QT_LE,           // <=
  QT_EQ,           // ==
  QT_NE,           // !=
  QT_GE,           // >=
  QT_SHL,          // <<
  QT_SHR,          // >>
  QT_AND,          // &&
  QT_OR,           // ||
  QT_INC,          // ++
  QT_DEC,          // --
  QT_ADD_ASSIGN,   // +=
  QT_SUB_ASSIGN,   // -=
  QT_MUL_ASSIGN,   // *=
  QT_DIV_ASSIGN,   // /=
  QT_REM_ASSIGN,   // %=
  QT_AND_ASSIGN,   // &=
  QT_OR_ASSIGN,    // |=
  QT_XOR_ASSIGN,   // ^=
  QT_NOT_ASSIGN,   // ~=
  QT_SHL_ASSIGN,   // <<=
  QT_SHR_ASSIGN,   // >>=
  QT_REF_ASSIGN,   // =>
  QT_SCOPE,        // ::
  QT_ARROW,        // ->
  QT_TRON,         // keyword: trace on
  QT_TROFF,        // keyword: trace off
  QT_TRSTEP,       // keyword: trace single step
  QT_ANY,          // "<any>": any other single character
};

// The character value a source reader answers at the end of its input.
const QelChar QEL_END_OF_SOURCE = 0xFFFF;

// A source of characters; get() answers QEL_END_OF_SOURCE at the end.
class QEL_API QelSourceReader {
 public:
  virtual ~QelSourceReader() {}
  virtual QelChar get() = 0;
};

// Reads an open stream byte by byte, each byte widened to one character. The
// reader owns the stream and closes it when it dies.
class QEL_API QelFileSourceReader : public QelSourceReader {
 public:
  explicit QelFileSourceReader(std::FILE* fp) : fp_(fp) {}
  ~QelFileSourceReader() override;
  QelFileSourceReader(const QelFileSourceReader&) = delete;
  QelFileSourceReader& operator=(const QelFileSourceReader&) = delete;
  QelChar get() override;

 private:
  std::FILE* fp_;
};

// Reads its own copy of a text. The text ends at its terminating NUL, and also at
// a U+FFFF character, which cannot be told apart from the end marker.
class QEL_API QelTextSourceReader : public QelSourceReader {
 public:
  explicit QelTextSourceReader(const QelChar* text) : text_(text), next_(0) {}
  QelChar get() override;

 private:
  QelString text_;
  unsigned int next_;
};

class QEL_API QelScanner {
 public:
  // Scans an open FILE stream, which the scanner closes when it dies.
  QelScanner(void* fp, const QelChar* name);
  // Scans a copy of the text.
  QelScanner(const QelChar* text, const QelChar* name);
  ~QelScanner();
  // Scanners own their reader and nested scanners; they are never copied.
  QelScanner(const QelScanner&) = delete;
  QelScanner& operator=(const QelScanner&) = delete;

  // Attaches a scanner for an included source at the end of the nested chain; its
  // tokens come first until it reaches its end.
  void push(void* fp, const QelChar* name);
  void push(const QelChar* text, const QelChar* name);

  // The next token of the innermost active scanner (or the one pushed back).
  QelToken getToken();
  // Pushes the current token back; false when a token is already pushed back.
  bool back();
  // Reads a new token from this scanner's own input (no nesting, no push-back).
  QelToken readToken();

  // Display name of a token; for QT_ANY the current token character as a text.
  const QelChar* getTokenName(QelToken t) const;
  // Token values, each of the innermost scanner.
  const QelChar* getTokenString() const;
  double getDouble() const;
  int32_t getLong() const;
  QelChar getChar() const;
  // The last token delivered by the innermost scanner.
  QelToken currentToken() const;
  // Where the innermost scanner stands: source name, line number (1-based once
  // reading has started) and the 1-based column of the last character read.
  const QelChar* getSourceName() const;
  int32_t getLineNumber() const;
  unsigned int getPosition() const;

  // Next source character, QEL_END_OF_SOURCE at the end.
  QelChar get();
  // The first character that is not white space.
  QelChar skipSpaces();

  QelToken readString();
  QelToken readChar();
  QelChar readLiteralChar();
  QelToken readIdentifier(QelChar first);
  QelToken readNumber(QelChar first);

  static bool isIdChar(QelChar c);

  // Formats an error report into the innermost scanner's token text; answers QT_ERROR.
  QelToken parseError(const QelChar* message);

 private:
  QelScanner(QelSourceReader* reader, const QelChar* name);
  QelScanner* innermost();
  const QelScanner* innermost() const;
  void attach(QelScanner* scanner);
  // Reads the next line into the line buffer; false at the end of the source.
  bool readLine();
  void unget(QelChar c) { pushedBackChar_ = c; }
  void clearText();
  void appendText(QelChar c);

  QelCharBuffer tokenText_;
  double doubleValue_;
  int32_t longValue_;
  QelChar tokenChar_[2];  // the character of the last QT_ANY, as a one-character text
  QelSourceReader* reader_;
  QelToken current_;
  bool pushedBack_;
  QelChar pushedBackChar_;  // 0: none
  QelChar lastSourceChar_;  // QEL_END_OF_SOURCE once the source is exhausted
  QelCharBuffer line_;      // the current line, ending in '\n' and a NUL
  unsigned int position_;
  int32_t lineNumber_;
  QelScanner* nested_;
  QelString name_;
};
