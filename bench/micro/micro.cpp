// Microbenchmarks of the interpreter's hot paths, one operation each: the dispatch of a counting
// loop, a script function call, a method send, an object creation, a dictionary lookup by string
// key and a string format.
//
// Each benchmark compiles a small script once into its own QelVirtualMachine, checks what one run
// answers, and then times vm.execute of a procedure that repeats the operation N times (N is the
// benchmark's argument). The time per operation is the "per_op" counter (and items_per_second its
// inverse); it includes the loop around the operation, which BM_CountingLoop measures alone, and
// one execute's setup spread over N operations.
#include <benchmark/benchmark.h>

#include <qel.h>

#include <string>

namespace {

// One machine holding one compiled script, and the string argument N for its procedure.
class Script {
 public:
  Script(benchmark::State& state, const QelChar* text) : vm_(&messages_), count_(std::to_string(state.range(0))) {
    for (char c : count_) arg_.push_back(static_cast<QelChar>(c));
    if (!vm_.compileText(text)) state.SkipWithError(messages_.a_str());
  }

  // Runs `name` once and checks that it answered `expected`; false (with the error) if not.
  bool check(benchmark::State& state, const QelChar* name, int64_t expected) {
    if (!run(state, name)) return false;
    if (vm_.getResult().toLong() == expected) return true;
    std::string why = "unexpected result " + std::to_string(vm_.getResult().toLong());
    state.SkipWithError(why.c_str());
    return false;
  }

  // Runs `name` with the argument N; false (with the error) when the run failed.
  bool run(benchmark::State& state, const QelChar* name) {
    const QelChar* args[] = {arg_.c_str()};
    if (vm_.execute(name, 1, args)) return true;
    state.SkipWithError(messages_.a_str());
    return false;
  }

 private:
  QelStringPrinter messages_;  // declared before the machine: it must outlive it
  QelVirtualMachine vm_;
  std::string count_;
  std::u16string arg_;
};

// What a run with the argument N must answer.
using Expected = int64_t (*)(int64_t n);

// Times `name` of `text`, after one checked run that must answer `expected(N)`.
void timeScript(benchmark::State& state, const QelChar* text, const QelChar* name, Expected expected) {
  Script script(state, text);
  if (state.error_occurred() || !script.check(state, name, expected(state.range(0)))) return;
  for (auto _ : state) {
    if (!script.run(state, name)) break;
  }
  const auto ops = static_cast<double>(state.iterations()) * static_cast<double>(state.range(0));
  state.SetItemsProcessed(static_cast<int64_t>(ops));
  state.counters["per_op"] = benchmark::Counter(ops, benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

// Operations per execute.
constexpr int kN = 100000;

void BM_CountingLoop(benchmark::State& state) {
  timeScript(state, uR"(
    run(n; i) {
      n = int(n);
      for (i = 0; i < n; ++i);
      return i;
    })",
             u"run", [](int64_t n) { return n; });
}

void BM_FunctionCall(benchmark::State& state) {
  timeScript(state, uR"(
    same(x) { return x; }
    run(n; i, r) {
      n = int(n);
      for (i = 0; i < n; ++i) r = same(i);
      return r;
    })",
             u"run", [](int64_t n) { return n - 1; });
}

void BM_MethodSend(benchmark::State& state) {
  timeScript(state, uR"(
    class Counter { n; Counter(); add(k); }
    Counter::Counter() { n = 0; }
    Counter::add(k) { n += k; return n; }
    run(n; c, i) {
      n = int(n);
      c = new Counter();
      for (i = 0; i < n; ++i) c->add(1);
      return c->add(0);
    })",
             u"run", [](int64_t n) { return n; });
}

void BM_ObjectCreation(benchmark::State& state) {
  timeScript(state, uR"(
    class Point { x, y; Point(a, b); }
    Point::Point(a, b) { x = a; y = b; }
    run(n; p, i) {
      n = int(n);
      for (i = 0; i < n; ++i) p = new Point(i, i + 1);
      return gettype(p);
    })",
             u"run", [](int64_t) -> int64_t { return QVT_OBJECT; });
}

// 128 keys, looked up in turn; the lookup includes reading the key from a vector.
void BM_DictionaryLookup(benchmark::State& state) {
  timeScript(state, uR"(
    run(n; d, keys, i, sum) {
      n = int(n);
      d = newdict();
      keys = newvector(128, 1);
      for (i = 0; i < 128; ++i) {
        keys[i] = newstring("key%d", i);
        d[keys[i]] = 1;
      }
      sum = 0;
      for (i = 0; i < n; ++i) sum += d[keys[i & 127]];
      return sum;
    })",
             u"run", [](int64_t n) { return n; });
}

void BM_StringFormat(benchmark::State& state) {
  timeScript(state, uR"(
    run(n; i, s) {
      n = int(n);
      for (i = 0; i < n; ++i) s = newstring("k%d", i);
      return strlen(s);
    })",
             u"run", [](int64_t n) { return static_cast<int64_t>(std::to_string(n - 1).size()) + 1; });
}

}  // namespace

BENCHMARK(BM_CountingLoop)->Arg(kN)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FunctionCall)->Arg(kN)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MethodSend)->Arg(kN)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ObjectCreation)->Arg(kN)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DictionaryLookup)->Arg(kN)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_StringFormat)->Arg(kN)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
