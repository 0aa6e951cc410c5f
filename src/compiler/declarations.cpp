// The compiler's top level: functions, classes, literal values and preprocessor lines.
#include "platform/files.h"
#include "qel/compiler.h"
#include "qel/dictionary_io.h"
#include "qel/platform.h"

namespace {

bool sameText(const QelChar* a, const QelChar* b) { return qelStrCmp(a, b) == 0; }

}  // namespace

QelCompiler::QelCompiler(QelVirtualMachine& vm, IQelPrinter* printer)
    : scanner_(nullptr),
      symbols_(vm.symbols()),
      classes_(vm.classes()),
      vm_(vm),
      printer_(printer ? printer : &vm.printer()),
      debugger_(nullptr),
      showInfo_(false) {}

bool QelCompiler::compile(void* fp, const QelChar* name) {
  if (!fp) {
    (*printer_)(u"QelCompiler::compile(FILE* fp) invalid file handle\n");
    return false;
  }
  QelScanner scanner(fp, name);
  return compileWith(scanner);
}

bool QelCompiler::compile(const QelChar* text, const QelChar* name) {
  if (!text) {
    (*printer_)(u"QelCompiler::compile(const QelChar* src) invalid source\n");
    return false;
  }
  QelScanner scanner(text, name);
  return compileWith(scanner);
}

bool QelCompiler::compileWith(QelScanner& scanner) {
  _begin(scanner);
  bool ok = compile();
  scanner_ = nullptr;
  return ok;
}

void QelCompiler::_begin(QelScanner& scanner) {
  scanner_ = &scanner;
  nesting_ = 0;
  tooDeep_ = false;
}

// ---- Reports and token helpers ----

// Reports go out through "%s": a report quotes source text, which may hold '%'.
void QelCompiler::_printReport() {
  if (!tooDeep_) (*printer_)(u"%s", scanner_->getTokenString());
}

void QelCompiler::_error(const QelChar* message, int& errors) {
  if (tooDeep_) return;
  scanner_->parseError(message);
  _printReport();
  ++errors;
}

QelCompiler::NestingGuard::NestingGuard(QelCompiler& c, int& errors) : compiler(c), ok(true) {
  if (++compiler.nesting_ <= kMaxNesting) return;
  ok = false;
  if (compiler.tooDeep_) return;
  compiler._error(u"nesting too deep", errors);
  compiler.tooDeep_ = true;
  // Everything after is skipped: every open construct then meets the end of input.
  while (compiler._token() != QT_EOF) {
  }
}

bool QelCompiler::_isChar(QelToken t, QelChar ch) const { return t == QT_ANY && scanner_->getChar() == ch; }

bool QelCompiler::_require(QelToken expected, QelToken found, QelChar ch) {
  if (found == expected && (expected != QT_ANY || scanner_->getChar() == ch)) return true;
  QelChar expectedChar[2] = {ch, 0};
  QelString expectedName(expected == QT_ANY ? expectedChar : scanner_->getTokenName(expected));
  QelString foundName(scanner_->getTokenName(found));
  QelString message = QelString::format(u"expected '%s', found '%s'", expectedName.c_str(), foundName.c_str());
  scanner_->parseError(message.c_str());
  _printReport();
  return false;
}

bool QelCompiler::_fetchRequire(QelToken expected, QelChar ch) { return _require(expected, _token(), ch); }

int QelCompiler::_getIdList(QelVector& names, const QelChar* terminators, int& errors) {
  QelToken t = _token();
  if (t == QT_ANY) {
    for (const QelChar* p = terminators; *p; ++p) {
      if (scanner_->getChar() == *p) {
        scanner_->back();
        return 0;
      }
    }
  }
  scanner_->back();
  int count = 0;
  do {
    t = _token();
    if (_require(QT_IDENT, t, 0)) {
      names.push_back(QelValue(new QelString(scanner_->getTokenString()), false));
      ++count;
    } else {
      ++errors;
    }
    t = _token();
  } while (_isChar(t, ','));
  scanner_->back();
  return count;
}

// ---- Top level ----

bool QelCompiler::compile() {
  int errors = 0;
  for (;;) {
    QelToken t = _token();
    if (t == QT_EOF) break;
    if (t == QT_ERROR) {
      ++errors;
      _printReport();
    } else if (t == QT_IDENT) {
      if (!_doFunction(errors)) return false;
    } else if (t == QT_CLASS) {
      if (!_doClass(errors)) return false;
    } else if (_isChar(t, '#')) {
      if (!_doPreproc(errors)) break;  // "endsrc": the rest of the source is not read
    } else {
      _error(u"declaration expected", errors);
    }
    if (errors >= kMaxErrors) break;  // ten errors end the compilation
  }
  return errors == 0 && !tooDeep_;
}

