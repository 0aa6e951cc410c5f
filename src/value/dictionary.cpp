// Dictionaries: a chain of entries, sorted or in insertion order, with a hash index
// beside the chain once it grows past a handful of entries.
//
// The index is an open-addressing table with linear probing, at most half full. Each
// slot holds an entry and the entry before it in the chain, and the table knows the
// last entry, so insertion at either end or after a found place, and unlinking from
// any place, touch only their neighbours. An indexed entry caches its key's hash:
// probes rarely read a key's text, the table grows without hashing texts again, and
// an entry finds its own slot by pointer. Removal shifts the rest of the run back, so
// there are no tombstones. A sorted dictionary's index also keeps its entries in key
// order in an array, so a new key finds its place by bisection instead of a walk.
#include "qel/dictionary.h"

#include <cstdlib>
#include <cstring>

namespace {

// Dictionaries with more entries than this keep an index; one that shrinks to half of
// it lets the index go (the gap keeps a dictionary near the limit from flapping).
constexpr unsigned int kIndexFrom = 8;
constexpr size_t kMinSlots = 16;

bool sameText(const QelChar* a, const QelChar* b) {
  if (a == b) return true;  // a key looked up with the very string it was stored under
  for (; *a == *b; ++a, ++b) {
    if (!*a) return true;
  }
  return false;
}

}  // namespace

std::atomic<uint32_t> QelDictionary::memberEpoch_{0};

struct QelDictionary::Index {
  struct Slot {
    QelDictionaryEntry* entry;  // null for a free slot
    QelDictionaryEntry* prev;   // the entry before it in the chain, null for the first
    uint32_t hash;              // the entry's key hash, so probes need not visit entries
  };
  uint32_t mask;
  QelDictionaryEntry* last;  // the chain's last entry
  // Sorted dictionaries only: the entries that have a key, in the chain's order.
  QelDictionaryEntry** order;
  unsigned int orderSize, orderCap;
  // The slots follow the header in the same block.
  Slot* slots() { return reinterpret_cast<Slot*>(this + 1); }

  // A table for `entries` entries, at most half full; null without memory.
  static Index* make(unsigned int entries) {
    size_t n = kMinSlots;
    while (n < size_t(entries) * 2) n *= 2;
    auto* ix = static_cast<Index*>(calloc(1, sizeof(Index) + n * sizeof(Slot)));
    if (ix) ix->mask = static_cast<uint32_t>(n - 1);
    return ix;
  }
  bool tooFull(unsigned int entries) const { return size_t(entries) * 2 > size_t(mask) + 1; }
  bool tooEmpty(unsigned int entries) const { return size_t(entries) * 8 < size_t(mask) + 1; }

  void add(QelDictionaryEntry* e, QelDictionaryEntry* prev) {
    Slot* s = slots();
    uint32_t i = e->hash_ & mask;
    while (s[i].entry) i = (i + 1) & mask;
    s[i] = {e, prev, e->hash_};
  }

  Slot* slotOf(const QelDictionaryEntry* e) {
    Slot* s = slots();
    for (uint32_t i = e->hash_ & mask; s[i].entry; i = (i + 1) & mask) {
      if (s[i].entry == e) return &s[i];
    }
    return nullptr;
  }

  // The first position in `order` whose key is greater than `key`, or not less for `orEqual`.
  unsigned int bisect(const QelChar* key, bool orEqual) const {
    unsigned int lo = 0, hi = orderSize;
    while (lo < hi) {
      unsigned int mid = lo + (hi - lo) / 2;
      int c = qelStrCmp(order[mid]->key_->c_str(), key);
      if (c < 0 || (c == 0 && !orEqual)) {
        lo = mid + 1;
      } else {
        hi = mid;
      }
    }
    return lo;
  }

  bool orderInsert(QelDictionaryEntry* e) {
    if (orderSize == orderCap) {
      unsigned int cap = orderCap ? orderCap * 2 : 16;
      auto** grown = static_cast<QelDictionaryEntry**>(realloc(order, cap * sizeof(QelDictionaryEntry*)));
      if (!grown) return false;
      order = grown;
      orderCap = cap;
    }
    unsigned int at = bisect(e->key_->c_str(), false);
    memmove(order + at + 1, order + at, (orderSize - at) * sizeof(QelDictionaryEntry*));
    order[at] = e;
    ++orderSize;
    return true;
  }

