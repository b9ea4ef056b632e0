// pavo-demo: the library from end to end. A child process plays the
// media-player service (it answers the JSON commands on the request queue
// and sends player events); this process plays the HbbTV plug-in: it starts
// the library, makes an A/V control object, loads, plays, seeks, changes
// speed, pauses, looks at the components, and prints every call with its
// result and every event that the library posts to the plug-in's callback.
//
// The queues have fixed keys: run it in its own IPC namespace
// (`unshare --ipc pavo-demo`) when another copy of the system may be running.
// The platform media log (the A/V control layer's log) goes to standard error.
//
// Exit status: 0 when every step gave the expected result and events.
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "demo/media_service_simulator.h"
#include "hbbtv_plugin_impl_standin.h"
#include "pavo_avctrl.h"
#include "pavo_ipc.h"
#include "pavo_mediaplayer_ipc.h"

namespace {

using Clock = std::chrono::steady_clock;
const Clock::time_point g_start = Clock::now();

double since_start_ms() { return std::chrono::duration<double, std::milli>(Clock::now() - g_start).count(); }

const char* state_name(int s) {
  static const char* names[] = {"stopped", "playing", "paused", "connecting", "buffering", "finished", "error"};
  return s >= 0 && s <= 6 ? names[s] : "?";
}

// What the plug-in's callback received, for printing and for waiting.
struct EventLog {
  std::mutex mu;
  std::condition_variable cv;
  std::vector<std::string> lines;

  void add(const std::string& line) {
    {
      std::lock_guard<std::mutex> lock(mu);
      lines.push_back(line);
    }
    std::printf("  %8.1f ms  event  %s\n", since_start_ms(), line.c_str());
    std::fflush(stdout);
    cv.notify_all();
  }
  // Waits until an event line equal to `line` has arrived.
  bool wait_for(const std::string& line, std::chrono::milliseconds limit = std::chrono::seconds(3)) {
    std::unique_lock<std::mutex> lock(mu);
    return cv.wait_for(lock, limit, [&] {
      for (const auto& l : lines) {
        if (l == line) return true;
      }
      return false;
    });
  }
};
EventLog g_events;

void on_event(PavoAVCtrlEvent event, const PavoAVCtrlEventInfo* info, const void*) {
  char text[96];
  switch (event) {
    case PAVO_AVCTRL_EVENT_PLAYSTATECHANGE:
      std::snprintf(text, sizeof text, "play state -> %s", state_name(info->value.intValue));
      break;
    case PAVO_AVCTRL_EVENT_SPEEDCHANGE:
      std::snprintf(text, sizeof text, "speed -> %g", info->value.doubleValue);
      break;
    case PAVO_AVCTRL_EVENT_POSITIONCHANGE:
      std::snprintf(text, sizeof text, "position -> %.0f ms", info->value.doubleValue);
      break;
    case PAVO_AVCTRL_EVENT_COMPONENTCHANGE:
      std::snprintf(text, sizeof text, "component change, type %d", info->value.intValue);
      break;
    default:
      std::snprintf(text, sizeof text, "event %d, value %d", static_cast<int>(event), info->value.intValue);
      break;
  }
  g_events.add(text);
}

int g_failures = 0;

int call(const char* what, int result, int expected = 0) {
  std::printf("  %8.1f ms  call   %-44s -> %d%s\n", since_start_ms(), what, result,
              result == expected ? "" : "   UNEXPECTED");
  std::fflush(stdout);
  if (result != expected) ++g_failures;
  return result;
}

void expect(const std::string& event_line) {
  if (!g_events.wait_for(event_line)) {
    std::printf("  missing event: %s\n", event_line.c_str());
    ++g_failures;
  }
}

void section(const char* title) { std::printf("\n%s\n", title); }

void signal_ready(void* fd) {
  const char c = 'r';
  if (write(*static_cast<int*>(fd), &c, 1) != 1) _exit(3);
}

}  // namespace

