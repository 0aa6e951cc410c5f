// The interpreter on hand-built code, for what the script tests cannot reach: operand
// types a script cannot make, the type errors' wording, native calls, operand widths,
// broken function members, tracing switches and the safety limits.
#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <string>

#include "assembler.h"
#include "qel/debugger.h"

using namespace qeltest;

namespace {

unsigned int g_size;
bool g_trace;

// Leaves SP on its call slot, holding 77.
bool inPlace(QelVirtualMachine*, int nargs, ValPtr& args) {
  args -= nargs;
  *args = QelValue(77);
  return true;
}
// Moves SP below its own call slot.
bool tooFar(QelVirtualMachine*, int nargs, ValPtr& args) {
  args -= nargs + 1;
  return true;
}
// Records the stack size and the trace flag.
bool probe(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  g_size = vm->interpreter()->size();
  g_trace = vm->interpreter()->getTrace();
  args -= nargs;
  return true;
}

// Pushes a new object of the class.
void newObject(Asm& a, QelClass* cls) { a.push(QelValue(cls, false)).op(OP_NEW); }

class Interp : public ::testing::Test {
 protected:
  // Builds procedure "t" (the body, then OP_RETURN unless `ret` is false), installs and
  // runs it: "error:<errors>" or the result shown.
  std::string exec(const std::function<void(Asm&)>& body, int argc = 0, const QelChar** argv = nullptr,
                   bool ret = true) {
    Asm a(u"t");
    body(a);
    if (ret) a.op(OP_RETURN);
    a.install(vm);
    err.clear();
    if (!vm.execute(u"t", argc, argv, false, &err)) return "error:" + std::string(err.a_str());
    return show(vm.getResult());
  }
  std::string calc(QelOpCode op, const QelValue& l, const QelValue& r) {
    return exec([&](Asm& a) { a.load(l).push(r).op(op); });
  }
  std::string unary(QelOpCode op, const QelValue& v) {
    return exec([&](Asm& a) { a.load(v).op(op); });
  }
  std::string vset(const QelValue& c, const QelValue& i, const QelValue& v) {
    return exec([&](Asm& a) { a.load(c).push(i).push(v).op(OP_VSET); });
  }
  // A method: the working-slot push, the body, the return.
  void method(QelClass* cls, const QelChar* name, const std::function<void(Asm&)>& body) {
    Asm m(name, cls);
    body(m.op(OP_PUSH));
    m.op(OP_RETURN).installMethod();
  }

  QelStringPrinter out, err;
  QelVirtualMachine vm{&out};
};

const std::string kTypeError = "error:invalid value type &s, ";
const std::string kIntMin = "int:" + std::to_string(INT32_MIN);

}  // namespace

