// Reading prompt entries: when an entry is complete, and what kind of entry it is.
//
// These look at the text as the scanner would (comments, strings, character literals)
// without compiling it.
#pragma once

#include <string>

namespace qelcli {

// True while the text leaves a parenthesis, bracket, brace, string or block comment
// open: the entry goes on with the next line.
bool entryIsOpen(const std::string& text);

// True for top-level items: a preprocessor line, a class declaration, or a function or
// member function definition ("name(...) {" or "Class::name(...) {").
bool declaresItems(const std::string& text);

// The text with white space, comments and one closing ';' taken off its end: what is
// compiled when the entry is tried as an expression.
std::string withoutClosingSemicolon(const std::string& text);

}  // namespace qelcli
