// The four output sinks.
#include <cstdlib>

#include "platform/files.h"
#include "platform/format.h"
#include "qel/platform.h"
#include "qel/printer.h"

int QelDummyPrinter::operator()(const QelChar*, ...) { return 0; }

int QelCallbackPrinter::operator()(const QelChar* fmt, ...) {
  if (!callback_) return 0;
  if (!fmt) return -1;
  va_list args;
  va_start(args, fmt);
  unsigned int length = 0;
  QelChar* text = qel::formatAlloc(fmt, args, &length);
  va_end(args);
  if (length >= 1) {
    QelString narrow = QelString::adopt(text);
    callback_(narrow.a_str());
  } else {
    free(text);
  }
  return static_cast<int>(length);
}

int QelStringPrinter::operator()(const QelChar* fmt, ...) {
  if (!fmt) return -1;
  va_list args;
  va_start(args, fmt);
  unsigned int length = 0;
  QelChar* text = qel::formatAlloc(fmt, args, &length);
  va_end(args);
  if (length >= 1) text_.append(text, length);
  free(text);
  return static_cast<int>(length);
}

QelFileStreamPrinter::QelFileStreamPrinter(const QelChar* path, const QelChar* mode) : fp_(nullptr), close_(true) {
  fp_ = qel::openFile(path, mode);
}

QelFileStreamPrinter::~QelFileStreamPrinter() {
  if (close_ && fp_) fclose(fp_);
}

int QelFileStreamPrinter::operator()(const QelChar* fmt, ...) {
  if (!fmt || !fp_) return -1;
  va_list args;
  va_start(args, fmt);
  int n = qel::formatToFile(fp_, fmt, args);
  va_end(args);
  return n;
}
