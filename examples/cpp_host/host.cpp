// A C++ host: a native function and a native class that scripts use, a script compiled
// from a text in memory, its result read back, and the messages of a failed compile, a
// runtime error, a trace and single-stepping, each caught in a QelStringPrinter.
//
//   cpp_host
#include <qel.h>

#include <cstdio>

namespace {

// ---- A native function: repeat(text, count) answers text repeated count times. ----
//
// A native function receives the machine, the argument count and a cursor on the last
// argument; QelNativeCall reads the arguments by position (1 = the first) and puts the
// result where the script expects it.
bool repeat(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;  // "too few arguments" / "too many arguments"
  QelString* text = call.string(1);
  if (!text || !call.isInteger(2)) return call.fail(u"repeat: a string and an integer expected");
  QelString* repeated = new QelString();
  for (int32_t i = 0; i < call.integer(2); ++i) *repeated += *text;
  // The value takes the count on the new string; the script then owns it.
  return call.result(QelValue(repeated));
}

// ---- A native class: Counter, with one data member and three native methods. ----
//
// An object keeps its data members in a vector: slot 0 holds its class, the members
// follow in the order they were added (the base class's first), numbered by
// fixupDataDefs. Counter has no base, so "count" is slot 1; a script class derived
// from Counter keeps it there too.
const unsigned int kCountSlot = 1;

// A method receives its object ("this") as argument 1 and the script's arguments after
// it. Answers the object's count cell, or null when argument 1 is not a Counter's object.
QelValue* countOf(QelNativeCall& call) {
  QelObject* self = call.object(1);
  QelVector* members = self ? self->getMemberData() : nullptr;
  if (!members || members->size() <= kCountSlot) return nullptr;
  return &(*members)[kCountSlot];
}

// new Counter() or new Counter(start). "new" makes the object, then sends it the method
// named like the class; what that method answers is the value of the "new" expression,
// so a constructor answers its object.
bool counterConstruct(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (!call.arity(1, 2)) return false;
  QelValue* count = countOf(call);
  if (!count) return call.fail(u"Counter: object expected");
  if (nargs == 2 && !call.isInteger(2)) {
    return call.fail(u"Counter: integer expected, not ", getValueTypeName(call.typeOf(2)));
  }
  *count = QelValue(nargs == 2 ? call.integer(2) : 0);
  return call.result(call[1]);
}

// counter->add(n): adds n, answers the new count.
bool counterAdd(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (!call.arity(2, 2)) return false;
  QelValue* count = countOf(call);
  if (!count || !call.isInteger(2)) return call.fail(u"Counter::add: integer expected");
  *count = QelValue(count->toLong() + call.integer(2));
  return call.result(*count);
}

// counter->value(): the count.
bool counterValue(QelVirtualMachine* vm, int nargs, ValPtr& args) {
  QelNativeCall call(vm, nargs, args);
  if (!call.arity(1, 1)) return false;
  QelValue* count = countOf(call);
  if (!count) return call.fail(u"Counter: object expected");
  return call.result(*count);
}

// Builds the class. The machine that registers it takes a count on it and frees it.
QelClass* makeCounterClass(QelVirtualMachine& vm) {
  QelClass* cls = new QelClass(vm);
  cls->addDataMember(u"count");
  cls->addMethod(u"Counter", counterConstruct);  // the constructor: named like the class
  cls->addMethod(u"add", counterAdd);
  cls->addMethod(u"value", counterValue);
  cls->fixupDataDefs();  // numbers the data members; before any object is made
  return cls;
}

// ---- The script. ----
//
// traced and stepped handle only integers, so their trace reads the same on every run
// (a trace shows heap values such as strings and objects with their addresses).
const QelChar kScript[] = uR"(
main(; obj) {
  obj = new Counter(5);
  obj->add(2);
  print(obj->value(), "\n");
  print(repeat("ab", 3), "\n");
  return obj->value();
}

label() { return repeat("=", 3) + " done"; }

wrong() { return new Counter("five"); }

traced(; a, b) {
  TRON;
  a = 6;
  b = a * 7;
  TROFF;
  return b;
}

stepped(; a) {
  TRSTEP;
  a = 1;
  a = a + 1;
  return a;
}
)";

// Asked after every single-stepped instruction: go on stepping? Here: two more steps.
int stepsLeft = 2;
bool waitForStep() { return stepsLeft-- > 0; }

// Prints a printer's text, each line indented, and empties the printer.
void show(QelStringPrinter& printer) {
  const char* text = printer.a_str();
  while (*text) {
    const char* end = text;
    while (*end && *end != '\n') ++end;
    printf("  | %.*s\n", static_cast<int>(end - text), text);
    text = *end ? end + 1 : end;
  }
  printer.clear();
}

}  // namespace

int main() {
  // The machine only points at its printer: declare the printer first so it lives longer.
  QelStringPrinter output;  // script output, and messages that have no printer of their own
  QelVirtualMachine vm(&output);
  vm.registerNativeFunction(u"repeat", repeat);
  vm.registerNativeClass(u"Counter", makeCounterClass(vm));

  // Compile reports go to `messages`.
  QelStringPrinter messages;
  if (!vm.compileText(kScript, false, false, &messages)) {
    printf("compile failed\n");
    show(messages);
    return 1;
  }
  // Run main; the value it returns is the machine's result.
  QelStringPrinter errors;
  bool ok = vm.execute(u"main", 0, nullptr, false, &errors);
  printf("main: %s, result %d\n", ok ? "ok" : "failed", static_cast<int>(vm.getResult().toLong()));
  show(output);

  // A result that is a string.
  vm.execute(u"label", 0, nullptr);
  if (QelString* text = vm.getResult()) printf("label: \"%s\"\n", text->a_str());

  // A text with an error: each report names the source (empty for a text), the line and
  // the position, and quotes the line. Compiling goes on after an error.
  bool compiled = vm.compileText(u"oops() { return 1 + ; }", false, false, &messages);
  printf("oops: %s\n", compiled ? "compiled" : "not compiled");
  show(messages);

  // A runtime error: the run fails and the error text goes to the error printer.
  ok = vm.execute(u"wrong", 0, nullptr, false, &errors);
  printf("wrong: %s\n", ok ? "ok" : "failed");
  show(errors);

  // TRON .. TROFF traces the instructions between them to the trace printer.
  QelStringPrinter trace;
  vm.execute(u"traced", 0, nullptr, false, &errors, &trace);
  printf("traced: result %d\n", static_cast<int>(vm.getResult().toLong()));
  show(trace);

  // TRSTEP traces one instruction, then asks the wait procedure whether to go on.
  vm.setDbgWaitProc(waitForStep);
  vm.execute(u"stepped", 0, nullptr, false, &errors, &trace);
  printf("stepped: result %d\n", static_cast<int>(vm.getResult().toLong()));
  show(trace);
  return 0;
}
