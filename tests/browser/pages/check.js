// Test pages report their verdict by navigating to #pass or #fail:<why>;
// the test runs the browser until one of them.
var checks = (function () {
  var done = false;
  function finish(hash) {
    if (done) return;
    done = true;
    console.log('verdict ' + hash);
    location.hash = hash;
  }
  setTimeout(function () { finish('fail:timeout:' + checks.step); }, 20000);
  return {
    step: 'start',
    pass: function () { finish('pass'); },
    fail: function (why) { finish('fail:' + why); },
    // Fails the page unless `ok`.
    expect: function (ok, what) {
      if (!ok) finish('fail:' + what);
      return ok;
    },
  };
})();
