// System built-ins: time, the script's own arguments, addresses, the environment,
// compiling at run time and calls into native libraries.
//
// Native addresses reach scripts as 32-bit handles (the platform layer's handle
// table). This file remembers what each handle it gave out stands for, so that a
// handle is only ever used as what it is: a library is closed only as often as a
// script opened it, and a procedure is looked up, and called, only while a library
// it was found through is still open. Like the handle table, this record belongs to
// the process (a library that machines on two threads load is one library) and is
// kept under one lock.
#include <dlfcn.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "builtins/args.h"
#include "builtins/handles.h"
#include "platform/files.h"
#include "qel/compiler.h"
#include "qel/platform.h"

using namespace qel;

namespace {

// ---- Handles given out by the native-library built-ins and "addr" ----

struct NativeHandles {
  std::mutex lock;
  // Library handle -> how many "LoadLibrary" calls are not yet matched by "FreeLibrary".
  std::unordered_map<int32_t, int> openLibraries;
  // Procedure handle -> the library handles "GetProcAddress" found it through.
  std::unordered_map<int32_t, std::unordered_set<int32_t>> procedureLibraries;
  // Handles of addresses answered by "addr": how many machines were given each, and
  // which each machine was given. A machine's are forgotten when it is re-initialised
  // or destroyed (its values, whose data they name, are gone by then), so a host that
  // runs script after script keeps a table of the size of one run.
  std::unordered_map<int32_t, int> dataHandles;
  std::unordered_map<const QelVirtualMachine*, std::unordered_set<int32_t>> machineData;

  // The library behind a handle that a script opened and has not closed, or null.
  void* openLibrary(int32_t handle) {
    auto it = openLibraries.find(handle);
    return it != openLibraries.end() && it->second > 0 ? qelAddressOf(handle) : nullptr;
  }

