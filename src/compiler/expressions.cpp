// The compiler's expressions: the fifteen-level precedence ladder, name resolution
// into the five kinds of storage, and the emitters of loads, stores, calls and sends.
#include "qel/compiler.h"

// ---- Literals and emitters ----

unsigned int QelCompiler::_addLiteral(QelVector& proc, const QelValue& v) {
  proc.push_back(v);
  return proc.size() - 1;
}

// Method names are pooled: an equal string literal is reused.
unsigned int QelCompiler::_stringLiteral(QelVector& proc, const QelChar* text) {
  for (unsigned int i = 3; i < proc.size(); ++i) {
    QelString* s = proc[i];
    if (s && s->equals(text)) return i;
  }
  return _addLiteral(proc, QelValue(new QelString(text), false));
}

unsigned int QelCompiler::_varLiteral(QelVector& proc, QelDictionaryEntry* entry) {
  for (unsigned int i = 3; i < proc.size(); ++i) {
    if (proc[i].getType() == QVT_VAR && proc[i].ptr() == entry) return i;
  }
  return _addLiteral(proc, QelValue(entry));
}

void QelCompiler::_codeIndexedOpcode(QelVector& proc, unsigned char opcode, unsigned int index) {
  QelBuffer* code = proc[0];
  if (index <= 0xFF) {
    code->push_back(opcode);
    code->push_back(static_cast<unsigned char>(index));
  } else if (index <= 0xFFFF) {
    code->push_back(OP_RWORD);
    code->push_back(opcode);
    code->push_backW(static_cast<QelChar>(index));
    code->push_back(OP_RBYTE);
  } else {
    code->push_back(OP_RDWORD);
    code->push_back(opcode);
    code->push_backDW(index);
    code->push_back(OP_RBYTE);
  }
}

void QelCompiler::_codeLiteral(QelVector& proc, unsigned int index) { _codeIndexedOpcode(proc, OP_LIT, index); }

namespace {

QelOpCode loadOrStore(QelVarAccessType access, QelOpCode load, QelOpCode store) {
  return access == QVA_LOAD ? load : store;
}

}  // namespace

void QelCompiler::_codeArgument(QelVector& proc, QelVarAccessType access, unsigned int index) {
  if (access == QVA_LOAD || access == QVA_STORE) _codeIndexedOpcode(proc, loadOrStore(access, OP_AREF, OP_ASET), index);
}

void QelCompiler::_codeTemporary(QelVector& proc, QelVarAccessType access, unsigned int index) {
  if (access == QVA_LOAD || access == QVA_STORE) _codeIndexedOpcode(proc, loadOrStore(access, OP_TREF, OP_TSET), index);
}

void QelCompiler::_codeVariable(QelVector& proc, QelVarAccessType access, unsigned int index) {
  if (access == QVA_LOAD || access == QVA_STORE) _codeIndexedOpcode(proc, loadOrStore(access, OP_REF, OP_SET), index);
}

void QelCompiler::_codeMember(QelVector& proc, QelVarAccessType access, unsigned int index) {
  if (access == QVA_LOAD || access == QVA_STORE) _codeIndexedOpcode(proc, loadOrStore(access, OP_MREF, OP_MSET), index);
}

void QelCompiler::_codeIndexRef(QelVector& proc, QelVarAccessType access) {
  static const QelOpCode kOps[] = {OP_NOP, OP_VREF, OP_VSET, OP_PUSH, OP_DUP2};
  static_cast<QelBuffer*>(proc[0])->push_back(kOps[access]);
}

void QelCompiler::_codeVarInfo(QelVector& proc, QelVarAccessType access, QelVarInfo& vi) {
  unsigned int index = static_cast<unsigned int>(vi.index);
  switch (vi.kind) {
    case QVK_ARGUMENT: _codeArgument(proc, access, index); break;
    case QVK_TEMPORARY: _codeTemporary(proc, access, index); break;
    case QVK_VARIABLE: _codeVariable(proc, access, index); break;
    case QVK_MEMBER: _codeMember(proc, access, index); break;
    case QVK_INDEXED: _codeIndexRef(proc, access); break;
    default: break;
  }
}