// arithmetic.qel shows the result types, the wrapping ends and the mixed comparisons;
// here: what a script cannot make (string references, null strings, a double divisor
// whose low half is zero) and which type each type error names.
TEST_F(Interp, OperatorTypeTable) {
  // The message names the actual type; "&s" stays as written.
  EXPECT_EQ(calc(OP_ADD, 1.5f, str(u"ab")), kTypeError + "QVT_STRING expected\n");
  EXPECT_EQ(calc(OP_ADD, QelValue(), 1), kTypeError + "QVT_NULL expected\n");
  QelValue owned = str(u"x");
  EXPECT_EQ(calc(OP_ADD, QelValue(static_cast<QelString*>(owned), true), owned), "str:xx");
  QelValue nullString(static_cast<QelString*>(nullptr), false);
  EXPECT_EQ(calc(OP_ADD, nullString, 1), "error:left string operand is NULL\n");
  EXPECT_EQ(calc(OP_ADD, 1, nullString), "error:right string operand is NULL\n");
  EXPECT_EQ(calc(OP_SUB, QelValue(), 1), kTypeError + "QVT_NULL expected\n");
  EXPECT_EQ(calc(OP_MUL, 1, str(u"a")), kTypeError + "QVT_STRING expected\n");
  EXPECT_EQ(calc(OP_DIV, 1.0, 2.0), "error:divide 0 error\n");  // the low half of 2.0 is zero
  EXPECT_EQ(calc(OP_BAND, 1.5f, 1), kTypeError + "QVT_FLOAT expected\n");
  EXPECT_EQ(calc(OP_SHL, 1, 1.0), kTypeError + "QVT_DOUBLE expected\n");
  EXPECT_EQ(unary(OP_BNOT, 5.0f), kTypeError + "QVT_FLOAT expected\n");
  EXPECT_EQ(unary(OP_NEG, str(u"a")), kTypeError + "QVT_STRING expected\n");
  EXPECT_EQ(unary(OP_DEC, QelValue()), kTypeError + "QVT_NULL expected\n");

  EXPECT_EQ(calc(OP_LT, 1, str(u"a")), kTypeError + "QVT_STRING expected\n");
  EXPECT_EQ(calc(OP_LT, 1.5f, QelValue()), kTypeError + "QVT_NULL expected\n");
  EXPECT_EQ(calc(OP_LT, QelValue(), 1), kTypeError + "QVT_INTEGER expected\n");
  // Owned strings compare as text; a string reference only by identity.
  QelValue other = str(u"x");
  QelValue ref(static_cast<QelString*>(owned), true), otherRef(static_cast<QelString*>(other), true);
  EXPECT_EQ(calc(OP_EQ, owned, ref), kTypeError + "QVT_STRINGREF expected\n");
  EXPECT_EQ(calc(OP_EQ, ref, owned), kTypeError + "QVT_STRINGREF expected\n");
  EXPECT_EQ(calc(OP_EQ, ref, ref), "int:1");
  EXPECT_EQ(calc(OP_EQ, ref, otherRef), "int:0");
  QelVector *v1 = new QelVector(), *v2 = new QelVector();
  QelValue a1(v1, false, false), a2(v2, false, false);
  EXPECT_EQ(calc(OP_LT, a1, a2), v1 < v2 ? "int:1" : "int:0");  // identity order
  EXPECT_EQ(calc(OP_GT, a1, a2), v1 > v2 ? "int:1" : "int:0");
}

// builtins_containers.qel reads and stores elements of every container; here: the
// bounds and the type errors.
TEST_F(Interp, IndexedReadAndWrite) {
  QelVector* vec = new QelVector();
  for (int i = 0; i < 3; ++i) vec->push_back(QelValue(10 + i));
  QelValue v(vec, false, false), d(new QelDictionary(), false), s = str(u"abc");
  EXPECT_EQ(calc(OP_VREF, v, 3), "error:subscript out of range\n");
  EXPECT_EQ(calc(OP_VREF, s, -1), "error:subscript out of range\n");
  EXPECT_EQ(calc(OP_VREF, v, str(u"a")), kTypeError + "QVT_STRING expected\n");
  EXPECT_EQ(calc(OP_VREF, 5, 0), kTypeError + "QVT_INTEGER expected\n");
  EXPECT_EQ(calc(OP_VREF, d, 1), kTypeError + "QVT_INTEGER expected\n");
  EXPECT_EQ(vset(1, 0, 1), kTypeError + "QVT_INTEGER expected\n");
}

TEST_F(Interp, OperandWidthsAndBranches) {
  std::vector<uint8_t> code;
  auto wide = [&](uint32_t index) {
    return exec([&](Asm& a) {
      a.padTo(index).load(7);
      code = a.code();
    });
  };
  EXPECT_EQ(wide(70000), "int:7");
  EXPECT_EQ(code, (std::vector<uint8_t>{OP_RDWORD, OP_LIT, 0x70, 0x11, 0x01, 0x00, OP_RBYTE}));
  // Branch operands stay 4 bytes wide while the index width is 2.
  EXPECT_EQ(exec([](Asm& a) {
              int target = a.newLabel();
              uint32_t lit = a.padTo(300).lit(5);
              a.op(OP_RWORD).br(OP_BR, target).raw({OP_LIT, 0xFF, 0xFF}).bind(target);
              a.op(OP_LIT).raw16(static_cast<uint16_t>(lit)).op(OP_RBYTE);
            }),
            "int:5");
  // OP_BRF jumps on zero and keeps the zero; OP_BRT falls through.
  EXPECT_EQ(exec([](Asm& a) {
              int end = a.newLabel();
              a.load(0).br(OP_BRT, end).br(OP_BRF, end).load(5).bind(end);
            }),
            "int:0");
  // Bytes without an opcode are skipped.
  EXPECT_EQ(exec([](Asm& a) { a.raw({0x30, 0x7F, 0x83, 0xEF}).load(1); }), "int:1");
}

