// The compiler's function bodies and statements. Forward branches whose target is not
// known yet form chains through their operands (0 ends a chain) that are patched once
// the target is reached.
#include <vector>

#include "qel/compiler.h"

namespace {

unsigned int here(const QelFuncContext& ctx) { return ctx.code->size(); }

}  // namespace

unsigned int QelCompiler::_codeBranch(QelFuncContext& ctx, QelOpCode op, unsigned int operand) {
  ctx.code->push_back(op);
  return ctx.code->push_backDW(operand);
}

void QelCompiler::_fixupRefChain(QelFuncContext& ctx, unsigned int chain, unsigned int target) {
  while (chain != 0 && chain + 4 <= ctx.code->size()) {
    unsigned int next = ctx.code->getDW(chain);
    ctx.code->setDW(chain, target);
    chain = next;
  }
}

void QelCompiler::_requireCounted(QelChar ch, int& errors) {
  if (!_fetchRequire(QT_ANY, ch)) ++errors;
}

QelVector* QelCompiler::_codeFunctionBody(const QelString& name, int& errors, QelClass* cls) {
  QelFuncContext ctx;
  if (cls) ctx.arguments.push_back(QelValue(new QelString(u"this"), false));
  _getIdList(ctx.arguments, u";)", errors);
  QelToken t = _token();
  unsigned int temporaries = 0;
  if (_isChar(t, ';')) {
    temporaries = static_cast<unsigned int>(_getIdList(ctx.temporaries, u")", errors));
    t = _token();
  }
  if (!_require(QT_ANY, t, ')')) {
    ++errors;
    return nullptr;
  }
  return _codeProcedure(ctx, name, errors, cls, temporaries, false);
}

QelVector* QelCompiler::compileStatements(const QelChar* text, const QelChar* sourceName, const QelChar* name) {
  if (!text || !name) return nullptr;
  QelScanner scanner(text, sourceName);
  _begin(scanner);
  int errors = 0;
  QelFuncContext ctx;
  QelVector* proc = _codeProcedure(ctx, QelString(name), errors, nullptr, 0, true);
  scanner_ = nullptr;
  if (errors == 0 && !tooDeep_) return proc;
  QelValue drop(proc, true, false);
  return nullptr;
}

// The procedure of a body whose argument list has been read; `untilEnd` compiles the
// statements up to the end of the source instead of a braced block.
QelVector* QelCompiler::_codeProcedure(QelFuncContext& ctx, const QelString& name, int& errors, QelClass* cls,
                                       unsigned int temporaries, bool untilEnd) {
  QelVector* proc = new QelVector();
  QelBuffer* code = new QelBuffer();
  proc->push_back(QelValue(code, false));
  proc->push_back(cls ? QelValue(cls, false) : QelValue());
  proc->push_back(QelValue(new QelString(name), false));
  ctx.procedure = proc;
  ctx.code = code;
  // The body's tokens mark the code's lines from here on, until the body is done.
  QelLineTable* lines = new QelLineTable(scanner_->getSourceName());
  lines->mark(0, scanner_->getLineNumber() > 0 ? scanner_->getLineNumber() : 1);
  code->setLines(lines);
  struct LinesScope {
    QelCompiler& c;
    ~LinesScope() { c.lines_ = nullptr, c.linesCode_ = nullptr; }
  } linesScope{*this};
  lines_ = lines;
  linesCode_ = code;

  ctx.temporaryCount = temporaries;
  if (temporaries > 0) _codeIndexedOpcode(*proc, OP_TSPACE, temporaries);
  code->push_back(OP_PUSH);
  if (untilEnd) {
    _codeStatementsToEnd(ctx, errors);
  } else {
    if (!_fetchRequire(QT_ANY, '{')) ++errors;
    _codeBlock(ctx, errors);
  }

  if (cls && qelStrCmp(name.c_str(), cls->nameText()) == 0) {
    // A constructor returns its object.
    _codeArgument(*proc, QVA_LOAD, 0);
  } else if (cls && cls->getBaseClass() && name.equals(u"dtor")) {
    // A destructor ends by running its base class's destructor.
    code->push_back(OP_PUSH);
    _codeArgument(*proc, QVA_LOAD, 0);
    code->push_back(OP_PUSH);
    _codeLiteral(*proc, _addLiteral(*proc, QelValue(new QelString(u"BC_dtor"), false)));
    code->push_back(OP_SEND);
    code->push_back(1);
  }
  code->push_back(OP_RETURN);
  if (ctx.usesHiddenTemporary) _reserveHiddenTemporary(ctx);
  proc->shrink();
  code->shrink();
  if (debugger_) debugger_->decodeProcedure(proc);
  return proc;
}

