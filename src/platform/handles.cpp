// The handle table: native addresses (library handles, procedure addresses, "addr"
// results) reach scripts as positive 32-bit integers.
//
// Handles are not small numbers: slot i is the handle kFirstHandle + i * kHandleStep,
// so that a count, a character or a flag a script passes to a native call is never
// taken for a handle, and a handle off by a little names nothing. A released slot is
// reused by a later address. One table serves the whole process, so a library loaded
// by machines on two threads has one handle; every use takes the table's lock. The
// table is never destroyed, so code running during process exit may still use it.
#include <climits>
#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "qel/platform.h"

namespace {

const int64_t kFirstHandle = 0x40000000;
const int64_t kHandleStep = 0x40;
const size_t kMaxHandles = static_cast<size_t>((int64_t{INT32_MAX} + 1 - kFirstHandle) / kHandleStep);

int32_t handleOfSlot(size_t slot) { return static_cast<int32_t>(kFirstHandle + static_cast<int64_t>(slot) * kHandleStep); }

struct HandleTable {
  std::mutex lock;
  std::unordered_map<void*, int32_t> handles;  // address -> handle
  std::vector<void*> addresses;                // slot -> address, null when free
  std::vector<size_t> freeSlots;

  // The slot a handle names, or kMaxHandles when it names none.
  size_t slotOf(int32_t handle) const {
    int64_t offset = int64_t{handle} - kFirstHandle;
    if (offset < 0 || offset % kHandleStep != 0) return kMaxHandles;
    size_t slot = static_cast<size_t>(offset / kHandleStep);
    return slot < addresses.size() ? slot : kMaxHandles;
  }
  void* addressOf(int32_t handle) const {
    size_t slot = slotOf(handle);
    return slot < addresses.size() ? addresses[slot] : nullptr;
  }
};

HandleTable& table() {
  static HandleTable* instance = new HandleTable;
  return *instance;
}

}  // namespace

int32_t qelHandleFor(void* address) {
  if (!address) return 0;
  HandleTable& t = table();
  std::lock_guard<std::mutex> hold(t.lock);
  auto known = t.handles.find(address);
  if (known != t.handles.end()) return known->second;
  size_t slot;
  if (!t.freeSlots.empty()) {
    slot = t.freeSlots.back();
    t.freeSlots.pop_back();
    t.addresses[slot] = address;
  } else {
    if (t.addresses.size() >= kMaxHandles) errorExit(1);  // as when memory runs out
    slot = t.addresses.size();
    t.addresses.push_back(address);
  }
  int32_t handle = handleOfSlot(slot);
  t.handles.emplace(address, handle);
  return handle;
}

void* qelAddressOf(int32_t handle) {
  HandleTable& t = table();
  std::lock_guard<std::mutex> hold(t.lock);
  return t.addressOf(handle);
}

void qelReleaseHandle(int32_t handle) {
  HandleTable& t = table();
  std::lock_guard<std::mutex> hold(t.lock);
  size_t slot = t.slotOf(handle);
  if (slot >= t.addresses.size() || !t.addresses[slot]) return;
  t.handles.erase(t.addresses[slot]);
  t.addresses[slot] = nullptr;
  t.freeSlots.push_back(slot);
}