// OP_DELETE through references, with and without an owner, runs in constructors.qel
// and references.qel; a reference of a container gives up the stack copy's count.
TEST_F(Interp, ReferencesVariablesTemporariesAndMembers) {
  QelVector* vec = new QelVector();
  QelValue keep(vec, false, false);
  EXPECT_EQ(unary(OP_MKREF, keep), "type:QVT_VECTORREF");
  EXPECT_EQ(vec->getRefCnt(), 2);  // the literal and this test
  EXPECT_EQ(unary(OP_MKREF, 3), "int:3");
  EXPECT_EQ(exec([](Asm& a) { a.op(OP_REF, a.lit(1)); }), "error:invalid variable reference QVT_INTEGER\n");
  // Temporaries have no bounds test: a slot past the stack reads nil.
  EXPECT_EQ(exec([](Asm& a) { a.op(OP_TSPACE, 0).load(1).op(OP_TREF, 7); }), "nil");
  EXPECT_EQ(exec([](Asm& a) { a.op(OP_MREF, 1); }), "error:object expected\n");
  EXPECT_EQ(exec([](Asm& a) { a.load(1).op(OP_NEW); }), kTypeError + "QVT_INTEGER expected\n");
}

TEST_F(Interp, CallsAndArguments) {
  auto callNative = [&](QelNativeFunction fn) {
    return exec([&](Asm& a) { a.push(QelValue(fn)).push(5).push(6).op(OP_CALL, 2); });
  };
  EXPECT_EQ(callNative(inPlace), "int:77");
  EXPECT_EQ(callNative(tooFar), "error:stack corrupted\n");

  // A callee that leaves five extra values: the stack ends at the frame slot after the call.
  Asm callee(u"five");
  for (int i = 0; i < 5; ++i) callee.op(OP_PUSH);
  QelValue five = procValue(callee.load(9).op(OP_RETURN).install(vm));
  EXPECT_EQ(exec([&](Asm& a) {
              a.push(five).push(1).push(2).op(OP_CALL, 2);
              a.push(QelValue(probe)).op(OP_CALL, 0).op(OP_POP);
            }),
            "int:9");
  EXPECT_EQ(g_size, 3u);  // frame slot 1, then the probe's call slot 2

  const QelChar* argv[] = {u"one", u"two"};
  EXPECT_EQ(exec([](Asm& a) { a.op(OP_AREF, 2); }, 2, argv), "error:too few arguments\n");
}

