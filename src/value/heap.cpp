// The heap tally of each thread, and the allocation of counted engine objects.
#include "value/heap.h"

#include <cstdlib>
#include <new>

#include "qel/dictionary.h"

namespace qel {

thread_local HeapTally tHeapTally __attribute__((tls_model("initial-exec"))) = {0, 0, false};

namespace {

// Shells are counted by their size, which sized deallocation hands back.
void* countedAlloc(size_t n) {
  void* p = malloc(n ? n : 1);
  if (!p) throw std::bad_alloc();
  HeapTally& t = tHeapTally;
  t.live += static_cast<int64_t>(n);
  if (t.limit && t.live > t.limit) t.over = true;
  return p;
}

void countedFree(void* p, size_t n) {
  tHeapTally.live -= static_cast<int64_t>(n);
  free(p);
}

}  // namespace
}  // namespace qel

void* QelRefObject::operator new(size_t n) { return qel::countedAlloc(n); }
void QelRefObject::operator delete(void* p, size_t n) { qel::countedFree(p, n); }
void* QelDictionaryEntry::operator new(size_t n) { return qel::countedAlloc(n); }
void QelDictionaryEntry::operator delete(void* p, size_t n) { qel::countedFree(p, n); }
