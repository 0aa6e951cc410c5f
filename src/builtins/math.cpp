// Mathematics built-ins: the one-argument functions share one routine that applies
// a platform function to the argument as a double; "abs" keeps integers integral,
// "pow" goes through exp and log; "rand" and "srand" drive the platform's generator,
// one sequence shared by every machine of the process.
#include <cfloat>
#include <cmath>

#include "builtins/args.h"
#include "platform/process.h"

using namespace qel;

namespace {

typedef double (*MathFunction)(double);

// One argument through `operator double`; a non-numeric value reads as the largest
// finite double, which is how it is told apart.
bool applyMath(QelVirtualMachine* vm, int nargs, ValPtr& args, MathFunction fn) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  double x = call[1].toDouble();
  if (x == DBL_MAX) return call.fail(kMsgInvalidArgumentType);
  return call.result(QelValue(fn(x)));
}

double absolute(double x) { return std::fabs(x); }

}  // namespace

#define QEL_MATH_BUILTIN(name)                                                           \
  bool QelDefaultFunctions::Qel_##name(QelVirtualMachine* vm, int nargs, ValPtr& args) { \
    return applyMath(vm, nargs, args, [](double x) { return std::name(x); });            \
  }
QEL_MATH_BUILTIN(sin)
QEL_MATH_BUILTIN(cos)
QEL_MATH_BUILTIN(tan)
QEL_MATH_BUILTIN(atan)
QEL_MATH_BUILTIN(sqrt)
QEL_MATH_BUILTIN(log)
QEL_MATH_BUILTIN(exp)
#undef QEL_MATH_BUILTIN

// An integer stays an integer (the most negative one is its own absolute value);
// everything else, wrong counts included, is the shared routine's with fabs.
bool QelDefaultFunctions::Qel_abs(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (nargs != 1 || !call.isInteger(1)) return applyMath(vm, nargs, args, absolute);
  int32_t x = call.integer(1);
  int32_t negated = static_cast<int32_t>(0u - static_cast<uint32_t>(x));
  return call.result(QelValue(x > negated ? x : negated));
}

bool QelDefaultFunctions::Qel_pow(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  double base = call[1].toDouble();
  double exponent = call[2].toDouble();
  if (base == DBL_MAX || exponent == DBL_MAX) return call.fail(kMsgInvalidArgumentType);
  // pow goes through exp and log, deliberately: a negative base gives not-a-number.
  return call.result(QelValue(std::exp(std::log(base) * exponent)));
}

bool QelDefaultFunctions::Qel_rand(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(0, 0)) return false;
  return call.result(QelValue(static_cast<int32_t>(drawRandom())));
}

bool QelDefaultFunctions::Qel_srand(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  seedRandom(static_cast<unsigned>(call[1].toLong()));
  return call.none();
}
