// The flat interface: thin shells over QelVirtualMachine and the printers. The A forms
// convert their UTF-8 texts to engine text for the call; a null narrow text becomes an
// empty one, as a string with no characters reads.
#include "qel/flat.h"

#include <cstdlib>
#include <new>

#include "qel/platform.h"
#include "qel/vm.h"

namespace {

// Engine text of a narrow argument, alive for the call.
struct Wide {
  explicit Wide(const char* text) : string(text) {}
  const QelChar* text() const { return string.w_str(); }
  QelString string;
};

QelChar* duplicate(const QelChar* text) {
  unsigned int n = qelStrLen(text);
  QelChar* copy = static_cast<QelChar*>(allocmem((n + 1) * sizeof(QelChar)));
  for (unsigned int i = 0; i < n; ++i) copy[i] = text[i];
  copy[n] = 0;
  return copy;
}

// The run's own copies of the argument texts, freed when the call is over. With no
// arguments the machine gets a null array.
class ArgumentCopies {
 public:
  template <class Text, class Convert>
  ArgumentCopies(int argc, Text* const* argv, Convert convert) : texts_(nullptr), count_(argc) {
    if (argc < 1) return;
    texts_ = static_cast<const QelChar**>(allocmem(static_cast<unsigned int>(argc) * sizeof(QelChar*)));
    for (int i = 0; i < argc; ++i) texts_[i] = convert(argv ? argv[i] : nullptr);
  }
  ~ArgumentCopies() {
    if (!texts_) return;
    for (int i = 0; i < count_; ++i) free(const_cast<QelChar*>(texts_[i]));
    free(texts_);
  }
  ArgumentCopies(const ArgumentCopies&) = delete;
  ArgumentCopies& operator=(const ArgumentCopies&) = delete;
  const QelChar** texts() const { return texts_; }

 private:
  const QelChar** texts_;
  int count_;
};

QelChar* copyWide(const QelChar* text) { return duplicate(text ? text : u""); }
QelChar* copyNarrow(const char* text) { return duplicate(Wide(text).text()); }

int flag(bool b) { return b ? 1 : 0; }

}  // namespace

extern "C" {

QelVirtualMachine* Qel_CreateVM(IQelPrinter* printer) { return new (std::nothrow) QelVirtualMachine(printer); }

int Qel_ReleaseVM(QelVirtualMachine* vm) {
  if (!vm) return 0;
  delete vm;
  return 1;
}

int Qel_CompileFileW(QelVirtualMachine* vm, const QelChar* path, int showInfo, int listing, IQelPrinter* printer,
                     IQelPrinter* listingPrinter) {
  if (!vm) return 0;
  return flag(vm->compileFile(path, showInfo != 0, listing != 0, printer, listingPrinter));
}

int Qel_CompileFileA(QelVirtualMachine* vm, const char* path, int showInfo, int listing, IQelPrinter* printer,
                     IQelPrinter* listingPrinter) {
  if (!vm) return 0;
  return Qel_CompileFileW(vm, Wide(path).text(), showInfo, listing, printer, listingPrinter);
}

// The text is taken as a path, exactly like Qel_CompileFileW: that is this entry's meaning.
int Qel_CompileTextW(QelVirtualMachine* vm, const QelChar* text, int showInfo, int listing, IQelPrinter* printer,
                     IQelPrinter* listingPrinter) {
  return Qel_CompileFileW(vm, text, showInfo, listing, printer, listingPrinter);
}

int Qel_CompileTextA(QelVirtualMachine* vm, const char* text, int showInfo, int listing, IQelPrinter* printer,
                     IQelPrinter* listingPrinter) {
  return Qel_CompileFileA(vm, text, showInfo, listing, printer, listingPrinter);
}

int Qel_ExecuteW(QelVirtualMachine* vm, const QelChar* name, int argc, const QelChar** argv, int trace,
                 IQelPrinter* errorPrinter, IQelPrinter* tracePrinter) {
  if (!vm) return 0;
  ArgumentCopies copies(argc, argv, copyWide);
  return flag(vm->execute(name, argc, copies.texts(), trace != 0, errorPrinter, tracePrinter));
}

int Qel_ExecuteA(QelVirtualMachine* vm, const char* name, int argc, const char** argv, int trace,
                 IQelPrinter* errorPrinter, IQelPrinter* tracePrinter) {
  if (!vm) return 0;
  ArgumentCopies copies(argc, argv, copyNarrow);
  return flag(vm->execute(Wide(name).text(), argc, copies.texts(), trace != 0, errorPrinter, tracePrinter));
}

int Qel_WriteModuleW(QelVirtualMachine* vm, const QelChar* path) { return vm ? flag(vm->writeModule(path)) : 0; }
int Qel_WriteModuleA(QelVirtualMachine* vm, const char* path) { return vm ? flag(vm->writeModule(Wide(path).text())) : 0; }
int Qel_ReadModuleW(QelVirtualMachine* vm, const QelChar* path) { return vm ? flag(vm->readModule(path)) : 0; }
int Qel_ReadModuleA(QelVirtualMachine* vm, const char* path) { return vm ? flag(vm->readModule(Wide(path).text())) : 0; }

int32_t Qel_GetIntResult(QelVirtualMachine* vm) { return vm ? vm->getResult().toLong() : INT32_MIN; }

void Qel_Reinit(QelVirtualMachine* vm) {
  if (vm) vm->reinit();
}

unsigned Qel_WithholdCapabilities(QelVirtualMachine* vm, unsigned groups) {
  if (!vm) return 0;
  vm->withhold(groups);
  return vm->capabilities();
}

unsigned Qel_GrantCapabilities(QelVirtualMachine* vm, unsigned groups) {
  if (!vm) return 0;
  vm->grant(groups);
  return vm->capabilities();
}

unsigned Qel_GetCapabilities(QelVirtualMachine* vm) { return vm ? vm->capabilities() : 0; }

int Qel_AllowModuleDirectoryW(QelVirtualMachine* vm, const QelChar* dir) {
  return vm ? flag(vm->allowModuleDirectory(dir)) : 0;
}

int Qel_AllowModuleDirectoryA(QelVirtualMachine* vm, const char* dir) {
  return vm ? flag(vm->allowModuleDirectory(Wide(dir).text())) : 0;
}

IQelPrinter* Qel_CreateConsolePrinter(void) { return new (std::nothrow) QelFileStreamPrinter(stdout, false); }

IQelPrinter* Qel_CreateCallbackPrinter(void (*callback)(const char*)) {
  if (!callback) return nullptr;
  return new (std::nothrow) QelCallbackPrinter(callback);
}

// Only the memory goes: no destructor runs, deliberately; the printers made here hold
// nothing of their own.
int Qel_ReleasePrinter(IQelPrinter* printer) {
  if (!printer) return 0;
  ::operator delete(static_cast<void*>(printer));
  return 1;
}

bool (*Qel_SetDbgWaitProc(QelVirtualMachine* vm, bool (*proc)(void)))(void) {
  return vm ? vm->setDbgWaitProc(proc) : nullptr;
}

}  // extern "C"
