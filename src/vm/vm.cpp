// The virtual machine: registries, native modules, destructor notices and execution.
#include "qel/vm.h"

#include <dlfcn.h>
#include <limits.h>
#include <stdlib.h>

#include "qel/builtins.h"
#include "qel/compiler.h"
#include "qel/debugger.h"
#include "qel/dictionary_io.h"
#include "qel/interpreter.h"
#include "qel/platform.h"
#include "builtins/handles.h"
#include "platform/files.h"
#include "value/heap.h"

QelVirtualMachine::QelVirtualMachine(IQelPrinter* printer)
    : classes_(new QelDictionary(false)),
      symbols_(new QelDictionary(false)),
      modules_(new QelDictionary(false)),
      printer_(printer),
      interpreter_(nullptr),
      ownsPrinter_(printer == nullptr),
      cmdargc_(0),
      cmdargv_(nullptr),
      dbgWaitProc_(nullptr),
      maxCallDepth_(QelInterpreter::kMaxCallDepth) {
  if (!printer_) printer_ = new QelDummyPrinter();
  classes_->addRef();
  symbols_->addRef();
  modules_->addRef();
  QelDefaultFunctions::registerFunctions(this);
}

QelVirtualMachine::~QelVirtualMachine() {
  clearRegistries();
  freeModules();
  qel::forgetDataHandles(this);
  qel::forgetClosedStandardStreams(this);
  result_.dispose();
  classes_->release();
  symbols_->release();
  modules_->release();
  if (ownsPrinter_) delete printer_;
}

// Each record closes its own load of the library. The handle stays mapped: the same
// library loaded by another machine, or under another name, has the same handle, and
// releasing it here would leave those records pointing at nothing (or, once the
// number is reused, at another library).
void QelVirtualMachine::freeModules() {
  for (QelDictionaryEntry* e = modules_->getFirst(); e; e = e->getNext()) {
    if (void* lib = qelAddressOf(e->getValue().toLong())) dlclose(lib);
  }
  modules_->clear();
}

// Member functions hold their class (a procedure names its class) and static members
// may hold objects of it: the class members are emptied first so those cycles break.
// Native classes, and classes another machine made (shared by cloneSymbols), keep
// their members.
void QelVirtualMachine::emptyClass(const QelValue& value) {
  QelClass* cls = value;
  if (!cls || cls->getIsNative() || &cls->getVirtualMachine() != this) return;
  cls->funcMembers().clear();
  cls->dataMembers().clear();
}

void QelVirtualMachine::clearRegistries() {
  for (QelDictionaryEntry* e = classes_->getFirst(); e; e = e->getNext()) emptyClass(e->getValue());
  for (unsigned int i = 0; i < replacedClasses_.size(); ++i) emptyClass(replacedClasses_[i]);
  symbols_->clear();
  classes_->clear();
  replacedClasses_.clear();
}

void QelVirtualMachine::keepReplacedClass(const QelValue& cls) {
  if (static_cast<QelClass*>(cls)) replacedClasses_.push_back(cls);
}

void QelVirtualMachine::reinit() {
  clearRegistries();
  freeModules();
  qel::forgetDataHandles(this);
  qel::forgetClosedStandardStreams(this);
  QelDefaultFunctions::registerFunctions(this);
}

bool QelVirtualMachine::registerNativeFunction(const QelChar* name, QelNativeFunction fn) {
  if (!name || !name[0] || !fn) return false;
  QelDictionaryEntry& e = (*symbols_)[QelString(name)];
  if (e.getSymbolType() != QST_UNDEFINED) return false;
  e.setValue(QelValue(fn));
  e.setSymbolType(QST_STATIC_FUNCTION);
  return true;
}

bool QelVirtualMachine::registerNativeClass(const QelChar* name, QelClass* cls) {
  if (!name || !name[0] || !cls) return false;
  QelDictionaryEntry& e = (*classes_)[QelString(name)];
  if (e.getSymbolType() != QST_UNDEFINED) return false;
  cls->setClassName(QelString(name));
  cls->setIsNative(true);
  // A class whose members were never laid out gets its slots now, so that no member
  // can answer slot 0, where an object keeps its class.
  if (cls->getDataSize() < 0) cls->fixupDataDefs();
  e.setValue(QelValue(cls, false));
  e.setSymbolType(QST_CLASS);
  return true;
}

