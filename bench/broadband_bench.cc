// Broadband playback through the library against a bare playbin3, on the
// DASH test stream from the test media server on 127.0.0.1:
//   BM_LibraryStart      Pavo_AVCtrl_Load + Pavo_AVCtrl_Play until the
//                        playing post reaches the plug-in's callback, with
//                        pavo-media-service's GStreamer engine (fake sinks)
//   BM_BarePlaybin3Start the same stream in a playbin3 of this process with
//                        the same sinks, until the pipeline is PLAYING
//   BM_AudioSwitch       Pavo_AVCtrl_SelectComponent to the component-change
//                        post, the audio track toggled while playing, each
//                        switch kSwitchGap after the start or the previous
//                        one (as a viewer switches; the service holds a
//                        switch asked for sooner back a moment, see
//                        gst_player.h)
// and, outside the smoke run, the service's CPU time while it plays the
// stream to its end beside gst-launch-1.0 playing it with playbin3 (both
// whole processes, start-up included).
//
// The media come from the broadband_test_media test's directory, made here
// with scripts/make_broadband_media.sh when missing.
//
// Both start benchmarks begin each repetition with one untimed start (the
// first pipeline of a process loads the plug-ins), and the repetitions of
// all benchmarks run in random order unless the command line says
// otherwise, so that a load that other processes put on the machine for a
// while falls on both sides of the ratio alike.
#include <benchmark/benchmark.h>
#include <gst/gst.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "media_server_process.h"
#include "pavo_avctrl.h"
#include "service_process.h"
#include "support/bench_support.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr auto kLimit = std::chrono::seconds(30);
constexpr auto kSwitchGap = std::chrono::milliseconds(500);

// What the plug-in's callback saw last.
struct Posts {
  std::mutex mu;
  std::condition_variable cv;
  int playing = 0;
  int component_changes = 0;

  template <typename Pred>
  bool wait(Pred pred) {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, kLimit, pred);
  }
};

void on_post(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void* user) {
  auto* posts = static_cast<Posts*>(const_cast<void*>(user));
  {
    std::lock_guard<std::mutex> lock(posts->mu);
    if (event == PAVO_AVCTRL_EVENT_PLAYSTATECHANGE && info->value.intValue == PAVO_AVCTRL_PLAYSTATE_PLAYING) {
      ++posts->playing;
    }
    if (event == PAVO_AVCTRL_EVENT_COMPONENTCHANGE) ++posts->component_changes;
  }
  posts->cv.notify_all();
}

// The server, the service and one A/V control object, made once.
struct Setup {
  pavo::e2e::MediaServerProcess server;
  pavo::e2e::ServiceProcess service;
  Posts posts;
  void* av = nullptr;
  std::string dash;
  bool ok = false;

  Setup() {
    const std::string media = PAVO_BROADBAND_MEDIA;
    if (access((media + "/dash/manifest.mpd").c_str(), R_OK) != 0 &&
        std::system((std::string(PAVO_MAKE_MEDIA) + " " + media + " 20").c_str()) != 0) {
      return;
    }
    if (!server.start(PAVO_MEDIA_SERVER, media, kLimit)) return;
    dash = server.base_url() + "dash/manifest.mpd";
    if (!service.start(1.0, kLimit, {"--engine", "gstreamer", "--sinks", "fake"})) return;
    ok = Pavo_AVCtrl_Initialize() == 0 && Pavo_AVCtrl_Create(nullptr, &av) == 0 &&
         Pavo_AVCtrl_RegisterCallback(av, on_post, &posts) == 0;
  }
  ~Setup() {
    if (av != nullptr) {
      Pavo_AVCtrl_UnregisterCallback(av);
      Pavo_AVCtrl_Destroy(av);
    }
    Pavo_AVCtrl_Finalize();
  }

