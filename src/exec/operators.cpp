// Arithmetic, bitwise, comparison, indexing and reference operations over every
// combination of value types. Binary operations find the left operand at SP-1 and the
// right one at SP; the result replaces the left one and SP moves down by one. Where an
// object takes part, the operation becomes a send of the operator's method name.
#include <cmath>

#include "exec/messages.h"
#include "qel/interpreter.h"

using namespace qel;

namespace {

enum ArithOp { kAdd, kSub, kMul, kDiv, kRem };
enum BitOp { kAnd, kOr, kXor, kShl, kShr };

int32_t wrapArith(ArithOp op, int32_t a, int32_t b) {
  uint32_t ua = static_cast<uint32_t>(a), ub = static_cast<uint32_t>(b);
  switch (op) {
    case kAdd: return static_cast<int32_t>(ua + ub);
    case kSub: return static_cast<int32_t>(ua - ub);
    case kMul: return static_cast<int32_t>(ua * ub);
    case kDiv: return (a == INT32_MIN && b == -1) ? INT32_MIN : a / b;
    default: return (b == -1) ? 0 : a % b;
  }
}

double floatArith(ArithOp op, double a, double b) {
  switch (op) {
    case kAdd: return a + b;
    case kSub: return a - b;
    case kMul: return a * b;
    case kDiv: return a / b;
    default: return std::fmod(a, b);
  }
}

int signOf(double d) { return d < 0 ? -1 : (d > 0 ? 1 : 0); }

const QelChar* const kArithNames[][2] = {
    {u"OP_ADD", u"OP_ADD_R"}, {u"OP_SUB", u"OP_SUB_R"}, {u"OP_MUL", u"OP_MUL_R"},
    {u"OP_DIV", u"OP_DIV_R"}, {u"OP_REM", u"OP_REM_R"},
};
const QelChar* const kBitNames[][2] = {
    {u"OP_BAND", u"OP_BAND_R"}, {u"OP_BOR", u"OP_BOR_R"}, {u"OP_XOR", u"OP_XOR_R"},
    {u"OP_SHL", u"OP_SHL_R"},   {u"OP_SHR", u"OP_SHR_R"},
};

}  // namespace

// Hands the operation to an object operand: the left object gets the plain name, a
// right-only object the reflected one (after the operands are swapped).
bool QelInterpreter::binaryPrologue(const QelChar* name, const QelChar* reflected, bool& handled) {
  QelValue& left = SP[-1];
  QelValue& right = SP[0];
  handled = true;
  if (!left.isObject() && right.isObject()) {
    QelValue tmp(std::move(left));
    left = std::move(right);
    right = std::move(tmp);
    return send(1, reflected);
  }
  if (left.isObject()) return send(1, name);
  handled = false;
  return true;
}

// Stores a result into the left operand's slot and pops the right one.
#define QEL_SET_RESULT(expr)  \
  do {                        \
    QelValue result_(expr);   \
    SP[-1] = std::move(result_); \
    --SP;                     \
  } while (0)

bool QelInterpreter::numericBinary(int opIndex) {
  ArithOp op = static_cast<ArithOp>(opIndex);
  if (op == kDiv || op == kRem) {
    // The zero test reads the first data word of the divisor, whatever its type: a
    // double whose low half is zero counts as zero too.
    if (SP[0].lowWord() == 0) return returnError(kMsgDivideByZero, nullptr);
  }
  bool handled;
  bool ok = binaryPrologue(kArithNames[op][0], kArithNames[op][1], handled);
  if (handled) return ok;
  const QelValue& l = SP[-1];
  const QelValue& r = SP[0];
  QelValueType lt = l.getType(), rt = r.getType();
  if (lt != QVT_INTEGER && lt != QVT_FLOAT && lt != QVT_DOUBLE) return badType(lt, QVT_INTEGER);
  if (rt != QVT_INTEGER && rt != QVT_FLOAT && rt != QVT_DOUBLE) return badType(rt, lt);
  if (lt == QVT_INTEGER && rt == QVT_INTEGER) {
    QEL_SET_RESULT(wrapArith(op, l.toLong(), r.toLong()));
  } else if (lt == QVT_DOUBLE || rt == QVT_DOUBLE) {
    QEL_SET_RESULT(floatArith(op, l.toDouble(), r.toDouble()));
  } else if (op == kRem) {
    QEL_SET_RESULT(static_cast<float>(std::fmod(static_cast<double>(l.toFloat()), r.toFloat())));
  } else {
    float a = l.toFloat(), b = r.toFloat();
    QEL_SET_RESULT(op == kAdd ? a + b : op == kSub ? a - b : op == kMul ? a * b : a / b);
  }
  return true;
}

