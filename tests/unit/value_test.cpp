// Value cells (types, conversions, counting), vectors and cursors.
#include <gtest/gtest.h>

#include "probes.h"

#include <cfloat>
#include <cstdint>
#include <string>

#include "qel/buffer.h"

TEST(ValueConversions, NumbersSentinelsAndPointers) {
  // Reference twins never count; a procedure is a vector too.
  QelString s(u"text");
  QelVector v;
  EXPECT_EQ(QelValue(&v, true, true).getType(), QVT_BYTECODEREF);
  auto* body = new QelVector;
  QelValue proc(body, true, false);
  EXPECT_EQ(proc.getType(), QVT_BYTECODE);
  EXPECT_EQ(static_cast<QelVector*>(proc), body);
  EXPECT_EQ(body->getRefCnt(), 1);

  QelValue null;
  EXPECT_EQ(static_cast<int32_t>(null), 0);
  EXPECT_EQ(static_cast<float>(null), FLT_MAX);  // the largest finite values
  EXPECT_EQ(static_cast<double>(null), DBL_MAX);

  EXPECT_EQ(static_cast<int32_t>(QelValue(2.9f)), 2);
  EXPECT_EQ(static_cast<int32_t>(QelValue(-2.9f)), -2);
  EXPECT_EQ(static_cast<int32_t>(QelValue(2.9)), 2);
  EXPECT_EQ(static_cast<int32_t>(QelValue(-2.9)), -2);

  QelValue sv(&s, true);
  EXPECT_EQ(s.getRefCnt(), 0);
  EXPECT_EQ(static_cast<float>(sv), FLT_MAX);
  EXPECT_EQ(static_cast<double>(sv), DBL_MAX);
  EXPECT_EQ(static_cast<int32_t>(sv), static_cast<int32_t>(reinterpret_cast<uintptr_t>(&s)));
  EXPECT_EQ(static_cast<QelVector*>(sv), nullptr);
  EXPECT_EQ(sv.addr(), s.c_str());

  QelValue code(&nativeNoop);
  EXPECT_EQ(static_cast<QelNativeFunction>(code), &nativeNoop);
  code.setType(QVT_CODEREF);
  EXPECT_EQ(static_cast<QelNativeFunction>(code), nullptr);
  EXPECT_EQ(code.ptr(), reinterpret_cast<void*>(&nativeNoop));

  EXPECT_EQ(static_cast<void*>(QelValue(int32_t(1))), nullptr);

  QelBuffer b(4);
  EXPECT_EQ(QelValue(&b, true).addr(), b.data());
}

TEST(ValueCounting, CopyAssignDisposeAndRelease) {
  bool dead = false;
  auto* s = new ProbeString(u"x", &dead);
  {
    QelValue ref(s, true);
    QelValue refCopy(ref);
    EXPECT_EQ(s->getRefCnt(), 0);
    QelValue own(s, false);
    EXPECT_EQ(s->getRefCnt(), 1);
    QelValue copy(own);
    EXPECT_EQ(s->getRefCnt(), 2);
    copy = copy;  // self-assignment
    EXPECT_EQ(s->getRefCnt(), 2);
    copy = QelValue(int32_t(3));  // releases the old object
    EXPECT_EQ(s->getRefCnt(), 1);
    copy = own;
    EXPECT_EQ(s->getRefCnt(), 2);
    copy.dispose();
    copy.dispose();  // repeatable
    EXPECT_EQ(s->getRefCnt(), 1);
  }
  EXPECT_TRUE(dead);  // the last owning value deleted it

  dead = false;
  s = new ProbeString(u"y", &dead);
  s->setRefCnt(5);  // no deletion, no check
  EXPECT_EQ(s->release(), 4);
  s->setRefCnt(0);
  EXPECT_EQ(s->release(), 0);  // already at 0: deletes itself
  EXPECT_TRUE(dead);
}

// A container whose last references are its own elements is freed when it ends.
TEST(ValueCounting, SelfReferenceEndsWithItsContainer) {
  struct ProbeVector : QelVector {
    bool* dead = nullptr;
    ~ProbeVector() override { *dead = true; }
  };
  bool dead = false;
  auto* v = new ProbeVector();
  v->dead = &dead;
  {
    QelValue owner(v, false, false);
    v->push_back(QelValue(v, false, true));
  }
  EXPECT_TRUE(dead);
}

// The untyped placeholders and assignRef of the module reader are checked by the module
// round trips (back-references, cycles), whose counts the sanitizer build watches.