  // Load and play; true once the playing post came.
  bool start() {
    int before;
    {
      std::lock_guard<std::mutex> lock(posts.mu);
      before = posts.playing;
    }
    if (Pavo_AVCtrl_Load(av, dash.c_str()) != 0 || Pavo_AVCtrl_Play(av, 1.0) != 0) return false;
    return posts.wait([&] { return posts.playing > before; });
  }
};

// Made at first use, torn down by main before the program's static objects
// (the library's among them) go.
Setup* g_setup = nullptr;

Setup& setup() {
  if (g_setup == nullptr) g_setup = new Setup();
  return *g_setup;
}

void BM_LibraryStart(benchmark::State& state) {
  Setup& s = setup();
  if (!s.ok) return state.SkipWithError("no media, server or service");
  if (!s.start()) return state.SkipWithError("no playing post");
  Pavo_AVCtrl_Stop(s.av);
  for (auto _ : state) {
    const Clock::time_point t0 = Clock::now();
    if (!s.start()) return state.SkipWithError("no playing post");
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
    Pavo_AVCtrl_Stop(s.av);
  }
}

// A playbin3 with the service's fake sinks plays `uri`: the time from the
// URI set to PLAYING, or a negative time when it failed.
double bare_start(const std::string& uri) {
  GstElement* playbin = gst_element_factory_make("playbin3", nullptr);
  for (const char* property : {"video-sink", "audio-sink", "text-sink"}) {
    GstElement* sink = gst_element_factory_make("fakesink", nullptr);
    const bool text = std::strcmp(property, "text-sink") == 0;
    g_object_set(sink, "sync", !text, "async", !text, nullptr);
    if (text) GST_OBJECT_FLAG_UNSET(sink, GST_ELEMENT_FLAG_SINK);
    g_object_set(playbin, property, sink, nullptr);
  }
  GstBus* bus = gst_element_get_bus(playbin);
  const Clock::time_point t0 = Clock::now();
  g_object_set(playbin, "uri", uri.c_str(), nullptr);
  gst_element_set_state(playbin, GST_STATE_PLAYING);
  bool playing = false;
  while (!playing) {
    GstMessage* m = gst_bus_timed_pop_filtered(
        bus, 30 * GST_SECOND, static_cast<GstMessageType>(GST_MESSAGE_STATE_CHANGED | GST_MESSAGE_ERROR));
    if (m == nullptr) break;
    if (GST_MESSAGE_TYPE(m) == GST_MESSAGE_ERROR) {
      gst_message_unref(m);
      break;
    }
    GstState old_state, new_state, pending;
    gst_message_parse_state_changed(m, &old_state, &new_state, &pending);
    playing = GST_MESSAGE_SRC(m) == GST_OBJECT(playbin) && new_state == GST_STATE_PLAYING;
    gst_message_unref(m);
  }
  const double took = std::chrono::duration<double>(Clock::now() - t0).count();
  gst_element_set_state(playbin, GST_STATE_NULL);
  gst_object_unref(bus);
  gst_object_unref(playbin);
  return playing ? took : -1.0;
}

void BM_BarePlaybin3Start(benchmark::State& state) {
  Setup& s = setup();
  if (!s.ok) return state.SkipWithError("no media, server or service");
  if (bare_start(s.dash) < 0) return state.SkipWithError("playbin3 did not play");
  for (auto _ : state) {
    const double took = bare_start(s.dash);
    if (took < 0) return state.SkipWithError("playbin3 did not play");
    state.SetIterationTime(took);
  }
}

void BM_AudioSwitch(benchmark::State& state) {
  Setup& s = setup();
  if (!s.ok) return state.SkipWithError("no media, server or service");
  if (!s.start()) return state.SkipWithError("no playing post");
  int index = 1;
  for (auto _ : state) {
    int before;
    {
      std::lock_guard<std::mutex> lock(s.posts.mu);
      before = s.posts.component_changes;
    }
    std::this_thread::sleep_for(kSwitchGap);
    const Clock::time_point t0 = Clock::now();
    if (Pavo_AVCtrl_SelectComponent(s.av, PAVO_AV_COMPONENT_TYPE_AUDIO, index) != 0 ||
        !s.posts.wait([&] { return s.posts.component_changes > before; })) {
      return state.SkipWithError("no component change");
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - t0).count());
    index = 1 - index;
  }
  Pavo_AVCtrl_Stop(s.av);
}

