// Cost of a log call: the filtered-out Enter record that every client command
// makes in the field, against an empty call and a bare level lookup measured
// in the same run, and a printed error line written to /dev/null.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>

#include <benchmark/benchmark.h>

#include "pavo_log.h"

namespace {

// Baseline: a call with the same arguments that does nothing.
__attribute__((noinline)) void empty_call(int log_type, const char* module, const char* file,
                                          const char* function, int line, const char* name,
                                          const void* value) {
  benchmark::DoNotOptimize(log_type);
  benchmark::DoNotOptimize(module);
  benchmark::DoNotOptimize(file);
  benchmark::DoNotOptimize(function);
  benchmark::DoNotOptimize(line);
  benchmark::DoNotOptimize(name);
  benchmark::DoNotOptimize(value);
}

// Table states by module count: 0, the start; 1, "PAC_PLUGIN" alone at
// errors only; 20, a full table whose 19 other modules sort before
// "PAC_PLUGIN" and share its first four characters, the longest lookup that
// still filters an Enter record out.
void set_table(int64_t modules) {
  clear_modules_list();
  if (modules == 0) return;
  for (int64_t i = 0; i < modules - 1; ++i) {
    insert_modules_list(("PAC_A" + std::to_string(10 + i)).c_str(), 1);
  }
  insert_modules_list("PAC_PLUGIN", 2);
}

void BM_EmptyCall(benchmark::State& state) {
  for (auto _ : state) {
    empty_call(PAVO_LOG_TYPE_ENTER, "PAC_PLUGIN", __FILE__, __func__, __LINE__, nullptr, nullptr);
  }
}

void BM_LevelLookup(benchmark::State& state) {
  if (state.thread_index() == 0) set_table(state.range(0));
  for (auto _ : state) benchmark::DoNotOptimize(pavo_log_getLevel("PAC_PLUGIN"));
}

void BM_FilteredEnter(benchmark::State& state) {
  if (state.thread_index() == 0) set_table(state.range(0));
  for (auto _ : state) {
    pavo_log_print(PAVO_LOG_TYPE_ENTER, "PAC_PLUGIN", __FILE__, __func__, __LINE__, nullptr,
                   nullptr);
  }
}

void BM_PrintedErrorToDevNull(benchmark::State& state) {
  set_table(0);
  std::fflush(stdout);
  const int saved = dup(1);
  const int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
  dup2(null_fd, 1);
  for (auto _ : state) {
    pavo_log_print(PAVO_LOG_TYPE_ERROR, "PAC_PLUGIN", __FILE__, __func__, __LINE__, nullptr,
                   nullptr);
  }
  std::fflush(stdout);
  dup2(saved, 1);
  close(saved);
  close(null_fd);
}

BENCHMARK(BM_EmptyCall);
BENCHMARK(BM_LevelLookup)->ArgName("modules")->Arg(0)->Arg(1)->Arg(20);
BENCHMARK(BM_FilteredEnter)->ArgName("modules")->Arg(0)->Arg(1)->Arg(20);
BENCHMARK(BM_FilteredEnter)->ArgName("modules")->Arg(1)->Threads(2);
BENCHMARK(BM_PrintedErrorToDevNull);

}  // namespace

BENCHMARK_MAIN();
