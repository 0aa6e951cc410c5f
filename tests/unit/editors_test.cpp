// The editor grammars (editors/qel.tmLanguage.json, editors/vim/syntax/qel.vim) name
// exactly the scanner's keywords and the built-ins every machine registers.
//
// Conventions the grammars keep for this test: in the TextMate grammar, the repository
// entries "keywords" and "builtins" hold only patterns whose match is \b(word|...)\b;
// in the Vim file, every "syn keyword" group is a keyword group except qelBuiltin and
// qelStream, which hold the built-ins.
#include <gtest/gtest.h>

#include <fstream>
#include <set>
#include <sstream>
#include <string>

#include "qel/scanner.h"
#include "qel/vm.h"

namespace {

using Words = std::set<std::string>;

std::string readFile(const char* path) {
  std::ifstream in(path);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

// The object that follows `"name": ` in JSON text, up to its matching brace (the
// grammars' keyword and built-in patterns hold no braces).
std::string jsonObject(const std::string& json, const std::string& name) {
  size_t start = json.find("\"" + name + "\": {");
  if (start == std::string::npos) return "";
  int depth = 0;
  for (size_t i = json.find('{', start); i < json.size(); ++i) {
    if (json[i] == '{') ++depth;
    if (json[i] == '}' && --depth == 0) return json.substr(start, i - start + 1);
  }
  return "";
}

// The words of every `"match": "\\b(a|b)\\b"` in a JSON object; a match of any other
// shape is reported as the word "<bad match: ...>" so that the comparison fails.
Words matchWords(const std::string& object) {
  Words words;
  const std::string key = "\"match\": \"";
  const std::string head = "\\\\b(", tail = ")\\\\b\"";
  for (size_t at = object.find(key); at != std::string::npos; at = object.find(key, at + 1)) {
    size_t begin = at + key.size();
    size_t end = object.find(tail, begin);
    if (object.compare(begin, head.size(), head) != 0 || end == std::string::npos) {
      words.insert("<bad match: " + object.substr(begin, 40) + ">");
      continue;
    }
    std::istringstream list(object.substr(begin + head.size(), end - begin - head.size()));
    for (std::string word; std::getline(list, word, '|');) words.insert(word);
  }
  return words;
}

struct VimWords {
  Words keywords;
  Words builtins;
};

VimWords vimWords(const std::string& vim) {
  VimWords result;
  std::istringstream lines(vim);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream tokens(line);
    std::string syn, keyword, group;
    if (!(tokens >> syn >> keyword >> group) || syn != "syn" || keyword != "keyword") continue;
    Words& into = (group == "qelBuiltin" || group == "qelStream") ? result.builtins : result.keywords;
    for (std::string word; tokens >> word;) {
      if (word == "contained" || word.find('=') != std::string::npos) continue;  // options
      into.insert(word);
    }
  }
  return result;
}

// The candidates the scanner answers with a keyword token: exactly one token that is
// neither an identifier nor an error.
Words scannerKeywords(const Words& candidates) {
  Words keywords;
  for (const std::string& word : candidates) {
    QelString text(word.c_str());
    QelScanner scanner(text.c_str(), u"keyword test");
    QelToken token = scanner.getToken();
    if (token != QT_IDENT && token != QT_ERROR && scanner.getToken() == QT_EOF) keywords.insert(word);
  }
  return keywords;
}

// Words that could be keywords: every display name of a token that is a word (the
// keywords are shown by their written form), and words other languages reserve.
Words wordCandidates() {
  Words words = {"this", "true", "false", "function", "var", "let", "switch", "case", "default",
                 "goto", "NULL", "Nil", "Null", "tron", "super", "include", "use", "import",
                 "defvar", "endsrc", "dtor", "compare", "toString", "BC_dtor", "elif", "foreach"};
  QelScanner scanner(u"", u"names");
  for (int t = QT_NOTOKEN; t <= QT_ANY; ++t) {
    std::string name = QelString(scanner.getTokenName(static_cast<QelToken>(t))).a_str();
    bool isWord = !name.empty();
    for (char c : name) isWord = isWord && (isalnum(static_cast<unsigned char>(c)) || c == '_');
    if (isWord) words.insert(name);
  }
  return words;
}

// The names a fresh machine holds as built-in functions and streams.
Words machineBuiltins() {
  QelVirtualMachine vm;
  Words names;
  for (QelDictionaryEntry* e = vm.symbols().getFirst(); e; e = e->getNext()) {
    QelValueType type = e->getValue().getType();
    if (e->getKey() && (type == QVT_CODE || type == QVT_FILE)) names.insert(e->getKey()->a_str());
  }
  return names;
}

}  // namespace

TEST(EditorGrammars, KeywordsAndBuiltinsAreTheEnginesOwn) {
  std::string textmate = readFile(QEL_TEXTMATE_GRAMMAR_PATH);
  VimWords vim = vimWords(readFile(QEL_VIM_SYNTAX_PATH));
  ASSERT_FALSE(textmate.empty()) << QEL_TEXTMATE_GRAMMAR_PATH;
  ASSERT_FALSE(vim.keywords.empty()) << QEL_VIM_SYNTAX_PATH;

  Words textmateKeywords = matchWords(jsonObject(textmate, "keywords"));
  Words candidates = wordCandidates();
  candidates.insert(textmateKeywords.begin(), textmateKeywords.end());
  candidates.insert(vim.keywords.begin(), vim.keywords.end());
  Words keywords = scannerKeywords(candidates);
  ASSERT_TRUE(keywords.count("class") && keywords.count("nil") && keywords.count("TRSTEP"));
  EXPECT_EQ(textmateKeywords, keywords) << "editors/qel.tmLanguage.json, repository entry \"keywords\"";
  EXPECT_EQ(vim.keywords, keywords) << "editors/vim/syntax/qel.vim, the syn keyword groups";

  Words builtins = machineBuiltins();
  ASSERT_TRUE(builtins.count("print") && builtins.count("stdin"));
  EXPECT_EQ(matchWords(jsonObject(textmate, "builtins")), builtins)
      << "editors/qel.tmLanguage.json, repository entry \"builtins\"";
  EXPECT_EQ(vim.builtins, builtins) << "editors/vim/syntax/qel.vim, qelBuiltin and qelStream";
}
