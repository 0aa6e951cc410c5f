// The dictionary's hash index and predecessor links, checked against a plain model of
// the chain: lookups, order, erasure and unlinking across the size where the index is
// built and dropped; colliding keys; entries released in the middle of a change; and
// the member-table epoch.
#include <gtest/gtest.h>

#include "probes.h"

#include <algorithm>
#include <map>
#include <random>
#include <string>
#include <unordered_map>
#include <vector>

#include "qel/vm.h"

namespace {

std::u16string text(const QelDictionaryEntry* e) { return e->getKey()->c_str(); }

std::u16string nameOf(unsigned i) {
  std::string s = "k" + std::to_string(i * 7919 % 10007);  // not in ordinal order
  return std::u16string(s.begin(), s.end());
}

// What the chain must hold: the keys in chain order and the entry made for each.
struct Model {
  bool sorted;
  std::vector<std::u16string> order;
  std::map<std::u16string, QelDictionaryEntry*> entries;

  void insert(const std::u16string& k, QelDictionaryEntry* e) {
    order.insert(sorted ? std::lower_bound(order.begin(), order.end(), k) : order.end(), k);
    entries[k] = e;
  }
  void remove(const std::u16string& k) {
    order.erase(std::find(order.begin(), order.end(), k));
    entries.erase(k);
  }
};

void expectSame(const QelDictionary& d, const Model& m, const std::vector<std::u16string>& pool) {
  ASSERT_EQ(d.count(), m.order.size());
  size_t i = 0;
  for (QelDictionaryEntry* e = d.getFirst(); e; e = e->getNext(), ++i) {
    ASSERT_LT(i, m.order.size());
    ASSERT_EQ(text(e), m.order[i]);
    ASSERT_EQ(e, m.entries.at(m.order[i]));
    ASSERT_EQ(e->getDictionary(), &d);
  }
  ASSERT_EQ(i, m.order.size());
  for (const std::u16string& k : pool) {
    auto it = m.entries.find(k);
    ASSERT_EQ(d.find(k.c_str()), it == m.entries.end() ? nullptr : it->second)
        << std::string(k.begin(), k.end());
  }
}

// A deterministic run of insertions (both subscript forms), lookups, erasures by key
// and by entry, direct deletions and clears, in phases that fill the dictionary and
// empty it again, so its size keeps crossing the index's limits.
void runAgainstModel(bool sorted, unsigned poolSize, unsigned ops, unsigned checkEvery) {
  std::vector<std::u16string> pool;
  for (unsigned i = 0; i < poolSize; ++i) pool.push_back(nameOf(i));
  QelDictionary d(sorted);
  Model m{sorted, {}, {}};
  std::mt19937 rng(sorted ? 7 : 11);
  for (unsigned op = 0; op < ops; ++op) {
    bool filling = (op / (poolSize * 2)) % 2 == 0;
    const std::u16string& k = pool[rng() % poolSize];
    QelDictionaryEntry* had = m.entries.count(k) ? m.entries[k] : nullptr;
    unsigned pick = rng() % 100;
    if (pick < (filling ? 60u : 5u)) {
      QelDictionaryEntry* e;
      if (pick % 2) {
        e = &d[QelString(k.c_str())];
      } else {
        auto* key = new QelString(k.c_str());
        QelValue holder(key, false);
        e = d[key];
        if (!had) {
          ASSERT_EQ(e->getKey(), key);  // adopted, not copied
        }
      }
      if (had) {
        ASSERT_EQ(e, had);
      } else {
        ASSERT_EQ(e->getSymbolType(), QST_UNDEFINED);
        ASSERT_EQ(e->getValue().getType(), QVT_NULL);
        m.insert(k, e);
      }
    } else if (pick < (filling ? 75u : 30u)) {
      ASSERT_EQ(d.find(k.c_str()), had);
    } else if (pick < 99) {
      if (pick % 3 == 0 && had) {
        delete had;
      } else if (pick % 3 == 1) {
        ASSERT_EQ(d.erase(had), had != nullptr);
      } else {
        ASSERT_EQ(d.erase(QelString(k.c_str())), had != nullptr);
      }
      if (had) m.remove(k);
    } else if (rng() % 8 == 0) {
      d.clear();
      m.order.clear();
      m.entries.clear();
    }
    if (op % checkEvery == 0) expectSame(d, m, pool);
  }
  expectSame(d, m, pool);
}

std::u16string keysOf(const QelDictionary& d) {
  std::u16string out;
  for (QelDictionaryEntry* e = d.getFirst(); e; e = e->getNext()) out += text(e) + u",";
  return out;
}

// A dictionary of `n` keys a0, a1, ... in insertion order.
void fillA(QelDictionary& d, unsigned n) {
  for (unsigned i = 0; i < n; ++i) d[QelString(("a" + std::to_string(i)).c_str())];
}

}  // namespace

// Small dictionaries walk their chain, large ones keep an index: both answer as the model does.
TEST(DictionaryIndex, DictionariesAgreeWithTheModel) {
  for (bool sorted : {false, true}) {
    runAgainstModel(sorted, 24, 6000, 1);
    runAgainstModel(sorted, 1500, 40000, 97);
  }
}

