// Mathematics built-ins: the one-argument functions share one routine that applies
// a platform function to the argument as a double; "abs" keeps integers integral,
// "pow" goes through exp and log; "rand" and "srand" drive the platform's generator.
#include <cfloat>
#include <cmath>
#include <cstdlib>

#include "builtins/args.h"

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

double sine(double x) { return std::sin(x); }
double cosine(double x) { return std::cos(x); }
double tangent(double x) { return std::tan(x); }
double arcTangent(double x) { return std::atan(x); }
double squareRoot(double x) { return std::sqrt(x); }
double logarithm(double x) { return std::log(x); }
double exponential(double x) { return std::exp(x); }
double absolute(double x) { return std::fabs(x); }

}  // namespace

bool QelDefaultFunctions::Qel_sin(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return applyMath(vm, nargs, args, sine);
}

bool QelDefaultFunctions::Qel_cos(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return applyMath(vm, nargs, args, cosine);
}

bool QelDefaultFunctions::Qel_tan(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return applyMath(vm, nargs, args, tangent);
}

bool QelDefaultFunctions::Qel_atan(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return applyMath(vm, nargs, args, arcTangent);
}

bool QelDefaultFunctions::Qel_sqrt(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return applyMath(vm, nargs, args, squareRoot);
}

bool QelDefaultFunctions::Qel_log(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return applyMath(vm, nargs, args, logarithm);
}

bool QelDefaultFunctions::Qel_exp(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  return applyMath(vm, nargs, args, exponential);
}

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
  return call.result(QelValue(static_cast<int32_t>(rand())));
}

bool QelDefaultFunctions::Qel_srand(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  if (!systemReady(vm)) return false;
  BuiltinCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  srand(static_cast<unsigned>(call[1].toLong()));
  return call.none();
}
