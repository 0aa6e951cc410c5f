// Runs script files over and over in one machine, re-initialising it between rounds,
// and watches the resident memory: after the first rounds have warmed the allocator it
// must stay where it is.
//   qel_soak ROUNDS FILE...
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "qel.h"

namespace {

long residentKiB() {
  FILE* f = fopen("/proc/self/statm", "r");
  long pages = 0, resident = 0;
  if (f) {
    if (fscanf(f, "%ld %ld", &pages, &resident) != 2) resident = 0;
    fclose(f);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 3) {
    fputs("usage: qel_soak ROUNDS FILE...\n", stderr);
    return 64;
  }
  int rounds = atoi(argv[1]);
  std::vector<QelString> files;
  for (int i = 2; i < argc; ++i) files.emplace_back(argv[i]);
  QelStringPrinter out;
  QelVirtualMachine vm(&out);
  // Runs after the first tenth of the rounds set the mark the rest must keep.
  int warm = rounds / 10 > 0 ? rounds / 10 : 1;
  long mark = 0, peak = 0;
  for (int round = 1; round <= rounds; ++round) {
    for (const QelString& file : files) {
      if (vm.compileFile(file.c_str(), false, false, &out, &out)) vm.execute(u"main", 0, nullptr, false, &out);
      out.clear();
      vm.reinit();
    }
    long now = residentKiB();
    if (round == warm) mark = now;
    if (now > peak) peak = now;
    if (round % 100 == 0 || round == rounds) fprintf(stderr, "round %d: %ld KiB resident\n", round, now);
  }
  long now = residentKiB();
  // A little slack for the allocator's own bookkeeping; a leak of one object per script
  // per round would pass it by far.
  long slack = 512;
  fprintf(stderr, "after round %d: %ld KiB, after all %d: %ld KiB (peak %ld)\n", warm, mark, rounds, now, peak);
  if (now > mark + slack) {
    fprintf(stderr, "resident memory grew by %ld KiB\n", now - mark);
    return 1;
  }
  return 0;
}
