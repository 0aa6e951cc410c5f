// Symbol tables and script dictionaries: a singly linked chain of typed entries.
//
// An unsorted dictionary appends new keys, so iteration follows insertion order (data
// members rely on it: a member's slot is its position). A sorted dictionary keeps its
// keys in ascending ordinal order, which lets lookups stop early. Entries know their
// dictionary and unlink themselves when destroyed.
#pragma once

#include "qel/string.h"

enum QelSymbolType : int32_t {
  QST_UNDEFINED = 0,
  QST_CLASS = 1,
  QST_DATA = 2,
  QST_STATIC_DATA = 3,
  QST_METHOD = 4,
  QST_STATIC_FUNCTION = 5,
};

class QEL_API QelDictionaryEntry {
 public:
  QelDictionaryEntry(QelString* key, const QelValue& value, QelSymbolType type);
  QelDictionaryEntry(const QelDictionaryEntry& e);
  // An entry that sits in a dictionary keeps its key, so the chain order holds.
  QelDictionaryEntry& operator=(const QelDictionaryEntry& e);
  QelDictionaryEntry& operator=(const QelValue& v) {
    value_ = v;
    return *this;
  }
  virtual ~QelDictionaryEntry();

  void setValue(const QelValue& v) { value_ = v; }
  QelSymbolType getSymbolType() const { return type_; }
  void setSymbolType(QelSymbolType t) { type_ = t; }
  QelString* getKey() const { return key_; }
  const QelValue& getValue() const { return value_; }
  // The stored value itself, for the interpreter's variable reads and writes.
  QelValue& value() { return value_; }
  class QelDictionary* getDictionary() const { return dict_; }
  QelDictionaryEntry* getNext() const { return next_; }

 private:
  friend class QelDictionary;
  QelSymbolType type_;
  QelString* key_;
  QelValue value_;
  class QelDictionary* dict_;
  QelDictionaryEntry* next_;
};

class QEL_API QelDictionary : public QelRefObject {
 public:
  explicit QelDictionary(bool sorted = false);
  ~QelDictionary() override;

  QelDictionaryEntry* getFirst() const { return first_; }
  QelDictionaryEntry* find(const QelString& key) const;
  QelDictionaryEntry* find(const QelChar* key) const;
  // Finds or appends the entry; a new entry adopts this very key string.
  QelDictionaryEntry* operator[](QelString* key);
  // Finds or appends the entry; a new entry gets a copy of the key.
  QelDictionaryEntry& operator[](const QelString& key);
  bool erase(QelDictionaryEntry* entry);
  bool erase(const QelString& key) { return erase(find(key)); }
  void clear();
  unsigned int count() const;
  bool isSorted() const { return sorted_; }
  void setSorted(bool sorted) { sorted_ = sorted; }
  class QelClass* getOwningClass() const { return owner_; }
  void setOwningClass(class QelClass* c) { owner_ = c; }

 private:
  friend class QelDictionaryEntry;
  QelDictionaryEntry* insertAfter(QelDictionaryEntry* prev, QelString* key);
  // Walks as find does; answers the equal entry or null, and the entry to insert after.
  QelDictionaryEntry* locate(const QelChar* key, QelDictionaryEntry** insertAfter) const;

  class QelClass* owner_;
  QelDictionaryEntry* first_;
  bool sorted_;
};
