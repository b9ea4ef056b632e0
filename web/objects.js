// Makes <object> elements into the OIPF objects their `type` names, however
// the page made them (markup, innerHTML, createElement then type or
// setAttribute, a type changed later): the members are accessors on
// HTMLObjectElement.prototype that find the element's object kind from its
// current type on each access, so they exist synchronously. The instance
// behind an element is made at its first use and kept in a WeakMap.

const PAVO_MEDIA_TYPES = ['video/broadband', 'video/mp4', 'video/mpeg', 'video/mp2t', 'audio/mp4',
  'audio/mpeg', 'application/dash+xml', 'application/vnd.apple.mpegurl'];
const PAVO_KINDS = {
  'application/oipfdrmagent': 'drm',
  'application/oipfapplicationmanager': 'appman',
  'application/oipfconfiguration': 'config',
  'application/oipfcapabilities': 'caps',
  'video/broadcast': 'broadcast',
};
PAVO_MEDIA_TYPES.forEach(function (t) { PAVO_KINDS[t] = 'av'; });

const pavoObjectProto = HTMLObjectElement.prototype;
const pavoNativeData = Object.getOwnPropertyDescriptor(pavoObjectProto, 'data');
const pavoNativeGetAttribute = Element.prototype.getAttribute;
const pavoInstances = new WeakMap();  // element -> { kind, instance }
const pavoLive = new Set();           // A/V instances that may hold a player (played, not released)

function pavoKindOf(element) {
  const type = pavoNativeGetAttribute.call(element, 'type');
  if (!type) return null;
  return PAVO_KINDS[type.split(';')[0].trim().toLowerCase()] || null;
}

function pavoInstance(element, kind) {
  let entry = pavoInstances.get(element);
  if (entry && entry.kind === kind) return entry.instance;
  let instance = null;
  if (kind === 'av') {
    instance = new PavoAVControl(element);
  } else if (kind === 'drm') {
    instance = new PavoDrmAgent(element);
  } else {
    instance = {};
  }
  if (entry && entry.kind === 'av') entry.instance.gone();  // its type changed away
  pavoInstances.set(element, { kind: kind, instance: instance });
  return instance;
}

// The media data of an A/V object is ours: the browser must not load it.
function pavoTakeData(element) {
  if (pavoKindOf(element) !== 'av' || !element.hasAttribute('data')) return;
  const instance = pavoInstance(element, 'av');
  instance.setData(pavoNativeGetAttribute.call(element, 'data'));
  element.removeAttribute('data');
}

// name -> { kind -> member }: every member of every kind, on the prototype.
function pavoInstallMembers() {
  const table = Object.create(null);
  const add = function (kind, members) {
    for (const name in members) (table[name] = table[name] || {})[kind] = members[name];
  };
  add('av', pavoAVMembers);
  add('drm', pavoDrmMembers);
  for (const kind in pavoTerminalMembers) add(kind, pavoTerminalMembers[kind]);

  for (const name in table) {
    const byKind = table[name];
    const native = name === 'data' ? pavoNativeData : undefined;
    Object.defineProperty(pavoObjectProto, name, {
      configurable: true,
      enumerable: true,
      get: function () {
        const kind = pavoKindOf(this);
        const member = kind && byKind[kind];
        if (!member) return native ? native.get.call(this) : undefined;
        const instance = pavoInstance(this, kind);
        if (member.method) {
          const element = this;
          return function () {
            const args = [pavoInstance(element, kind)];
            for (let i = 0; i < arguments.length && i < 8; ++i) args.push(arguments[i]);
            return member.method.apply(null, args);
          };
        }
        return member.value(instance);
      },
      set: function (value) {
        const kind = pavoKindOf(this);
        const member = kind && byKind[kind];
        if (member && member.set) member.set(pavoInstance(this, kind), value);
        else if (native) native.set.call(this, value);
      },
    });
  }

  // Event handler members of every kind: kept per element, looked up when
  // an event is delivered.
  const events = pavoAVEvents.concat(pavoDrmEvents);
  for (const name of events) {
    Object.defineProperty(pavoObjectProto, 'on' + name, {
      configurable: true,
      enumerable: true,
      get: function () { return pavoHandlerStore(this)['on' + name] || null; },
      set: function (f) { pavoHandlerStore(this)['on' + name] = typeof f === 'function' ? f : null; },
    });
  }

  // setAttribute('data', ...) on an A/V object sets its data, never the
  // attribute that would make the browser load it.
  const nativeSetAttribute = Element.prototype.setAttribute;
  Element.prototype.setAttribute = function (name, value) {
    if (this instanceof HTMLObjectElement && String(name).toLowerCase() === 'data' && pavoKindOf(this) === 'av') {
      pavoInstance(this, 'av').setData(value);
      return;
    }
    nativeSetAttribute.call(this, name, value);
    if (this instanceof HTMLObjectElement && String(name).toLowerCase() === 'type') pavoTakeData(this);
  };
}

// Objects added (their data taken) and removed (their player freed).
function pavoWatchDocument() {
  const visit = function (node, action) {
    if (node.nodeType !== 1) return;
    if (node instanceof HTMLObjectElement) action(node);
    if (node.querySelectorAll) node.querySelectorAll('object').forEach(action);
  };
  const removed = function (element) {
    const entry = pavoInstances.get(element);
    if (entry && entry.kind === 'av' && !element.isConnected) entry.instance.gone();
  };
  const observer = new MutationObserver(function (records) {
    for (const r of records) {
      if (r.type === 'attributes') { pavoTakeData(r.target); continue; }
      r.addedNodes.forEach(function (n) { visit(n, pavoTakeData); });
      r.removedNodes.forEach(function (n) { visit(n, removed); });
    }
  });
  observer.observe(document, { childList: true, subtree: true, attributes: true, attributeFilter: ['data', 'type'] });

  // The video window follows the box: checked four times a second.
  setInterval(function () {
    pavoLive.forEach(function (instance) {
      if (instance.state.ps !== PAVO_STATE_STOPPED) instance.sendWindow(false);
    });
  }, 250);
}

// An <object> showing no plug-in renders as an inline box, which has no
// size: media objects keep the box the page gave them. The other OIPF
// objects have no picture on a terminal (here they would show a missing
// plug-in's placeholder). Any rule of the page's own wins: these selectors
// weigh nothing.
function pavoInstallStyle() {
  try {
    const sheet = new CSSStyleSheet();
    const select = function (kind) {
      return Object.keys(PAVO_KINDS).filter(function (t) { return (PAVO_KINDS[t] === 'av') === (kind === 'av'); })
          .map(function (t) { return 'object[type="' + t + '" i]'; }).join(',');
    };
    sheet.replaceSync(':where(' + select('av') + ') { display: inline-block; }\n' +
                      ':where(' + select('other') + ') { visibility: hidden; width: 0; height: 0; }');
    document.adoptedStyleSheets = document.adoptedStyleSheets.concat([sheet]);
  } catch (e) { /* an XML document without style: nothing to keep */ }
}

pavoInstallKeyEvent();
pavoInstallMembers();
pavoWatchDocument();
pavoInstallStyle();