unsigned int QelCompiler::_hiddenTemporary(QelFuncContext& ctx) {
  ctx.usesHiddenTemporary = true;
  return ctx.temporaryCount;
}

namespace {

// Moves every branch target of the code from `start` on by `delta` bytes.
void shiftBranches(QelBuffer& code, unsigned int start, int delta) {
  unsigned int width = 1;
  for (unsigned int pc = start; pc < code.size();) {
    uint8_t op = code[pc++];
    switch (qelOperandKind(op)) {
      case QOK_NONE:
        break;
      case QOK_WIDTH:
        width = op == OP_RBYTE ? 1 : op == OP_RWORD ? 2 : 4;
        break;
      case QOK_BRANCH:
        if (pc + 4 <= code.size()) code.setDW(pc, code.getDW(pc) + static_cast<uint32_t>(delta));
        pc += 4;
        break;
      default:
        pc += width;
        break;
    }
  }
}

}  // namespace

// The prologue reserves the hidden temporary after the declared ones. When that
// makes the prologue longer, the code moves up and every branch target with it.
void QelCompiler::_reserveHiddenTemporary(QelFuncContext& ctx) {
  // The encoding of "OP_TSPACE n" (nothing for n = 0).
  auto prologue = [this](unsigned int n) {
    QelVector scratch;
    QelBuffer* space = new QelBuffer();
    scratch.push_back(QelValue(space, false));
    if (n > 0) _codeIndexedOpcode(scratch, OP_TSPACE, n);
    return std::vector<unsigned char>(space->data(), space->data() + space->size());
  };
  QelBuffer& code = *ctx.code;
  std::vector<unsigned char> before = prologue(ctx.temporaryCount);
  std::vector<unsigned char> after = prologue(ctx.temporaryCount + 1);
  std::vector<unsigned char> body(code.data() + before.size(), code.data() + code.size());
  code.clear();
  code.append(after.data(), static_cast<unsigned int>(after.size()));
  code.append(body.data(), static_cast<unsigned int>(body.size()));
  int delta = static_cast<int>(after.size()) - static_cast<int>(before.size());
  if (delta != 0) shiftBranches(code, static_cast<unsigned int>(after.size()), delta);
}

void QelCompiler::_codeStatementsToEnd(QelFuncContext& ctx, int& errors) {
  for (;;) {
    QelToken t = _token();
    if (t == QT_EOF) return;
    if (_isChar(t, '}')) {
      _error(u"statement expected", errors);
      continue;
    }
    scanner_->back();
    _codeStatement(ctx, errors);
    if (errors >= kMaxErrors) return;
  }
}

void QelCompiler::_codeBlock(QelFuncContext& ctx, int& errors) {
  QelToken t = _token();
  if (_isChar(t, '}')) {
    ctx.code->push_back(OP_NIL);  // an empty block leaves nil
    return;
  }
  scanner_->back();
  for (;;) {
    t = _token();
    if (_isChar(t, '}')) return;
    if (t == QT_EOF) {
      _error(u"unexpected EOF in block", errors);
      return;
    }
    if (_isChar(t, '#')) {
      _doPreproc(errors);
      continue;
    }
    scanner_->back();
    _codeStatement(ctx, errors);
  }
}

void QelCompiler::_codeStatement(QelFuncContext& ctx, int& errors) {
  NestingGuard nesting(*this, errors);
  if (!nesting.ok) return;
  QelToken t = _token();
  switch (t) {
    case QT_IF: _codeIf(ctx, errors); return;
    case QT_WHILE: _codeWhile(ctx, errors); return;
    case QT_DO: _codeDoWhile(ctx, errors); return;
    case QT_FOR: _codeFor(ctx, errors); return;
    case QT_BREAK: _codeBreak(ctx, errors); return;
    case QT_CONTINUE: _codeContinue(ctx, errors); return;
    case QT_RETURN: _codeReturn(ctx, errors); return;
    case QT_TRON:
    case QT_TROFF:
    case QT_TRSTEP:
      ctx.code->push_back(t == QT_TRON ? OP_TRON : t == QT_TROFF ? OP_TROFF : OP_TRSTEP);
      _requireCounted(';', errors);
      return;
    default:
      break;
  }
  if (_isChar(t, '{')) {
    _codeBlock(ctx, errors);
    return;
  }
  if (_isChar(t, ';')) return;
  scanner_->back();
  _codeExpr(ctx, errors);
  _requireCounted(';', errors);
}

