// Symbol tables and script dictionaries: a chain of typed entries.
//
// An unsorted dictionary appends new keys, so iteration follows insertion order (data
// members rely on it: a member's slot is its position). A sorted dictionary keeps its
// keys in ascending ordinal order. Entries know their dictionary and unlink themselves
// when destroyed.
//
// The chain is the dictionary: its order is the iteration order, and every answer is
// the one a walk of the chain would give. Once a dictionary holds more than a handful
// of entries it also keeps a hash index from key text to entry, which also records
// each entry's predecessor, the last entry and, when sorted, the key order, so
// lookups, insertions and an entry's unlinking stop costing a walk. Small dictionaries
// (most classes' member tables) walk their chain and pay nothing for an index.
//
// A key must not change while its entry sits in a dictionary: the engine always gives
// a dictionary its own copy, and a host that adopts a string as a key through
// `operator[](QelString*)` must not edit that string in place afterwards (the chain's
// order and the index both rest on it).
#pragma once

#include <atomic>

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
  // Counted on the heap tally of the allocating thread (a machine's memory limit).
  static void* operator new(size_t n);
  static void operator delete(void* p, size_t n);

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
  uint32_t hash_;  // the key's hash while the entry is in an indexed dictionary
  QelString* key_;
  QelValue value_;
  class QelDictionary* dict_;
  QelDictionaryEntry* next_;
};

class QEL_API QelDictionary : public QelRefObject {
 public:
  explicit QelDictionary(bool sorted = false);
  QelDictionary(const QelDictionary&) = delete;
  QelDictionary& operator=(const QelDictionary&) = delete;
  ~QelDictionary() override;

  QelDictionaryEntry* getFirst() const { return first_; }
  QelDictionaryEntry* find(const QelString& key) const { return find(key.c_str()); }
  QelDictionaryEntry* find(const QelChar* key) const;
  // Finds or inserts the entry; a new entry adopts this very key string.
  QelDictionaryEntry* operator[](QelString* key);
  // Finds or inserts the entry; a new entry gets a copy of the key.
  QelDictionaryEntry& operator[](const QelString& key) { return *findOrInsert(key, nullptr); }
  bool erase(QelDictionaryEntry* entry);
  bool erase(const QelString& key) { return erase(find(key)); }
  void clear();
  unsigned int count() const { return count_; }
  bool isSorted() const { return sorted_; }
  void setSorted(bool sorted);
  class QelClass* getOwningClass() const { return owner_; }
  void setOwningClass(class QelClass* c);

  // A process-wide count of changes to class member tables, for caches of member
  // lookups: it grows whenever a dictionary with an owning class gains or loses an
  // entry, gets or loses its owning class or changes its sorted flag, and whenever a
  // class gets its base. A cache that saw the same number still holds right answers.
  // It is atomic because machines on several threads may change class tables at once,
  // and a plain counter would then be a data race; relaxed order suffices, since the
  // number is only compared and orders no other memory. It wraps after 2^32 changes.
  static uint32_t memberEpoch() { return memberEpoch_.load(std::memory_order_relaxed); }
  static void noteMemberChange() { memberEpoch_.fetch_add(1, std::memory_order_relaxed); }
  // The hash of a key text that the index uses.
  static uint32_t hashKey(const QelChar* key);

 private:
  friend class QelDictionaryEntry;
  struct Index;

  QelDictionaryEntry* findOrInsert(const QelString& key, QelString* adopted);
  // Walks the chain: answers the equal entry or null, and the entry to insert after.
  QelDictionaryEntry* locate(const QelChar* key, QelDictionaryEntry** insertAfter) const;
  // Where a key known to be absent goes in an indexed sorted chain: the entry to insert after.
  QelDictionaryEntry* sortedPlace(const QelChar* key) const;
  QelDictionaryEntry* link(QelDictionaryEntry* after, QelDictionaryEntry* e);
  void unlink(QelDictionaryEntry* e);
  bool chainAscends() const;

  // Indexes the chain in a table sized for `entries`; `hashed` when every key's hash is cached.
  void buildIndex(unsigned int entries, bool hashed);
  void dropIndex();
  QelDictionaryEntry* indexFind(const QelChar* key, uint32_t hash) const;

  static std::atomic<uint32_t> memberEpoch_;

  class QelClass* owner_;
  QelDictionaryEntry* first_;
  bool sorted_;
  // Set when the chain may break the rules the index rests on (the sorted flag was
  // turned on over keys out of order): every operation then walks the chain, until
  // the dictionary is empty again.
  bool walkOnly_;
  unsigned int count_;
  Index* index_;  // null while the dictionary is small
};
