// A native extension library: "mathext", adding a function and a class to any machine
// that loads it.
//
//   hypot(a, b)          the length of the hypotenuse, a double
//   avg = new Averager() an object collecting numbers:
//   avg->add(x)          adds a number, answers how many were added
//   avg->mean()          their mean, a double (0.0 before any add)
//
// The machine loads the library when a script says #import "libmathext.so" or the host
// calls loadNativeModule, and calls its RegisterNativeModule once per machine. The
// library stays loaded until that machine is destroyed or reinitialized.
#include <qel.h>

#include <cmath>

namespace {

// A number argument (integer, float or double) as a double; false for anything else.
bool numberArg(const QelNativeCall& call, int k, double& out) {
  if (!call[k].isNumber()) return false;
  out = call[k].toDouble();
  return true;
}

bool hypotenuse(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  double a, b;
  if (!numberArg(call, 1, a) || !numberArg(call, 2, b)) return call.fail(u"hypot: numbers expected");
  return call.result(QelValue(std::sqrt(a * a + b * b)));
}

// Averager's data members, in the order they are added: slots 1 and 2 of its objects
// (slot 0 holds the class).
const unsigned int kSumSlot = 1;
const unsigned int kCountSlot = 2;

// The member vector of the object a method runs on (argument 1), or null.
QelVector* membersOf(const QelNativeCall& call) {
  QelObject* self = call.object(1);
  QelVector* members = self ? self->getMemberData() : nullptr;
  return members && members->size() > kCountSlot ? members : nullptr;
}

// The constructor: starts empty and answers the object.
bool averagerConstruct(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelVector* members = membersOf(call);
  if (!members) return call.fail(u"Averager: object expected");
  (*members)[kSumSlot] = QelValue(0.0);
  (*members)[kCountSlot] = QelValue(int32_t{0});
  return call.result(call[1]);
}

bool averagerAdd(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelVector* members = membersOf(call);
  double x;
  if (!members || !numberArg(call, 2, x)) return call.fail(u"Averager::add: number expected");
  (*members)[kSumSlot] = QelValue((*members)[kSumSlot].toDouble() + x);
  (*members)[kCountSlot] = QelValue((*members)[kCountSlot].toLong() + 1);
  return call.result((*members)[kCountSlot]);
}

bool averagerMean(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelVector* members = membersOf(call);
  if (!members) return call.fail(u"Averager: object expected");
  int32_t count = (*members)[kCountSlot].toLong();
  double sum = (*members)[kSumSlot].toDouble();
  return call.result(QelValue(count > 0 ? sum / count : 0.0));
}

}  // namespace

// The one export the machine looks for. A class belongs to one machine, so each
// machine gets a class of its own.
extern "C" __attribute__((visibility("default"))) void RegisterNativeModule(QelVirtualMachine* vm) {
  vm->registerNativeFunction(u"hypot", hypotenuse);

  QelClass* averager = new QelClass(*vm);
  averager->addDataMember(u"sum");
  averager->addDataMember(u"count");
  averager->addMethod(u"Averager", averagerConstruct);
  averager->addMethod(u"add", averagerAdd);
  averager->addMethod(u"mean", averagerMean);
  averager->fixupDataDefs();
  // The machine takes a count on the class; if the name is taken, nothing holds it.
  if (!vm->registerNativeClass(u"Averager", averager)) delete averager;
}