void QelCompiler::_codeCondition(QelFuncContext& ctx, int& errors) {
  _requireCounted('(', errors);
  _codeExpr(ctx, errors);
  _requireCounted(')', errors);
}

void QelCompiler::_codeIf(QelFuncContext& ctx, int& errors) {
  _codeCondition(ctx, errors);
  unsigned int skipThen = _codeBranch(ctx, OP_BRF, 0);
  _codeStatement(ctx, errors);
  QelToken t = _token();
  if (t == QT_ELSE) {
    unsigned int skipElse = _codeBranch(ctx, OP_BR, 0);
    _fixupRefChain(ctx, skipThen, here(ctx));
    _codeStatement(ctx, errors);
    _fixupRefChain(ctx, skipElse, here(ctx));
  } else {
    scanner_->back();
    _fixupRefChain(ctx, skipThen, here(ctx));
  }
}

namespace {

// Each loop pushes its break chain and its continue target; the body's breaks link
// into the chain, which is patched to the end of the loop.
unsigned int popBreakChain(QelFuncContext& ctx) { return ctx.breakChains.pop_backDW(); }

void restoreContinue(QelFuncContext& ctx, unsigned int size) {
  while (ctx.continueTargets.size() > size) ctx.continueTargets.pop_back();
}

}  // namespace

unsigned int QelCompiler::_codeLoopBody(QelFuncContext& ctx, int& errors, unsigned int breakChain,
                                        unsigned int continueTarget) {
  unsigned int continueSize = ctx.continueTargets.size();
  ctx.breakChains.push_backDW(breakChain);
  ctx.continueTargets.push_backDW(continueTarget);
  _codeStatement(ctx, errors);
  unsigned int chain = popBreakChain(ctx);
  restoreContinue(ctx, continueSize);
  return chain;
}

void QelCompiler::_codeWhile(QelFuncContext& ctx, int& errors) {
  unsigned int start = here(ctx);
  _codeCondition(ctx, errors);
  unsigned int exit = _codeBranch(ctx, OP_BRF, 0);
  unsigned int chain = _codeLoopBody(ctx, errors, exit, start);
  _codeBranch(ctx, OP_BR, start);
  _fixupRefChain(ctx, chain, here(ctx));
}

void QelCompiler::_codeDoWhile(QelFuncContext& ctx, int& errors) {
  unsigned int start = here(ctx);
  // "continue" goes back to the top of the body, skipping the condition.
  unsigned int chain = _codeLoopBody(ctx, errors, 0, start);
  if (!_fetchRequire(QT_WHILE, 0)) ++errors;
  _codeCondition(ctx, errors);
  _requireCounted(';', errors);
  _codeBranch(ctx, OP_BRT, start);
  _fixupRefChain(ctx, chain, here(ctx));
}

void QelCompiler::_codeFor(QelFuncContext& ctx, int& errors) {
  _requireCounted('(', errors);
  _codeExpr(ctx, errors);
  _requireCounted(';', errors);
  unsigned int condition = here(ctx);
  _codeExpr(ctx, errors);
  unsigned int intoBody = _codeBranch(ctx, OP_BRT, 0);
  unsigned int exit = _codeBranch(ctx, OP_BR, 0);
  _requireCounted(';', errors);
  unsigned int step = here(ctx);
  _codeExpr(ctx, errors);
  _requireCounted(')', errors);
  _codeBranch(ctx, OP_BR, condition);
  _fixupRefChain(ctx, intoBody, here(ctx));
  unsigned int chain = _codeLoopBody(ctx, errors, exit, step);
  _codeBranch(ctx, OP_BR, step);
  _fixupRefChain(ctx, chain, here(ctx));
}

void QelCompiler::_codeBreak(QelFuncContext& ctx, int& errors) {
  if (ctx.breakChains.size() < 4) {
    _error(u"break outside of loop found", errors);
  } else {
    unsigned int head = popBreakChain(ctx);
    ctx.breakChains.push_backDW(_codeBranch(ctx, OP_BR, head));
  }
  _requireCounted(';', errors);
}

void QelCompiler::_codeContinue(QelFuncContext& ctx, int& errors) {
  if (ctx.breakChains.size() < 4) {
    _error(u"continue outside of loop found", errors);
  } else {
    unsigned int n = ctx.continueTargets.size();
    _codeBranch(ctx, OP_BR, ctx.continueTargets.getDW(n - 4));
  }
  _requireCounted(';', errors);
}

void QelCompiler::_codeReturn(QelFuncContext& ctx, int& errors) {
  _codeExpr(ctx, errors);
  _requireCounted(';', errors);
  ctx.code->push_back(OP_RETURN);
}
