// The A/V Control object: one per <object> whose type is a media type. Its
// state (play state, position, duration, speed, error, components) is what
// the program last pushed, so the synchronous getters never wait. Every
// action is one call to the program, which maps it onto the library.
//
// Item generations: stop(), a new `data` and release() end the current item
// at once on this side (the state becomes stopped here and now, with its
// change delivered to the handler in place at that moment) and start a new
// generation. Messages of an older generation are dropped, so an event of
// an item the page has stopped never reaches the handlers of the next one.

const PAVO_STATE_STOPPED = 0;
const PAVO_STATE_FINISHED = 5;
const PAVO_STATE_ERROR = 6;

function PavoAVControl(element) {
  this.element = element;
  this.generation = 1;
  this.state = { ps: PAVO_STATE_STOPPED, pos: 0, dur: 0, sp: 0, err: -1, fs: false, comps: [[], [], []] };
  this.dataUrl = element.getAttribute('data') || '';
  this.pendingSeek = null;
  this.lastWindow = '';
  const self = this;
  this.id = pavoBridge.register(function (message) { self.receive(message); });
}

PavoAVControl.prototype.call = function (method, args) {
  return pavoBridge.call('av', this.id, this.generation, method, args);
};

// The settings given as <param name=... value=...> children.
PavoAVControl.prototype.params = function () {
  const out = {};
  const list = this.element.querySelectorAll ? this.element.querySelectorAll('param') : [];
  for (let i = 0; i < list.length && i < 32; ++i) {
    const name = String(list[i].getAttribute('name') || '').toLowerCase();
    if (name) out[name] = String(list[i].getAttribute('value') || '').slice(0, 256);
  }
  return out;
};

// Ends the current item here and now: a new generation, state stopped.
PavoAVControl.prototype.endItem = function (method) {
  const was = this.state.ps;
  this.generation += 1;
  if (method === 'release') pavoLive.delete(this);
  this.pendingSeek = null;
  this.call(method, []);
  this.state.ps = PAVO_STATE_STOPPED;
  this.state.sp = 0;
  this.state.comps = [[], [], []];
  this.clearPicture();
  if (was !== PAVO_STATE_STOPPED) pavoFire(this.element, 'PlayStateChange', ['state'], [PAVO_STATE_STOPPED]);
};

PavoAVControl.prototype.play = function (speed) {
  const s = speed === undefined ? 1 : Number(speed);
  if (!isFinite(s)) return false;
  const idle = this.state.ps === PAVO_STATE_STOPPED || this.state.ps === PAVO_STATE_FINISHED ||
      this.state.ps === PAVO_STATE_ERROR;
  if (idle) {
    if (!this.dataUrl) return false;
    if (this.state.ps !== PAVO_STATE_STOPPED) this.generation += 1;  // a new item
    pavoLive.add(this);
    const seek = this.pendingSeek;
    this.pendingSeek = null;
    const sent = this.call('play', [s, String(this.dataUrl).slice(0, 4096), seek, this.params(),
      String(pavoConfiguration.preferredAudioLanguage).slice(0, 64)]);
    this.sendWindow(true);
    return sent;
  }
  return this.call('play', [s]);
};

PavoAVControl.prototype.stop = function () {
  this.endItem('stop');
  return true;
};

PavoAVControl.prototype.seek = function (ms) {
  let p = Number(ms);
  if (!isFinite(p)) return false;
  if (p < 0) p = 0;
  if (this.state.ps === PAVO_STATE_STOPPED) {
    this.pendingSeek = p;  // applied when playback of the next item starts
    return true;
  }
  return this.call('seek', [p]);
};

PavoAVControl.prototype.release = function () {
  this.endItem('release');
  return true;
};

// Removed from the page: the program frees the player; the object stays
// usable if the page puts it back.
PavoAVControl.prototype.gone = function () {
  this.generation += 1;
  this.call('release', []);
  pavoLive.delete(this);
  this.state.ps = PAVO_STATE_STOPPED;
  this.state.sp = 0;
  this.lastWindow = '';
  this.clearPicture();
};

// The video plane's picture: the program's frame previews, painted as the
// box's background (the page's own background returns when the item ends).
PavoAVControl.prototype.showPicture = function (src) {
  if (typeof src !== 'string' || src.indexOf('data:image/jpeg;base64,') !== 0) return;
  this.element.style.setProperty('background', '#000 url("' + src + '") center / contain no-repeat');
  this.painted = true;
};

PavoAVControl.prototype.clearPicture = function () {
  if (!this.painted) return;
  this.painted = false;
  this.element.style.removeProperty('background');
};

PavoAVControl.prototype.setData = function (value) {
  const url = value === null || value === undefined ? '' : String(value);
  if (url === this.dataUrl) return;
  if (this.state.ps !== PAVO_STATE_STOPPED) this.endItem('stop');
  this.dataUrl = url;
};

PavoAVControl.prototype.setFullScreen = function (on) {
  const full = !!on;
  this.call('fullscreen', [full]);
  if (full === this.state.fs) return true;
  this.state.fs = full;
  const element = this.element;
  setTimeout(function () { pavoFire(element, 'FullScreenChange', [], []); }, 0);
  return true;
};

