// Dictionaries (order, lookup, erase, entry semantics), classes (member layout, base
// chain) and objects.
#include <gtest/gtest.h>

#include "probes.h"

#include <initializer_list>
#include <string>

#include "qel/vm.h"

namespace {

// The keys of a dictionary in chain order, joined by ','.
std::u16string keys(const QelDictionary& d) {
  std::u16string out;
  for (QelDictionaryEntry* e = d.getFirst(); e; e = e->getNext()) {
    if (!out.empty()) out += u',';
    out += e->getKey() ? e->getKey()->c_str() : u"<null>";
  }
  return out;
}

QelDictionary& fill(QelDictionary& d, std::initializer_list<const QelChar*> names) {
  for (const QelChar* n : names) d[QelString(n)];
  return d;
}

}  // namespace

// builtins_containers.qel shows the key order of both kinds through the built-ins.
TEST(DictionaryOrder, SortedIsOrdinalAndLookupIsExact) {
  QelDictionary sorted(true);
  EXPECT_EQ(keys(fill(sorted, {u"b", u"a", u"c", u"B", u"ab"})), u"B,a,ab,b,c");
  EXPECT_EQ(sorted.find(QelString(u"aa")), nullptr);
  EXPECT_NE(sorted.find(QelString(u"c")), nullptr);
  EXPECT_EQ(sorted.find(QelString(u"C")), nullptr);  // case-sensitive
}

// dictionary_index_test.cpp checks finding, making, adopting and erasing against a
// model; here: a null key, the counts of a key adopted or copied, a foreign entry.
TEST(DictionaryLookup, KeysAdoptedOrCopiedAndForeignEntries) {
  QelDictionary d, other;
  EXPECT_EQ(d[static_cast<QelString*>(nullptr)], nullptr);
  auto* key = new QelString(u"k");
  QelValue holder(key, false);
  EXPECT_EQ(d[key]->getKey(), key);
  EXPECT_EQ(key->getRefCnt(), 2);
  EXPECT_NE(other[*key].getKey(), key);
  EXPECT_EQ(key->getRefCnt(), 2);
  EXPECT_FALSE(d.erase(other.getFirst()));  // an entry of another dictionary
  EXPECT_EQ(keys(d), u"k");
  EXPECT_EQ(keys(other), u"k");
}

TEST(DictionaryEntry, AssignmentKeepsKeyInsideADictionary) {
  bool keyDead = false;
  auto* loose = new QelDictionaryEntry(new ProbeString(u"loose", &keyDead), QelValue(int32_t(7)), QST_DATA);
  QelDictionary d;
  QelDictionaryEntry& inside = d[QelString(u"k")];
  inside = *loose;  // value and type copied, key kept
  EXPECT_EQ(std::u16string(inside.getKey()->c_str()), u"k");
  EXPECT_EQ(inside.getSymbolType(), QST_DATA);
  EXPECT_EQ(static_cast<int32_t>(inside.getValue()), 7);
  EXPECT_EQ(loose->getKey()->getRefCnt(), 1);

  inside.setSymbolType(QST_STATIC_DATA);
  *loose = inside;  // a loose entry takes the key over
  EXPECT_TRUE(keyDead);
  EXPECT_EQ(loose->getKey(), inside.getKey());
  EXPECT_EQ(inside.getKey()->getRefCnt(), 2);
  EXPECT_EQ(loose->getSymbolType(), QST_STATIC_DATA);
  delete loose;
}

class ClassTest : public ::testing::Test {
 protected:
  // A class held by a value, so the test never leaks it.
  QelClass* make(const QelChar* name, QelClass* base = nullptr) {
    auto* c = new QelClass(vm, QelString(name), base);
    held.push_back(QelValue(c, false));
    return c;
  }
  QelVirtualMachine vm{nullptr};
  QelVector held;
};

