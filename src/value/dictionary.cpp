// Dictionaries: a chain of entries, sorted or in insertion order.
#include "qel/dictionary.h"

QelDictionaryEntry::QelDictionaryEntry(QelString* key, const QelValue& value, QelSymbolType type)
    : type_(type), key_(key), value_(value), dict_(nullptr), next_(nullptr) {
  if (key_) key_->addRef();
}

QelDictionaryEntry::QelDictionaryEntry(const QelDictionaryEntry& e)
    : type_(e.type_), key_(e.key_), value_(e.value_), dict_(nullptr), next_(nullptr) {
  if (key_) key_->addRef();
}

QelDictionaryEntry& QelDictionaryEntry::operator=(const QelDictionaryEntry& e) {
  if (this == &e) return *this;
  if (!dict_) {
    if (e.key_) e.key_->addRef();
    if (key_) key_->release();
    key_ = e.key_;
  }
  value_ = e.value_;
  type_ = e.type_;
  return *this;
}

QelDictionaryEntry::~QelDictionaryEntry() {
  if (dict_) {
    if (dict_->first_ == this) {
      dict_->first_ = next_;
    } else {
      QelDictionaryEntry* prev = dict_->first_;
      while (prev && prev->next_ != this) prev = prev->next_;
      if (prev) prev->next_ = next_;
    }
    dict_ = nullptr;
  }
  if (key_) key_->release();
  key_ = nullptr;
}

QelDictionary::QelDictionary(bool sorted) : owner_(nullptr), first_(nullptr), sorted_(sorted) {
  setFinishKind(false, true);
}

QelDictionary::~QelDictionary() { clear(); }

QelDictionaryEntry* QelDictionary::locate(const QelChar* key, QelDictionaryEntry** after) const {
  QelDictionaryEntry* prev = nullptr;
  for (QelDictionaryEntry* e = first_; e; e = e->next_) {
    if (e->key_) {
      int c = qelStrCmp(e->key_->c_str(), key);
      if (c == 0) return e;
      if (sorted_ && c > 0) break;
    }
    prev = e;
  }
  if (after) *after = prev;
  return nullptr;
}

QelDictionaryEntry* QelDictionary::find(const QelString& key) const { return locate(key.c_str(), nullptr); }

QelDictionaryEntry* QelDictionary::find(const QelChar* key) const { return locate(key ? key : u"", nullptr); }

QelDictionaryEntry* QelDictionary::insertAfter(QelDictionaryEntry* prev, QelString* key) {
  QelDictionaryEntry* e = new QelDictionaryEntry(key, QelValue(), QST_UNDEFINED);
  e->dict_ = this;
  if (prev) {
    e->next_ = prev->next_;
    prev->next_ = e;
  } else {
    e->next_ = first_;
    first_ = e;
  }
  return e;
}

QelDictionaryEntry* QelDictionary::operator[](QelString* key) {
  if (!key) return nullptr;
  QelDictionaryEntry* prev = nullptr;
  QelDictionaryEntry* e = locate(key->c_str(), &prev);
  return e ? e : insertAfter(prev, key);
}

QelDictionaryEntry& QelDictionary::operator[](const QelString& key) {
  QelDictionaryEntry* prev = nullptr;
  QelDictionaryEntry* e = locate(key.c_str(), &prev);
  return e ? *e : *insertAfter(prev, new QelString(key));
}

// Removes an entry wherever it stands in the chain.
bool QelDictionary::erase(QelDictionaryEntry* entry) {
  if (!first_ || !entry || entry->dict_ != this) return false;
  delete entry;  // the entry unlinks itself
  return true;
}

void QelDictionary::clear() {
  while (first_) delete first_;
}

unsigned int QelDictionary::count() const {
  unsigned int n = 0;
  for (QelDictionaryEntry* e = first_; e; e = e->next_) ++n;
  return n;
}
