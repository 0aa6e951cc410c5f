// Small test doubles shared by the unit tests.
#pragma once

#include "qel/string.h"

// A string that reports its own deletion.
struct ProbeString : QelString {
  ProbeString(const QelChar* t, bool* dead) : QelString(t), dead_(dead) {}
  ~ProbeString() override { *dead_ = true; }
  bool* dead_;
};

inline bool nativeNoop(QelVirtualMachine*, int, ValPtr&) { return true; }
