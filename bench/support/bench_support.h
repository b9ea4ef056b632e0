// Shared pieces of the benchmarks: pinned placements, a responder process,
// and a reporter that prints the ratios of medians measured in one run.
#ifndef PAVO_BENCH_SUPPORT_H
#define PAVO_BENCH_SUPPORT_H

#include <benchmark/benchmark.h>
#include <sched.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

namespace pavo::bench {

// Where the processes of a benchmark run. A blocking round trip between
// processes costs very different times on one core (a context switch) and
// across two (an idle core's wake-up): compare figures of one placement only.
enum Placement : int {
  kOneCore = 0,   // every process pinned to CPU 0
  kTwoCores = 1,  // the caller on CPU 0, the responder on CPU 1
};
const char* placement_name(int placement);
int caller_cpu(int placement);
int responder_cpu(int placement);

// Registers a benchmark once per placement (argument "placement"), timed in
// real time and reported in microseconds: use as BENCHMARK(f)->Apply(per_placement).
void per_placement(benchmark::internal::Benchmark* b);

// Pins the calling thread to one CPU; restores the previous mask on destruction.
class ScopedPin {
 public:
  explicit ScopedPin(int cpu);
  ~ScopedPin();
  ScopedPin(const ScopedPin&) = delete;
  ScopedPin& operator=(const ScopedPin&) = delete;

 private:
  cpu_set_t saved_;
  bool ok_;
};

// Runs `body` in a forked child pinned to `cpu`. The child calls `ready()`
// once it serves; the constructor returns after that. The destructor kills
// and reaps the child.
class Responder {
 public:
  Responder(int cpu, const std::function<void(const std::function<void()>& ready)>& body);
  ~Responder();
  Responder(const Responder&) = delete;
  Responder& operator=(const Responder&) = delete;
  bool ok() const { return pid_ > 0; }

 private:
  pid_t pid_ = -1;
};

// Console output as usual, plus the medians (or single figures) of every
// benchmark by name, for ratio lines at the end.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override;
  // Adds a line "label: numerator / denominator = ratio (target <= limit)".
  void ratio(const std::string& label, const std::string& numerator, const std::string& denominator,
             double limit = 0);
  // The same ratio for each placement of benchmarks registered with
  // per_placement: labels end in the placement's name, names in its suffix.
  void ratio_per_placement(const std::string& label, const std::string& numerator,
                           const std::string& denominator, double two_cores_limit = 0,
                           double one_core_limit = 0);
  // Prints the ratio lines; returns the number of ratios above their limit.
  int print_ratios() const;

 private:
  std::map<std::string, double> times_;  // real time per iteration, ns
  struct Line {
    std::string label, numerator, denominator;
    double limit;
  };
  std::vector<Line> lines_;
};

// Removes the message queue of `key`, if there is one.
void remove_queue(key_t key);

// Moves the process into an IPC namespace of its own (root only), so that
// benchmarks using the protocol's fixed queue keys meet nothing else; says
// so on standard error when it cannot.
void use_private_ipc_namespace();

// Runs the benchmarks with the reporter; then prints its ratios.
int run_with_ratios(int argc, char** argv, const std::function<void(RatioReporter&)>& add_ratios);

}  // namespace pavo::bench

#endif  // PAVO_BENCH_SUPPORT_H