void QelCompiler::_codeRValue(QelVector& proc, QelVarInfo& vi) {
  if (vi.kind == QVK_NONE || vi.kind == QVK_VALUE) return;
  _codeVarInfo(proc, QVA_LOAD, vi);
  vi.kind = QVK_VALUE;
}

bool QelCompiler::_checkLValue(const QelVarInfo& vi) { return vi.kind != QVK_NONE && vi.kind != QVK_VALUE; }

// ---- Name resolution ----

QelClass* QelCompiler::_findClass(const QelString& name, int& errors) {
  QelDictionaryEntry* e = classes_.find(name);
  QelClass* cls = e ? static_cast<QelClass*>(e->getValue()) : nullptr;
  if (!cls) _error(u"undefined class", errors);
  return cls;
}

QelVarInfo QelCompiler::_findVariable(const QelChar* name, QelFuncContext& ctx, bool globalOnly, int& errors) {
  QelVarInfo vi;
  int i = ctx.arguments.getStringIndex(name);
  if (i >= 0) return {QVK_ARGUMENT, i};
  i = ctx.temporaries.getStringIndex(name);
  if (i >= 0) return {QVK_TEMPORARY, i};
  if (!globalOnly) {
    vi = _findClassVariable(name, ctx, errors);
    if (vi.index >= 0 || vi.kind == QVK_VALUE) return vi;
  }
  // An unknown name silently becomes a new global symbol.
  QelDictionaryEntry& entry = symbols_[QelString(name)];
  return {QVK_VARIABLE, static_cast<int32_t>(_varLiteral(*ctx.procedure, &entry))};
}

QelVarInfo QelCompiler::_findClassVariable(const QelChar* name, QelFuncContext& ctx, int& errors) {
  QelClass* cls = (*ctx.procedure)[1];
  if (!cls) return {};
  QelDictionaryEntry* e = cls->findMember(QelString(name), true);
  if (!e) return {};
  switch (e->getSymbolType()) {
    case QST_DATA:
      return {QVK_MEMBER, e->getValue().toLong()};
    case QST_STATIC_DATA:
      return {QVK_VARIABLE, static_cast<int32_t>(_varLiteral(*ctx.procedure, e))};
    case QST_METHOD: {
      // A bare member-function name is a send to "this".
      QelVarInfo self;
      int i = ctx.arguments.getStringIndex(u"this");
      if (i >= 0) self = {QVK_ARGUMENT, i};
      QelString method(name);
      _codeMethodCall(method.c_str(), self, ctx, errors);
      return self;
    }
    case QST_STATIC_FUNCTION:
      _codeVariable(*ctx.procedure, QVA_LOAD, _varLiteral(*ctx.procedure, e));
      return {QVK_VALUE, -1};
    default:
      return {};
  }
}

// ---- The ladder ----

bool QelCompiler::_codeExpr(QelFuncContext& ctx, int& errors) {
  QelVarInfo vi;
  bool ok = _codeExpr1(ctx, vi, errors);
  _codeRValue(*ctx.procedure, vi);
  return ok;
}

// Level 1: "," — the value is the right one.
bool QelCompiler::_codeExpr1(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  NestingGuard nesting(*this, errors);
  if (!nesting.ok) return true;
  _codeExpr2(ctx, vi, errors);
  QelToken t = _token();
  if (_isChar(t, ',')) {
    _codeRValue(*ctx.procedure, vi);
    QelVarInfo right;
    _codeExpr1(ctx, right, errors);
    vi = right;
  } else {
    scanner_->back();
  }
  return true;
}