TEST(VectorBasics, ConstructionGrowthAndPop) {
  QelVector five(5, true);
  EXPECT_EQ(five.size(), 5u);
  EXPECT_EQ(five.capacity(), 5u);
  for (unsigned i = 0; i < 5; ++i) EXPECT_TRUE(five[i].isNull());
  QelVector one(1, false);
  EXPECT_EQ(one.size(), 0u);
  EXPECT_EQ(one.capacity(), 2u);

  QelVector v;
  const unsigned expected[] = {2, 2, 4, 4, 8};
  for (int32_t i = 0; i < 5; ++i) {
    v.push_back(QelValue(i));
    EXPECT_EQ(v.capacity(), expected[i]) << "after push " << i + 1;
  }
  EXPECT_TRUE(v[5].isNull());  // the tail reads as nulls

  EXPECT_EQ(v.setCapacity(3), 5u);  // never below the size
  EXPECT_EQ(static_cast<int32_t>(v.pop_back()), 4);
  EXPECT_TRUE(v[4].isNull());
  EXPECT_EQ(v.shrink(), 4u);
  v.clear();
  EXPECT_EQ(v.capacity(), 4u);
  EXPECT_EQ(v.shrink(), 2u);
  EXPECT_TRUE(v.pop_back().isNull());
  EXPECT_EQ(v.size(), 0u);
  EXPECT_EQ(v.first().current(), -1);
  EXPECT_EQ(v.last().current(), -1);
}

TEST(VectorBasics, CopiesAndCounts) {
  bool dead = false;
  auto* s = new ProbeString(u"s", &dead);
  {
    QelVector a;
    a.push_back(QelValue(s, false));
    a.push_back(QelValue(int32_t(1)));
    a.push_back(QelValue(s, true));
    EXPECT_EQ(s->getRefCnt(), 1);
    QelVector b(a);
    EXPECT_EQ(s->getRefCnt(), 2);
    b = b;
    EXPECT_EQ(s->getRefCnt(), 2);
    QelVector c(3, true);
    c = a;
    EXPECT_EQ(c.size(), 3u);
    EXPECT_EQ(s->getRefCnt(), 3);
    a += a;  // appending to itself doubles it
    EXPECT_EQ(a.size(), 6u);
    EXPECT_EQ(a[5].getType(), QVT_STRINGREF);
    EXPECT_EQ(s->getRefCnt(), 4);
    // Pushing an element of the vector itself while it must grow.
    QelVector d;
    d.push_back(QelValue(s, false));
    d.push_back(d[0]);
    d.push_back(d[1]);
    EXPECT_EQ(s->getRefCnt(), 7);
    c.clear();
    EXPECT_EQ(s->getRefCnt(), 6);
  }
  EXPECT_TRUE(dead);
}

TEST(VectorBasics, StringIndex) {
  QelString hello(u"hello"), world(u"world");
  QelVector v;
  EXPECT_EQ(v.getStringIndex(u"hello"), -1);
  v.push_back(QelValue(int32_t(5)));
  v.push_back(QelValue(&hello, true));
  v.push_back(QelValue(&world, true));
  EXPECT_EQ(v.getStringIndex(u"world"), 2);  // a reference matches like an owning string
  EXPECT_EQ(v.getStringIndex(u"hell"), -1);
  EXPECT_EQ(v.getStringIndex(nullptr), -1);
}

TEST(VectorCursor, GrowthOnAdvanceAndPostfixSteps) {
  ValPtr none;
  EXPECT_EQ(static_cast<QelValue*>(none), nullptr);
  none += 3;  // no vector: nothing happens
  EXPECT_EQ(none.current(), -1);

  QelVector v;
  ValPtr p(&v, 2);
  EXPECT_EQ(static_cast<QelValue*>(p), nullptr);
  p += 1;
  EXPECT_EQ(p.current(), 3);
  EXPECT_EQ(v.size(), 4u);
  EXPECT_EQ(static_cast<QelValue*>(p), &v[3]);

  QelVector w;
  ValPtr q(&w, -1);
  EXPECT_EQ(static_cast<QelValue*>(q), nullptr);
  ++q;
  EXPECT_EQ(q.current(), 0);
  EXPECT_EQ(w.size(), 1u);

  // Postfix forms answer the stepped cursor itself.
  ValPtr& r = q++;
  EXPECT_EQ(&r, &q);
  EXPECT_EQ(r.current(), 1);
  EXPECT_EQ(w.size(), 2u);
  EXPECT_EQ((q--).current(), 0);
  q -= 3;  // may go negative; the vector never shrinks
  EXPECT_EQ(q.current(), -3);
  EXPECT_EQ(w.size(), 2u);
  q += 1;
  EXPECT_EQ(w.size(), 2u);

  EXPECT_FALSE(ValPtr(&v, 1) == ValPtr(&w, 1));
}
