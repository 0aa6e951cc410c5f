// The built-in reference, docs/builtins.md, against the engine: every entry of a fresh
// machine's symbol dictionary (each built-in and stream) has a section headed by its
// name in backticks, no such section names anything else, and every example runs
// through qel with exactly the output shown under it.
//
// An example is a ```qel block followed by a ```text block: what qel writes to standard
// output, then what it writes to standard error. It runs as "qel example.qel" in an
// empty directory with no input, unless its first line is "// $ COMMAND", a shell
// command that runs "qel example.qel" in its own way (arguments, piped input).
#include <gtest/gtest.h>
#include <stdlib.h>  // mkdtemp

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "qel/vm.h"

namespace {

struct Example {
  int line = 0;         // of the ```qel fence
  std::string section;  // the heading above it
  std::string code;
  std::string output;
  bool hasOutput = false;
};

struct Reference {
  std::map<std::string, int> sections;   // name in a heading -> how many headings
  std::vector<std::string> badHeadings;  // headings with code that is not one name
  std::vector<Example> examples;
};

bool startsWith(const std::string& s, const std::string& prefix) {
  return s.compare(0, prefix.size(), prefix) == 0;
}

// A heading "### `name`" names a section; one with other code in it is malformed.
void readHeading(const std::string& line, Reference& ref, std::string& section) {
  std::string title = line.substr(line.find_first_not_of('#'));
  title.erase(0, title.find_first_not_of(' '));
  section = title;
  if (title.find('`') == std::string::npos) return;
  bool oneName = title.size() > 2 && title.front() == '`' && title.back() == '`' &&
                 title.find('`', 1) == title.size() - 1;
  if (oneName) {
    ++ref.sections[title.substr(1, title.size() - 2)];
  } else {
    ref.badHeadings.push_back(title);
  }
}

// The text of the fenced block that opens at lines[i], up to its closing fence, where
// i is left.
std::string block(const std::vector<std::string>& lines, size_t& i) {
  std::string text;
  while (++i < lines.size() && !startsWith(lines[i], "```")) text += lines[i] + "\n";
  return text;
}

Reference readReference(const char* path) {
  Reference ref;
  std::ifstream in(path);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  std::string section;
  for (size_t i = 0; i < lines.size(); ++i) {
    if (startsWith(lines[i], "#")) readHeading(lines[i], ref, section);
    if (!startsWith(lines[i], "```")) continue;
    bool isExample = lines[i] == "```qel";
    Example example{static_cast<int>(i) + 1, section, block(lines, i), "", false};
    if (!isExample) continue;
    // Its output block may follow after blank lines only.
    size_t next = i + 1;
    while (next < lines.size() && lines[next].empty()) ++next;
    if (next < lines.size() && lines[next] == "```text") {
      example.hasOutput = true;
      example.output = block(lines, i = next);
    }
    ref.examples.push_back(example);
  }
  return ref;
}

std::string fileText(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

TEST(Reference, EachSymbolHasOneSectionAndEachSectionASymbol) {
  Reference ref = readReference(QEL_BUILTINS_DOC);
  ASSERT_FALSE(ref.sections.empty()) << "no sections read from " << QEL_BUILTINS_DOC;
  for (const std::string& title : ref.badHeadings) ADD_FAILURE() << "heading is not one name: " << title;

  QelVirtualMachine vm;
  std::map<std::string, int> registered;
  for (QelDictionaryEntry* e = vm.symbols().getFirst(); e; e = e->getNext())
    ++registered[e->getKey()->a_str()];
  for (const auto& symbol : registered) {
    auto it = ref.sections.find(symbol.first);
    if (it == ref.sections.end()) {
      ADD_FAILURE() << "no section for " << symbol.first;
    } else if (it->second != 1) {
      ADD_FAILURE() << it->second << " sections for " << symbol.first;
    }
  }
  for (const auto& section : ref.sections) {
    if (!registered.count(section.first))
      ADD_FAILURE() << "section for " << section.first << ", which is not registered";
  }
}

#ifdef QEL_CLI_PATH

// Runs the example in a directory of its own; answers standard output, then standard error.
std::string run(const Example& example) {
  std::string pattern = (std::filesystem::temp_directory_path() / "qel-reference-XXXXXX").string();
  if (!mkdtemp(&pattern[0])) return "(no directory)";
  std::filesystem::path dir(pattern);
  std::ofstream(dir / "example.qel") << example.code;

  std::string command = "qel example.qel";
  if (startsWith(example.code, "// $ ")) command = example.code.substr(5, example.code.find('\n') - 5);
  if (command.find("qel example.qel") == std::string::npos) return "(no \"qel example.qel\" in the command)";
  // The command finds qel on the path, as a reader's shell would.
  std::string bin = std::filesystem::path(QEL_CLI_PATH).parent_path().string();
  std::string shell = "cd '" + dir.string() + "' && PATH='" + bin + "':\"$PATH\" && { " + command +
                      "; } < /dev/null > out 2> err";
  if (std::system(shell.c_str()) == -1) return "(no shell)";

  std::string result = fileText(dir / "out") + fileText(dir / "err");
  std::filesystem::remove_all(dir);
  return result;
}

TEST(Reference, ExamplesRunAsShown) {
  Reference ref = readReference(QEL_BUILTINS_DOC);
  ASSERT_FALSE(ref.examples.empty());
  for (const Example& example : ref.examples) {
    SCOPED_TRACE("example at line " + std::to_string(example.line) + " under " + example.section);
    EXPECT_TRUE(example.hasOutput) << "no ```text block after the example";
    EXPECT_EQ(run(example), example.output);
  }
}

#endif

}  // namespace