// Level 2: assignments. The right side is a level-1 expression, so "a = 1, 2"
// assigns 2, deliberately.
bool QelCompiler::_codeExpr2(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  NestingGuard nesting(*this, errors);
  if (!nesting.ok) return true;
  _codeExpr3(ctx, vi, errors);
  QelToken t = _token();
  QelOpCode compound;
  switch (t) {
    case QT_ADD_ASSIGN: compound = OP_ADD; break;
    case QT_SUB_ASSIGN: compound = OP_SUB; break;
    case QT_MUL_ASSIGN: compound = OP_MUL; break;
    case QT_DIV_ASSIGN: compound = OP_DIV; break;
    case QT_REM_ASSIGN: compound = OP_REM; break;
    case QT_AND_ASSIGN: compound = OP_BAND; break;
    case QT_OR_ASSIGN: compound = OP_BOR; break;
    case QT_XOR_ASSIGN: compound = OP_XOR; break;
    case QT_NOT_ASSIGN: compound = OP_BNOT; break;  // "~=" complements, deliberately
    case QT_SHL_ASSIGN: compound = OP_SHL; break;
    case QT_SHR_ASSIGN: compound = OP_SHR; break;
    default:
      if (_isChar(t, '=') || t == QT_REF_ASSIGN) {
        if (!_checkLValue(vi)) _error(u"lvalue expected", errors);
        QelVector& proc = *ctx.procedure;
        // Only an indexed target keeps its container and index below the value, so
        // only it pushes: a plain assignment leaves the stack as it found it.
        _codeVarInfo(proc, QVA_PUSH, vi);
        QelVarInfo right;
        _codeExpr1(ctx, right, errors);
        _codeRValue(proc, right);
        if (t == QT_REF_ASSIGN) ctx.code->push_back(OP_MKREF);  // "=>" stores a reference
        _codeVarInfo(proc, QVA_STORE, vi);
        vi = {QVK_VALUE, -1};
      } else {
        scanner_->back();
      }
      return true;
  }
  if (!_checkLValue(vi)) _error(u"lvalue expected", errors);
  _codeAssign(ctx, compound, vi, errors);
  return true;
}

void QelCompiler::_codeAssign(QelFuncContext& ctx, QelOpCode op, QelVarInfo& vi, int& errors) {
  QelVector& proc = *ctx.procedure;
  _codeVarInfo(proc, QVA_DUPLICATE, vi);
  _codeVarInfo(proc, QVA_LOAD, vi);
  ctx.code->push_back(OP_PUSH);
  QelVarInfo right;
  _codeExpr1(ctx, right, errors);
  _codeRValue(proc, right);
  ctx.code->push_back(op);
  _codeVarInfo(proc, QVA_STORE, vi);
  vi = {QVK_VALUE, -1};
}

// Level 3: "?" ":".
bool QelCompiler::_codeExpr3(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  _codeExpr4(ctx, vi, errors);
  for (;;) {
    QelToken t = _token();
    if (!_isChar(t, '?')) {
      scanner_->back();
      return true;
    }
    QelVector& proc = *ctx.procedure;
    _codeRValue(proc, vi);
    unsigned int toElse = _codeBranch(ctx, OP_BRF, 0);
    QelVarInfo part;
    _codeExpr1(ctx, part, errors);
    _codeRValue(proc, part);
    _requireCounted(':', errors);
    unsigned int toEnd = _codeBranch(ctx, OP_BR, 0);
    _fixupRefChain(ctx, toElse, ctx.code->size());
    part = QelVarInfo();
    _codeExpr1(ctx, part, errors);
    _codeRValue(proc, part);
    _fixupRefChain(ctx, toEnd, ctx.code->size());
    vi = {QVK_VALUE, -1};
  }
}

// Levels 4 and 5: the result is the first operand that decides, not a boolean.
bool QelCompiler::_codeLogical(QelFuncContext& ctx, QelVarInfo& vi, int& errors, LevelFn next, QelToken token,
                               QelOpCode op) {
  (this->*next)(ctx, vi, errors);
  QelToken t = _token();
  if (t != token) {
    scanner_->back();
    return true;
  }
  unsigned int chain = 0;
  do {
    _codeRValue(*ctx.procedure, vi);
    chain = _codeBranch(ctx, op, chain);
    vi = QelVarInfo();
    (this->*next)(ctx, vi, errors);
    _codeRValue(*ctx.procedure, vi);
    t = _token();
  } while (t == token);
  scanner_->back();
  _fixupRefChain(ctx, chain, ctx.code->size());
  vi = {QVK_VALUE, -1};
  return true;
}

bool QelCompiler::_codeExpr4(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  return _codeLogical(ctx, vi, errors, &QelCompiler::_codeExpr5, QT_OR, OP_BRT);
}

bool QelCompiler::_codeExpr5(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  return _codeLogical(ctx, vi, errors, &QelCompiler::_codeExpr6, QT_AND, OP_BRF);
}

