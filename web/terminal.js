// Stand-ins for the rest of a terminal's world that applications reach for:
// the application manager, the configuration, the capabilities, a harmless
// broadcast video object and the KeyEvent key codes.

const PAVO_KEYS = {
  VK_ENTER: 13, VK_LEFT: 37, VK_UP: 38, VK_RIGHT: 39, VK_DOWN: 40, VK_RED: 403, VK_GREEN: 404,
  VK_YELLOW: 405, VK_BLUE: 406, VK_PLAY: 415, VK_PAUSE: 19, VK_PLAY_PAUSE: 402, VK_STOP: 413,
  VK_FAST_FWD: 417, VK_REWIND: 412, VK_BACK: 461,
  VK_0: 48, VK_1: 49, VK_2: 50, VK_3: 51, VK_4: 52, VK_5: 53, VK_6: 54, VK_7: 55, VK_8: 56, VK_9: 57,
};

function pavoInstallKeyEvent() {
  const target = typeof window.KeyEvent === 'function' || typeof window.KeyEvent === 'object'
      ? window.KeyEvent : {};
  for (const name in PAVO_KEYS) {
    try { Object.defineProperty(target, name, { value: PAVO_KEYS[name], enumerable: true }); } catch (e) {}
  }
  if (window.KeyEvent !== target) {
    Object.defineProperty(window, 'KeyEvent', { value: target, writable: true, configurable: true });
  }
}

// The owner application: show/hide/activate and the key set.
function PavoApplication() {
  let keysetValue = 0x1f;  // red, green, yellow, blue, navigation
  this.visible = true;
  this.show = function () { this.visible = true; return true; };
  this.hide = function () { this.visible = false; return true; };
  this.activate = function () { return true; };
  this.deactivate = function () { return true; };
  this.destroyApplication = function () { window.close(); };
  this.privateData = {
    keyset: {
      RED: 0x1, GREEN: 0x2, YELLOW: 0x4, BLUE: 0x8, NAVIGATION: 0x10, VCR: 0x20, SCROLL: 0x40,
      INFO: 0x80, NUMERIC: 0x100, ALPHA: 0x200, OTHER: 0x400,
      get value() { return keysetValue; },
      setValue: function (mask) { keysetValue = Number(mask) >>> 0; return keysetValue; },
      otherKeys: [],
      maximumValue: 0x7ff,
    },
    currentChannel: null,
    getFreeMem: function () { return 64 * 1024 * 1024; },
  };
}
const pavoOwnerApplication = new PavoApplication();

const pavoConfiguration = {
  preferredAudioLanguage: 'eng',
  preferredSubtitleLanguage: 'eng',
  preferredUILanguage: 'eng',
  countryId: 'DEU',
  get subtitlesEnabled() { return pavoSubtitles; },
  set subtitlesEnabled(on) {
    pavoSubtitles = !!on;
    pavoBridge.call('terminal', 0, 0, 'subtitles', [pavoSubtitles]);
  },
};
let pavoSubtitles = false;

const PAVO_CAPABILITIES = '<profilelist><ui_profile name="OITF_HD_UIPROF+DVB_T+TRICKMODE">' +
    '<ext><parentalcontrol schemes="dvb-si">true</parentalcontrol></ext>' +
    '<drm DRMSystemID="urn:dvb:casystemid:19188">TS MP4</drm></ui_profile>' +
    '<video_profile name="MP4_AVC_HD_25_HEAAC" type="video/mp4"/>' +
    '<video_profile name="TS_AVC_HD_25_HEAAC" type="video/mpeg"/></profilelist>';

const pavoTerminalMembers = {
  appman: {
    getOwnerApplication: { method: function () { return pavoOwnerApplication; } },
  },
  config: {
    configuration: { value: function () { return pavoConfiguration; } },
    localSystem: { value: function () { return { deviceID: 'pavo-0001', modelName: 'pavo', vendorName: 'pavo' }; } },
  },
  caps: {
    xmlCapabilities: {
      value: function () { return new DOMParser().parseFromString(PAVO_CAPABILITIES, 'text/xml'); },
    },
    extraSDVideoDecodes: { value: function () { return 0; } },
    extraHDVideoDecodes: { value: function () { return 0; } },
    hasCapability: { method: function (o, name) { return PAVO_CAPABILITIES.indexOf(String(name)) >= 0; } },
  },
  broadcast: {
    playState: { value: function () { return 0; } },
    currentChannel: { value: function () { return null; } },
    bindToCurrentChannel: { method: function () { return null; } },
    stop: { method: function () { return undefined; } },
    release: { method: function () { return undefined; } },
    setFullScreen: { method: function () { return undefined; } },
    fullScreen: { value: function () { return false; } },
  },
};