int main() {
  int ready_pipe[2];
  if (pipe(ready_pipe) != 0) return 1;
  std::fflush(stdout);
  const pid_t service = fork();
  if (service == 0) {
    close(ready_pipe[0]);
    return pavo::demo::run_media_service(signal_ready, &ready_pipe[1]);
  }
  close(ready_pipe[1]);
  char c = 0;
  if (service < 0 || read(ready_pipe[0], &c, 1) != 1) {
    std::fprintf(stderr, "pavo-demo: the media service did not start\n");
    return 1;
  }
  std::printf("pavo-demo: media-player service simulator in process %d, plug-in in process %d\n", service,
              getpid());

  section("Start the library (the plug-in library receives its six platform callbacks):");
  call("Pavo_AVCtrl_Initialize()", Pavo_AVCtrl_Initialize());
  for (const auto& registration : pavo::standin::hbbtv_calls()) {
    std::printf("               registered with the plug-in: %s\n", registration.function.c_str());
  }

  section("Make an A/V control object and load a stream:");
  void* av = nullptr;
  call("Pavo_AVCtrl_Create(nullptr, &av)", Pavo_AVCtrl_Create(nullptr, &av));
  call("Pavo_AVCtrl_RegisterCallback(av, on_event)", Pavo_AVCtrl_RegisterCallback(av, on_event, nullptr));
  call("Pavo_AVCtrl_Load(av, \"http://media.invalid/a.mpd\")",
       Pavo_AVCtrl_Load(av, "http://media.invalid/a.mpd"));
  expect("play state -> connecting");

  section("Play at normal speed:");
  call("Pavo_AVCtrl_Play(av, 1.0)", Pavo_AVCtrl_Play(av, 1.0));
  expect("play state -> playing");
  double duration = 0, position = 0;
  call("Pavo_AVCtrl_GetPlayTime(av, &duration)", Pavo_AVCtrl_GetPlayTime(av, &duration));
  std::printf("               duration %.0f ms\n", duration);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  call("Pavo_AVCtrl_GetPosition(av, &position)", Pavo_AVCtrl_GetPosition(av, &position));
  std::printf("               position %.0f ms\n", position);

  section("Seek to 01:30, then play twice as fast:");
  call("Pavo_AVCtrl_Seek(av, 90000)", Pavo_AVCtrl_Seek(av, 90000));
  expect("position -> 90000 ms");
  call("Pavo_AVCtrl_Play(av, 2.0)", Pavo_AVCtrl_Play(av, 2.0));
  expect("speed -> 2");
  double speed = 0;
  call("Pavo_AVCtrl_GetCurrentSpeed(av, &speed)", Pavo_AVCtrl_GetCurrentSpeed(av, &speed));
  std::printf("               speed %g\n", speed);

  section("Pause:");
  call("Pavo_AVCtrl_Pause(av)", Pavo_AVCtrl_Pause(av));
  expect("play state -> paused");
  PavoAVCtrlPlayState state = PAVO_AVCTRL_PLAYSTATE_STOPPED;
  call("Pavo_AVCtrl_GetPlayState(av, &state)", Pavo_AVCtrl_GetPlayState(av, &state));
  std::printf("               state %s\n", state_name(state));

  section("Audio components as the service describes them; select the second:");
  unsigned audio = 0;
  call("Pavo_AVCtrl_GetAVComponentNum(av, audio, &n)",
       Pavo_AVCtrl_GetAVComponentNum(av, PAVO_AV_COMPONENT_TYPE_AUDIO, &audio));
  for (unsigned i = 0; i < audio; ++i) {
    PavoAVCtrlTrackInfo track{};
    Pavo_AVCtrl_GetAVComponentByIndex(av, PAVO_AV_COMPONENT_TYPE_AUDIO, i, &track);
    std::printf("               track %u: %s, language \"%s\", %d channels%s\n", i, track.encoding.c_str(),
                track.audio.language.c_str(), track.audio.audioChannels, track.activated ? ", active" : "");
  }
  call("Pavo_AVCtrl_SelectComponent(av, audio, 1)",
       Pavo_AVCtrl_SelectComponent(av, PAVO_AV_COMPONENT_TYPE_AUDIO, 1));
  expect("component change, type 1");
  int active = -1;
  call("Pavo_Platform_Get_Current_Track(audio, &i)",
       Pavo_Platform_Get_Current_Track(PAVO_AV_COMPONENT_TYPE_AUDIO, &active));
  std::printf("               active audio track (asked without a handle): %d\n", active);

  section("Stop and clean up:");
  call("Pavo_AVCtrl_Stop(av)", Pavo_AVCtrl_Stop(av));
  expect("play state -> stopped");
  call("Pavo_AVCtrl_Destroy(av)", Pavo_AVCtrl_Destroy(av));
  call("Pavo_AVCtrl_Finalize()", Pavo_AVCtrl_Finalize());

  kill(service, SIGTERM);
  waitpid(service, nullptr, 0);
  std::printf("\n%s\n", g_failures == 0 ? "pavo-demo: every step gave the expected result"
                                        : "pavo-demo: SOME STEPS DID NOT GIVE THE EXPECTED RESULT");
  return g_failures == 0 ? 0 : 1;
}
