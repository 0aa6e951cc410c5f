// The compiler: a single-pass recursive-descent translation of script source into
// procedures (Part of the front end together with the scanner).
//
// Each function body becomes a procedure vector (code buffer, class or nil, name,
// literal pool) stored straight into the virtual machine's symbol dictionary, each
// class a QelClass in the class dictionary, each member function a procedure in its
// class. Errors are printed in the scanner's report format and counted; the top level
// gives up after ten. Expressions compile for an accumulator machine: an expression
// leaves its value in the top stack slot.
#pragma once

#include "qel/debugger.h"
#include "qel/lines.h"
#include "qel/scanner.h"
#include "qel/vm.h"

// Where the expression just compiled lives.
enum QelVarKind : int32_t {
  QVK_NONE = 0,      // no storage (also a failed lookup)
  QVK_ARGUMENT = 1,  // index: position among the arguments ("this" is 0 in members)
  QVK_TEMPORARY = 2, // index: position among the temporaries
  QVK_VARIABLE = 3,  // index: literal holding a reference to the symbol entry
  QVK_MEMBER = 4,    // index: data member slot of "this"
  QVK_INDEXED = 5,   // container and index already on the stack
  QVK_VALUE = 6,     // already loaded into the top slot
};

struct QelVarInfo {
  QelVarKind kind = QVK_NONE;
  int32_t index = -1;
};

enum QelVarAccessType { QVA_LOAD = 1, QVA_STORE = 2, QVA_PUSH = 3, QVA_DUPLICATE = 4 };

// The compile context of one function body.
struct QelFuncContext {
  QelVector arguments;
  QelVector temporaries;
  QelBuffer breakChains;      // stack of 32-bit chain heads, one per enclosing loop
  QelBuffer continueTargets;  // stack of 32-bit code offsets, one per enclosing loop
  QelVector* procedure = nullptr;
  QelBuffer* code = nullptr;
  unsigned int temporaryCount = 0;   // declared temporaries
  bool usesHiddenTemporary = false;  // one more, after them, for the compiler's own use
};

class QEL_API QelCompiler {
 public:
  QelCompiler(QelVirtualMachine& vm, IQelPrinter* printer);
  ~QelCompiler() {}

  bool getShowInfo() const { return showInfo_; }
  void setShowInfo(bool show) { showInfo_ = show; }
  void setDebugger(QelDebugger* debugger) { debugger_ = debugger; }

  // Compiles from an open FILE stream, which the compiler closes.
  bool compile(void* fp, const QelChar* name);
  // Compiles a source text.
  bool compile(const QelChar* text, const QelChar* name);
  // Compiles a text of statements (no declarations) as the body of a new procedure of
  // that name, without arguments, stored nowhere: the caller owns one count on it. Null
  // after reporting errors.
  QelVector* compileStatements(const QelChar* text, const QelChar* sourceName, const QelChar* name);

 private:
  typedef bool (QelCompiler::*LevelFn)(QelFuncContext&, QelVarInfo&, int&);
  struct BinaryOperator {
    QelToken token;
    QelChar ch;
    QelOpCode op;
  };

  bool compile();
  bool compileWith(QelScanner& scanner);
  // A fresh start on a source: its scanner, no nesting, no skipped rest.
  void _begin(QelScanner& scanner);
  // The next token; inside a function body it also marks the code that follows as
  // coming from the token's line.
  QelToken _token();
  // Marks the code that follows as coming from `line`.
  void _markLine(int32_t line) {
    if (lines_) lines_->mark(linesCode_->size(), line);
  }

  // Bounds the compiler's own recursion: source nested deeper than this (parentheses,
  // blocks, literals, calls) is an error that ends the compilation, not a native stack
  // overflow.
  static const int kMaxNesting = 200;
  // Ten errors end a compilation.
  static const int kMaxErrors = 10;
  struct NestingGuard {
    NestingGuard(QelCompiler& c, int& errors);
    ~NestingGuard() { --compiler.nesting_; }
    QelCompiler& compiler;
    bool ok;
  };
  friend struct NestingGuard;
  bool _doFunction(int& errors);
  bool _doClass(int& errors);
  bool _doClassMember(QelClass* cls, QelToken t, bool usedAsBase, QelVector& instanceNames, int& errors);
  bool _nextListName(QelToken& t, QelString& name, int& errors);
  bool _doPreproc(int& errors);
  bool _doInclude(int& errors);
  bool _doRegularFunction(const QelString& name, int& errors);
  bool _doMemberFunction(const QelString& className, int& errors);
  bool _doLiteralValue(QelToken token, QelDictionaryEntry& entry, int& errors);

  bool _require(QelToken expected, QelToken found, QelChar ch);
  bool _fetchRequire(QelToken expected, QelChar ch);
  int _getIdList(QelVector& names, const QelChar* terminators, int& errors);
  void _error(const QelChar* message, int& errors);
  void _printReport();
  bool _isChar(QelToken t, QelChar ch) const;

