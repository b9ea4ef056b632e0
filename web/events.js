// Event delivery shared by the object kinds. A page listens in two ways:
// the `onX` member (called with the values as arguments) and
// addEventListener('X', ...) (an Event carrying the same values as
// properties). Handlers are looked up when the event is delivered.

const pavoHandlers = new WeakMap();  // element -> { onX: function }

function pavoHandlerStore(element) {
  let store = pavoHandlers.get(element);
  if (!store) {
    store = Object.create(null);
    pavoHandlers.set(element, store);
  }
  return store;
}

// Delivers event `name` to `element`: `names` are the Event's property names
// for `values`, in the order the `onX` handler receives them.
function pavoFire(element, name, names, values) {
  const handler = pavoHandlerStore(element)['on' + name];
  if (typeof handler === 'function') {
    try { handler.apply(element, values); } catch (e) { setTimeout(function () { throw e; }, 0); }
  }
  const event = new Event(name);
  names.forEach(function (n, i) {
    Object.defineProperty(event, n, { value: values[i], enumerable: true });
  });
  element.dispatchEvent(event);
}
