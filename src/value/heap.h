// The heap tally: the bytes of script-visible heap objects (strings, vectors, buffers,
// dictionaries, classes, objects, and the storage each holds) alive on this thread,
// and the memory limit of the machine running on it.
//
// Blocks are measured with malloc_usable_size when taken and when given back, so a
// block counts the same both ways whoever allocated it (a string adopts text that the
// formatter built). The tally is per thread because a machine runs on one thread at a
// time and every allocation it makes happens there.
#pragma once

#include <malloc.h>

#include <cstddef>
#include <cstdint>

namespace qel {

struct HeapTally {
  int64_t live;   // bytes counted now
  int64_t limit;  // the running machine's memory limit, 0 for none
  bool over;      // an allocation passed the limit since the last look
};

extern thread_local HeapTally tHeapTally __attribute__((tls_model("initial-exec")));

inline void heapTook(const void* block) {
  if (!block) return;
  HeapTally& t = tHeapTally;
  t.live += static_cast<int64_t>(malloc_usable_size(const_cast<void*>(block)));
  if (t.limit && t.live > t.limit) t.over = true;
}

inline void heapGave(const void* block) {
  if (block) tHeapTally.live -= static_cast<int64_t>(malloc_usable_size(const_cast<void*>(block)));
}

}  // namespace qel