// classes.qel, static_members.qel and compile_classes.qel use these rules from scripts;
// the indexes, the failures and the chain's corner cases are seen only here.
TEST_F(ClassTest, MemberLayoutAndShadowing) {
  QelClass* root = make(u"Root");
  ASSERT_TRUE(root->addDataMember(u"x"));
  ASSERT_TRUE(root->addStaticDataMember(u"count", QelValue(int32_t(5))));
  ASSERT_TRUE(root->addDataMember(u"y"));
  ASSERT_TRUE(root->addMethod(u"m", &nativeNoop));
  root->fixupDataDefs();
  EXPECT_EQ(root->getMemberIndex(QelString(u"x")), 1);
  EXPECT_EQ(root->getMemberIndex(QelString(u"y")), 2);
  EXPECT_EQ(root->getMemberIndex(QelString(u"count")), -1);
  EXPECT_EQ(root->getMemberIndex(QelString(u"m")), -1);
  EXPECT_EQ(root->getDataSize(), 2);

  QelClass* derived = make(u"Derived", root);
  ASSERT_TRUE(derived->addDataMember(u"z"));
  derived->fixupDataDefs();
  EXPECT_EQ(derived->getMemberIndex(QelString(u"z")), 3);
  EXPECT_EQ(derived->getMemberIndex(QelString(u"x")), 1);
  EXPECT_EQ(derived->getDataSize(), 3);
  EXPECT_EQ(derived->findMember(QelString(u"y"), false), nullptr);
  EXPECT_EQ(derived->findMember(QelString(u"y"), true)->getDictionary(), &root->dataMembers());

  EXPECT_FALSE(root->addDataMember(u"m"));  // already a method of the same class
  EXPECT_FALSE(root->addMethod(u"n", nullptr));
  ASSERT_TRUE(derived->addDataMember(u"y"));  // exists only in the base
}

TEST_F(ClassTest, BaseChainNamesAndSubtypes) {
  QelClass* a = make(u"A");
  QelClass* b = make(u"B", a);
  EXPECT_FALSE(b->setBaseClass(make(u"C")));  // set once
  EXPECT_EQ(b->getBaseClass(), a);
  EXPECT_FALSE(a->setBaseClass(b));  // would close a loop
  EXPECT_EQ(a->getBaseClass(), nullptr);
  EXPECT_EQ(a->getRefCnt(), 2);

  QelClass* unnamed = make(u"", a);
  EXPECT_EQ(unnamed->getClassName(), nullptr);
  QelClass* d = make(u"D", unnamed);
  EXPECT_TRUE(d->isSubtypeOf(QelString(u"D")));
  EXPECT_FALSE(d->isSubtypeOf(QelString(u"A")));  // stops at the unnamed class
  EXPECT_TRUE(d->isSubtypeOf(a));

  EXPECT_FALSE(d->setClassName(QelString(u"E")));
  EXPECT_FALSE(unnamed->setClassName(QelString(u"")));
  auto* name = new QelString(u"U");
  EXPECT_TRUE(unnamed->setClassName(name));
  EXPECT_EQ(name->getRefCnt(), 1);
  EXPECT_TRUE(d->isSubtypeOf(QelString(u"A")));
}

TEST_F(ClassTest, ObjectsHoldTheirClass) {
  QelClass* point = make(u"Point");
  point->addDataMember(u"x");
  point->fixupDataDefs();
  {
    QelValue ov(new QelObject(point), false);
    QelObject* o = ov;
    EXPECT_EQ(o->getMemberData()->size(), 2u);
    EXPECT_EQ((*o->getMemberData())[0].getType(), QVT_CLASS);
    EXPECT_EQ(point->getRefCnt(), 2);
  }
  EXPECT_EQ(point->getRefCnt(), 1);

  // A class clears the owner of its dictionaries when it dies.
  auto* lone = new QelClass(vm);
  QelValue funcs(&lone->funcMembers(), false);
  EXPECT_EQ(lone->funcMembers().getOwningClass(), lone);
  delete lone;
  EXPECT_EQ(static_cast<QelDictionary*>(funcs)->getOwningClass(), nullptr);
}