bool QelInterpreter::doOP_ADD() {
  bool handled;
  bool ok = binaryPrologue(u"OP_ADD", u"OP_ADD_R", handled);
  if (handled) return ok;
  const QelValue& l = SP[-1];
  const QelValue& r = SP[0];
  QelValueType lt = l.getType(), rt = r.getType();
  if (l.isString()) {
    QelString* ls = l;
    if (!ls) return returnError(u"left string operand is NULL", nullptr);
    if (rt == QVT_INTEGER) {
      QelString* sum = new QelString(*ls);
      *sum += static_cast<QelChar>(r.toLong());
      QEL_SET_RESULT(QelValue(sum, false));
      return true;
    }
    if (!r.isString()) return badType(rt, QVT_STRING);
    QelString* rs = r;
    if (!rs) return returnError(u"right string operand is NULL", nullptr);
    QEL_SET_RESULT(QelValue(new QelString(*ls + *rs), false));
    return true;
  }
  if (lt == QVT_INTEGER && r.isString()) {
    QelString* rs = r;
    if (!rs) return returnError(u"right string operand is NULL", nullptr);
    // An integer before a string stands for the character with that code.
    QelString* sum = new QelString();
    *sum += static_cast<QelChar>(l.toLong());
    *sum += *rs;
    QEL_SET_RESULT(QelValue(sum, false));
    return true;
  }
  if (lt != QVT_INTEGER && lt != QVT_FLOAT && lt != QVT_DOUBLE) return badType(lt, QVT_INTEGER);
  if (rt != QVT_INTEGER && rt != QVT_FLOAT && rt != QVT_DOUBLE) return badType(rt, lt);
  if (lt == QVT_INTEGER && rt == QVT_INTEGER) {
    QEL_SET_RESULT(wrapArith(kAdd, l.toLong(), r.toLong()));
  } else if (lt == QVT_DOUBLE || rt == QVT_DOUBLE) {
    QEL_SET_RESULT(l.toDouble() + r.toDouble());
  } else {
    QEL_SET_RESULT(l.toFloat() + r.toFloat());
  }
  return true;
}

bool QelInterpreter::doOP_SUB() { return numericBinary(kSub); }
bool QelInterpreter::doOP_MUL() { return numericBinary(kMul); }
bool QelInterpreter::doOP_DIV() { return numericBinary(kDiv); }
bool QelInterpreter::doOP_REM() { return numericBinary(kRem); }

bool QelInterpreter::bitwiseBinary(int opIndex) {
  BitOp op = static_cast<BitOp>(opIndex);
  bool handled;
  bool ok = binaryPrologue(kBitNames[op][0], kBitNames[op][1], handled);
  if (handled) return ok;
  QelValueType lt = SP[-1].getType(), rt = SP[0].getType();
  if (lt != QVT_INTEGER) return badType(lt, QVT_INTEGER);
  if (rt != QVT_INTEGER) return badType(rt, QVT_INTEGER);
  int32_t a = SP[-1].toLong(), b = SP[0].toLong();
  unsigned int count = static_cast<uint32_t>(b) & 0xFF;  // only the low 8 bits of a count count
  int32_t r;
  switch (op) {
    case kAnd: r = a & b; break;
    case kOr: r = a | b; break;
    case kXor: r = a ^ b; break;
    case kShl: r = count >= 32 ? 0 : static_cast<int32_t>(static_cast<uint32_t>(a) << count); break;
    default: r = count >= 32 ? (a < 0 ? -1 : 0) : (a >> count); break;
  }
  QEL_SET_RESULT(r);
  return true;
}

bool QelInterpreter::doOP_BAND() { return bitwiseBinary(kAnd); }
bool QelInterpreter::doOP_BOR() { return bitwiseBinary(kOr); }
bool QelInterpreter::doOP_XOR() { return bitwiseBinary(kXor); }
bool QelInterpreter::doOP_SHL() { return bitwiseBinary(kShl); }
bool QelInterpreter::doOP_SHR() { return bitwiseBinary(kShr); }

bool QelInterpreter::doOP_BNOT() {
  QelValue& top = SP[0];
  if (top.isObject()) return send(0, u"OP_BNOT");
  if (!checkType(top, QVT_INTEGER)) return false;
  top.rawLong() = ~top.rawLong();
  return true;
}

bool QelInterpreter::doOP_NEG() {
  QelValue& top = SP[0];
  switch (top.getType()) {
    case QVT_INTEGER:
      top.rawLong() = static_cast<int32_t>(0u - static_cast<uint32_t>(top.rawLong()));
      return true;
    case QVT_FLOAT:
      top.rawFloat() = -top.rawFloat();
      return true;
    case QVT_DOUBLE:
      top.rawDouble() = -top.rawDouble();
      return true;
    case QVT_OBJECT:
    case QVT_OBJECTREF:
      return send(0, u"OP_NEG");
    default:
      return badType(top.getType(), QVT_INTEGER);
  }
}

