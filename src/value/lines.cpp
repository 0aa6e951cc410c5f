// Source line tables of compiled code.
#include "qel/lines.h"

#include <algorithm>

void QelLineTable::mark(uint32_t offset, int32_t line) {
  if (!marks_.empty() && marks_.back().first >= offset) {
    // Nothing was compiled since the last mark: the code that follows comes from here.
    marks_.back().second = line;
    if (marks_.size() > 1 && marks_[marks_.size() - 2].second == line) marks_.pop_back();
    return;
  }
  if (!marks_.empty() && marks_.back().second == line) return;
  marks_.emplace_back(offset, line);
}

int32_t QelLineTable::lineAt(uint32_t offset) const {
  auto after = std::upper_bound(marks_.begin(), marks_.end(), offset,
                                [](uint32_t o, const std::pair<uint32_t, int32_t>& m) { return o < m.first; });
  return after == marks_.begin() ? 0 : std::prev(after)->second;
}
