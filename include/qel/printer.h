// Output sinks. Every text the engine produces (compiler reports, listings, traces,
// runtime errors, the script's print) goes through an IQelPrinter chosen by the host.
// The one operation formats engine text by the engine's printf rules and delivers it.
#pragma once

#include <cstdio>

#include "qel/string.h"

class QEL_API IQelPrinter {
 public:
  virtual ~IQelPrinter() {}
  // Answers the number of characters produced, or -1 when nothing was delivered.
  virtual int operator()(const QelChar* fmt, ...) = 0;
};

// Discards everything.
class QEL_API QelDummyPrinter : public IQelPrinter {
 public:
  QelDummyPrinter() {}
  int operator()(const QelChar* fmt, ...) override;
};

// Hands each formatted piece to a host callback as UTF-8 text.
class QEL_API QelCallbackPrinter : public IQelPrinter {
 public:
  explicit QelCallbackPrinter(void (*callback)(const char*)) : callback_(callback) {}
  int operator()(const QelChar* fmt, ...) override;

 private:
  void (*callback_)(const char*);
};

// Accumulates everything in a string.
class QEL_API QelStringPrinter : public IQelPrinter {
 public:
  QelStringPrinter() {}
  int operator()(const QelChar* fmt, ...) override;
  const QelChar* c_str() const { return text_.c_str(); }
  const QelChar* w_str() const { return text_.w_str(); }
  const char* a_str() const { return text_.a_str(); }
  void clear() { text_.clear(); }

 private:
  QelString text_;
};

// Writes UTF-8 to a FILE stream.
class QEL_API QelFileStreamPrinter : public IQelPrinter {
 public:
  QelFileStreamPrinter(void* fp, bool closeOnDestroy) : fp_(static_cast<FILE*>(fp)), close_(closeOnDestroy) {}
  QelFileStreamPrinter(const QelChar* path, const QelChar* mode);
  ~QelFileStreamPrinter() override;
  int operator()(const QelChar* fmt, ...) override;

 private:
  FILE* fp_;
  bool close_;
};
