// qel: compiles a script (or reads a module file) and runs one of its procedures.
//
//   qel [options] FILE [ARG...]
//   qel [options] - [ARG...]       the script from standard input
//   qel [options]                  the interactive prompt (standard input a terminal)
//
// The procedure ("main" unless -e names another) receives the ARGs as strings; the
// scripts' command arguments are FILE followed by the ARGs. A FILE ending in ".qem" is
// a module file and is read instead of compiled; -m reads module files first; -c writes
// the machine's module file instead of running. Standard output gets what scripts
// print, the listing and the module reader's messages; standard error gets compiler
// reports, show-info lines, runtime errors and the trace. Ctrl-C (SIGINT) stops a
// running script: "interrupted" on standard error and exit status 130.
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "host.h"
#include "line_reader.h"
#include "prompt.h"
#include "qel.h"

using namespace qelcli;

namespace {

const char kUsage[] =
    "usage: qel [options] FILE [ARG...]\n"
    "       qel [options] - [ARG...]\n"
    "       qel [options]\n"
    "Compiles FILE and runs its procedure main with the ARGs as string arguments.\n"
    "A FILE ending in .qem is a module file: it is read instead of compiled; FILE -\n"
    "is the script on standard input. Without FILE, on a terminal, qel starts a\n"
    "prompt: type definitions, statements and expressions, Ctrl-D to leave.\n"
    "\n"
    "options:\n"
    "  -c OUT      compile FILE and write the module file OUT instead of running\n"
    "  -m MODULE   read the module file MODULE before FILE (repeatable, in order)\n"
    "  -e NAME     run the procedure NAME instead of main\n"
    "  -i          print a line per declared class and function (standard error)\n"
    "  -l          print the listing of every compiled procedure (standard output)\n"
    "  -t          trace every executed instruction (standard error)\n"
    "  --check     compile FILE (or read the module file) and report; run nothing\n"
    "  --max-instructions N\n"
    "              stop the run after N instructions (runtime error)\n"
    "  --max-memory BYTES\n"
    "              stop the run when its heap objects pass BYTES (suffix K, M or G)\n"
    "  --deny WORD[,WORD...]\n"
    "              withhold capability groups from the script: files, input, env,\n"
    "              native, modules, compile (repeatable)\n"
    "  --sandbox   withhold all six: the script can compute and print, nothing else\n"
    "  --allow-modules DIR\n"
    "              with modules withheld, still let the script read source and module\n"
    "              files under DIR (repeatable)\n"
    "  -h, --help  show this help\n"
    "  --version   show the version\n"
    "  --          end of options\n"
    "\n"
    "exit status: the procedure's integer result (0-255), 0 when it returns no integer;\n"
    "64 bad usage, 65 compile errors or a malformed module, 66 FILE or a module cannot be\n"
    "opened, 70 runtime error, 73 OUT cannot be written, 130 interrupted (Ctrl-C).\n";

struct Options {
  std::string entry = "main";
  std::string output;
  std::vector<std::string> modules;
  bool showInfo = false;
  bool listing = false;
  bool trace = false;
  bool check = false;
  uint64_t maxInstructions = 0;
  uint64_t maxMemory = 0;
  unsigned withheld = 0;  // capability groups
  std::vector<std::string> moduleDirectories;
  std::string file;
  std::vector<std::string> args;
};

int usageError(const std::string& message) {
  fprintf(stderr, "qel: %s\n", message.c_str());
  fputs("usage: qel [options] [FILE|-] [ARG...]   (qel --help for more)\n", stderr);
  return kExitUsage;
}

// A count with an optional K, M or G suffix (powers of 1024 when `suffixes`); false
// for anything else.
bool parseCount(const char* text, bool suffixes, uint64_t& value) {
  if (*text < '0' || *text > '9') return false;
  errno = 0;
  char* end = nullptr;
  unsigned long long n = strtoull(text, &end, 10);
  if (errno == ERANGE) return false;
  unsigned shift = 0;
  if (suffixes && *end) {
    switch (*end++) {
      case 'K': case 'k': shift = 10; break;
      case 'M': case 'm': shift = 20; break;
      case 'G': case 'g': shift = 30; break;
      default: return false;
    }
  }
  if (*end || (shift && n > (UINT64_MAX >> shift))) return false;
  value = static_cast<uint64_t>(n) << shift;
  return true;
}

// The capability groups a --deny list names; false for an unknown word.
bool parseGroups(const std::string& list, unsigned& groups) {
  static const struct {
    const char* word;
    unsigned group;
  } kGroups[] = {{"files", QEL_CAP_FILES},   {"input", QEL_CAP_INPUT},     {"env", QEL_CAP_ENV},
                 {"native", QEL_CAP_NATIVE}, {"modules", QEL_CAP_MODULES}, {"compile", QEL_CAP_COMPILE}};
  size_t start = 0;
  for (;;) {
    size_t end = list.find(',', start);
    std::string word = list.substr(start, end == std::string::npos ? std::string::npos : end - start);
    bool known = false;
    for (const auto& g : kGroups) {
      if (word == g.word) {
        groups |= g.group;
        known = true;
      }
    }
    if (!known) return false;
    if (end == std::string::npos) return true;
    start = end + 1;
  }
}

// Answers -1 when the options are complete, else the exit status to end with.
int parseOptions(int argc, char** argv, Options& opt) {
  int i = 1;
  for (; i < argc; ++i) {
    std::string a = argv[i];
    if (a == "--") {
      ++i;
      break;
    }
    if (a.size() < 2 || a[0] != '-') break;
    if (a == "-h" || a == "--help") {
      fputs(kUsage, stdout);
      return 0;
    }
    if (a == "--version") {
      printf("qel %s\nline editing: %s\n", QEL_VERSION, qelcli::lineEditing());
      return 0;
    }
    if (a == "-e") {
      if (i + 1 >= argc) return usageError("option -e needs a procedure name");
      opt.entry = argv[++i];
    } else if (a == "-c") {
      if (i + 1 >= argc) return usageError("option -c needs an output file");
      opt.output = argv[++i];
    } else if (a == "-m") {
      if (i + 1 >= argc) return usageError("option -m needs a module file");
      opt.modules.emplace_back(argv[++i]);
    } else if (a == "-i") {
      opt.showInfo = true;
    } else if (a == "-l") {
      opt.listing = true;
    } else if (a == "-t") {
      opt.trace = true;
    } else if (a == "--check") {
      opt.check = true;
    } else if (a == "--deny") {
      if (i + 1 >= argc || !parseGroups(argv[i + 1], opt.withheld)) {
        return usageError("option --deny needs a list of files, input, env, native, modules, compile");
      }
      ++i;
    } else if (a == "--sandbox") {
      opt.withheld = QEL_CAP_ALL;
    } else if (a == "--allow-modules") {
      if (i + 1 >= argc) return usageError("option --allow-modules needs a directory");
      opt.moduleDirectories.emplace_back(argv[++i]);
    } else if (a == "--max-instructions" || a == "--max-memory") {
      bool memory = a == "--max-memory";
      if (i + 1 >= argc || !parseCount(argv[i + 1], memory, memory ? opt.maxMemory : opt.maxInstructions)) {
        return usageError("option " + a + (memory ? " needs a byte count (suffix K, M or G)" : " needs a count"));
      }
      ++i;
    } else {
      return usageError("unknown option " + a);
    }
  }
  if (i >= argc) {
    if (isatty(STDIN_FILENO)) return -1;  // the prompt
    return usageError("no script file given (qel - reads the script from standard input)");
  }
  opt.file = argv[i++];
  for (; i < argc; ++i) opt.args.emplace_back(argv[i]);
  return -1;
}

// Statuses of a finished run: the integer result masked to 0-255, or 0.
int exitStatusOf(const QelValue& result) {
  if (result.getType() != QVT_INTEGER) return 0;
  return result.toLong() & 0xFF;
}

bool canOpen(const std::string& file) {
  FILE* probe = fopen(file.c_str(), "r");
  if (!probe) return false;
  fclose(probe);
  return true;
}

bool endsWith(const std::string& text, const std::string& tail) {
  return text.size() >= tail.size() && text.compare(text.size() - tail.size(), tail.size(), tail) == 0;
}

// Reads a module file into the machine; answers -1, or the exit status to end with.
int readModuleFile(QelVirtualMachine& vm, const std::string& file) {
  if (!canOpen(file)) {
    fprintf(stderr, "qel: cannot open %s\n", file.c_str());
    return kExitNoInput;
  }
  if (!vm.readModule(QelString(file.c_str()).c_str())) {
    fflush(stdout);
    fprintf(stderr, "qel: cannot read module %s\n", file.c_str());
    return kExitCompile;
  }
  return -1;
}

// Compiles the script on standard input, under the name "<stdin>", as a file is compiled
// (one byte per character). The compiler closes the stream it reads: it gets a copy, so
// that scripts still find standard input open (at its end).
bool compileStandardInput(QelVirtualMachine& vm, const Options& opt, IQelPrinter& out, IQelPrinter& err) {
  int copy = dup(STDIN_FILENO);
  FILE* in = copy >= 0 ? fdopen(copy, "r") : nullptr;
  if (!in) {
    if (copy >= 0) close(copy);
    fprintf(stderr, "qel: cannot read standard input\n");
    return false;
  }
  QelCompiler compiler(vm, &err);
  compiler.setShowInfo(opt.showInfo);
  QelDebugger listing(vm, &out);
  if (opt.listing) compiler.setDebugger(&listing);
  return compiler.compile(in, u"<stdin>");
}

}  // namespace

