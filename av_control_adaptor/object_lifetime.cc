// Creation and destruction of A/V control objects, and the references that
// keep an object alive in between.
#include "av_control_adaptor/object_lifetime.h"

#include <algorithm>
#include <mutex>
#include <new>
#include <vector>

#include "av_control_adaptor/event_translation.h"
#include "av_control_adaptor/handle_lookup.h"
#include "av_control_adaptor/request.h"
#include "mediaplayer_adaptor/player_registration.h"
#include "pavo_avctrl.h"
#include "pavo_mediaplayer_adaptor.h"

namespace pavo::avctrl {
namespace {

// The handles given out and not destroyed yet: Destroy leaves any other
// pointer alone rather than releasing an object twice. A handful at most.
std::mutex g_handles_mutex;
std::vector<PavoAVCtrlContext*> g_handles;  // guarded by g_handles_mutex

bool remember_handle(PavoAVCtrlContext* ctx) {
  std::lock_guard<std::mutex> lock(g_handles_mutex);
  try {
    g_handles.push_back(ctx);
  } catch (const std::bad_alloc&) {
    return false;
  }
  return true;
}

// Whether `ctx` was a handle given out; it is one no more.
bool forget_handle(PavoAVCtrlContext* ctx) {
  std::lock_guard<std::mutex> lock(g_handles_mutex);
  const auto it = std::find(g_handles.begin(), g_handles.end(), ctx);
  if (it == g_handles.end()) return false;
  g_handles.erase(it);
  return true;
}

// Which of the object's synchronisation members have been initialised.
enum Made { kOpMutex = 1, kCbMutex = 2, kCondition = 4 };

void free_object(PavoAVCtrlContext* ctx, int made) {
  if (made & kCondition) pthread_cond_destroy(&ctx->post_returned);
  if (made & kCbMutex) pthread_mutex_destroy(&ctx->cb_mutex);
  if (made & kOpMutex) pthread_mutex_destroy(&ctx->op_mutex);
  delete ctx;
}

// A new object with its locks, not yet known to anyone; null when memory or
// a lock cannot be had.
PavoAVCtrlContext* make_object() {
  auto* ctx = new (std::nothrow) PavoAVCtrlContext;
  if (ctx == nullptr) return nullptr;
  int made = 0;
  if (pthread_mutex_init(&ctx->op_mutex, nullptr) == 0) made |= kOpMutex;
  if ((made & kOpMutex) && pthread_mutex_init(&ctx->cb_mutex, nullptr) == 0) made |= kCbMutex;
  if ((made & kCbMutex) && pthread_cond_init(&ctx->post_returned, nullptr) == 0) made |= kCondition;
  if (made != (kOpMutex | kCbMutex | kCondition) || !remember_handle(ctx)) {
    free_object(ctx, made);
    return nullptr;
  }
  return ctx;
}

}  // namespace

namespace {

constexpr unsigned kReference = 2;  // one reference in `lifetime`
constexpr unsigned kDestroyed = 1;  // the destroyed mark in `lifetime`

// A lost player is not destroyed, and only the object's own registration is
// removed: the id may belong to another object's player in the restarted
// service. The removal also waits for the event routine and the player-lost
// handler to be done with the object.
void finish_object(PavoAVCtrlContext* ctx) {
  if (MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance()) {
    const bool alive = has_player(ctx);
    pavo::mediaplayer_adaptor::unregister_player(ctx->player_id, ctx);
    if (alive) mp->Destroy(ctx->player_id);
  }
  free_object(ctx, kOpMutex | kCbMutex | kCondition);
}

// Marks the object destroyed and drops the handle's reference in one step.
void destroy_object(PavoAVCtrlContext* ctx) {
  if (ctx->lifetime.fetch_sub(kReference - kDestroyed) == kReference) finish_object(ctx);
}

}  // namespace

bool add_reference(PavoAVCtrlContext* ctx) {
  unsigned now = ctx->lifetime.load();
  do {
    if (now & kDestroyed) return false;
  } while (!ctx->lifetime.compare_exchange_weak(now, now + kReference));
  return true;
}

void drop_reference(PavoAVCtrlContext* ctx) {
  if (ctx->lifetime.fetch_sub(kReference) == kReference + kDestroyed) finish_object(ctx);
}

PavoAVCtrlContext* reference_single_object() {
  std::lock_guard<std::mutex> lock(g_handles_mutex);
  auto* ctx = static_cast<PavoAVCtrlContext*>(Pavo_AVCtrl_GetHandle());
  // Still a handle given out: Destroy has not dropped the handle's reference
  // yet (it forgets the handle first, under this mutex), so the object is
  // there to take one more.
  if (ctx == nullptr || std::find(g_handles.begin(), g_handles.end(), ctx) == g_handles.end()) {
    return nullptr;
  }
  return add_reference(ctx) ? ctx : nullptr;
}

SingleObjectRef::SingleObjectRef() : ctx_(reference_single_object()) {}

SingleObjectRef::~SingleObjectRef() {
  if (ctx_ != nullptr) drop_reference(ctx_);
}

ObjectRef::ObjectRef(PavoAVCtrlContext* ctx) : ctx_(ctx), held_(add_reference(ctx)) {}

ObjectRef::~ObjectRef() {
  if (held_) drop_reference(ctx_);
}

}  // namespace pavo::avctrl

int Pavo_AVCtrl_Create(void*, void** handle_out) {
  if (handle_out == nullptr) return -3;
  PavoAVCtrlContext* ctx = pavo::avctrl::make_object();
  if (ctx == nullptr) return -4;
  // From the registration on, the event thread may translate events of the
  // object. Without a player (the service is down) the object keeps id 0,
  // unregistered, and starts as one whose player is lost: its first Load
  // creates one.
  if (MediaPlayerAdaptor* mp = MediaPlayerAdaptor::GetInstance()) {
    pavo::mediaplayer_adaptor::set_player_lost_handler(pavo::avctrl::on_player_lost);
    unsigned id = 0;
    if (mp->Create(id, 0) == 0) {
      ctx->player_id.store(id);
      mp->RegisterCallback(id, mediaplayer_adaptor_callback, ctx);
    } else {
      ctx->player_lost.store(true);
    }
  }
  *handle_out = ctx;
  g_avctrl_handle.store(ctx);
  g_avctrl_count.fetch_add(1);
  return 0;
}

// The object goes when its last user lets go: at once, or when the
// translation or post that still uses it returns. No new post starts from
// here on.
int Pavo_AVCtrl_Destroy(void* handle) {
  PavoAVCtrlContext* ctx = avctrl_context(handle);
  if (ctx == nullptr || !pavo::avctrl::forget_handle(ctx)) return 0;
  g_avctrl_count.fetch_sub(1);
  g_avctrl_handle.store(nullptr);
  pavo::avctrl::destroy_object(ctx);
  return 0;
}