  QelVector* _codeFunctionBody(const QelString& name, int& errors, QelClass* cls);
  QelVector* _codeProcedure(QelFuncContext& ctx, const QelString& name, int& errors, QelClass* cls,
                            unsigned int temporaries, bool untilEnd);
  void _codeBlock(QelFuncContext& ctx, int& errors);
  void _codeStatementsToEnd(QelFuncContext& ctx, int& errors);
  void _codeStatement(QelFuncContext& ctx, int& errors);
  void _codeIf(QelFuncContext& ctx, int& errors);
  void _codeWhile(QelFuncContext& ctx, int& errors);
  void _codeDoWhile(QelFuncContext& ctx, int& errors);
  void _codeFor(QelFuncContext& ctx, int& errors);
  void _codeBreak(QelFuncContext& ctx, int& errors);
  void _codeContinue(QelFuncContext& ctx, int& errors);
  void _codeReturn(QelFuncContext& ctx, int& errors);
  void _codeCondition(QelFuncContext& ctx, int& errors);
  void _fixupRefChain(QelFuncContext& ctx, unsigned int chain, unsigned int target);
  // A loop body with its own break chain and continue target; answers the chain.
  unsigned int _codeLoopBody(QelFuncContext& ctx, int& errors, unsigned int breakChain,
                             unsigned int continueTarget);
  unsigned int _codeBranch(QelFuncContext& ctx, QelOpCode op, unsigned int operand);
  void _requireCounted(QelChar ch, int& errors);
  unsigned int _hiddenTemporary(QelFuncContext& ctx);
  void _reserveHiddenTemporary(QelFuncContext& ctx);

  bool _codeExpr(QelFuncContext& ctx, int& errors);
  bool _codeExpr1(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr2(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr3(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr4(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr5(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr6(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr7(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr8(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr9(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr10(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr11(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr12(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr13(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr14(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeExpr15(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  bool _codeBinaryLevel(QelFuncContext& ctx, QelVarInfo& vi, int& errors, LevelFn next,
                        const BinaryOperator* ops, size_t count);
  bool _codeLogical(QelFuncContext& ctx, QelVarInfo& vi, int& errors, LevelFn next, QelToken token,
                    QelOpCode op);
  void _codeAssign(QelFuncContext& ctx, QelOpCode op, QelVarInfo& vi, int& errors);
  void _codePreIncDec(QelFuncContext& ctx, QelOpCode op, QelVarInfo& vi, int& errors);
  void _codePostIncDec(QelFuncContext& ctx, QelOpCode op, QelVarInfo& vi, int& errors);
  void _codeNew(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  void _codeDelete(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  void _codePrimary(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  void _codeFunctionCall(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  void _codeIndexedOp(QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  void _codeMethodCall(const QelChar* name, QelVarInfo& vi, QelFuncContext& ctx, int& errors);
  int _codeArguments(QelFuncContext& ctx, int& errors);
  void _codeStaticMember(const QelString& className, QelFuncContext& ctx, QelVarInfo& vi, int& errors);
  QelClass* _findClass(const QelString& name, int& errors);
  QelVarInfo _findVariable(const QelChar* name, QelFuncContext& ctx, bool globalOnly, int& errors);
  QelVarInfo _findClassVariable(const QelChar* name, QelFuncContext& ctx, int& errors);
  void _codeRValue(QelVector& proc, QelVarInfo& vi);
  void _codeVarInfo(QelVector& proc, QelVarAccessType access, QelVarInfo& vi);
  void _codeArgument(QelVector& proc, QelVarAccessType access, unsigned int index);
  void _codeTemporary(QelVector& proc, QelVarAccessType access, unsigned int index);
  void _codeVariable(QelVector& proc, QelVarAccessType access, unsigned int index);
  void _codeMember(QelVector& proc, QelVarAccessType access, unsigned int index);
  void _codeLiteral(QelVector& proc, unsigned int index);
  void _codeIndexRef(QelVector& proc, QelVarAccessType access);
  void _codeIndexedOpcode(QelVector& proc, unsigned char opcode, unsigned int index);
  bool _checkLValue(const QelVarInfo& vi);
  unsigned int _addLiteral(QelVector& proc, const QelValue& v);
  unsigned int _stringLiteral(QelVector& proc, const QelChar* text);
  unsigned int _varLiteral(QelVector& proc, QelDictionaryEntry* entry);

  QelScanner* scanner_;
  QelDictionary& symbols_;
  QelDictionary& classes_;
  QelVirtualMachine& vm_;
  IQelPrinter* printer_;
  QelDebugger* debugger_;
  bool showInfo_;
  int nesting_ = 0;
  bool tooDeep_ = false;  // the rest of the source was skipped; reports are silent
  // The line table and code of the function body being compiled, or null.
  QelLineTable* lines_ = nullptr;
  QelBuffer* linesCode_ = nullptr;
};
