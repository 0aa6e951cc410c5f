// The handle table: native addresses (library handles, procedure addresses, "addr"
// results) reach scripts as positive 32-bit integers.
//
// Handle h names slot h-1 of the table; a released slot is reused by a later address.
// The table is not thread-safe: the engine runs on one thread. It is never destroyed,
// so code running during process exit may still use it.
#include <unordered_map>
#include <vector>

#include "qel/platform.h"

namespace {

struct HandleTable {
  std::unordered_map<void*, int32_t> handles;  // address -> handle
  std::vector<void*> addresses;                // handle - 1 -> address, null when free
  std::vector<int32_t> freeHandles;
};

HandleTable& table() {
  static HandleTable* instance = new HandleTable;
  return *instance;
}

}  // namespace

int32_t qelHandleFor(void* address) {
  if (!address) return 0;
  HandleTable& t = table();
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
  if (handle <= 0 || static_cast<size_t>(handle) > t.addresses.size()) return nullptr;
  return t.addresses[static_cast<size_t>(handle - 1)];
}

void qelReleaseHandle(int32_t handle) {
  void* address = qelAddressOf(handle);
  if (!address) return;
  HandleTable& t = table();
  t.handles.erase(address);
  t.addresses[static_cast<size_t>(handle - 1)] = nullptr;
  t.freeHandles.push_back(handle);
}