bool QelInterpreter::doOP_INCDEC(int delta) {
  QelValue& top = SP[0];
  switch (top.getType()) {
    case QVT_INTEGER:
      top.rawLong() = static_cast<int32_t>(static_cast<uint32_t>(top.rawLong()) + static_cast<uint32_t>(delta));
      return true;
    case QVT_FLOAT:
      top.rawFloat() += static_cast<float>(delta);
      return true;
    case QVT_DOUBLE:
      top.rawDouble() += delta;
      return true;
    case QVT_OBJECT:
    case QVT_OBJECTREF:
      return send(0, delta > 0 ? u"OP_INC" : u"OP_DEC");
    default:
      return badType(top.getType(), QVT_INTEGER);
  }
}

namespace {

bool hasCompare(const QelValue& v) {
  if (!v.isObject()) return false;
  QelObject* obj = v;
  QelClass* cls = obj ? obj->getClass() : nullptr;
  return cls && cls->findFunction(u"compare");
}

int comparePayloads(const QelValue& a, const QelValue& b) {
  uint64_t x = a.rawBits(), y = b.rawBits();
  return x < y ? -1 : (x > y ? 1 : 0);
}

}  // namespace

// Leaves the three-way comparison of SP-1 with SP as an integer at SP-1, popping SP.
bool QelInterpreter::doCompare() {
  if (hasCompare(SP[-1])) {
    if (!send(1, u"compare")) return false;
    return checkType(SP[0], QVT_INTEGER);
  }
  if (hasCompare(SP[0])) {
    QelValue tmp(std::move(SP[-1]));
    SP[-1] = std::move(SP[0]);
    SP[0] = std::move(tmp);
    if (!send(1, u"compare")) return false;
    if (!checkType(SP[0], QVT_INTEGER)) return false;
    // The swapped answer is negated so the relation keeps its sense.
    SP[0].rawLong() = static_cast<int32_t>(0u - static_cast<uint32_t>(SP[0].rawLong()));
    return true;
  }
  const QelValue& l = SP[-1];
  const QelValue& r = SP[0];
  QelValueType lt = l.getType(), rt = r.getType();
  int32_t result;
  if (lt == QVT_NULL) {
    if (rt == QVT_NULL) result = 0;
    else if (r.isNumber()) return badType(rt, QVT_VAR);
    else result = -1;
  } else if (lt == QVT_INTEGER) {
    if (rt == QVT_INTEGER) {
      // The wrapping difference, deliberately not reduced to -1, 0 or 1.
      result = static_cast<int32_t>(static_cast<uint32_t>(l.toLong()) - static_cast<uint32_t>(r.toLong()));
    } else if (r.isNumber()) {
      result = signOf(l.toDouble() - r.toDouble());
    } else {
      return badType(rt, QVT_INTEGER);
    }
  } else if (lt == QVT_FLOAT || lt == QVT_DOUBLE) {
    if (!r.isNumber()) return badType(rt, QVT_FLOAT);
    result = signOf(l.toDouble() - r.toDouble());
  } else if (lt == QVT_STRING) {
    // Only an owned string compares as text; a string reference on either side
    // takes the identity rules.
    if (rt == QVT_NULL) {
      result = 1;
    } else if (rt == QVT_STRING) {
      QelString* ls = l;
      QelString* rs = r;
      result = qelStrCmp(ls ? ls->c_str() : nullptr, rs ? rs->c_str() : nullptr);
    } else {
      return badType(rt, QVT_STRING);
    }
  } else {
    if (rt == QVT_NULL) result = 1;
    else if (rt == lt) result = comparePayloads(l, r);
    else return badType(lt, rt);
  }
  QEL_SET_RESULT(result);
  return true;
}

namespace {

// The element count of an indexable container, or -1 when it is none.
int64_t containerSize(const QelValue& c) {
  switch (c.getType()) {
    case QVT_BUFFER:
    case QVT_BUFFERREF: {
      QelBuffer* b = c;
      return b ? b->size() : 0;
    }
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF: {
      QelCharBuffer* b = c;
      return b ? b->size() : 0;
    }
    case QVT_VECTOR:
    case QVT_VECTORREF: {
      QelVector* v = c;
      return v ? v->size() : 0;
    }
    case QVT_STRING:
    case QVT_STRINGREF: {
      QelString* s = c;
      return s ? s->length() : 0;
    }
    default:
      return -1;
  }
}

bool isDictionary(const QelValue& v) { return v.getType() == QVT_DICTIONARY || v.getType() == QVT_DICTIONARYREF; }

}  // namespace

