// Reading prompt entries the way the scanner reads source.
#include "entry.h"

#include <cctype>
#include <vector>

namespace qelcli {

namespace {

// One significant piece of an entry: an identifier, or one punctuation character.
struct Piece {
  std::string text;
  bool identifier;
};

bool isIdStart(char c) { return std::isalpha(static_cast<unsigned char>(c)) || c == '_'; }
bool isIdChar(char c) { return isIdStart(c) || std::isdigit(static_cast<unsigned char>(c)); }

// Walks an entry, skipping white space, comments and literals; `open` tells whether it
// ended inside a string, character literal or block comment.
class Reader {
 public:
  explicit Reader(const std::string& text) : s_(text) {}

  std::vector<Piece> pieces() {
    std::vector<Piece> out;
    while (i_ < s_.size()) {
      char c = s_[i_];
      if (std::isspace(static_cast<unsigned char>(c))) {
        ++i_;
      } else if (startsLineComment()) {
        while (i_ < s_.size() && s_[i_] != '\n') ++i_;
      } else if (c == '/' && next() == '*') {
        size_t end = s_.find("*/", i_ + 2);
        if (end == std::string::npos) return open(out);
        i_ = end + 2;
      } else if (c == '"' || c == '\'') {
        if (!skipQuoted(c)) return open(out);
        out.push_back({std::string(1, c), false});  // a literal counts as a piece
        end_ = i_;
      } else if (isIdStart(c)) {
        size_t start = i_;
        while (i_ < s_.size() && isIdChar(s_[i_])) ++i_;
        out.push_back({s_.substr(start, i_ - start), true});
        end_ = i_;
      } else {
        out.push_back({std::string(1, c), false});
        end_ = ++i_;
      }
    }
    return out;
  }
  bool isOpen() const { return open_; }
  // Where the last significant piece ends.
  size_t end() const { return end_; }

 private:
  char next() const { return i_ + 1 < s_.size() ? s_[i_ + 1] : '\0'; }
  bool startsLineComment() const {
    char c = s_[i_];
    return (c == '/' && next() == '/') || c == '@' || (c == '#' && next() == '!');
  }
  // Past a string or character literal (strings may span lines); false when it stays open.
  bool skipQuoted(char quote) {
    for (++i_; i_ < s_.size(); ++i_) {
      if (s_[i_] == '\\') {
        ++i_;
      } else if (s_[i_] == quote) {
        ++i_;
        return true;
      }
    }
    return false;
  }
  std::vector<Piece> open(std::vector<Piece>& out) {
    open_ = true;
    return out;
  }

  const std::string& s_;
  size_t i_ = 0;
  size_t end_ = 0;
  bool open_ = false;
};

bool is(const std::vector<Piece>& p, size_t i, const char* text) { return i < p.size() && p[i].text == text; }

// The piece after the parenthesis that closes the one at `i`, or p.size().
size_t afterParentheses(const std::vector<Piece>& p, size_t i) {
  int depth = 0;
  for (; i < p.size(); ++i) {
    if (p[i].text == "(") ++depth;
    if (p[i].text == ")" && --depth == 0) return i + 1;
  }
  return p.size();
}

}  // namespace

bool entryIsOpen(const std::string& text) {
  Reader r(text);
  std::vector<Piece> pieces = r.pieces();
  if (r.isOpen()) return true;
  int depth = 0;
  for (const Piece& p : pieces) {
    if (p.identifier || p.text.size() != 1) continue;
    char c = p.text[0];
    if (c == '(' || c == '[' || c == '{') ++depth;
    if (c == ')' || c == ']' || c == '}') --depth;
  }
  return depth > 0;
}

bool declaresItems(const std::string& text) {
  size_t first = text.find_first_not_of(" \t\r\n");
  if (first != std::string::npos && text[first] == '#' && text.compare(first, 2, "#!") != 0) return true;
  Reader r(text);
  std::vector<Piece> p = r.pieces();
  if (p.empty() || !p[0].identifier) return false;
  if (p[0].text == "class") return true;
  if (p[0].text == "if" || p[0].text == "while" || p[0].text == "for") return false;
  size_t i = 1;
  if (is(p, i, ":") && is(p, i + 1, ":")) {
    i += 2;
    if (is(p, i, "~")) ++i;
    if (i >= p.size() || !p[i].identifier) return false;
    ++i;
  }
  if (!is(p, i, "(")) return false;
  return is(p, afterParentheses(p, i), "{");
}

std::string withoutClosingSemicolon(const std::string& text) {
  Reader r(text);
  std::vector<Piece> p = r.pieces();
  std::string body = text.substr(0, r.end());
  if (!p.empty() && p.back().text == ";") body.pop_back();
  return body;
}

}  // namespace qelcli