  void orderRemove(const QelDictionaryEntry* e) {
    unsigned int at = bisect(e->key_->c_str(), true);
    if (at >= orderSize || order[at] != e) {
      at = 0;  // a key changed in place: look for the entry itself
      while (at < orderSize && order[at] != e) ++at;
      if (at == orderSize) return;
    }
    --orderSize;
    memmove(order + at, order + at + 1, (orderSize - at) * sizeof(QelDictionaryEntry*));
  }

  // Frees a slot, pulling back each later slot of the run that may sit in the hole:
  // one whose home slot is not cyclically within (hole, i].
  void remove(Slot* slot) {
    Slot* s = slots();
    uint32_t hole = static_cast<uint32_t>(slot - s);
    for (uint32_t i = (hole + 1) & mask; s[i].entry; i = (i + 1) & mask) {
      uint32_t home = s[i].hash & mask;
      if (((i - home) & mask) >= ((i - hole) & mask)) {
        s[hole] = s[i];
        hole = i;
      }
    }
    s[hole] = {nullptr, nullptr, 0};
  }
};

// ---- Entries ----

QelDictionaryEntry::QelDictionaryEntry(QelString* key, const QelValue& value, QelSymbolType type)
    : type_(type), hash_(0), key_(key), value_(value), dict_(nullptr), next_(nullptr) {
  if (key_) key_->addRef();
}

