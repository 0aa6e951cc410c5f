#include "platform/files.h"

#include "qel/string.h"

namespace qel {

std::string toUtf8(const QelChar* text) {
  if (!text) return std::string();
  size_t len = qelStrLen(text);
  std::string out(qelUtf16ToUtf8(text, len, nullptr, 0), '\0');
  qelUtf16ToUtf8(text, len, &out[0], out.size());
  return out;
}

FILE* openFile(const QelChar* path, const QelChar* mode) {
  if (!path || !mode) return nullptr;
  std::string m;
  for (const QelChar* p = mode; *p; ++p) {
    if (*p != 't') m += static_cast<char>(*p);
  }
  return fopen(toUtf8(path).c_str(), m.c_str());
}

}  // namespace qel
