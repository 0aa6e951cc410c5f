// The prompt's line editor: libedit, with emacs keys, the user's ~/.editrc and a history
// kept in ~/.qel_history.
#include <histedit.h>
#include <locale.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>

#include "host.h"
#include "line_reader.h"

namespace qelcli {

namespace {

const char* g_promptText = "qel> ";

char* promptText(EditLine*) { return const_cast<char*>(g_promptText); }

// libedit's character reader: one UTF-8 sequence of the terminal's input.
int readCharacter(EditLine*, wchar_t* c) {
  unsigned char b;
  int got = readTerminalByte(b);
  if (got != 1) return got;
  int more = b < 0x80 ? 0 : b >= 0xF0 ? 3 : b >= 0xE0 ? 2 : b >= 0xC0 ? 1 : 0;
  uint32_t code = more == 0 ? b : b & (0x3F >> more);
  for (int i = 0; i < more; ++i) {
    got = readTerminalByte(b);
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
class LineEditor : public LineReader {
 public:
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
  ~LineEditor() override {
    HistEvent ev;
    if (!historyFile_.empty()) history(history_, &ev, H_SAVE, historyFile_.c_str());
    history_end(history_);
    el_end(el_);
  }

  Outcome read(bool continuation, std::string& line) override {
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

  void remember(const std::string& text) override {
    std::string entry = text;
    while (!entry.empty() && (entry.back() == '\n' || entry.back() == '\r')) entry.pop_back();
    HistEvent ev;
    history(history_, &ev, H_ENTER, entry.c_str());
  }

 private:
  EditLine* el_;
  History* history_;
  std::string historyFile_;
};

}  // namespace

std::unique_ptr<LineReader> makeLineEditor() { return std::unique_ptr<LineReader>(new LineEditor()); }

}  // namespace qelcli
