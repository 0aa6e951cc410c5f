// The interactive prompt.
//
// Each entry is either top-level items (classes, functions, member functions,
// preprocessor lines), compiled into the machine, or statements, compiled as the body of
// a temporary procedure and run at once. An entry that reads as one expression (with or
// without its closing ';') shows its value unless it is nil. Names an entry assigns are
// globals, so they persist. Lines are read with libedit: editing, and a history kept in
// ~/.qel_history.
#include "prompt.h"

#include <histedit.h>
#include <locale.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "entry.h"
#include "host.h"

namespace qelcli {

namespace {

// The procedure an entry's statements are compiled into: its name in the symbols (no
// script can name it) and in a traceback.
const QelChar kEntryProcedure[] = u"<prompt>";

const QelChar kSourceName[] = u"<stdin>";

const char* g_promptText = "qel> ";

char* promptText(EditLine*) { return const_cast<char*>(g_promptText); }

// One byte of the terminal's input; 0 at its end, -1 on an error or a Ctrl-C (which
// makes el_gets give up the line).
int readByte(unsigned char& b) {
  for (;;) {
    ssize_t n = ::read(STDIN_FILENO, &b, 1);
    if (n == 1) return 1;
    if (n == 0) return 0;
    if (errno != EINTR || interruptPending()) return -1;
  }
}

// libedit's character reader: one UTF-8 sequence of the terminal's input.
int readCharacter(EditLine*, wchar_t* c) {
  unsigned char b;
  int got = readByte(b);
  if (got != 1) return got;
  int more = b < 0x80 ? 0 : b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : 0;
  uint32_t code = more == 0 ? b : b & (0x3F >> more);
  for (int i = 0; i < more; ++i) {
    got = readByte(b);
    if (got != 1) return got;
    code = (code << 6) | (b & 0x3F);
  }
  *c = static_cast<wchar_t>(code);
  return 1;
}

// The editor reads and shows UTF-8 text, and learns so from the process's character
// locale; the engine's own runs keep the locale the process had (its case folding
// depends on it). The prompt runs on one thread, so the switch is safe.
class EditorCharacters {
 public:
  EditorCharacters() {
    const char* current = setlocale(LC_CTYPE, nullptr);
    saved_ = current ? current : "C";
    setlocale(LC_CTYPE, "C.UTF-8");
  }
  ~EditorCharacters() { setlocale(LC_CTYPE, saved_.c_str()); }

 private:
  std::string saved_;
};

// Line editing and history through libedit.
class LineEditor {
 public:
  enum Outcome { kLine, kInterrupted, kEnd };

  LineEditor() {
    EditorCharacters utf8;  // the editor learns its character set here
    el_ = el_init("qel", stdin, stdout, stderr);
    history_ = history_init();
    HistEvent ev;
    history(history_, &ev, H_SETSIZE, 1000);
    history(history_, &ev, H_SETUNIQUE, 1);
    if (const char* home = getenv("HOME")) {
      historyFile_ = std::string(home) + "/.qel_history";
      history(history_, &ev, H_LOAD, historyFile_.c_str());
    }
    el_set(el_, EL_EDITOR, "emacs");
    el_set(el_, EL_PROMPT, promptText);
    el_set(el_, EL_GETCFN, readCharacter);
    el_set(el_, EL_HIST, history, history_);
    el_source(el_, nullptr);  // the user's ~/.editrc
  }
  ~LineEditor() {
    HistEvent ev;
    if (!historyFile_.empty()) history(history_, &ev, H_SAVE, historyFile_.c_str());
    history_end(history_);
    el_end(el_);
  }

  Outcome read(bool continuation, std::string& line) {
    g_promptText = continuation ? "...> " : "qel> ";
    int count = 0;
    errno = 0;
    const char* text;
    {
      EditorCharacters utf8;
      text = el_gets(el_, &count);
    }
    if (takeInterrupt()) return kInterrupted;
    if (!text || count <= 0) return errno == EINTR ? kInterrupted : kEnd;
    line.assign(text, static_cast<size_t>(count));
    return kLine;
  }

  void remember(std::string entry) {
    while (!entry.empty() && (entry.back() == '\n' || entry.back() == '\r')) entry.pop_back();
    HistEvent ev;
    history(history_, &ev, H_ENTER, entry.c_str());
  }

 private:
  EditLine* el_;
  History* history_;
  std::string historyFile_;
};

// A value as the prompt shows it: numbers as print writes them, strings in quotes.
void showValue(const QelValue& v, IQelPrinter& out) {
  switch (v.getType()) {
    case QVT_NULL:
      return;
    case QVT_INTEGER:
      out(u"%ld\n", v.toLong());
      return;
    case QVT_FLOAT:
    case QVT_DOUBLE:
      out(u"%f\n", v.toDouble());
      return;
    case QVT_STRING:
    case QVT_STRINGREF: {
      QelString* s = v;
      out(u"\"%s\"\n", s ? s->c_str() : u"");
      return;
    }
    default:
      out(u"(%s:%p)\n", getValueTypeName(v.getType()), v.ptr());
      return;
  }
}

class Session {
 public:
  Session(QelVirtualMachine& vm, IQelPrinter& out, IQelPrinter& err) : vm_(vm), out_(out), err_(err) {}

  void evaluate(const std::string& entry) {
    if (declaresItems(entry)) {
      compile(entry, err_);
      return;
    }
    std::string expression = withoutClosingSemicolon(entry);
    if (expression.empty()) return;
    QelStringPrinter quiet;
    if (compileProcedure("return (" + expression + ");", quiet)) {
      if (run()) showValue(vm_.getResult(), out_);
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
    LineEditor editor;
    Session session(vm, out, err);
    std::string entry, line;
    for (;;) {
      fflush(stdout);
      LineEditor::Outcome got = editor.read(!entry.empty(), line);
      if (got == LineEditor::kEnd) break;
      if (got == LineEditor::kInterrupted) {
        // Ctrl-C abandons the entry being typed.
        entry.clear();
        fputs("\n", stdout);
        continue;
      }
      entry += line;
      if (entryIsOpen(entry)) continue;
      if (!isBlank(entry)) {
        editor.remember(entry);
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
