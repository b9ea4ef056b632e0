#include "support/bench_support.h"

#include <sched.h>
#include <signal.h>
#include <sys/msg.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

namespace pavo::bench {

const char* placement_name(int placement) {
  return placement == kOneCore ? "one_core" : "two_cores";
}
int caller_cpu(int) { return 0; }
int responder_cpu(int placement) { return placement == kOneCore ? 0 : 1; }

void per_placement(benchmark::internal::Benchmark* b) {
  b->ArgNames({"placement"});
  for (int placement : {kOneCore, kTwoCores}) b->Args({placement});
  b->UseRealTime()->Unit(benchmark::kMicrosecond);
}

namespace {
// The name suffix Google Benchmark gives a per_placement run.
std::string placement_suffix(int placement) { return "/placement:" + std::to_string(placement) + "/real_time"; }
}  // namespace

namespace {
bool pin(int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  return sched_setaffinity(0, sizeof set, &set) == 0;
}
}  // namespace

ScopedPin::ScopedPin(int cpu) {
  ok_ = sched_getaffinity(0, sizeof saved_, &saved_) == 0;
  if (!pin(cpu)) std::fprintf(stderr, "bench: cannot pin to CPU %d\n", cpu);
}

ScopedPin::~ScopedPin() {
  if (ok_) sched_setaffinity(0, sizeof saved_, &saved_);
}

Responder::Responder(int cpu, const std::function<void(const std::function<void()>&)>& body) {
  int fds[2];
  if (pipe(fds) != 0) return;
  std::fflush(nullptr);
  pid_ = fork();
  if (pid_ == 0) {
    close(fds[0]);
    pin(cpu);
    const int ready_fd = fds[1];
    body([ready_fd] {
      const char c = 'r';
      if (write(ready_fd, &c, 1) != 1) _exit(3);
    });
    _exit(0);
  }
  close(fds[1]);
  char c = 0;
  if (pid_ > 0 && read(fds[0], &c, 1) != 1) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }
  close(fds[0]);
}

Responder::~Responder() {
  if (pid_ <= 0) return;
  kill(pid_, SIGKILL);
  waitpid(pid_, nullptr, 0);
}

void remove_queue(key_t key) {
  const int id = msgget(key, 0);
  if (id >= 0) msgctl(id, IPC_RMID, nullptr);
}

void use_private_ipc_namespace() {
  if (unshare(CLONE_NEWIPC) != 0) {
    std::fprintf(stderr, "bench: no IPC namespace of its own (not root?): using the system's queues\n");
  }
}

void RatioReporter::ReportRuns(const std::vector<Run>& runs) {
  ConsoleReporter::ReportRuns(runs);
  for (const Run& run : runs) {
    if (run.error_occurred) continue;
    const std::string name = run.run_name.str();
    const double ns = run.GetAdjustedRealTime() * (run.time_unit == benchmark::kMicrosecond   ? 1e3
                                                   : run.time_unit == benchmark::kMillisecond ? 1e6
                                                   : run.time_unit == benchmark::kSecond      ? 1e9
                                                                                              : 1.0);
    if (run.run_type == Run::RT_Aggregate) {
      if (run.aggregate_name == "median") times_[name] = ns;
    } else if (!times_.count(name) || run.repetitions <= 1) {
      times_[name] = ns;
    }
  }
}

void RatioReporter::ratio(const std::string& label, const std::string& numerator,
                          const std::string& denominator, double limit) {
  lines_.push_back({label, numerator, denominator, limit});
}

void RatioReporter::ratio_per_placement(const std::string& label, const std::string& numerator,
                                        const std::string& denominator, double two_cores_limit,
                                        double one_core_limit) {
  for (int placement : {kTwoCores, kOneCore}) {
    const std::string suffix = placement_suffix(placement);
    ratio(label + ", " + placement_name(placement), numerator + suffix, denominator + suffix,
          placement == kTwoCores ? two_cores_limit : one_core_limit);
  }
}

int RatioReporter::print_ratios() const {
  int over = 0;
  if (lines_.empty()) return 0;
  std::printf("\nRatios of medians (same run, same placement):\n");
  for (const Line& line : lines_) {
    auto n = times_.find(line.numerator);
    auto d = times_.find(line.denominator);
    if (n == times_.end() || d == times_.end() || d->second <= 0) {
      std::printf("  %-52s not measured in this run\n", line.label.c_str());
      continue;
    }
    const double r = n->second / d->second;
    const bool above = line.limit > 0 && r > line.limit;
    over += above ? 1 : 0;
    std::printf("  %-52s %10.1f ns / %10.1f ns = %5.2fx", line.label.c_str(), n->second, d->second, r);
    if (line.limit > 0) std::printf("  (target <= %.2fx%s)", line.limit, above ? ", MISSED" : "");
    std::printf("\n");
  }
  return over;
}

int run_with_ratios(int argc, char** argv, const std::function<void(RatioReporter&)>& add_ratios) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  add_ratios(reporter);
  reporter.print_ratios();
  benchmark::Shutdown();
  return 0;
}

}  // namespace pavo::bench
