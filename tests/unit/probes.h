// Small test doubles shared by the unit tests.
#pragma once

#include <cstdio>
#include <string>

#include "qel/string.h"

// Everything in the stream, from its start.
inline std::string readAll(FILE* fp) {
  rewind(fp);
  std::string bytes;
  for (int c; (c = fgetc(fp)) != EOF;) bytes += static_cast<char>(c);
  return bytes;
}
inline std::u16string widen(const std::string& ascii) { return std::u16string(ascii.begin(), ascii.end()); }

// A string that reports its own deletion.
struct ProbeString : QelString {
  ProbeString(const QelChar* t, bool* dead) : QelString(t), dead_(dead) {}
  ~ProbeString() override { *dead_ = true; }
  bool* dead_;
};

inline bool nativeNoop(QelVirtualMachine*, int, ValPtr&) { return true; }
