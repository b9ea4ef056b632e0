// The bridge: the one way between the page's objects and pavo-hbbtv-browser.
// Calls leave through the binding the program added (captured here and
// removed from the page's globals); messages come back through one receiver
// function whose name is secret per run. Every object kind uses it.
//
// Wrapped by the program as: (function (bindingName, receiverName) { ... })
// together with the other files of web/, so nothing here is a page global.

const pavoBridge = (function () {
  const send = window[bindingName];
  try { delete window[bindingName]; } catch (e) { /* not configurable: left as is */ }
  const listeners = new Map();  // object id -> function(message)
  let nextId = 1;

  // Messages from the program: one JSON text per call, or an array of them.
  function receive(text) {
    let list;
    try { list = JSON.parse(text); } catch (e) { return; }
    if (!Array.isArray(list)) list = [list];
    for (const message of list) {
      const target = listeners.get(message.o);
      if (!target) continue;
      try { target(message); } catch (e) {
        // A page handler threw: report it as the page's own uncaught error
        // without stopping the remaining messages.
        setTimeout(function () { throw e; }, 0);
      }
    }
  }
  Object.defineProperty(window, receiverName, { value: receive, enumerable: false });

  return {
    // A new object id and the function that receives its messages.
    register(onMessage) {
      const id = nextId++;
      listeners.set(id, onMessage);
      return id;
    },
    // One call to the program: fire and forget, answered by messages.
    call(kind, id, generation, method, args) {
      if (typeof send !== 'function') return false;
      try {
        send(JSON.stringify({ k: kind, o: id, g: generation, m: method, a: args || [] }));
        return true;
      } catch (e) {
        return false;  // arguments that JSON cannot carry (cycles): refused
      }
    },
  };
})();