  // The procedure behind a handle, while a library it was found through is open.
  void* liveProcedure(int32_t handle) {
    auto it = procedureLibraries.find(handle);
    if (it == procedureLibraries.end()) return nullptr;
    for (int32_t lib : it->second) {
      if (openLibrary(lib)) return qelAddressOf(handle);
    }
    return nullptr;
  }
};

NativeHandles& nativeHandles() {
  static auto* handles = new NativeHandles;  // outlives every machine
  return *handles;
}

// Records one more load of a library; answers its handle.
int32_t recordLoad(void* lib) {
  NativeHandles& h = nativeHandles();
  std::lock_guard<std::mutex> hold(h.lock);
  int32_t handle = qelHandleFor(lib);
  ++h.openLibraries[handle];
  return handle;
}

// Takes one recorded load of the library behind `handle` away and answers the library
// for its caller to close; null when no load is left to close. Once the count is down,
// no other thread can reach the library through this load.
void* takeLoad(int32_t handle) {
  NativeHandles& h = nativeHandles();
  std::lock_guard<std::mutex> hold(h.lock);
  void* lib = h.openLibrary(handle);
  if (lib) --h.openLibraries[handle];
  return lib;
}

// The handle of procedure `symbol` in the open library `libHandle`, or 0. The lookup
// runs under the lock, so that no other thread closes the library meanwhile.
int32_t findProcedure(int32_t libHandle, const std::string& symbol) {
  NativeHandles& h = nativeHandles();
  std::lock_guard<std::mutex> hold(h.lock);
  void* lib = h.openLibrary(libHandle);
  if (!lib) return 0;
  int32_t handle = qelHandleFor(dlsym(lib, symbol.c_str()));
  if (handle) h.procedureLibraries[handle].insert(libHandle);
  return handle;
}

void* liveProcedure(int32_t handle) {
  NativeHandles& h = nativeHandles();
  std::lock_guard<std::mutex> hold(h.lock);
  return h.liveProcedure(handle);
}

int32_t recordData(const QelVirtualMachine* vm, void* address) {
  NativeHandles& h = nativeHandles();
  std::lock_guard<std::mutex> hold(h.lock);
  int32_t handle = qelHandleFor(address);
  if (handle && h.machineData[vm].insert(handle).second) ++h.dataHandles[handle];
  return handle;
}

// The address behind a handle that "addr" answered, or null.
void* dataAddress(int32_t handle) {
  NativeHandles& h = nativeHandles();
  std::lock_guard<std::mutex> hold(h.lock);
  return h.dataHandles.count(handle) ? qelAddressOf(handle) : nullptr;
}

// ---- Native calls ----

typedef intptr_t Word;

// Calls fn with the first N words as its arguments, by the platform's convention for
// a function of N register-width integers; the 32-bit return value is the result.
template <size_t... I>
int32_t callWith(void* fn, const Word* words, std::index_sequence<I...>) {
  typedef int32_t (*Function)(decltype(static_cast<void>(I), Word())...);
  return reinterpret_cast<Function>(fn)(words[I]...);
}

template <size_t N>
int32_t callWithCount(void* fn, const Word* words) {
  return callWith(fn, words, std::make_index_sequence<N>());
}

const int kMaxNativeArgs = 16;

// One dispatch entry for each argument count, 0 to 16.
typedef int32_t (*Dispatch)(void*, const Word*);
template <size_t... N>
const Dispatch* dispatchTable(std::index_sequence<N...>) {
  static const Dispatch table[] = {callWithCount<N>...};
  return table;
}

// A script value as a register-width argument: integers sign-extended (a live "addr"
// handle as its address), floats and doubles truncated, null as 0, anything else
// its full payload pointer.
Word toWord(const QelValue& v) {
  switch (v.getType()) {
    case QVT_INTEGER: {
      int32_t n = v.toLong();
      if (void* address = dataAddress(n)) return reinterpret_cast<Word>(address);
      return n;
    }
    case QVT_FLOAT:
    case QVT_DOUBLE:
      return v.toLong();
    default:
      return static_cast<Word>(v.rawBits());
  }
}

// ---- Script arguments ----

// A new vector of new strings: `first` when given, then the `count` texts.
QelValue stringVector(const QelChar* first, const QelChar* const* texts, int count) {
  QelVector* v = new QelVector();
  if (first) v->push_back(QelValue(new QelString(first), false));
  for (int i = 0; i < count; ++i) v->push_back(QelValue(new QelString(texts[i]), false));
  return QelValue(v, false, false);
}

}  // namespace

// ---- Time ----

bool QelDefaultFunctions::Qel_time(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 0)) return false;
  return call.result(QelValue(static_cast<int32_t>(::time(static_cast<uint32_t*>(nullptr)))));
}

bool QelDefaultFunctions::Qel_timer(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 0)) return false;
  return call.result(QelValue(static_cast<int32_t>(qelTickCount())));
}

bool QelDefaultFunctions::Qel_ctime(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  if (!call.isInteger(1)) return call.fail(kMsgInvalidArgumentType);
  uint32_t seconds = static_cast<uint32_t>(call.integer(1));
  return call.result(QelValue(new QelString(_tctime(&seconds)), false));
}

// Seconds, minutes, hours, day of month, month 1-12, full year, day of week, and -1
// for the day of year and the daylight flag: the layer's deliberate convention.
bool QelDefaultFunctions::Qel_localtime(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  if (!call.isInteger(1)) return call.fail(kMsgInvalidArgumentType);
  uint32_t seconds = static_cast<uint32_t>(call.integer(1));
  const struct tm* t = ::localtime(&seconds);
  if (!t) return call.none();
  const int fields[9] = {t->tm_sec,  t->tm_min,  t->tm_hour, t->tm_mday, t->tm_mon,
                         t->tm_year, t->tm_wday, t->tm_yday, t->tm_isdst};
  QelVector* v = new QelVector(9, true);
  for (unsigned i = 0; i < 9; ++i) (*v)[i] = QelValue(static_cast<int32_t>(fields[i]));
  return call.result(QelValue(v, false, false));
}