QelToken QelCompiler::_token() {
  QelToken t = scanner_->getToken();
  _markLine(scanner_->getLineNumber());
  return t;
}

bool QelCompiler::_doFunction(int& errors) {
  QelString name(scanner_->getTokenString());
  QelToken t = _token();
  if (t == QT_SCOPE) return _doMemberFunction(name, errors);
  if (_isChar(t, '(')) return _doRegularFunction(name, errors);
  if (t == QT_ERROR) _printReport();
  _error(u"function declaration expected", errors);
  return true;
}

bool QelCompiler::_doRegularFunction(const QelString& name, int& errors) {
  symbols_[name].setSymbolType(QST_STATIC_FUNCTION);
  if (showInfo_) (*printer_)(u"function %s\n", name.c_str());
  QelVector* proc = _codeFunctionBody(name, errors, nullptr);
  if (!proc) return false;
  symbols_[name].setValue(QelValue(proc, true, false));
  return true;
}

bool QelCompiler::_doMemberFunction(const QelString& className, int& errors) {
  QelClass* cls = _findClass(className, errors);
  if (!cls) return false;
  QelValue keepClass(cls, false);
  QelToken t = _token();
  QelString member;
  if (_isChar(t, '~')) {
    t = _token();
    if (t != QT_IDENT || !sameText(scanner_->getTokenString(), className.c_str())) {
      _error(u"illegal destructor definition", errors);
    }
    member = QelString(u"dtor");
  } else {
    if (!_require(QT_IDENT, t, 0)) {
      ++errors;
      return false;
    }
    member = QelString(scanner_->getTokenString());
  }
  if (!_fetchRequire(QT_ANY, '(')) ++errors;
  if (showInfo_) (*printer_)(u"member function %s::%s\n", className.c_str(), member.c_str());
  QelDictionaryEntry* entry = cls->findMember(member, true);
  if (entry && entry->getSymbolType() != QST_METHOD && entry->getSymbolType() != QST_STATIC_FUNCTION) {
    _error(u"illegal redefinition", errors);
  }
  if (!entry) {
    entry = &cls->funcMembers()[member];
    entry->setSymbolType(QST_METHOD);
  }
  QelVector* proc = _codeFunctionBody(member, errors, cls);
  if (!proc) return false;
  entry->setValue(QelValue(proc, true, false));
  return true;
}

// ---- Classes ----

namespace {

bool isDirectBaseOfAny(QelDictionary& classes, QelClass* cls) {
  for (QelDictionaryEntry* e = classes.getFirst(); e; e = e->getNext()) {
    QelClass* k = e->getValue();
    if (k && k->getBaseClass() == cls) return true;
  }
  return false;
}

}  // namespace

bool QelCompiler::_doClass(int& errors) {
  QelToken t = _token();
  if (!_require(QT_IDENT, t, 0)) {
    ++errors;
    return false;
  }
  QelString name(scanner_->getTokenString());
  QelDictionaryEntry* entry = classes_.find(name);
  QelClass* base = nullptr;
  bool forward = false;
  t = _token();
  if (_isChar(t, ';')) {
    forward = true;
    if (showInfo_) (*printer_)(u"class %s forward declaration\n", name.c_str());
  } else if (_isChar(t, ':')) {
    t = _token();
    if (!_require(QT_IDENT, t, 0)) {
      ++errors;
      return false;
    }
    QelString baseName(scanner_->getTokenString());
    if (baseName.compare(name) == 0) {
      _error(u"class can't be its own base", errors);
      return false;
    }
    base = _findClass(baseName, errors);
    if (showInfo_) (*printer_)(u"class %s : %s\n", name.c_str(), baseName.c_str());
  } else {
    scanner_->back();
    if (showInfo_) (*printer_)(u"class %s\n", name.c_str());
  }

  QelClass* cls = entry ? static_cast<QelClass*>(entry->getValue()) : nullptr;
  bool usedAsBase = false;
  if (cls) {
    usedAsBase = isDirectBaseOfAny(classes_, cls);
  } else {
    cls = new QelClass(vm_, name, nullptr);
    QelDictionaryEntry& e = classes_[name];
    e.setValue(QelValue(cls, false));
    e.setSymbolType(QST_CLASS);
  }
  QelValue keepClass(cls, false);
  if (base && cls->getBaseClass() != base) {
    if (!cls->setBaseClass(base)) _error(u"illegal redefinition of base class", errors);
  }
  if (forward) {
    cls->computeDataSize();
    return true;
  }
  if (!_fetchRequire(QT_ANY, '{')) {
    ++errors;
    return false;
  }
  QelVector instanceNames;
  for (;;) {
    t = _token();
    if (_isChar(t, '}')) break;
    if (t == QT_EOF) {
      _error(u"unexpected EOF", errors);
      return false;
    }
    if (_isChar(t, '#')) {
      if (!_doPreproc(errors)) return false;
      continue;
    }
    _doClassMember(cls, t, usedAsBase, instanceNames, errors);
  }
  for (unsigned int i = 0; i < instanceNames.size(); ++i) {
    QelDictionaryEntry& e = cls->dataMembers()[*static_cast<QelString*>(instanceNames[i])];
    e.setSymbolType(QST_DATA);
  }
  cls->fixupDataDefs();
  return true;
}

