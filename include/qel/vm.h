// The virtual machine a host embeds.
//
// It owns the registries that outlive a single run: `classes` (class name -> class),
// `symbols` (global functions, native functions and global variables) and `modules`
// (native library name -> handle), the output printer, the script-visible command
// arguments and the result of the last execution.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "qel/capabilities.h"
#include "qel/class.h"
#include "qel/printer.h"

class QelInterpreter;

// One call that was active where an execution failed.
struct QelTraceFrame {
  QelString className;  // the procedure's class; "" for a global function or native
  QelString name;       // the procedure's, method's or native function's name
  QelString source;     // the source the procedure was compiled from; "" when unknown
  int32_t line = 0;     // the line it stood at; 0 when unknown
  bool native = false;  // a native function or method
};

class QEL_API QelVirtualMachine {
 public:
  // A null printer makes the machine discard all messages.
  explicit QelVirtualMachine(IQelPrinter* printer = nullptr);
  ~QelVirtualMachine();
  QelVirtualMachine(const QelVirtualMachine&) = delete;
  QelVirtualMachine& operator=(const QelVirtualMachine&) = delete;

  // Empties the registries, frees the native libraries and registers the built-ins again.
  void reinit();
  // A native function under a new global name; false for a name already in use.
  bool registerNativeFunction(const QelChar* name, QelNativeFunction fn);
  // A native class under a new class name; the machine takes a count on it.
  bool registerNativeClass(const QelChar* name, QelClass* cls);
  // Runs the script destructor of an object being freed while an execution runs.
  void notifyObjDelete(QelObject* obj);
  // Runs the named procedure with string arguments; errors go to errorPrinter (or the
  // machine's printer), the trace to tracePrinter. The top of the stack becomes the result.
  bool execute(const QelChar* name, int argc, const QelChar** argv, bool trace = false,
               IQelPrinter* errorPrinter = nullptr, IQelPrinter* tracePrinter = nullptr);
  // Compiles a source file (opened as text) or a source text into the registries.
  // showInfo prints a line per declaration; listing prints every finished procedure.
  bool compileFile(const QelChar* path, bool showInfo = false, bool listing = false, IQelPrinter* printer = nullptr,
                   IQelPrinter* listingPrinter = nullptr);
  bool compileText(const QelChar* text, bool showInfo = false, bool listing = false, IQelPrinter* printer = nullptr,
                   IQelPrinter* listingPrinter = nullptr);
  // Makes this machine a copy of another: its modules (loaded again), symbols and classes.
  // The copy shares the other machine's procedures, classes and variables, so it must
  // be destroyed (or reinitialized) before the machine it was copied from.
  void cloneSymbols(const QelVirtualMachine& other);
  // Loads a native library and calls its "RegisterNativeModule" with this machine.
  bool loadNativeModule(const QelChar* path);
  // Writes the classes and symbols to a module file, or reads one into this machine
  // (QelDictionaryIO); false for a null path or a failed transfer.
  bool writeModule(const QelChar* path);
  bool readModule(const QelChar* path);
  // Keeps a class that a module read has replaced in `classes`: its objects and running
  // code may still use it. It is emptied with the registries, as registered classes are.
  void keepReplacedClass(const QelValue& cls);
  // Limits on this machine's executions, each 0 for none (the default). A run that
  // passes one fails as any runtime error does: the stack unwinds, dying objects' destructors
  // run, and the machine runs the next execution normally.
  // - At most this many instructions per execution: "instruction limit exceeded".
  void setInstructionLimit(uint64_t instructions) { instructionLimit_ = instructions; }
  uint64_t getInstructionLimit() const { return instructionLimit_; }
  // - At most this many bytes of script-visible heap objects (strings, vectors, buffers,
  //   dictionaries, objects and their storage) alive on the thread that runs the machine:
  //   "out of memory".
  void setMemoryLimit(size_t bytes) { memoryLimit_ = bytes; }
  size_t getMemoryLimit() const { return memoryLimit_; }
  // - Script calls nest at most this deep (default 2000; at least 1): "stack overflow".
  void setMaxCallDepth(int depth) { maxCallDepth_ = depth < 1 ? 1 : depth; }
  int getMaxCallDepth() const { return maxCallDepth_; }
  // Stops the running execution at its next instruction with "interrupted". Safe to call
  // from another thread or a signal handler; a request made while nothing runs is dropped
  // when the next execution starts.
  void interrupt() { interruptRequested_.store(true, std::memory_order_relaxed); }
  std::atomic<bool>& interruptFlag() { return interruptRequested_; }

  // Capability groups (QEL_CAP_FILES, ... in qel/capabilities.h): all granted by default;
  // `reinit` keeps them. withhold and grant take a set of groups.
  void withhold(unsigned groups) { capabilities_ &= ~groups; }
  void grant(unsigned groups) { capabilities_ |= groups & QEL_CAP_ALL; }
  unsigned capabilities() const { return capabilities_; }
  bool permits(unsigned group) const { return (capabilities_ & group) == group; }
  // A directory whose source and module files scripts may read even while QEL_CAP_MODULES
  // is withheld: the directory and the files are compared once ".." and symbolic links are
  // resolved. False when the directory does not resolve.
  bool allowModuleDirectory(const QelChar* dir);
  void clearModuleDirectories() { moduleDirectories_.clear(); }
  // Whether a script may read the source or module file `path`; `resolved` is then the
  // path to open (the path itself while the group is granted, else its resolved form).
  bool permitsModuleFile(const QelChar* path, QelString& resolved) const;

  // Asks the host's wait procedure whether single-stepping goes on; false without one.
  bool dbgWait();
  bool (*setDbgWaitProc(bool (*proc)()))();

  int& cmdargc() { return cmdargc_; }
  const QelChar**& cmdargv() { return cmdargv_; }
  QelDictionary& classes() { return *classes_; }
  QelDictionary& symbols() { return *symbols_; }
  QelDictionary& modules() { return *modules_; }
  IQelPrinter& printer() { return *printer_; }
  QelInterpreter* interpreter() { return interpreter_; }
  const QelValue& getResult() const { return result_; }
  // Where the last execution failed: the calls that were active, innermost first;
  // empty after a run that succeeded. As text, one frame a line:
  // "  at Counter::add (counter.qel:12)", just the name where no line is known.
  const std::vector<QelTraceFrame>& lastTraceFrames() const { return traceback_; }
  QelString lastTraceback() const;

 private:
  void freeModules();
  void emptyClass(const QelValue& cls);
  void clearRegistries();
  bool compileSource(void* fp, const QelChar* text, const QelChar* name, bool showInfo, bool listing,
                     IQelPrinter* printer, IQelPrinter* listingPrinter);

  QelDictionary* classes_;
  QelDictionary* symbols_;
  QelDictionary* modules_;
  IQelPrinter* printer_;
  QelInterpreter* interpreter_;
  bool ownsPrinter_;
  QelValue result_;
  std::vector<QelTraceFrame> traceback_;
  QelVector replacedClasses_;
  int cmdargc_;
  const QelChar** cmdargv_;
  bool (*dbgWaitProc_)();
  uint64_t instructionLimit_ = 0;
  size_t memoryLimit_ = 0;
  int maxCallDepth_;
  std::atomic<bool> interruptRequested_{false};
  unsigned capabilities_ = QEL_CAP_ALL;
  std::vector<std::string> moduleDirectories_;  // resolved, UTF-8
};
