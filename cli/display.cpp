#include "display.h"

#include <algorithm>

namespace qelcli {

QelString ValueDisplay::show(const QelValue& v) {
  text_.clear();
  open_.clear();
  append(v);
  return text_;
}

void ValueDisplay::append(const QelValue& v) {
  switch (v.getType()) {
    case QVT_NULL:
      text_ += u"nil";
      return;
    case QVT_INTEGER:
      text_ += QelString::format(u"%ld", v.toLong());
      return;
    case QVT_FLOAT:
    case QVT_DOUBLE:
      text_ += QelString::format(u"%f", v.toDouble());
      return;
    case QVT_STRING:
    case QVT_STRINGREF: {
      QelString* s = v;
      appendQuoted(s ? s->c_str() : u"");
      return;
    }
    case QVT_VECTOR:
    case QVT_VECTORREF:
      if (QelVector* vec = v) appendVector(*vec);
      return;
    case QVT_DICTIONARY:
    case QVT_DICTIONARYREF:
      if (QelDictionary* dict = v) appendDictionary(*dict);
      return;
    case QVT_OBJECT:
    case QVT_OBJECTREF:
      if (QelObject* obj = v) appendObject(v, *obj);
      return;
    case QVT_CLASS:
    case QVT_CLASSREF: {
      QelClass* cls = v;
      text_ += QelString::format(u"<class %s>", cls ? cls->nameText() : u"?");
      return;
    }
    case QVT_BYTECODE:
    case QVT_BYTECODEREF:
      text_ += u"<procedure>";
      return;
    case QVT_CODE:
    case QVT_CODEREF:
      text_ += u"<native function>";
      return;
    case QVT_BUFFER:
    case QVT_BUFFERREF:
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF:
      text_ += u"<buffer>";
      return;
    case QVT_FILE:
      text_ += u"<file>";
      return;
    default:
      text_ += QelString::format(u"<%s>", getValueTypeName(v.getType()));
      return;
  }
}

bool ValueDisplay::elide(const void* container, const QelChar* elided) {
  if (open_.size() < kMaxDepth && std::find(open_.begin(), open_.end(), container) == open_.end()) return false;
  text_ += elided;
  return true;
}

// Containers are shown from a copy of their first elements: an object's toString may
// change or empty them while they are being shown.
void ValueDisplay::appendVector(QelVector& vec) {
  if (elide(&vec, u"[...]")) return;
  std::vector<QelValue> elements(vec.data(), vec.data() + std::min(vec.size(), kMaxElements));
  bool cut = vec.size() > kMaxElements;
  open_.push_back(&vec);
  text_ += u'[';
  for (size_t i = 0; i < elements.size(); ++i) {
    if (i > 0) text_ += u", ";
    append(elements[i]);
  }
  if (cut) text_ += u", ...";
  text_ += u']';
  open_.pop_back();
}

void ValueDisplay::appendDictionary(QelDictionary& dict) {
  if (elide(&dict, u"{...}")) return;
  std::vector<std::pair<QelString, QelValue>> entries;
  QelDictionaryEntry* e = dict.getFirst();
  for (; e && entries.size() < kMaxElements; e = e->getNext()) {
    QelString* key = e->getKey();
    entries.emplace_back(key ? *key : QelString(), e->getValue());
  }
  bool cut = e != nullptr;
  open_.push_back(&dict);
  text_ += u'{';
  for (size_t i = 0; i < entries.size(); ++i) {
    if (i > 0) text_ += u", ";
    appendQuoted(entries[i].first.c_str());
    text_ += u": ";
    append(entries[i].second);
  }
  if (cut) text_ += u", ...";
  text_ += u'}';
  open_.pop_back();
}

void ValueDisplay::appendObject(const QelValue& v, QelObject& obj) {
  QelClass* cls = obj.getClass();
  const QelChar* name = cls ? cls->nameText() : u"?";
  QelInterpreter* running = vm_.interpreter();
  if (cls && running && cls->findFunction(u"toString")) {
    QelValue copy(v);
    if (QelString* s = running->getStringFromValue(copy)) {
      text_ += *s;
      return;
    }
  }
  text_ += QelString::format(u"<%s object>", name);
}

void ValueDisplay::appendQuoted(const QelChar* text) {
  text_ += u'"';
  for (const QelChar* c = text; *c; ++c) {
    switch (*c) {
      case u'"':
        text_ += u"\\\"";
        break;
      case u'\\':
        text_ += u"\\\\";
        break;
      case u'\n':
        text_ += u"\\n";
        break;
      case u'\t':
        text_ += u"\\t";
        break;
      case u'\r':
        text_ += u"\\r";
        break;
      default:
        text_ += *c;
    }
  }
  text_ += u'"';
}

}  // namespace qelcli