// Sends and operator methods where the script tests cannot reach: native and broken
// function members, receivers that are no objects, and the missing-method names.
TEST_F(Interp, SendsAndOperatorMethods) {
  QelClass* base = makeClass(vm, u"Base");
  QelClass* derived = makeClass(vm, u"Derived", base);
  base->addMethod(u"native", inPlace);
  base->funcMembers()[QelString(u"number")].setValue(QelValue(3));
  base->funcMembers()[QelString(u"null")].setValue(QelValue(static_cast<QelNativeFunction>(nullptr)));
  method(base, u"compare", [](Asm& m) { m.load(str(u"x")); });
  auto sendTo = [&](const QelChar* name) {
    return exec([&](Asm& a) { newObject(a, derived), a.push(str(name)).push(0).op(OP_SEND, 2); });
  };
  EXPECT_EQ(sendTo(u"native"), "int:77");
  // Messages that end in a line end get another one.
  EXPECT_EQ(sendTo(u"number"), "error:numberhas no method implementation\n\n");
  EXPECT_EQ(sendTo(u"null"), "error:null : NULL pointer to native function\n\n");
  EXPECT_EQ(exec([](Asm& a) { a.load(1).push(str(u"m")).op(OP_SEND, 1); }),
            kTypeError + "QVT_INTEGER expected\n");
  // A missing destructor is no error, and nothing else happens.
  EXPECT_EQ(sendTo(u"dtor"), "int:0");

  auto objOp = [&](QelOpCode op, int32_t n, bool objLeft) {
    return exec([&](Asm& a) {
      if (objLeft) newObject(a, derived);
      a.push(n);
      if (!objLeft) newObject(a, derived);
      a.op(op);
    });
  };
  EXPECT_EQ(objOp(OP_SUB, 5, true), "error:no method for name OP_SUB\n");
  EXPECT_EQ(objOp(OP_SHL, 5, false), "error:no method for name OP_SHL_R\n");
  EXPECT_EQ(objOp(OP_DIV, 0, true), "error:divide 0 error\n");  // the zero test comes first
  EXPECT_EQ(objOp(OP_LT, 5, true), kTypeError + "QVT_STRING expected\n");  // "compare" must answer an integer
  EXPECT_EQ(exec([&](Asm& a) { newObject(a, derived), a.op(OP_INC); }), "error:no method for name OP_INC\n");
}

TEST_F(Interp, SafetyLimits) {
  // (Deep recursion through operator methods: limits_test.cpp.) Running off the end, operands cut off by the end, branches outside the code, a bad literal.
  auto fails = [&](const std::function<void(Asm&)>& body) {
    return exec(body, 0, nullptr, false).rfind("error:", 0) == 0;
  };
  EXPECT_TRUE(fails([](Asm& a) { a.op(OP_NOP); }));
  EXPECT_TRUE(fails([](Asm& a) { a.op(OP_LIT); }));
  EXPECT_TRUE(fails([](Asm& a) { a.op(OP_BR).raw({0x10, 0}); }));
  EXPECT_TRUE(fails([](Asm& a) { a.op(OP_BR, 0x10000000); }));
  EXPECT_TRUE(fails([](Asm& a) { a.op(OP_LIT, 200).op(OP_RETURN); }));
  EXPECT_TRUE(fails([](Asm& a) { a.op(OP_POP).op(OP_POP).op(OP_RETURN); }));
  EXPECT_EQ(exec([](Asm& a) { a.op(OP_RDWORD).op(OP_TREF).raw32(0xFFFFFFFF); }), "nil");

  QelInterpreter in(vm);
  EXPECT_FALSE(in.execute(u"unknown", 0, nullptr));
  EXPECT_TRUE(in.errors().empty());
  EXPECT_EQ(show(*in.SP), "nil");
  EXPECT_FALSE(in.call(0, nullptr));
  EXPECT_EQ(utf8(in.errors()), "no bytecode: interpret(QelVector* byteCode)\n\n");
}

TEST_F(Interp, TraceSwitches) {
  // OP_TRON switches tracing on only when a debugger is attached.
  Asm b(u"tron");
  b.op(OP_TRON).push(QelValue(probe)).op(OP_CALL, 0).op(OP_RETURN).install(vm);
  QelStringPrinter trace;
  EXPECT_TRUE(vm.execute(u"tron", 0, nullptr, false, &err, &trace));
  EXPECT_TRUE(g_trace);
  EXPECT_NE(utf8(trace.c_str()).find("OP_CALL"), std::string::npos);
  Asm c(u"tron2");
  c.op(OP_TRON).op(OP_RETURN).install(vm);
  QelInterpreter in(vm);
  EXPECT_TRUE(in.execute(u"tron2", 0, nullptr));
  EXPECT_FALSE(in.getTrace());
}