// ---- The script's arguments ----

bool QelDefaultFunctions::Qel_getargs(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 0)) return false;
  int count = vm->cmdargv() ? vm->cmdargc() : 0;
  return call.result(stringVector(nullptr, vm->cmdargv(), count));
}

// The arguments from the first one that begins with "#" on; a bare "#" is only the
// marker, while "#text" is the marker and the first user argument "text".
bool QelDefaultFunctions::Qel_getusrargs(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 0)) return false;
  const QelChar** argv = vm->cmdargv();
  int count = argv ? vm->cmdargc() : 0;
  int marker = 0;
  while (marker < count && !(argv[marker] && argv[marker][0] == u'#')) ++marker;
  if (marker == count) return call.result(stringVector(nullptr, nullptr, 0));
  const QelChar* first = argv[marker][1] ? argv[marker] + 1 : nullptr;
  return call.result(stringVector(first, argv + marker + 1, count - marker - 1));
}

bool QelDefaultFunctions::Qel_argcnt(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 0)) return false;
  QelProcInfo* proc = vm->interpreter()->getProcInfo();
  return call.result(QelValue(static_cast<int32_t>(proc ? proc->getNargs() : 0)));
}

bool QelDefaultFunctions::Qel_arg(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  if (!call.isInteger(1)) return call.fail(kMsgInvalidArgumentType);
  QelProcInfo* proc = vm->interpreter()->getProcInfo();
  int32_t i = call.integer(1);
  if (!proc || i < 0 || i >= proc->getNargs()) return call.fail(kMsgInvalidIndex);
  QelValue argument(proc->bp().at(i + 1));
  return call.result(std::move(argument));
}

bool QelDefaultFunctions::Qel_addr(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_NATIVE, u"addr")) return false;
  if (!call.arity(1, 1)) return false;
  QelValue* cell = call.cursor();
  if (!cell || cell->isNull()) return call.fail(kMsgArgumentNull);
  return call.result(QelValue(recordData(vm, cell->addr())));
}

void qel::forgetDataHandles(const QelVirtualMachine* vm) {
  NativeHandles& h = nativeHandles();
  std::lock_guard<std::mutex> hold(h.lock);
  auto given = h.machineData.find(vm);
  if (given == h.machineData.end()) return;
  for (int32_t handle : given->second) {
    auto held = h.dataHandles.find(handle);
    if (held == h.dataHandles.end() || --held->second > 0) continue;
    h.dataHandles.erase(held);
    // An address a library or procedure handle also names keeps its handle.
    if (!h.openLibraries.count(handle) && !h.procedureLibraries.count(handle)) qelReleaseHandle(handle);
  }
  h.machineData.erase(given);
}

// ---- The environment ----

bool QelDefaultFunctions::Qel_getenv(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_ENV, u"getenv")) return false;
  if (!call.arity(1, 1)) return false;
  QelString* name = call.string(1);
  if (!name) return call.fail(kMsgStringExpected);
  return call.result(QelValue(new QelString(_tgetenv(name->c_str())), false));
}

bool QelDefaultFunctions::Qel_setenv(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_ENV, u"setenv")) return false;
  if (!call.arity(2, 2)) return false;
  QelString* name = call.string(1);
  QelString* value = call.string(2);
  if (!name || !value) return call.fail(kMsgStringExpected);
  if (name->empty()) return call.result(QelValue(0));
  unsigned nameLength = name->length();
  unsigned valueLength = value->length();
  QelChar* assignment = static_cast<QelChar*>(allocmem((nameLength + valueLength + 2) * sizeof(QelChar)));
  memcpy(assignment, name->c_str(), nameLength * sizeof(QelChar));
  assignment[nameLength] = u'=';
  memcpy(assignment + nameLength + 1, value->c_str(), (valueLength + 1) * sizeof(QelChar));
  int status = _tputenv(assignment);
  free(assignment);
  return call.result(QelValue(status == 0 ? 1 : 0));
}