QelDictionaryEntry::QelDictionaryEntry(const QelDictionaryEntry& e)
    : type_(e.type_), hash_(0), key_(e.key_), value_(e.value_), dict_(nullptr), next_(nullptr) {
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

// Leaves the chain first, so whatever the value's release runs sees a whole dictionary.
QelDictionaryEntry::~QelDictionaryEntry() {
  if (dict_) dict_->unlink(this);
  if (key_) key_->release();
  key_ = nullptr;
}

// ---- Dictionaries ----

QelDictionary::QelDictionary(bool sorted)
    : owner_(nullptr), first_(nullptr), sorted_(sorted), walkOnly_(false), count_(0), index_(nullptr) {
  setFinishKind(false, true);
}

QelDictionary::~QelDictionary() {
  clear();
  dropIndex();
}

uint32_t QelDictionary::hashKey(const QelChar* key) {
  // FNV-1a over pairs of UTF-16 units, then a final mix that brings the high bits down.
  const uint64_t prime = 0x100000001b3u;
  uint64_t h = 0xcbf29ce484222325u;
  for (; key[0]; key += 2) {
    if (!key[1]) {
      h = (h ^ key[0]) * prime;
      break;
    }
    h = (h ^ (key[0] | uint64_t(key[1]) << 16)) * prime;
  }
  h ^= h >> 32;
  h *= 0xd6e8feb86659fd93u;
  h ^= h >> 32;
  return static_cast<uint32_t>(h);
}

void QelDictionary::setSorted(bool sorted) {
  if (sorted == sorted_) return;
  sorted_ = sorted;
  if (owner_) noteMemberChange();
  // Keys placed in another order would make a walk stop early where the index would
  // not: keep answering as the walk does.
  if (sorted && !chainAscends()) {
    walkOnly_ = true;
    dropIndex();
  } else if (index_) {
    buildIndex(count_, true);  // with or without the key order
  }
}

void QelDictionary::setOwningClass(QelClass* c) {
  if (c == owner_) return;
  owner_ = c;
  noteMemberChange();
}

bool QelDictionary::chainAscends() const {
  const QelString* prev = nullptr;
  for (QelDictionaryEntry* e = first_; e; e = e->next_) {
    if (!e->key_) continue;
    if (prev && qelStrCmp(prev->c_str(), e->key_->c_str()) >= 0) return false;
    prev = e->key_;
  }
  return true;
}

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

QelDictionaryEntry* QelDictionary::sortedPlace(const QelChar* key) const {
  // Keys arriving in order (a sorted table being read back) go to the end at once.
  QelDictionaryEntry* last = index_->last;
  if (!last || (last->key_ && qelStrCmp(last->key_->c_str(), key) < 0)) return last;
  // Before the first greater key, after whatever precedes it in the chain.
  unsigned int at = index_->bisect(key, false);
  return at < index_->orderSize ? index_->slotOf(index_->order[at])->prev : last;
}

QelDictionaryEntry* QelDictionary::find(const QelChar* key) const {
  if (!key) key = u"";
  return index_ ? indexFind(key, hashKey(key)) : locate(key, nullptr);
}

QelDictionaryEntry* QelDictionary::operator[](QelString* key) {
  return key ? findOrInsert(*key, key) : nullptr;
}

QelDictionaryEntry* QelDictionary::findOrInsert(const QelString& key, QelString* adopted) {
  const QelChar* k = key.c_str();
  QelDictionaryEntry* after = nullptr;
  uint32_t hash = 0;
  if (index_) {
    hash = hashKey(k);
    if (QelDictionaryEntry* e = indexFind(k, hash)) return e;
    after = sorted_ ? sortedPlace(k) : index_->last;
  } else if (QelDictionaryEntry* e = locate(k, &after)) {
    return e;
  }
  QelString* entryKey = adopted ? adopted : new QelString(key);
  QelDictionaryEntry* e = new QelDictionaryEntry(entryKey, QelValue(), QST_UNDEFINED);
  e->hash_ = hash;
  return link(after, e);
}

// Puts a new entry after `after` (at the head for null).
QelDictionaryEntry* QelDictionary::link(QelDictionaryEntry* after, QelDictionaryEntry* e) {
  QelDictionaryEntry* next = after ? after->next_ : first_;
  e->dict_ = this;
  e->next_ = next;
  (after ? after->next_ : first_) = e;
  ++count_;
  if (owner_) noteMemberChange();
  if (index_) {
    if (index_->tooFull(count_)) {
      buildIndex(count_, true);
    } else {
      index_->add(e, after);
      if (next) index_->slotOf(next)->prev = e;
      else index_->last = e;
      if (sorted_ && e->key_ && !index_->orderInsert(e)) dropIndex();
    }
  } else if (count_ > kIndexFrom && !walkOnly_) {
    buildIndex(count_, false);
  }
  return e;
}

void QelDictionary::unlink(QelDictionaryEntry* e) {
  QelDictionaryEntry* prev = nullptr;
  Index::Slot* slot = index_ ? index_->slotOf(e) : nullptr;
  if (slot) {
    prev = slot->prev;
    index_->remove(slot);
    if (sorted_ && e->key_) index_->orderRemove(e);
    if (e->next_) index_->slotOf(e->next_)->prev = prev;
    else index_->last = prev;
  } else if (first_ != e) {
    prev = first_;
    while (prev && prev->next_ != e) prev = prev->next_;
  }
  (prev ? prev->next_ : first_) = e->next_;
  e->dict_ = nullptr;
  e->next_ = nullptr;
  --count_;
  if (owner_) noteMemberChange();
  if (count_ == 0) walkOnly_ = false;
  if (index_ && count_ <= kIndexFrom / 2) {
    dropIndex();
  } else if (index_ && index_->tooEmpty(count_)) {
    buildIndex(count_, true);
  }
}

// Removes an entry wherever it stands in the chain.
bool QelDictionary::erase(QelDictionaryEntry* entry) {
  if (!first_ || !entry || entry->dict_ != this) return false;
  delete entry;  // the entry unlinks itself
  return true;
}

void QelDictionary::clear() {
  dropIndex();  // the entries go from the head, which needs no index
  while (first_) delete first_;
}

// ---- The index ----

// Without memory for a table the dictionary goes on walking its chain.
void QelDictionary::buildIndex(unsigned int entries, bool hashed) {
  dropIndex();
  index_ = Index::make(entries);
  if (!index_) return;
  QelDictionaryEntry* prev = nullptr;
  for (QelDictionaryEntry* e = first_; e; prev = e, e = e->next_) {
    if (!hashed) e->hash_ = e->key_ ? hashKey(e->key_->c_str()) : 0;
    index_->add(e, prev);
    if (sorted_ && e->key_ && !index_->orderInsert(e)) {
      dropIndex();
      return;
    }
  }
  index_->last = prev;
}

void QelDictionary::dropIndex() {
  if (!index_) return;
  free(index_->order);
  free(index_);
  index_ = nullptr;
}

// Entries without a key sit in the index for their place in the chain, but no key finds them.
QelDictionaryEntry* QelDictionary::indexFind(const QelChar* key, uint32_t hash) const {
  Index::Slot* s = index_->slots();
  for (uint32_t i = hash & index_->mask; s[i].entry; i = (i + 1) & index_->mask) {
    if (s[i].hash != hash) continue;
    QelDictionaryEntry* e = s[i].entry;
    if (e->key_ && sameText(e->key_->c_str(), key)) return e;
  }
  return nullptr;
}
