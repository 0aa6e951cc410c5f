#include "harness.h"

#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <utility>

namespace qelfuzz {
namespace {

// ---- Process-wide state, made on first use ----

struct Process {
  std::string dir;
  std::string paths[4];
  FILE* nullIn = nullptr;
  FILE* nullOut = nullptr;
  FILE* nullErr = nullptr;
  // Streams the sandboxed "fopen" handed out and that are still open.
  std::set<FILE*> opened;
};

void removeScratch();

Process& process() {
  static Process* p = [] {
    Process* q = new Process;
    // Console reads (gets, getc(stdin), ...) must never wait for a terminal.
    if (!freopen("/dev/null", "r", stdin)) abort();
    const char* tmp = getenv("TMPDIR");
    std::string pattern = std::string(tmp && *tmp ? tmp : "/tmp") + "/qel-fuzz-XXXXXX";
    if (!mkdtemp(&pattern[0])) abort();
    q->dir = pattern;
    for (int i = 0; i < 4; ++i) q->paths[i] = q->dir + "/scratch" + std::to_string(i);
    q->nullIn = fopen("/dev/null", "r");
    q->nullOut = fopen("/dev/null", "w");
    q->nullErr = fopen("/dev/null", "w");
    if (!q->nullIn || !q->nullOut || !q->nullErr) abort();
    atexit(removeScratch);
    return q;
  }();
  return *p;
}

void removeScratch() {
  Process& p = process();
  for (const std::string& path : p.paths) unlink(path.c_str());
  rmdir(p.dir.c_str());
}

bool isStandardStream(FILE* fp) {
  Process& p = process();
  return fp == p.nullIn || fp == p.nullOut || fp == p.nullErr;
}

FILE* streamOf(const QelValue& v) { return static_cast<FILE*>(static_cast<void*>(v)); }

// Replaces argument 1 (a string) by the scratch file's path before calling `real`.
bool withScratchPath(QelNativeFunction real, QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (nargs >= 1 && call.string(1)) {
    args[1 - nargs] = QelValue(new QelString(process().paths[0].c_str()));
  }
  return real(vm, nargs, args);
}

bool sandboxedFopen(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!withScratchPath(QelDefaultFunctions::Qel_fopen, vm, nargs, args)) return false;
  // The result now stands where the cursor is.
  if (FILE* fp = streamOf(*args)) process().opened.insert(fp);
  return true;
}

bool sandboxedLoadmodule(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return withScratchPath(QelDefaultFunctions::Qel_loadmodule, vm, nargs, args);
}

bool sandboxedFclose(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  FILE* fp = nargs == 1 ? streamOf(call[1]) : nullptr;
  if (fp && isStandardStream(fp)) return call.result(QelValue(int32_t(EOF)));
  if (fp) process().opened.erase(fp);
  return QelDefaultFunctions::Qel_fclose(vm, nargs, args);
}

// The compiler closes a stream it reads that is not a script's own: the /dev/null
// streams in place of the standard ones must stay open.
bool sandboxedCompile(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (nargs >= 1 && isStandardStream(streamOf(call[1]))) return call.result(QelValue(int32_t(0)));
  return QelDefaultFunctions::Qel_compile(vm, nargs, args);
}

void replace(QelVirtualMachine& vm, const QelChar* name, const QelValue& value) {
  QelDictionaryEntry* e = vm.symbols().find(name);
  if (e) e->setValue(value);
}

}  // namespace

int BoundedPrinter::operator()(const QelChar* fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  QelString piece = QelString::vformat(fmt, ap);
  va_end(ap);
  size_t length = piece.length();
  if (text_.size() + length > kKeep) text_.clear();
  if (length <= kKeep) text_.append(piece.c_str(), length);
  return static_cast<int>(length);
}

std::u16string toText(const uint8_t* data, size_t size) {
  const char* bytes = reinterpret_cast<const char*>(data);
  std::u16string text(qelUtf8ToUtf16(bytes, size, nullptr, 0), u'\0');
  qelUtf8ToUtf16(bytes, size, &text[0], text.size());
  // The engine's texts end at their first NUL.
  size_t nul = text.find(u'\0');
  if (nul != std::u16string::npos) text.resize(nul);
  return text;
}

void sandbox(QelVirtualMachine& vm) {
  Process& p = process();
  replace(vm, u"stdin", QelValue(static_cast<void*>(p.nullIn)));
  replace(vm, u"stdout", QelValue(static_cast<void*>(p.nullOut)));
  replace(vm, u"stderr", QelValue(static_cast<void*>(p.nullErr)));
  replace(vm, u"fopen", QelValue(&sandboxedFopen));
  replace(vm, u"fclose", QelValue(&sandboxedFclose));
  replace(vm, u"loadmodule", QelValue(&sandboxedLoadmodule));
  replace(vm, u"compile", QelValue(&sandboxedCompile));
  // Native code, the environment, and source and module files other than the scratch
  // files are the machine's to refuse.
  vm.withhold(QEL_CAP_NATIVE | QEL_CAP_ENV | QEL_CAP_MODULES);
  if (!vm.allowModuleDirectory(QelString(p.dir.c_str()).c_str())) abort();
}

// Closed as a script closes them, so the engine can take the streams again.
void closeScriptStreams() {
  Process& p = process();
  for (FILE* fp : p.opened) {
    QelVector stack;
    stack.push_back(QelValue());
    stack.push_back(QelValue(static_cast<void*>(fp)));
    ValPtr args(&stack, 1);
    QelDefaultFunctions::Qel_fclose(nullptr, 1, args);
  }
  p.opened.clear();
}

const std::string& writeScratch(int which, const uint8_t* data, size_t size) {
  const std::string& path = process().paths[which];
  FILE* fp = fopen(path.c_str(), "wb");
  if (!fp) abort();
  if (size && fwrite(data, 1, size, fp) != size) abort();
  fclose(fp);
  return path;
}

void limitInstructions(QelVirtualMachine& vm) {
  vm.setInstructionLimit(kInstructionBudget);
  vm.setMemoryLimit(kMemoryBudget);
}

bool runMain(QelVirtualMachine& vm, IQelPrinter& printer) {
  limitInstructions(vm);
  return vm.execute(u"main", 0, nullptr, false, &printer, &printer);
}

}  // namespace qelfuzz