// ---- Compiling at run time ----

// Compile errors are the compiler's to report (through the machine's printer); they
// only make the result 0. The stream is read to its end and closed, as the compiler
// closes every stream it reads: the compiler reads a stream of its own with the bytes
// the script's had left, so the script's stream is closed by the built-ins' rules.
bool QelDefaultFunctions::Qel_compile(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_COMPILE, u"compile") || !call.arity(1, 2)) return false;
  FILE* stream = call.stream(1);
  if (!stream && !call[1].isString()) return call.fail(kMsgInvalidArgumentType);
  if (stream && !mayRead(call, stream, u"compile")) return false;
  if (nargs == 2 && !call.string(2)) return call.fail(kMsgInvalidArgumentType);
  // Compiling may run script destructors: the texts are held by copies of the values.
  QelValue source(call[1]);
  QelValue nameValue(nargs == 2 ? call[2] : QelValue());
  QelString* nameString = nameValue;
  const QelChar* name = nameString ? nameString->c_str() : u"";
  QelCompiler compiler(*vm, nullptr);
  bool ok;
  if (stream) {
    ok = compiler.compile(static_cast<void*>(takeStream(vm, stream)), name);
  } else {
    QelString* text = source;
    ok = compiler.compile(text ? text->c_str() : u"", name);
  }
  return call.result(QelValue(ok ? 1 : 0));
}

// ---- Native libraries ----

bool QelDefaultFunctions::Qel_LoadLibrary(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_NATIVE, u"LoadLibrary")) return false;
  if (!call.arity(1, 1)) return false;
  QelString* name = call.string(1);
  if (!name) return call.fail(kMsgInvalidArgumentType);
  void* lib = dlopen(toUtf8(name->c_str()).c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!lib) return call.result(QelValue(0));
  return call.result(QelValue(recordLoad(lib)));
}

// Closes one load made by "LoadLibrary"; any other handle is left alone and gives 0.
// The handle keeps its number: another load of the same library answers the same one.
bool QelDefaultFunctions::Qel_FreeLibrary(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_NATIVE, u"FreeLibrary")) return false;
  if (!call.arity(1, 1)) return false;
  if (!call.isInteger(1)) return call.fail(kMsgInvalidArgumentType);
  void* lib = takeLoad(call.integer(1));
  if (!lib) return call.result(QelValue(0));
  return call.result(QelValue(dlclose(lib) == 0 ? 1 : 0));
}

bool QelDefaultFunctions::Qel_GetProcAddress(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_NATIVE, u"GetProcAddress")) return false;
  if (!call.arity(2, 2)) return false;
  QelString* name = call.string(2);
  if (!call.isInteger(1) || !name) return call.fail(kMsgInvalidArgumentType);
  // Every "?" becomes "W", deliberately: scripts write "?" where a wide variant's suffix goes.
  QelString symbol(*name);
  symbol.replace(u'?', u'W');
  return call.result(QelValue(findProcedure(call.integer(1), toUtf8(symbol.c_str()))));
}

bool QelDefaultFunctions::Qel_CallLibFunc(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!permitted(call, QEL_CAP_NATIVE, u"CallLibFunc")) return false;
  if (!call.arity(1, kMaxNativeArgs + 1)) return false;
  if (!call.isInteger(1)) return call.fail(kMsgInvalidArgumentType);
  // Only a procedure found by "GetProcAddress" in a library still open is called.
  void* fn = liveProcedure(call.integer(1));
  if (!fn) return call.fail(kMsgInvalidArgumentType);
  Word words[kMaxNativeArgs];
  for (int k = 2; k <= nargs; ++k) words[k - 2] = toWord(call[k]);
  static const Dispatch* const dispatch = dispatchTable(std::make_index_sequence<kMaxNativeArgs + 1>());
  return call.result(QelValue(dispatch[nargs - 1](fn, words)));
}
