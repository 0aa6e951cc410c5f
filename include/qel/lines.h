// Source lines of compiled code.
//
// The compiler keeps one table with the code buffer of each procedure it makes: the
// source it came from and, for each stretch of code, the line it was compiled from.
// The table lives beside the procedure (the procedure vector, its listing and its
// module-file form know nothing of it); code read from a module file or built by hand
// has none. Runtime errors use it to say where each active call stood.
#pragma once

#include <cstdint>
#include <utility>
#include <vector>

#include "qel/string.h"

class QEL_API QelLineTable {
 public:
  explicit QelLineTable(const QelChar* source) : source_(source ? source : u"") {}

  // The source name the code was compiled under ("" for a text).
  const QelString& source() const { return source_; }
  // Code from `offset` on comes from `line`, until a later mark.
  void mark(uint32_t offset, int32_t line);
  // The line the instruction at `offset` was compiled from; 0 when unknown.
  int32_t lineAt(uint32_t offset) const;

 private:
  QelString source_;
  std::vector<std::pair<uint32_t, int32_t>> marks_;  // ascending offsets
};
