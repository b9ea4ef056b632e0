// The request dispatch table: one row per command number, naming whether the
// command addresses a player and the handler that reads its members, acts on
// the service's state and writes the reply's output members.
#ifndef PAVO_MEDIA_SERVICE_DISPATCH_H
#define PAVO_MEDIA_SERVICE_DISPATCH_H

#include <json/json.h>

#include <climits>
#include <map>
#include <memory>
#include <utility>

#include "pavo-media-service/drm_agents.h"
#include "pavo-media-service/engine.h"
#include "pavo-media-service/events.h"
#include "pavo-media-service/media_sync.h"
#include "pavo-media-service/player.h"
#include "pavo-media-service/protocol.h"
#include "pavo-media-service/request.h"

namespace pavo::service {

// Everything the handlers work on; guarded by the service's lock.
struct ServiceState {
  // A null `engine` makes model players running at `time_scale`.
  explicit ServiceState(double time_scale, EngineFactory engine = nullptr)
      : time_scale(time_scale), make_player(std::move(engine)) {
    if (!make_player) {
      make_player = [time_scale](unsigned id) { return std::make_unique<Player>(id, time_scale); };
    }
  }
  double time_scale;
  EngineFactory make_player;
  std::map<unsigned, std::unique_ptr<PlayerEngine>> players;
  unsigned next_player_id = 1;
  DrmAgents drm;
  MediaSync sync;
  int current_source = kSourceDtv;
  bool platform_subtitles = true;
};

// One request being answered.
struct Call {
  Request& request;
  Json::Value& reply;
  ServiceState& state;
  Clock::time_point now;
  Outbox& out;
  PlayerEngine* player = nullptr;  // for commands that address one
  int display_source = -1;   // set: ask the library to switch to it, after the lock
};

// A handler's result when a member was missing or mistyped (the complaint
// is in the request): the reply's "ret" is then -1.
constexpr int kRefused = INT_MIN;

// Whether `command` is known, and whether it carries "player_id".
bool known_command(int command);
bool addresses_player(int command);

// Runs the command's handler. REQUIRES: known_command, and call.player set
// for a command that addresses a player. Returns "ret" or kRefused.
int dispatch(Call& call);

}  // namespace pavo::service

#endif  // PAVO_MEDIA_SERVICE_DISPATCH_H
