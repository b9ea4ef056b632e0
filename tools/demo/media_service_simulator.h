// A small media-player service for the demo: it answers the library's JSON
// commands on the request queue and reports what its one simulated player
// does as events, the way a real service process would. It decodes nothing:
// the position advances with the clock while the player plays.
#ifndef PAVO_TOOLS_DEMO_MEDIA_SERVICE_SIMULATOR_H
#define PAVO_TOOLS_DEMO_MEDIA_SERVICE_SIMULATOR_H

namespace pavo::demo {

// Runs the service in the calling process until it is killed: creates the
// service-side queues, serves requests, sends events. Calls `ready` once it
// serves. Returns only when it cannot start (non-zero).
int run_media_service(void (*ready)(void* context), void* context);

}  // namespace pavo::demo

#endif  // PAVO_TOOLS_DEMO_MEDIA_SERVICE_SIMULATOR_H
