// Translation of the service's player events into the events of the A/V
// control interface.
#ifndef PAVO_AV_CONTROL_ADAPTOR_EVENT_TRANSLATION_H
#define PAVO_AV_CONTROL_ADAPTOR_EVENT_TRANSLATION_H

#include <cstdint>

#include "pavo_media_types.h"

namespace pavo::avctrl {

// The translation's answer for a service state that it ignores.
constexpr int32_t PAVO_AVCTRL_PLAYSTATE_IGNORE = 99;

// The service's player state (data1 of a state change) as an A/V control
// play state; PAVO_AVCTRL_PLAYSTATE_IGNORE (99) for a state that the
// translation ignores (3, and everything outside 0..10).
int32_t play_state_of(int service_state);

}  // namespace pavo::avctrl

// The player callback that Pavo_AVCtrl_Create registers for each object's
// player, with the object as `user_data`. Runs on the event thread, one
// event at a time: maps state reports onto the object's play state through
// its filters, records errors, holds speed reports back until playback
// starts, starts a waiting seek, collects the component list on track
// events, and posts the resulting events to the plug-in's callback. Makes
// synchronous requests to the service (a waiting seek, the rewind recovery,
// the component queries). Holds a reference to the object while it works;
// events for a destroyed object, and unknown events and states, are
// ignored (player events 2, 3, and everything outside 0..7, whatever the
// service sends). Never throws.
void mediaplayer_adaptor_callback(PavoMediaPluginEvent event, PavoMediaError error,
                                  const void* user_data, int data1, double data2);

namespace pavo::avctrl {

// The player-lost handler (mediaplayer_adaptor/player_registration.h) that
// Pavo_AVCtrl_Create installs; `user_data` is the object. Marks the object's
// player lost, records the connection error and posts the change to error,
// once, without taking op_mutex. Runs on the client's monitor thread, with a
// reference to the object held. Never throws.
void on_player_lost(void* user_data);

}  // namespace pavo::avctrl

#endif  // PAVO_AV_CONTROL_ADAPTOR_EVENT_TRANSLATION_H