bool QelInterpreter::doOP_VREF() {
  const QelValue& c = SP[-1];
  if (c.isObject()) return send(1, u"OP_VREF");
  if (isDictionary(c)) {
    if (!checkType(SP[0], QVT_STRING)) return false;
    QelDictionary* d = c;
    if (!d || !static_cast<QelString*>(SP[0])) return returnError(kMsgSubscript, nullptr);
    QelValue keep(d, false);
    QelValue v((*d)[*static_cast<QelString*>(SP[0])].getValue());
    QEL_SET_RESULT(std::move(v));
    return true;
  }
  int64_t n = containerSize(c);
  if (n < 0) return checkType(c, QVT_OBJECT);
  if (!checkType(SP[0], QVT_INTEGER)) return false;
  int32_t i = SP[0].toLong();
  if (i < 0 || i >= n) return returnError(kMsgSubscript, nullptr);
  switch (c.getType()) {
    case QVT_BUFFER:
    case QVT_BUFFERREF:
      QEL_SET_RESULT(static_cast<int32_t>((*static_cast<QelBuffer*>(c))[i]));
      break;
    case QVT_CHARBUFFER:
    case QVT_CHARBUFFERREF:
      QEL_SET_RESULT(static_cast<int32_t>((*static_cast<QelCharBuffer*>(c))[i]));
      break;
    case QVT_VECTOR:
    case QVT_VECTORREF: {
      QelValue v((*static_cast<QelVector*>(c))[i]);
      QEL_SET_RESULT(std::move(v));
      break;
    }
    default:
      QEL_SET_RESULT(static_cast<int32_t>((*static_cast<QelString*>(c))[i]));
      break;
  }
  return true;
}

bool QelInterpreter::doOP_VSET() {
  const QelValue& c = SP[-2];
  if (c.isObject()) {
    // The method's answer replaces the container.
    return send(2, u"OP_VSET");
  }
  QelValue value(SP[0]);
  if (isDictionary(c)) {
    if (!checkType(SP[-1], QVT_STRING)) return false;
    QelDictionary* d = c;
    if (!d || !static_cast<QelString*>(SP[-1])) return returnError(kMsgSubscript, nullptr);
    QelValue keep(d, false);
    (*d)[*static_cast<QelString*>(SP[-1])].setValue(value);
  } else {
    int64_t n = containerSize(c);
    if (n < 0) return checkType(c, QVT_OBJECT);
    if (!checkType(SP[-1], QVT_INTEGER)) return false;
    int32_t i = SP[-1].toLong();
    if (i < 0 || i >= n) return returnError(kMsgSubscript, nullptr);
    switch (c.getType()) {
      case QVT_BUFFER:
      case QVT_BUFFERREF: {
        unsigned char b = static_cast<unsigned char>(value.toLong());
        QelBuffer* buffer = c;
        (*buffer)[i] = b;  // counts as a change: the buffer may hold a procedure's code
        value = QelValue(static_cast<int32_t>(b));
        break;
      }
      case QVT_CHARBUFFER:
      case QVT_CHARBUFFERREF: {
        QelChar ch = static_cast<QelChar>(value.toLong());
        (*static_cast<QelCharBuffer*>(c))[i] = ch;
        value = QelValue(static_cast<int32_t>(ch));
        break;
      }
      case QVT_VECTOR:
      case QVT_VECTORREF: {
        QelVector* v = c;
        QelValue keep(v, false, false);
        (*v)[i] = value;
        break;
      }
      default: {
        // Writes into the string's own storage: every holder sees the change.
        QelChar ch = static_cast<QelChar>(value.toLong());
        (*static_cast<QelString*>(c))[i] = ch;
        value = QelValue(static_cast<int32_t>(ch));
        break;
      }
    }
  }
  SP[-2] = std::move(value);
  SP -= 2;
  return true;
}

bool QelInterpreter::doOP_MKREF() {
  SP[0].makeReference();
  return true;
}

// Ends the referenced object when no owner holds it any more; references to it then
// read as a dead object.
bool QelInterpreter::doOP_DELETE() {
  QelRefObject* obj = qelIsObjectRef(SP[0].getType()) ? SP[0].getRef() : nullptr;
  if (obj && obj->getRefCnt() == 0) {
    QelValue keep(SP[0]);  // the object's memory stays while this reference lives
    obj->destroy();        // may run a script destructor, which moves the stack
  }
  SP[0].dispose();
  return true;
}

bool QelInterpreter::doOP_NEW() {
  if (!checkType(SP[0], QVT_CLASS)) return false;
  QelClass* cls = SP[0];
  SP[0] = QelValue(new QelObject(cls), false);
  return true;
}