BENCHMARK(BM_LibraryStart)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_BarePlaybin3Start)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_AudioSwitch)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(5);

double children_cpu_seconds() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
         static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU seconds of a service that plays the stream to its end, and of
// gst-launch-1.0 doing the same; both processes are reaped children.
void compare_cpu() {
  Setup& s = setup();
  if (!s.ok) return;
  const std::string gst_launch = "gst-launch-1.0 -q playbin3 uri=" + s.dash +
                                 " video-sink='fakesink sync=true' audio-sink='fakesink sync=true'"
                                 " text-sink='fakesink sync=false async=false' >/dev/null 2>&1";
  double cpu0 = children_cpu_seconds();
  if (std::system(gst_launch.c_str()) != 0) {
    std::printf("cpu: gst-launch-1.0 failed\n");
    return;
  }
  const double bare = children_cpu_seconds() - cpu0;

  // A service of its own, stopped (and reaped) once the stream finished.
  s.service.stop();
  cpu0 = children_cpu_seconds();
  if (!s.service.start(1.0, kLimit, {"--engine", "gstreamer", "--sinks", "fake"})) return;
  Pavo_AVCtrl_Destroy(s.av);
  s.av = nullptr;
  if (Pavo_AVCtrl_Create(nullptr, &s.av) != 0 || Pavo_AVCtrl_RegisterCallback(s.av, on_post, &s.posts) != 0) return;
  if (!s.start()) return;
  double position = 0, duration = 1;
  Pavo_AVCtrl_GetPlayTime(s.av, &duration);
  const Clock::time_point deadline = Clock::now() + std::chrono::seconds(40);
  PavoAVCtrlPlayState st = PAVO_AVCTRL_PLAYSTATE_PLAYING;
  while (Clock::now() < deadline && Pavo_AVCtrl_GetPlayState(s.av, &st) == 0 &&
         st != PAVO_AVCTRL_PLAYSTATE_FINISHED) {
    usleep(100000);
  }
  Pavo_AVCtrl_GetPosition(s.av, &position);
  Pavo_AVCtrl_UnregisterCallback(s.av);
  Pavo_AVCtrl_Destroy(s.av);
  s.av = nullptr;
  s.service.stop();
  const double service = children_cpu_seconds() - cpu0;
  std::printf("cpu while playing %.0f of %.0f ms: service %.2f s, gst-launch-1.0 playbin3 %.2f s: %.2fx\n", position,
              duration, service, bare, bare > 0 ? service / bare : 0.0);
}

}  // namespace

int main(int argc, char** argv) {
  signal(SIGPIPE, SIG_IGN);
  pavo::bench::use_private_ipc_namespace();
  gst_init(nullptr, nullptr);
  bool smoke = false;
  bool order_given = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    smoke = smoke || arg.rfind("--benchmark_min_time=0.0", 0) == 0;
    order_given = order_given || arg.rfind("--benchmark_enable_random_interleaving", 0) == 0;
  }
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  if (!order_given) args.push_back(&interleave[0]);
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);
  const int status = pavo::bench::run_with_ratios(count, args.data(), [](pavo::bench::RatioReporter& r) {
    r.ratio("library start / bare playbin3 start", "BM_LibraryStart/iterations:5/manual_time",
            "BM_BarePlaybin3Start/iterations:5/manual_time", 1.2);
  });
  if (!smoke) compare_cpu();
  delete g_setup;
  g_setup = nullptr;
  return status;
}