int main(int argc, char** argv) {
  Options opt;
  int early = parseOptions(argc, argv, opt);
  if (early >= 0) return early;
  bool prompt = opt.file.empty();
  bool standardInput = opt.file == "-";
  if (prompt && (opt.check || !opt.output.empty())) return usageError("--check and -c need a script file");

  if (!prompt && !standardInput && !canOpen(opt.file)) {
    fprintf(stderr, "qel: cannot open %s\n", opt.file.c_str());
    return kExitNoInput;
  }

  QelFileStreamPrinter out(stdout, false);
  QelFileStreamPrinter err(stderr, false);
  QelVirtualMachine vm(&out);

  std::vector<QelString> texts;
  texts.reserve(opt.args.size() + 1);
  texts.emplace_back(prompt ? "qel" : opt.file.c_str());
  for (const std::string& a : opt.args) texts.emplace_back(a.c_str());
  std::vector<const QelChar*> argvText;
  for (const QelString& t : texts) argvText.push_back(t.c_str());
  vm.cmdargc() = static_cast<int>(argvText.size());
  vm.cmdargv() = argvText.data();
  vm.setInstructionLimit(opt.maxInstructions);
  vm.setMemoryLimit(static_cast<size_t>(opt.maxMemory));
  // The script's powers; FILE and the -m modules are read by qel itself, as the host.
  vm.withhold(opt.withheld);
  for (const std::string& dir : opt.moduleDirectories) {
    if (!vm.allowModuleDirectory(QelString(dir.c_str()).c_str())) {
      fprintf(stderr, "qel: cannot find directory %s\n", dir.c_str());
      return kExitNoInput;
    }
  }

  for (const std::string& module : opt.modules) {
    int status = readModuleFile(vm, module);
    if (status >= 0) return status;
  }
  if (prompt) return runPrompt(vm, out, err);
  bool compiled = true;
  if (standardInput) {
    compiled = compileStandardInput(vm, opt, out, err);
  } else if (endsWith(opt.file, ".qem")) {
    int status = readModuleFile(vm, opt.file);
    if (status >= 0) return status;
  } else {
    compiled = vm.compileFile(texts[0].c_str(), opt.showInfo, opt.listing, &err, &out);
  }
  fflush(stdout);
  if (!compiled) return kExitCompile;
  if (opt.check) return 0;
  if (!opt.output.empty()) {
    bool written = vm.writeModule(QelString(opt.output.c_str()).c_str());
    fflush(stdout);
    if (written) return 0;
    fprintf(stderr, "qel: cannot write %s\n", opt.output.c_str());
    return kExitCannotCreate;
  }
  QelString entry(opt.entry.c_str());
  if (!vm.symbols().find(entry)) {
    fprintf(stderr, "qel: no procedure named %s\n", opt.entry.c_str());
    return kExitRuntime;
  }
  watchInterrupts(vm);
  const QelChar** procArgs = argvText.size() > 1 ? argvText.data() + 1 : nullptr;
  bool ok = runProcedure(vm, entry.c_str(), static_cast<int>(argvText.size()) - 1, procArgs, opt.trace, err);
  stopWatching();
  fflush(stdout);
  if (!ok) return takeInterrupt() ? kExitInterrupted : kExitRuntime;
  return exitStatusOf(vm.getResult());
}
