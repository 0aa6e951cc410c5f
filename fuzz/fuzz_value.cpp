// Fuzz target: the input is a value stream, as "freadval" reads it. Byte 0 picks the
// stream: even, a regular file (its size known to the reader); odd, a memory stream
// (size unknown). A value that reads back is written out again and then released, which
// runs the destructors of any objects it holds.
#include <cstdio>
#include <cstdlib>

#include "harness.h"

namespace {

// Classes the stream's objects may name: a base, a derived class with a destructor, and
// one with an operator method, so that objects read back have code to run.
const QelChar kClasses[] =
    u"class A { a; b; A(); }\n"
    u"class B : A { c; ~B(); toString(); }\n"
    u"class C { v; OP_ADD(x); }\n"
    u"A::A() { a = 1; return this; }\n"
    u"B::~B() { c = nil; }\n"
    u"B::toString() { return \"B\"; }\n"
    u"C::OP_ADD(x) { return v; }\n";

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return -1;
  bool regular = (data[0] & 1) == 0;
  ++data;
  --size;
  FILE* fp;
  if (regular) {
    fp = fopen(qelfuzz::writeScratch(2, data, size).c_str(), "rb");
  } else {
    static char empty = 0;
    fp = size ? fmemopen(const_cast<uint8_t*>(data), size, "rb") : fmemopen(&empty, 1, "rb");
    if (!size && fp) fgetc(fp);
  }
  if (!fp) abort();
  {
    qelfuzz::BoundedPrinter out;
    QelVirtualMachine vm(&out);
    qelfuzz::sandbox(vm);
    qelfuzz::limitInstructions(vm);
    if (!vm.compileText(kClasses, false, false, &out, &out)) abort();
    QelValue value;
    QelDictionaryIO io(vm);
    if (io.readSingleValue(fp, value)) {
      char* written = nullptr;
      size_t length = 0;
      FILE* back = open_memstream(&written, &length);
      if (!back) abort();
      io.writeSingleValue(back, value);
      fclose(back);
      free(written);
    }
    value.dispose();
  }
  fclose(fp);
  qelfuzz::closeScriptStreams();
  return 0;
}