void QelVirtualMachine::notifyObjDelete(QelObject* obj) {
  if (!interpreter_ || !obj) return;
  QelClass* cls = obj->getClass();
  if (!cls || !cls->hasDestructor()) return;
  ValPtr& sp = interpreter_->SP;
  int saved = sp.current();
  ++sp;
  *sp = QelValue(obj, true);  // refers to the dying object without owning it
  // A destructor's failure ends the destructor only: its caller goes on.
  QelInterpreter::FailureMark mark = interpreter_->failureMark();
  interpreter_->send(0, u"dtor");
  interpreter_->forgetFailure(mark);
  while (sp.current() > saved) {
    if (QelValue* slot = sp) slot->dispose();
    --sp;
  }
}

bool QelVirtualMachine::execute(const QelChar* name, int argc, const QelChar** argv, bool trace,
                                IQelPrinter* errorPrinter, IQelPrinter* tracePrinter) {
  if (!name) return false;
  QelInterpreter* previous = interpreter_;
  if (!previous) interruptRequested_.store(false, std::memory_order_relaxed);
  qel::HeapTally& heap = qel::tHeapTally;
  int64_t outerLimit = heap.limit;
  heap.limit = static_cast<int64_t>(memoryLimit_ > INT64_MAX ? INT64_MAX : memoryLimit_);
  // The last result goes first: a run stopped by the memory limit leaves what it built there.
  if (!previous) result_ = QelValue();
  heap.over = false;
  QelInterpreter* interp = new QelInterpreter(*this);
  interpreter_ = interp;
  QelDebugger debugger(*this, tracePrinter);
  debugger.setTrace(trace);
  interp->setDebugger(&debugger);
  bool ok = interp->execute(name, argc, argv);
  result_ = interp->SP.at(0);
  if (!ok) (errorPrinter ? *errorPrinter : *printer_)(u"%s", interp->errors().c_str());
  traceback_ = ok ? std::vector<QelTraceFrame>() : interp->traceback();
  interp->setDebugger(nullptr);
  // Values left on the stack may run destructors while it is cleared.
  interp->clear();
  interpreter_ = previous;
  interp->setRefCnt(0);
  delete interp;
  heap.limit = outerLimit;
  heap.over = false;
  return ok;
}

namespace {

bool sameFrame(const QelTraceFrame& a, const QelTraceFrame& b) {
  return a.line == b.line && a.native == b.native && a.name.equals(b.name.c_str()) &&
         a.className.equals(b.className.c_str()) && a.source.equals(b.source.c_str());
}

QelString frameLine(const QelTraceFrame& f) {
  QelString text(u"  at ");
  if (f.className.length() > 0) {
    text += f.className;
    text += u"::";
  }
  text += f.name;
  if (f.line > 0) {
    text += f.source.length() > 0 ? QelString::format(u" (%s:%d)", f.source.c_str(), f.line)
                                  : QelString::format(u" (line %d)", f.line);
  }
  text += u"\n";
  return text;
}

}  // namespace

// Runs of one frame (a function recursing on itself) print once with a count, and a
// deep chain keeps its innermost and outermost lines only.
QelString QelVirtualMachine::lastTraceback() const {
  const size_t kEnds = 20;
  std::vector<QelString> lines;
  for (size_t i = 0; i < traceback_.size();) {
    size_t run = 1;
    while (i + run < traceback_.size() && sameFrame(traceback_[i], traceback_[i + run])) ++run;
    lines.push_back(frameLine(traceback_[i]));
    if (run > 1) lines.push_back(QelString::format(u"  ... the same call %d more times\n", static_cast<int>(run - 1)));
    i += run;
  }
  QelString text;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (lines.size() > 2 * kEnds && i == kEnds) {
      text += QelString::format(u"  ... %d more lines\n", static_cast<int>(lines.size() - 2 * kEnds));
      i = lines.size() - kEnds;
    }
    text += lines[i];
  }
  return text;
}