// The plain binary levels share one loop over their operator table; they associate
// to the left.
bool QelCompiler::_codeBinaryLevel(QelFuncContext& ctx, QelVarInfo& vi, int& errors, LevelFn next,
                                   const BinaryOperator* ops, size_t count) {
  (this->*next)(ctx, vi, errors);
  for (;;) {
    QelToken t = _token();
    const BinaryOperator* match = nullptr;
    for (size_t i = 0; i < count && !match; ++i) {
      if (t == ops[i].token && (t != QT_ANY || scanner_->getChar() == ops[i].ch)) match = &ops[i];
    }
    if (!match) {
      scanner_->back();
      return true;
    }
    QelVector& proc = *ctx.procedure;
    _codeRValue(proc, vi);
    ctx.code->push_back(OP_PUSH);
    QelVarInfo right;
    (this->*next)(ctx, right, errors);
    _codeRValue(proc, right);
    ctx.code->push_back(match->op);
    vi = {QVK_VALUE, -1};
  }
}

#define QEL_BINARY_LEVEL(fn, next, ...)                                              \
  bool QelCompiler::fn(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {           \
    static const BinaryOperator kOps[] = {__VA_ARGS__};                              \
    return _codeBinaryLevel(ctx, vi, errors, &QelCompiler::next, kOps, sizeof kOps / sizeof kOps[0]); \
  }

QEL_BINARY_LEVEL(_codeExpr6, _codeExpr7, {QT_ANY, '|', OP_BOR})
QEL_BINARY_LEVEL(_codeExpr7, _codeExpr8, {QT_ANY, '^', OP_XOR})
QEL_BINARY_LEVEL(_codeExpr8, _codeExpr9, {QT_ANY, '&', OP_BAND})
QEL_BINARY_LEVEL(_codeExpr9, _codeExpr10, {QT_EQ, 0, OP_EQ}, {QT_NE, 0, OP_NE})
QEL_BINARY_LEVEL(_codeExpr10, _codeExpr11, {QT_ANY, '<', OP_LT}, {QT_LE, 0, OP_LE}, {QT_ANY, '>', OP_GT},
                 {QT_GE, 0, OP_GE})
QEL_BINARY_LEVEL(_codeExpr11, _codeExpr12, {QT_SHL, 0, OP_SHL}, {QT_SHR, 0, OP_SHR})
QEL_BINARY_LEVEL(_codeExpr12, _codeExpr13, {QT_ANY, '+', OP_ADD}, {QT_ANY, '-', OP_SUB})
QEL_BINARY_LEVEL(_codeExpr13, _codeExpr14, {QT_ANY, '*', OP_MUL}, {QT_ANY, '/', OP_DIV}, {QT_ANY, '%', OP_REM})
#undef QEL_BINARY_LEVEL

// Level 14: prefix operators. Their operand is a postfix expression, so they do not
// nest ("!!a" is an error), and there is no unary "+".
bool QelCompiler::_codeExpr14(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  QelToken t = _token();
  if (t == QT_NEW) {
    _codeNew(ctx, vi, errors);
  } else if (t == QT_DELETE) {
    _codeDelete(ctx, vi, errors);
  } else if (t == QT_INC || t == QT_DEC) {
    _codePreIncDec(ctx, t == QT_INC ? OP_INC : OP_DEC, vi, errors);
  } else if (_isChar(t, '!') || _isChar(t, '-') || _isChar(t, '~')) {
    QelOpCode op = _isChar(t, '!') ? OP_NOT : _isChar(t, '-') ? OP_NEG : OP_BNOT;
    _codeExpr15(ctx, vi, errors);
    _codeRValue(*ctx.procedure, vi);
    ctx.code->push_back(op);
    vi = {QVK_VALUE, -1};
  } else {
    scanner_->back();
    _codeExpr15(ctx, vi, errors);
  }
  return true;
}

void QelCompiler::_codePreIncDec(QelFuncContext& ctx, QelOpCode op, QelVarInfo& vi, int& errors) {
  QelVector& proc = *ctx.procedure;
  _codeExpr15(ctx, vi, errors);
  if (!_checkLValue(vi)) _error(u"lvalue expected", errors);
  _codeVarInfo(proc, QVA_DUPLICATE, vi);
  _codeVarInfo(proc, QVA_LOAD, vi);
  ctx.code->push_back(op);
  _codeVarInfo(proc, QVA_STORE, vi);
  vi = {QVK_VALUE, -1};
}

// The result is the old value. An indexed element keeps its container and index on
// the stack under the value, so its old value waits in the procedure's hidden
// temporary while the stepped value is stored.
void QelCompiler::_codePostIncDec(QelFuncContext& ctx, QelOpCode op, QelVarInfo& vi, int& errors) {
  QelVector& proc = *ctx.procedure;
  if (!_checkLValue(vi)) _error(u"lvalue expected", errors);
  _codeVarInfo(proc, QVA_DUPLICATE, vi);
  _codeVarInfo(proc, QVA_LOAD, vi);
  if (vi.kind == QVK_INDEXED) {
    unsigned int saved = _hiddenTemporary(ctx);
    _codeTemporary(proc, QVA_STORE, saved);
    ctx.code->push_back(op);
    _codeVarInfo(proc, QVA_STORE, vi);
    _codeTemporary(proc, QVA_LOAD, saved);
  } else {
    ctx.code->push_back(OP_DUP);
    ctx.code->push_back(op);
    _codeVarInfo(proc, QVA_STORE, vi);
    ctx.code->push_back(OP_POP);
  }
  vi = {QVK_VALUE, -1};
}

// Level 15: a primary followed by calls, indexing, postfix "++"/"--" and "->" sends.
bool QelCompiler::_codeExpr15(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  _codePrimary(ctx, vi, errors);
  for (;;) {
    QelToken t = _token();
    if (_isChar(t, '(')) {
      _codeFunctionCall(ctx, vi, errors);
    } else if (_isChar(t, '[')) {
      _codeIndexedOp(ctx, vi, errors);
    } else if (t == QT_INC || t == QT_DEC) {
      _codePostIncDec(ctx, t == QT_INC ? OP_INC : OP_DEC, vi, errors);
    } else if (t == QT_ARROW) {
      // A missing method name is counted and the send is coded with the token found, so the
      // rest of the expression stays in step.
      if (!_fetchRequire(QT_IDENT, 0)) ++errors;
      QelString method(scanner_->getTokenString());
      _codeMethodCall(method.c_str(), vi, ctx, errors);
    } else {
      scanner_->back();
      return true;
    }
  }
}

// Arguments up to the closing ')': each pushed, then compiled as a level-2 value.
int QelCompiler::_codeArguments(QelFuncContext& ctx, int& errors) {
  int count = 0;
  QelToken t = _token();
  if (!_isChar(t, ')')) {
    scanner_->back();
    do {
      ctx.code->push_back(OP_PUSH);
      QelVarInfo arg;
      _codeExpr2(ctx, arg, errors);
      _codeRValue(*ctx.procedure, arg);
      ++count;
      t = _token();
    } while (_isChar(t, ','));
  }
  if (!_require(QT_ANY, t, ')')) ++errors;
  return count;
}

void QelCompiler::_codeFunctionCall(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  int32_t line = scanner_->getLineNumber();
  _codeRValue(*ctx.procedure, vi);
  int count = _codeArguments(ctx, errors);
  _markLine(line);  // a call spread over lines stands where it starts
  _codeIndexedOpcode(*ctx.procedure, OP_CALL, static_cast<unsigned int>(count));
  vi = {QVK_VALUE, -1};
}

void QelCompiler::_codeMethodCall(const QelChar* name, QelVarInfo& vi, QelFuncContext& ctx, int& errors) {
  QelVector& proc = *ctx.procedure;
  int32_t line = scanner_->getLineNumber();
  _codeRValue(proc, vi);
  if (vi.kind != QVK_VALUE) _error(u"QelCompiler::_codeMethodCall : no 'this' reference found", errors);
  ctx.code->push_back(OP_PUSH);
  _codeLiteral(proc, _stringLiteral(proc, name));
  int count = 0;
  if (_fetchRequire(QT_ANY, '(')) {
    count = _codeArguments(ctx, errors);
  } else {
    ++errors;
  }
  _markLine(line);
  _codeIndexedOpcode(proc, OP_SEND, static_cast<unsigned int>(1 + count));
  vi = {QVK_VALUE, -1};
}

void QelCompiler::_codeIndexedOp(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  _codeRValue(*ctx.procedure, vi);
  ctx.code->push_back(OP_PUSH);
  _codeExpr(ctx, errors);
  _requireCounted(']', errors);
  vi = {QVK_INDEXED, -1};
}

// "new" is always followed by the constructor's argument list.
void QelCompiler::_codeNew(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  QelVector& proc = *ctx.procedure;
  QelToken t = _token();
  if (!_require(QT_IDENT, t, 0)) {
    ++errors;
    vi = {QVK_VALUE, -1};
    return;
  }
  QelString name(scanner_->getTokenString());
  QelClass* cls = _findClass(name, errors);
  _codeLiteral(proc, _addLiteral(proc, cls ? QelValue(cls, false) : QelValue()));
  ctx.code->push_back(OP_NEW);
  vi = {QVK_VALUE, -1};
  _codeMethodCall(name.c_str(), vi, ctx, errors);
}

void QelCompiler::_codeDelete(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  _codePrimary(ctx, vi, errors);
  _codeRValue(*ctx.procedure, vi);
  ctx.code->push_back(OP_DELETE);
  vi = {QVK_VALUE, -1};
}

void QelCompiler::_codeStaticMember(const QelString& className, QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  QelToken t = _token();
  if (!_require(QT_IDENT, t, 0)) {
    ++errors;
    return;
  }
  QelString member(scanner_->getTokenString());
  QelClass* cls = _findClass(className, errors);
  if (!cls) return;
  QelDictionaryEntry* e = cls->findMember(member, true);
  if (!e) {
    _error(u"not a class member", errors);
    return;
  }
  if (e->getSymbolType() == QST_DATA || e->getSymbolType() == QST_METHOD) {
    _error(u"not a static class member", errors);
    return;
  }
  // The lookup runs as if inside the named class.
  QelVector& proc = *ctx.procedure;
  QelValue saved(proc[1]);
  proc[1] = QelValue(cls, false);
  vi = _findClassVariable(member.c_str(), ctx, errors);
  proc[1] = saved;
}

void QelCompiler::_codePrimary(QelFuncContext& ctx, QelVarInfo& vi, int& errors) {
  QelVector& proc = *ctx.procedure;
  QelToken t = _token();
  switch (t) {
    case QT_STRING:
      _codeLiteral(proc, _addLiteral(proc, QelValue(new QelString(scanner_->getTokenString()), false)));
      vi = {QVK_VALUE, -1};
      return;
    case QT_LONG:
      _codeLiteral(proc, _addLiteral(proc, QelValue(scanner_->getLong())));
      vi = {QVK_VALUE, -1};
      return;
    case QT_FLOAT:
      _codeLiteral(proc, _addLiteral(proc, QelValue(static_cast<float>(scanner_->getDouble()))));
      vi = {QVK_VALUE, -1};
      return;
    case QT_NULL:
      _codeLiteral(proc, _addLiteral(proc, QelValue()));
      vi = {QVK_VALUE, -1};
      return;
    case QT_IDENT: {
      QelString name(scanner_->getTokenString());
      if (_token() == QT_SCOPE) {
        _codeStaticMember(name, ctx, vi, errors);
      } else {
        scanner_->back();
        vi = _findVariable(name.c_str(), ctx, false, errors);
      }
      return;
    }
    case QT_SCOPE: {
      t = _token();
      if (!_require(QT_IDENT, t, 0)) {
        ++errors;
        return;
      }
      QelString name(scanner_->getTokenString());
      vi = _findVariable(name.c_str(), ctx, true, errors);
      return;
    }
    default:
      break;
  }
  if (_isChar(t, '(')) {
    _codeExpr1(ctx, vi, errors);
    _requireCounted(')', errors);
    return;
  }
  if (_isChar(t, '[') || _isChar(t, '{')) {
    // A constant container: one value shared by every execution of the expression.
    QelDictionaryEntry literal(nullptr, QelValue(), QST_UNDEFINED);
    _doLiteralValue(t, literal, errors);
    _codeLiteral(proc, _addLiteral(proc, literal.getValue()));
    vi = {QVK_VALUE, -1};
    return;
  }
  _error(u"primary expression expected", errors);
}
