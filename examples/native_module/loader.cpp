// A host that loads the native module "mathext" itself, with loadNativeModule, before
// compiling a script that uses it.
//
//   mathext_loader PATH-TO-libmathext.so
#include <qel.h>

#include <cstdio>

int main(int argc, char** argv) {
  if (argc != 2) {
    fprintf(stderr, "usage: mathext_loader LIBRARY\n");
    return 64;
  }
  QelFileStreamPrinter out(stdout, false);
  QelVirtualMachine vm(&out);

  // Loads the library and calls its RegisterNativeModule with this machine. The name is
  // recorded as given; loading the same name again answers true and does nothing.
  QelString library(argv[1]);  // UTF-8 to engine text
  if (!vm.loadNativeModule(library.c_str())) {
    fprintf(stderr, "cannot load %s\n", argv[1]);
    return 1;
  }
  vm.loadNativeModule(library.c_str());
  printf("loaded, %u module(s)\n", vm.modules().count());

  // The module's class must be registered before a script that says "new Averager"
  // is compiled: the compiler looks classes up as it meets them.
  const QelChar* script = uR"(
average(a, b, c; avg) {
  avg = new Averager();
  avg->add(int(a));
  avg->add(int(b));
  avg->add(int(c));
  print("mean ", avg->mean(), ", hypot(a, b) ", hypot(int(a), int(b)), "\n");
  return avg->mean();
}
)";
  if (!vm.compileText(script)) return 1;
  const QelChar* values[] = {u"5", u"12", u"1"};
  if (!vm.execute(u"average", 3, values)) return 1;
  // A double result: Qel_GetIntResult would truncate it; from C++ the value is at hand.
  const QelValue& result = vm.getResult();
  QelString typeName(getValueTypeName(result.getType()));
  printf("result %g, type %s\n", result.toDouble(), typeName.a_str());
  return 0;
}
