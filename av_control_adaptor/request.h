// One request of an A/V control object to its service player.
#ifndef PAVO_AV_CONTROL_ADAPTOR_REQUEST_H
#define PAVO_AV_CONTROL_ADAPTOR_REQUEST_H

#include <utility>

#include "av_control_adaptor/object.h"
#include "mediaplayer_adaptor/player_registration.h"
#include "pavo_mediaplayer_adaptor.h"

namespace pavo::avctrl {

// The result of a request refused because the object's player is lost: its
// id may name another object's player in the restarted service.
constexpr int kNoPlayer = -1;

// Whether the object may send a request for its player: it has one, and its
// registration still stands (it dies as soon as the client knows that the
// player's service is gone, which may be before the player-lost handler has
// run). Takes the client's registry mutex briefly.
inline bool has_player(PavoAVCtrlContext* ctx) {
  return !ctx->player_lost.load() &&
         pavo::mediaplayer_adaptor::player_registered(ctx->player_id.load(), ctx);
}

// Runs `request(adaptor, player_id)` under the object's `op_mutex`, so that
// at most one request of the object is in flight, and returns its result.
// Without an adaptor nothing is asked and the result is 0; for an object
// without a player (has_player) nothing is asked and the result is kNoPlayer.
template <typename Request>
int locked_request(PavoAVCtrlContext* ctx, Request&& request) {
  MutexLock op(&ctx->op_mutex);
  MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance();
  if (mp == nullptr) return 0;
  if (!has_player(ctx)) return kNoPlayer;
  return std::forward<Request>(request)(*mp, ctx->player_id);
}

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_REQUEST_H
