// The handle table: native addresses (library handles, procedure addresses, "addr"
// results) reach scripts as positive 32-bit integers.
//
// Handle h names slot h-1 of the table; a released slot is reused by a later address.
// One table serves the whole process, so a library loaded by machines on two threads
// has one handle; every use takes the table's lock. The table is never destroyed, so
// code running during process exit may still use it.
#include <mutex>
#include <unordered_map>
#include <vector>

#include "qel/platform.h"

namespace {

struct HandleTable {
  std::mutex lock;
  std::unordered_map<void*, int32_t> handles;  // address -> handle
  std::vector<void*> addresses;                // handle - 1 -> address, null when free
  std::vector<int32_t> freeHandles;

  void* addressOf(int32_t handle) const {
    if (handle <= 0 || static_cast<size_t>(handle) > addresses.size()) return nullptr;
    return addresses[static_cast<size_t>(handle - 1)];
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
  int32_t handle;
  if (!t.freeHandles.empty()) {
    handle = t.freeHandles.back();
    t.freeHandles.pop_back();
    t.addresses[static_cast<size_t>(handle - 1)] = address;
  } else {
    if (t.addresses.size() >= static_cast<size_t>(INT32_MAX)) errorExit(1);
    t.addresses.push_back(address);
    handle = static_cast<int32_t>(t.addresses.size());
  }
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
  void* address = t.addressOf(handle);
  if (!address) return;
  t.handles.erase(address);
  t.addresses[static_cast<size_t>(handle - 1)] = nullptr;
  t.freeHandles.push_back(handle);
}
