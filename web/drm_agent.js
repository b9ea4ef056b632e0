// The DRM agent object (application/oipfDrmAgent). sendDRMMessage returns
// an id of this side at once; the program answers later with the result
// under that id. DRMSystemStatus, canPlayContent and canRecordContent answer
// from what the program last reported for that system (asking it anew each
// time): the first answer for a system not yet asked is "unknown" / false.

function PavoDrmAgent(element) {
  this.element = element;
  this.nextMessage = 1;
  this.known = Object.create(null);  // "status|id", "play|data|id", ... -> value
  const self = this;
  this.id = pavoBridge.register(function (message) { self.receive(message); });
}

function pavoText(value, limit) {
  if (value === undefined || value === null) return '';
  return String(value).slice(0, limit);
}

PavoDrmAgent.prototype.call = function (method, args) {
  return pavoBridge.call('drm', this.id, 0, method, args);
};

PavoDrmAgent.prototype.send = function (type, msg, system) {
  const id = 'msg-' + this.id + '-' + (this.nextMessage++);
  this.call('send', [id, pavoText(type, 256), pavoText(msg, 8192), pavoText(system, 256)]);
  return id;
};

PavoDrmAgent.prototype.ask = function (method, args, fallback) {
  const key = method + '|' + args.join('|');
  this.call(method, args);
  return key in this.known ? this.known[key] : fallback;
};

PavoDrmAgent.prototype.receive = function (message) {
  const e = this.element;
  switch (message.e) {
    case 'answer': this.known[message.key] = message.v; break;
    case 'result':
      pavoFire(e, 'DRMMessageResult', ['msgID', 'resultMsg', 'resultCode'], [message.id, message.msg, message.code]);
      break;
    case 'system':
      pavoFire(e, 'DRMSystemMessage', ['msg', 'DRMSystemID'], [message.msg, message.sys]);
      break;
    case 'status': pavoFire(e, 'DRMSystemStatusChange', ['DRMSystemID'], [message.sys]); break;
    default: break;
  }
};

const pavoDrmMembers = {
  sendDRMMessage: { method: function (o, type, msg, system) { return o.send(type, msg, system); } },
  DRMSystemStatus: {
    method: function (o, system) { return o.ask('status', [pavoText(system, 256)], 1); },
  },
  canPlayContent: {
    method: function (o, data, system) { return o.ask('play', [pavoText(data, 4096), pavoText(system, 256)], false); },
  },
  canRecordContent: {
    method: function (o, data, system) {
      return o.ask('record', [pavoText(data, 4096), pavoText(system, 256)], false);
    },
  },
  setActiveDRM: { method: function (o, system) { o.call('active', [pavoText(system, 256)]); return true; } },
};
const pavoDrmEvents = ['DRMMessageResult', 'DRMSystemMessage', 'DRMSystemStatusChange', 'DRMRightsError'];
