// The interactive prompt.
//
// Each entry is either top-level items (classes, functions, member functions,
// preprocessor lines), compiled into the machine, or statements, compiled as the body of
// a temporary procedure and run at once. An entry that reads as one expression (with or
// without its closing ';') shows its value unless it is nil. Names an entry assigns are
// globals, so they persist.
#include "prompt.h"

#include <cstdio>
#include <string>

#include "display.h"
#include "entry.h"
#include "host.h"
#include "line_reader.h"

namespace qelcli {

namespace {

// The procedure an entry's statements are compiled into: its name in the symbols (no
// script can name it) and in a traceback.
const QelChar kEntryProcedure[] = u"<prompt>";

const QelChar kSourceName[] = u"<stdin>";

// A value is shown from inside a run of the machine, so that an object's toString can
// run: the native "<show>" (no script can name it) formats the value waiting here.
const QelChar kShowProcedure[] = u"<show>";
struct PendingShow {
  QelValue value;
  QelString text;
};
PendingShow* g_pending = nullptr;

bool showPending(QelVirtualMachine* vm, int, ValPtr&) {
  if (g_pending) g_pending->text = ValueDisplay(*vm).show(g_pending->value);
  return true;
}

class Session {
 public:
  Session(QelVirtualMachine& vm, IQelPrinter& out, IQelPrinter& err) : vm_(vm), out_(out), err_(err) {
    vm_.registerNativeFunction(kShowProcedure, showPending);
  }

  void evaluate(const std::string& entry) {
    if (declaresItems(entry)) {
      compile(entry, err_);
      return;
    }
    std::string expression = withoutClosingSemicolon(entry);
    if (expression.empty()) return;
    QelStringPrinter quiet;
    if (compileProcedure("return (" + expression + ");", quiet)) {
      if (run()) show(vm_.getResult());
    } else if (compileProcedure(entry, err_)) {
      run();
    }
    vm_.symbols().erase(QelString(kEntryProcedure));
  }

 private:
  bool compile(const std::string& text, IQelPrinter& report) {
    QelCompiler compiler(vm_, &report);
    return compiler.compile(QelString(text.c_str()).c_str(), kSourceName);
  }

  // The entry's statements as the temporary procedure; its first line is line 1.
  bool compileProcedure(const std::string& body, IQelPrinter& report) {
    QelCompiler compiler(vm_, &report);
    QelVector* proc = compiler.compileStatements(QelString(body.c_str()).c_str(), kSourceName, kEntryProcedure);
    if (!proc) return false;
    QelDictionaryEntry& e = vm_.symbols()[QelString(kEntryProcedure)];
    e.setValue(QelValue(proc, true, false));
    e.setSymbolType(QST_STATIC_FUNCTION);
    return true;
  }

  // The value of an expression entry; nil shows nothing.
  void show(const QelValue& result) {
    if (result.getType() == QVT_NULL) return;
    PendingShow pending{result, QelString()};
    g_pending = &pending;
    vm_.execute(kShowProcedure, 0, nullptr, false, &err_, &err_);
    g_pending = nullptr;
    out_(u"%s\n", pending.text.c_str());
  }

  bool run() {
    bool ok = runProcedure(vm_, kEntryProcedure, 0, nullptr, false, err_);
    fflush(stdout);
    return ok;
  }

  QelVirtualMachine& vm_;
  IQelPrinter& out_;
  IQelPrinter& err_;
};

bool isBlank(const std::string& text) { return text.find_first_not_of(" \t\r\n") == std::string::npos; }

}  // namespace

int runPrompt(QelVirtualMachine& vm, IQelPrinter& out, IQelPrinter& err) {
  printf("Qel %s  (Ctrl-D leaves)\n", QEL_VERSION);
  watchInterrupts(vm);
  {
    std::unique_ptr<LineReader> editor = makeLineReader();
    Session session(vm, out, err);
    std::string entry, line;
    for (;;) {
      fflush(stdout);
      LineReader::Outcome got = editor->read(!entry.empty(), line);
      if (got == LineReader::kEnd) break;
      if (got == LineReader::kInterrupted) {
        // Ctrl-C abandons the entry being typed.
        entry.clear();
        fputs("\n", stdout);
        continue;
      }
      entry += line;
      if (entryIsOpen(entry)) continue;
      if (!isBlank(entry)) {
        editor->remember(entry);
        session.evaluate(entry);
        takeInterrupt();  // a Ctrl-C that stopped the entry is dealt with
      }
      entry.clear();
    }
  }
  stopWatching();
  fputs("\n", stdout);
  return 0;
}

}  // namespace qelcli