PavoAVControl.prototype.queue = function (url) {
  if (url === null || url === undefined) return this.call('queue', [null]);
  return this.call('queue', [String(url).slice(0, 4096)]);
};

// The box of the object is the video window; sent when it changes.
PavoAVControl.prototype.sendWindow = function (force) {
  if (!this.element.isConnected) return;
  const r = this.element.getBoundingClientRect();
  const box = [Math.round(r.left), Math.round(r.top), Math.round(r.width), Math.round(r.height)];
  const text = box.join(',');
  if (!force && text === this.lastWindow) return;
  this.lastWindow = text;
  this.call('window', box);
};

// ---- Components -------------------------------------------------------------

const pavoComponentIndex = new WeakMap();  // component -> [type, index]

function pavoCollection(list) {
  const out = list.slice();
  out.item = function (i) { return out[i] === undefined ? null : out[i]; };
  return out;
}

PavoAVControl.prototype.components = function (type, activeOnly) {
  const t = type === undefined || type === null ? -1 : Number(type);
  const out = [];
  for (let kind = 0; kind < 3; ++kind) {
    if (t !== -1 && t !== kind) continue;
    for (const c of this.state.comps[kind] || []) {
      if (activeOnly && !c.active) continue;
      const component = {
        type: kind, componentTag: c.tag, pid: c.pid, encoding: c.enc, encrypted: c.encrypted,
        language: c.lang, audioDescription: c.ad, audioChannels: c.ch, hearingImpaired: c.hi,
        label: c.label,
      };
      if (kind === 0) component.aspectRatio = c.h > 0 ? Math.round(c.w / c.h * 100) / 100 : 0;
      pavoComponentIndex.set(component, [kind, c.i]);
      out.push(component);
    }
  }
  return pavoCollection(out);
};

// `c` is a component of a collection, or a component type (by type: the
// terminal's default choice, or all of that type when unselecting).
PavoAVControl.prototype.select = function (method, c) {
  if (typeof c === 'number') return c >= 0 && c <= 2 ? this.call(method, [c, -1]) : false;
  const where = c !== null && typeof c === 'object' ? pavoComponentIndex.get(c) : undefined;
  if (!where) return false;
  return this.call(method, where);
};

// ---- Messages from the program -----------------------------------------------

PavoAVControl.prototype.receive = function (message) {
  if (message.g !== this.generation) return;  // an item the page has ended
  const s = message.s;
  if (s) {
    for (const key of ['ps', 'pos', 'dur', 'sp', 'err']) {
      if (typeof s[key] === 'number') this.state[key] = s[key];
    }
    if (Array.isArray(s.comps)) this.state.comps = s.comps;
  }
  const e = this.element;
  switch (message.e) {
    case 'state': pavoFire(e, 'PlayStateChange', ['state'], [this.state.ps]); break;
    case 'speed': pavoFire(e, 'PlaySpeedChanged', ['speed'], [this.state.sp]); break;
    case 'position': pavoFire(e, 'PlayPositionChanged', ['position'], [this.state.pos]); break;
    case 'frame': this.showPicture(message.src); break;
    case 'component':
      pavoFire(e, 'SelectedComponentChanged', ['componentType'], [message.v]);
      pavoFire(e, 'ComponentChanged', ['componentType'], [message.v]);
      break;
    default: break;
  }
};

// The members a page sees on an A/V Control object.
const pavoAVMembers = {
  COMPONENT_TYPE_VIDEO: { value: function () { return 0; } },
  COMPONENT_TYPE_AUDIO: { value: function () { return 1; } },
  COMPONENT_TYPE_SUBTITLE: { value: function () { return 2; } },
  playState: { value: function (o) { return o.state.ps; } },
  playPosition: { value: function (o) { return o.state.pos; } },
  playTime: { value: function (o) { return o.state.dur; } },
  speed: { value: function (o) { return o.state.sp; } },
  error: { value: function (o) { return o.state.ps === PAVO_STATE_ERROR ? o.state.err : undefined; } },
  fullScreen: { value: function (o) { return o.state.fs; } },
  data: { value: function (o) { return o.dataUrl; }, set: function (o, v) { o.setData(v); } },
  play: { method: function (o, speed) { return o.play(speed); } },
  stop: { method: function (o) { return o.stop(); } },
  seek: { method: function (o, ms) { return o.seek(ms); } },
  release: { method: function (o) { return o.release(); } },
  setFullScreen: { method: function (o, on) { return o.setFullScreen(on); } },
  queue: { method: function (o, url) { return o.queue(url); } },
  getComponents: { method: function (o, type) { return o.components(type, false); } },
  getCurrentActiveComponents: { method: function (o, type) { return o.components(type, true); } },
  selectComponent: { method: function (o, c) { return o.select('select', c); } },
  unselectComponent: { method: function (o, c) { return o.select('unselect', c); } },
};
const pavoAVEvents = ['PlayStateChange', 'PlayPositionChanged', 'PlaySpeedChanged', 'FullScreenChange',
  'SelectedComponentChanged', 'ComponentChanged'];
