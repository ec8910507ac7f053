// Put first into a copy of a view page by view_test, after `window.meridProbe = [expressions]`.
// Records errors written to the console and resources that fail to load (the page records
// its own script errors in meridViewErrors), and writes what it found as JSON into
// the pre element "merid-probe", where `chromium --dump-dom` shows it: until the first frame is drawn
// {ready: false, errors}, then also the expressions' values. Characters that the DOM dump
// would escape are written as \u escapes.
window.meridProbeConsole = [];
['error', 'assert'].forEach(function (kind) {
  var original = console[kind];
  console[kind] = function () {
    var args = Array.prototype.slice.call(arguments);
    if (kind === 'error' || !args.shift())
      window.meridProbeConsole.push('console.' + kind + ': ' + args.join(' '));
    return original.apply(console, arguments);
  };
});
window.addEventListener('error', function (e) {
  if (e.target !== window) window.meridProbeConsole.push('failed to load: ' + (e.target.src || e.target.href));
}, true);
window.addEventListener('load', function poll() {
  var ready = !!(window.meridView && meridView.ready);
  var out = {ready: ready, errors: (window.meridViewErrors || []).concat(window.meridProbeConsole)};
  if (ready)
    out.values = window.meridProbe.map(function (e) {
      try { return (0, eval)(e); } catch (x) { return 'threw: ' + x; }
    });
  var pre = document.getElementById('merid-probe') || document.body.appendChild(document.createElement('pre'));
  pre.id = 'merid-probe';
  pre.textContent = JSON.stringify(out).replace(/[^ -~]|[<>&]/g, function (c) {
    return '\\u' + ('000' + c.charCodeAt(0).toString(16)).slice(-4);
  });
  if (!ready) setTimeout(poll, 20);
});
