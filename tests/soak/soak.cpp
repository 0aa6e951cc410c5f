// Runs script files over and over in one machine, re-initialising it between rounds,
// and watches the resident memory: after the first rounds have warmed the allocator it
// must stay where it is.
//   qel_soak ROUNDS FILE...
#include <malloc.h>
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

// Bytes the allocator has handed out and not had back.
size_t heapInUse() { return mallinfo2().uordblks; }

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
  // The first tenth of the rounds, and at least 50, warm the allocator up; the round
  // after sets the mark the rest must keep.
  int warm = rounds / 10 > 50 ? rounds / 10 : 50 < rounds ? 50 : rounds;
  long mark = 0, peak = 0;
  for (int round = 1; round <= rounds; ++round) {
    for (const QelString& file : files) {
      if (vm.compileFile(file.c_str(), false, false, &out, &out)) vm.execute(u"main", 0, nullptr, false, &out);
      out.clear();
      vm.reinit();
    }
    long now = residentKiB();
    if (round == warm) mark = now;
    if (round >= warm && now > peak) peak = now;
    if (round % 100 == 0 || round == rounds) {
      fprintf(stderr, "round %d: %ld KiB resident, %zu bytes in use\n", round, now, heapInUse());
    }
  }
  long now = residentKiB();
  // Past the warm-up, the resident memory may move by no more than one page: a table
  // that keeps a few bytes a round crosses that well before the last round.
  long slack = sysconf(_SC_PAGESIZE) / 1024;
  fprintf(stderr, "after round %d: %ld KiB, after all %d: %ld KiB (peak %ld)\n", warm, mark, rounds, now, peak);
  if (peak > mark + slack) {
    fprintf(stderr, "resident memory grew by %ld KiB after the warm-up\n", peak - mark);
    return 1;
  }
  return 0;
}