// One member declaration of a class body, from its first token to its ';'.
bool QelCompiler::_doClassMember(QelClass* cls, QelToken t, bool usedAsBase, QelVector& instanceNames,
                                 int& errors) {
  bool isStatic = false, isDtor = false;
  if (t == QT_STATIC) {
    isStatic = true;
    t = _token();
  }
  if (_isChar(t, '~')) {
    isDtor = true;
    t = _token();
  }
  if (t != QT_IDENT) {
    _error(u"member declaration expected", errors);
    return true;
  }
  const QelChar* className = cls->nameText();
  QelString member(scanner_->getTokenString());
  if (isDtor) {
    if (!sameText(member.c_str(), className)) _error(u"destructor declaration expected", errors);
    member = QelString(u"dtor");
  } else if (member.equals(u"dtor")) {
    isDtor = true;
  }
  bool isCtor = sameText(member.c_str(), className);
  if (isStatic && isDtor) _error(u"destructor can't be static", errors);
  if (isStatic && isCtor) _error(u"constructor can't be static", errors);

  t = _token();
  if (_isChar(t, '(')) {
    if (!isDtor) {
      QelVector ignored;
      _getIdList(ignored, u")", errors);
    }
    if (!_fetchRequire(QT_ANY, ')')) ++errors;
    cls->funcMembers()[member].setSymbolType(isStatic ? QST_STATIC_FUNCTION : QST_METHOD);
    t = _token();
  } else if (isStatic) {
    for (;;) {
      QelDictionaryEntry& e = cls->dataMembers()[member];
      if (e.getSymbolType() != QST_UNDEFINED && e.getSymbolType() != QST_STATIC_DATA) {
        _error(u"object member data can't be redifined as static", errors);
      } else {
        e.setSymbolType(QST_STATIC_DATA);
      }
      if (_isChar(t, '=')) {
        _doLiteralValue(_token(), e, errors);
        t = _token();
      }
      if (!_nextListName(t, member, errors)) break;
    }
  } else {
    // New instance members would move the slots of derived classes.
    if (usedAsBase) _error(u"classes already used as base must not define new member variables", errors);
    for (;;) {
      if (!usedAsBase) instanceNames.push_back(QelValue(new QelString(member), false));
      if (!_nextListName(t, member, errors)) break;
    }
  }
  if (!_require(QT_ANY, t, ';')) ++errors;
  return true;
}

// After a member name: a ',' brings the next name of the list into `name` and the
// token after it into `t`.
bool QelCompiler::_nextListName(QelToken& t, QelString& name, int& errors) {
  if (!_isChar(t, ',')) return false;
  t = _token();
  if (!_require(QT_IDENT, t, 0)) {
    ++errors;
    t = _token();
    return false;
  }
  name = QelString(scanner_->getTokenString());
  t = _token();
  return true;
}

// ---- Literal values ----