// Two different keys with the same full hash stay two entries.
TEST(DictionaryIndex, CollidingKeysStayApart) {
  std::unordered_map<uint32_t, std::u16string> seen;
  std::u16string a, b;
  for (unsigned i = 0; a.empty() && i < 2000000; ++i) {
    std::string s = "c" + std::to_string(i);
    std::u16string k(s.begin(), s.end());
    auto placed = seen.emplace(QelDictionary::hashKey(k.c_str()), k);
    if (!placed.second) {
      a = placed.first->second;
      b = k;
    }
  }
  ASSERT_FALSE(a.empty());
  ASSERT_NE(a, b);
  for (bool sorted : {false, true}) {
    QelDictionary d(sorted);
    fillA(d, 20);
    QelDictionaryEntry* ea = &d[QelString(a.c_str())];
    EXPECT_EQ(d.find(b.c_str()), nullptr);
    QelDictionaryEntry* eb = &d[QelString(b.c_str())];
    EXPECT_NE(ea, eb);
    EXPECT_EQ(d.find(a.c_str()), ea);
    EXPECT_EQ(d.find(b.c_str()), eb);
    EXPECT_TRUE(d.erase(ea));
    EXPECT_EQ(d.find(a.c_str()), nullptr);
    EXPECT_EQ(d.find(b.c_str()), eb);
    EXPECT_EQ(d.count(), 21u);
  }
}

TEST(DictionaryIndex, EmptyKeys) {
  QelDictionary d;
  fillA(d, 40);
  d[QelString()];
  EXPECT_EQ(d.find(static_cast<const QelChar*>(nullptr)), d.find(u""));
  EXPECT_NE(d.find(u""), nullptr);
}

// Turning the sorted flag on over keys out of order: every answer stays that of a walk
// of the chain, which stops at the first greater key.
TEST(DictionaryIndex, SortedFlagOverUnorderedKeys) {
  QelDictionary d;
  for (const QelChar* k : {u"m", u"b", u"x", u"c", u"d", u"e", u"f", u"g", u"h", u"i", u"j"}) d[QelString(k)];
  QelDictionaryEntry* firstB = d.find(u"b");
  d.setSorted(true);
  EXPECT_EQ(d.find(u"b"), nullptr);  // the walk stops at m
  EXPECT_NE(d.find(u"x"), nullptr);  // m and b are smaller
  QelDictionaryEntry& secondB = d[QelString(u"b")];  // so a second b goes before m
  EXPECT_EQ(d.getFirst(), &secondB);
  EXPECT_EQ(d.count(), 12u);
  d.setSorted(false);
  EXPECT_EQ(d.find(u"b"), &secondB);  // the first b in the chain
  delete &secondB;
  EXPECT_EQ(d.find(u"b"), firstB);
  d.clear();
  d.setSorted(true);
  fillA(d, 20);
  EXPECT_NE(d.find(u"a19"), nullptr);

  // Over keys that do ascend, the flag keeps the index and new keys find their place.
  QelDictionary u;
  for (const QelChar* k : {u"b", u"d", u"f", u"h", u"j", u"l", u"n", u"p", u"r", u"t"}) u[QelString(k)];
  u.setSorted(true);
  u[QelString(u"e")];
  u.setSorted(false);
  u[QelString(u"a")];
  delete u.find(u"d");
  EXPECT_EQ(keysOf(u), u"b,e,f,h,j,l,n,p,r,t,a,");
  delete u.find(u"a");
  u.setSorted(true);
  u[QelString(u"c")];
  EXPECT_EQ(keysOf(u), u"b,c,e,f,h,j,l,n,p,r,t,");
}

// An entry's value may run code that changes the same dictionary while the entry is
// being removed; the entry has left the chain by then.
TEST(DictionaryIndex, ReleasesThatChangeTheDictionary) {
  struct Meddler : QelString {
    Meddler(QelDictionary* d, const QelChar* gone, const QelChar* erase, const QelChar* add)
        : QelString(u"v"), d_(d), gone_(gone), erase_(erase), add_(add) {}
    ~Meddler() override {
      EXPECT_EQ(d_->find(gone_), nullptr);  // the entry being removed has left
      EXPECT_TRUE(d_->erase(QelString(erase_)));
      (*d_)[QelString(add_)];
    }
    QelDictionary* d_;
    const QelChar *gone_, *erase_, *add_;
  };
  for (unsigned n : {7u, 30u}) {
    QelDictionary d;
    fillA(d, n);
    d.find(u"a5")->setValue(QelValue(new Meddler(&d, u"a5", u"a6", u"late"), false));
    EXPECT_TRUE(d.erase(QelString(u"a5")));
    std::u16string keys = keysOf(d);
    EXPECT_EQ(keys.find(u"a5,"), std::u16string::npos);
    EXPECT_EQ(keys.find(u"a6,"), std::u16string::npos);
    EXPECT_EQ(keys.substr(keys.size() - 5), u"late,");
    EXPECT_EQ(d.count(), n - 1);

    d.find(u"a1")->setValue(QelValue(new Meddler(&d, u"a1", u"late", u"later"), false));
    d.clear();  // what is added meanwhile goes too
    EXPECT_EQ(d.count(), 0u);
    EXPECT_EQ(d.getFirst(), nullptr);
    EXPECT_EQ(d.find(u"later"), nullptr);
  }
}