bool QelVirtualMachine::loadNativeModule(const QelChar* path) {
  if (!path) return false;
  QelString name(path);
  if (modules_->find(name)) return true;
  const QelChar* found = searchPath(path);
  std::string file = qel::toUtf8(found ? found : path);
  void* lib = dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
  if (!lib) return false;
  QelDictionaryEntry& e = (*modules_)[name];
  e.setValue(QelValue(qelHandleFor(lib)));
  // A library without the export stays loaded and recorded; it is freed with the rest.
  void* sym = dlsym(lib, "RegisterNativeModule");
  if (!sym) return false;
  reinterpret_cast<void (*)(QelVirtualMachine*)>(sym)(this);
  return true;
}

void QelVirtualMachine::cloneSymbols(const QelVirtualMachine& other) {
  if (&other == this) return;
  clearRegistries();
  freeModules();
  for (QelDictionaryEntry* e = other.modules_->getFirst(); e; e = e->getNext()) {
    loadNativeModule(e->getKey()->c_str());
  }
  for (QelDictionaryEntry* e = other.symbols_->getFirst(); e; e = e->getNext()) {
    (*symbols_)[*e->getKey()] = *e;
  }
  for (QelDictionaryEntry* e = other.classes_->getFirst(); e; e = e->getNext()) {
    (*classes_)[*e->getKey()] = *e;
  }
}

bool QelVirtualMachine::compileSource(void* fp, const QelChar* text, const QelChar* name, bool showInfo,
                                      bool listing, IQelPrinter* printer, IQelPrinter* listingPrinter) {
  QelCompiler compiler(*this, printer);
  compiler.setShowInfo(showInfo);
  QelDebugger debugger(*this, listingPrinter);
  if (listing) compiler.setDebugger(&debugger);
  return fp ? compiler.compile(fp, name) : compiler.compile(text, name);
}

bool QelVirtualMachine::compileFile(const QelChar* path, bool showInfo, bool listing, IQelPrinter* printer,
                                    IQelPrinter* listingPrinter) {
  if (!path) return false;
  FILE* fp = qel::openFile(path, u"rt");
  if (!fp) {
    (*printer_)(u"error opening file %s\n", path);
    return false;
  }
  // The compiler's scanner closes the stream.
  return compileSource(fp, nullptr, path, showInfo, listing, printer, listingPrinter);
}

bool QelVirtualMachine::compileText(const QelChar* text, bool showInfo, bool listing, IQelPrinter* printer,
                                    IQelPrinter* listingPrinter) {
  if (!text) return false;
  return compileSource(nullptr, text, u"", showInfo, listing, printer, listingPrinter);
}

bool QelVirtualMachine::writeModule(const QelChar* path) {
  if (!path) return false;
  QelDictionaryIO io(*this);
  return io.writeModule(QelString(path));
}

bool QelVirtualMachine::readModule(const QelChar* path) {
  if (!path) return false;
  QelDictionaryIO io(*this);
  return io.readModule(QelString(path));
}

bool QelVirtualMachine::dbgWait() { return dbgWaitProc_ ? dbgWaitProc_() : false; }

bool (*QelVirtualMachine::setDbgWaitProc(bool (*proc)()))() {
  bool (*previous)() = dbgWaitProc_;
  dbgWaitProc_ = proc;
  return previous;
}

// ---- Capabilities ----

namespace {

// The path with ".." and symbolic links resolved, or "" when it does not resolve.
std::string resolvedPath(const std::string& path) {
  char* real = realpath(path.c_str(), nullptr);
  if (!real) return std::string();
  std::string resolved(real);
  free(real);
  return resolved;
}

bool isInside(const std::string& file, const std::string& dir) {
  if (dir == "/") return true;
  return file.size() > dir.size() && file.compare(0, dir.size(), dir) == 0 && file[dir.size()] == '/';
}

}  // namespace

bool QelVirtualMachine::allowModuleDirectory(const QelChar* dir) {
  if (!dir || !dir[0]) return false;
  std::string resolved = resolvedPath(qel::toUtf8(dir));
  if (resolved.empty()) return false;
  moduleDirectories_.push_back(resolved);
  return true;
}

bool QelVirtualMachine::permitsModuleFile(const QelChar* path, QelString& resolved) const {
  if (!path) return false;
  if (permits(QEL_CAP_MODULES)) {
    resolved = QelString(path);
    return true;
  }
  std::string file = resolvedPath(qel::toUtf8(path));
  if (file.empty()) return false;
  for (const std::string& dir : moduleDirectories_) {
    if (isInside(file, dir)) {
      resolved = QelString(file.c_str());
      return true;
    }
  }
  return false;
}