bool QelCompiler::_doLiteralValue(QelToken token, QelDictionaryEntry& entry, int& errors) {
  NestingGuard nesting(*this, errors);
  if (!nesting.ok) return false;
  int before = errors;
  if (token == QT_STRING) {
    entry.setValue(QelValue(new QelString(scanner_->getTokenString()), false));
  } else if (token == QT_LONG) {
    entry.setValue(QelValue(scanner_->getLong()));
  } else if (token == QT_FLOAT) {
    entry.setValue(QelValue(static_cast<float>(scanner_->getDouble())));
  } else if (token == QT_NULL) {
    entry.setValue(QelValue());
  } else if (_isChar(token, '[')) {
    QelVector* vec = new QelVector();
    entry.setValue(QelValue(vec, false, false));
    for (;;) {
      QelToken t = _token();
      if (_isChar(t, ']')) break;  // "[]" and a trailing comma are accepted
      QelDictionaryEntry element(nullptr, QelValue(), QST_UNDEFINED);
      if (!_doLiteralValue(t, element, errors)) break;
      vec->push_back(element.getValue());
      t = _token();
      if (t != QT_ANY) {
        _error(u"',' or ']' expected", errors);
        break;
      }
      if (scanner_->getChar() == ']') break;
      if (!_require(QT_ANY, t, ',')) {
        ++errors;
        break;
      }
    }
  } else if (_isChar(token, '{')) {
    QelDictionary* dict = new QelDictionary(false);
    entry.setValue(QelValue(dict, false));
    for (;;) {
      QelToken t = _token();
      if (_isChar(t, '}')) break;
      if (!_require(QT_STRING, t, 0)) {
        ++errors;
        break;
      }
      QelString key(scanner_->getTokenString());
      if (!_fetchRequire(QT_ANY, ':')) {
        ++errors;
        break;
      }
      if (!_doLiteralValue(_token(), (*dict)[key], errors)) break;
      t = _token();
      if (t != QT_ANY) {
        _error(u"',' or '}' expected", errors);
        break;
      }
      if (scanner_->getChar() == '}') break;
      if (!_require(QT_ANY, t, ',')) {
        ++errors;
        break;
      }
    }
  } else {
    _error(u"literal expected", errors);
  }
  return errors == before;
}

// ---- Preprocessor ----

bool QelCompiler::_doPreproc(int& errors) {
  QelToken t = _token();
  if (!_require(QT_IDENT, t, 0)) {
    ++errors;
    return true;
  }
  QelString command(scanner_->getTokenString());
  if (command.equals(u"use")) {
    if (!_fetchRequire(QT_STRING, 0)) {
      ++errors;
      return true;
    }
    // The module is looked for along QELLIB, else taken by the name as written.
    QelString name(scanner_->getTokenString());
    const QelChar* found = searchEnv(u"QELLIB", name.c_str());
    QelString path;
    if (!vm_.permitsModuleFile(found ? found : name.c_str(), path)) {
      _error(u"#use: not permitted", errors);
      return true;
    }
    QelDictionaryIO io(vm_);
    if (!vm_.permits(QEL_CAP_NATIVE)) io.refuseNativeModules();
    if (!io.readModule(path)) _error(u"library import failed", errors);
  } else if (command.equals(u"import")) {
    if (!_fetchRequire(QT_STRING, 0)) {
      ++errors;
      return true;
    }
    QelString name(scanner_->getTokenString());
    if (!vm_.permits(QEL_CAP_NATIVE)) {
      _error(u"#import: not permitted", errors);
    } else if (!vm_.loadNativeModule(name.c_str())) {
      _error(u"native module import failed", errors);
    }
  } else if (command.equals(u"endsrc")) {
    return false;
  } else if (command.equals(u"defvar")) {
    if (!_fetchRequire(QT_IDENT, 0)) {
      ++errors;
      return true;
    }
    QelDictionaryEntry& e = symbols_[QelString(scanner_->getTokenString())];
    e.setSymbolType(QST_STATIC_DATA);
    _doLiteralValue(_token(), e, errors);
  } else if (command.equals(u"include")) {
    return _doInclude(errors);
  } else {
    _error(u"undefined preprocessor symbol", errors);
  }
  return true;
}

bool QelCompiler::_doInclude(int& errors) {
  QelToken t = _token();
  QelString file;
  if (t == QT_STRING) {
    file = QelString(scanner_->getTokenString());
  } else if (_isChar(t, '<')) {
    t = _token();
    if (t == QT_STRING) {
      file = QelString(scanner_->getTokenString());
    } else {
      // A path of words (identifiers, keywords, numbers) joined by '/' or '.'.
      while (t >= QT_IDENT && t <= QT_NULL) {
        file += scanner_->getTokenString();
        t = _token();
        if (!_isChar(t, '/') && !_isChar(t, '.')) break;
        file += scanner_->getChar();
        t = _token();
      }
      scanner_->back();
    }
    if (!_fetchRequire(QT_ANY, '>')) ++errors;
  } else {
    scanner_->back();
  }
  if (file.empty()) {
    _error(u"include file name expected", errors);
    return false;
  }
  QelString path;
  if (!vm_.permitsModuleFile(file.c_str(), path)) {
    _error(u"#include: not permitted", errors);
    return false;
  }
  FILE* fp = qel::openFile(path.c_str(), u"rt");
  if (!fp) {
    scanner_->parseError(u"file not found");
    (*printer_)(u"%s %s", file.c_str(), scanner_->getTokenString());
    ++errors;
    return false;
  }
  scanner_->push(fp, file.c_str());
  return true;
}
