// How the prompt shows a value: containers by their contents, objects through their
// class's toString, strings quoted. Only the prompt shows values this way; print and
// the engine's own texts are untouched.
#pragma once

#include <vector>

#include "qel.h"

namespace qelcli {

class ValueDisplay {
 public:
  // Objects are shown through their toString only while `vm` runs (from a native).
  explicit ValueDisplay(QelVirtualMachine& vm) : vm_(vm) {}

  // A vector or dictionary shows at most this many elements, then "...".
  static constexpr unsigned kMaxElements = 100;
  // Containers nested deeper than this show as "[...]" or "{...}".
  static constexpr unsigned kMaxDepth = 8;

  QelString show(const QelValue& v);

 private:
  void append(const QelValue& v);
  void appendVector(QelVector& vec);
  void appendDictionary(QelDictionary& dict);
  void appendObject(const QelValue& v, QelObject& obj);
  void appendQuoted(const QelChar* text);
  // True when `container` is already being shown further out (a cycle) or the nesting
  // is too deep: it is shown as `elided` then.
  bool elide(const void* container, const QelChar* elided);

  QelVirtualMachine& vm_;
  QelString text_;
  std::vector<const void*> open_;  // the containers being shown, outermost first
};

}  // namespace qelcli
