#!/usr/bin/env python3
"""HbbTV pages in headless Chromium through pavo-hbbtv-browser, against
pavo-media-service (model engine). Each page reports its own verdict by
navigating to #pass or #fail:<why>; this program serves the pages on
127.0.0.1, runs the browser program once per page and reads its timeline.
Beside the pages' own checks it checks what only the program's side can
see: exit statuses, no player left in the service, no browser process or
profile directory left behind, a clean end on SIGTERM.

Usage: browser_test.py BROWSER_PROGRAM MEDIA_SERVICE PAGES_DIR [MEDIA_FILE]
(run in private IPC and network namespaces: the queue keys are fixed).
With MEDIA_FILE, a last case plays it with the service's GStreamer engine and
checks that the video's frames appear in the page's video box.
"""
import functools
import http.server
import os
import re
import signal
import subprocess
import sys
import tempfile
import threading
import time

PROGRAM, SERVICE, PAGES = sys.argv[1:4]
MEDIA = sys.argv[4] if len(sys.argv) > 4 else None
failures = []


def fail(case, why, output=''):
    failures.append(case)
    print(f'FAIL {case}: {why}')
    if output:
        print('\n'.join('    ' + line for line in output.splitlines()[-60:]))


class Pages(http.server.SimpleHTTPRequestHandler):
    extensions_map = dict(http.server.SimpleHTTPRequestHandler.extensions_map,
                          **{'.xhtml': 'application/vnd.hbbtv.xhtml+xml', '.js': 'text/javascript'})

    def log_message(self, *args):
        pass


def start_server():
    handler = functools.partial(Pages, directory=PAGES)
    server = http.server.ThreadingHTTPServer(('127.0.0.1', 0), handler)
    threading.Thread(target=server.serve_forever, daemon=True).start()
    return server


def start_service(log, options=('--time-scale', '10'), env=None):
    service = subprocess.Popen([SERVICE, '--verbose', *options], stdout=log, stderr=subprocess.STDOUT, env=env)
    for _ in range(100):
        with open(log.name) as f:
            if 'pavo-media-service: ready' in f.read():
                return service
        time.sleep(0.05)
    raise SystemExit('pavo-media-service did not start')


def leftovers(tmp):
    """Profile directories and processes that still name the run's TMPDIR."""
    found = [os.path.join(tmp, d) for d in os.listdir(tmp)]
    for pid in filter(str.isdigit, os.listdir('/proc')):
        try:
            with open(f'/proc/{pid}/cmdline', 'rb') as f:
                if tmp.encode() in f.read():
                    found.append('process ' + pid)
        except OSError:
            pass
    return found


def run(args, stop_at=None, timeout=60):
    """Runs the program in a fresh TMPDIR; returns (status, output, leftovers).
    With `stop_at` (a regular expression), SIGTERM follows the first timeline line matching it."""
    with tempfile.TemporaryDirectory() as tmp:
        env = dict(os.environ, TMPDIR=tmp)
        process = subprocess.Popen([PROGRAM] + args, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL,
                                   text=True, env=env)
        early = ''
        if stop_at is not None:
            for line in process.stdout:
                early += line
                if re.search(stop_at, line):
                    process.send_signal(signal.SIGTERM)
                    break
        try:
            output, _ = process.communicate(timeout=timeout)
            output = early + output
        except subprocess.TimeoutExpired:
            process.kill()
            output, _ = process.communicate()
            return None, output, []
        time.sleep(0.2)
        return process.returncode, output, leftovers(tmp)


def players_balanced(output, before=None, at_least=0):
    """Every Pavo_AVCtrl_Create answered by a Pavo_AVCtrl_Destroy (up to the line matching `before`)."""
    if before is not None:
        match = re.search(before, output, re.M)
        output = output[:match.start()] if match else output
    made = len(re.findall(r'Pavo_AVCtrl_Create 0', output))
    gone = len(re.findall(r'Pavo_AVCtrl_Destroy 0', output))
    return made >= at_least and made == gone, f'{made} made, {gone} destroyed'


# page, extra options, a check of the timeline beyond the page's verdict
CASES = [
    ('walkthrough.html', ['--keys', 'RED', '--cookie', 'session=abc'],
     lambda out: (re.search(r'key +RED \(403\)', out) is not None, 'RED key sent')),
    ('errors.html', [], None),
    ('components.html', [], None),
    ('reload.html', [], None),
    ('drm.xhtml', [], lambda out: (re.search(r'sendDRMMessage.*Pavo_DrmAgent_sendDRMMessage 0', out) is not None,
                                   'sent through the library')),
    ('lifecycle.html', [], lambda out: players_balanced(out, r'nav +\S*lifecycle-next', 4)),
    ('hostile.html', [], lambda out: (re.search(r'dropped \d+ calls|more calls and events not shown', out) is not None,
                                      'the flood was limited')),
]


def picture(base):
    """The GStreamer engine's frames in the page's video box."""
    with tempfile.TemporaryDirectory() as frames, tempfile.NamedTemporaryFile('w+', suffix='.log') as log:
        env = dict(os.environ, PAVO_FRAME_PREVIEW_DIR=frames)
        service = start_service(log, ('--engine', 'gstreamer', '--sinks', 'fake'), env)
        try:
            status, output, _ = run(['--frames', frames, '--until-url', '#(pass|fail)', '--for', '40',
                                     base + 'picture.html?media=' + MEDIA])
        finally:
            # The GStreamer engine's own clean end is e2e_gstreamer_test's concern.
            service.send_signal(signal.SIGTERM)
            service.wait(10)
        verdict = re.search(r'nav +\S*#(pass|fail\S*)', output or '')
        if status != 0 or not verdict or verdict.group(1) != 'pass':
            fail('picture.html', f'exit {status}, verdict {verdict.group(1) if verdict else None}', output)
        else:
            print('ok   picture.html (GStreamer engine, frames in the box)')


def main():
    if not os.access('/usr/lib/chromium/chromium-headless-shell', os.X_OK):
        print('SKIP: no chromium-headless-shell (scripts/setup.sh installs it)')
        return 77
    # Exit statuses: before any service runs, then with one.
    def statuses(cases):
        for args, wanted, what in cases:
            status, output, left = run(args)
            if status != wanted or left:
                fail(what, f'exit {status}, wanted {wanted}; left behind {left}', output)
    statuses([(['--bad-option', 'x'], 2, 'bad command line'),
              (['--for', '1', 'about:blank'], 3, 'no service')])

    server = start_server()
    base = f'http://127.0.0.1:{server.server_address[1]}/'
    with tempfile.NamedTemporaryFile('w+', suffix='.log') as log:
        service = start_service(log)
        try:
            statuses([(['--browser', '/nonexistent/chromium', 'about:blank'], 4, 'no browser'),
                      (['--for', '5', 'http://127.0.0.1:1/'], 1, 'page cannot be opened')])
            for page, options, extra in CASES:
                started = time.monotonic()
                status, output, left = run(options + ['--until-url', '#(pass|fail)', '--for', '40', base + page])
                verdict = re.search(r'nav +\S*#(pass|fail\S*)', output or '')
                took = time.monotonic() - started
                if status != 0 or not verdict or verdict.group(1) != 'pass':
                    fail(page, f'exit {status}, verdict {verdict.group(1) if verdict else None}', output)
                    continue
                for ok, what in [players_balanced(output), extra(output) if extra else (True, '')]:
                    if not ok:
                        fail(page, what, output)
                if left:
                    fail(page, f'left behind: {left}')
                print(f'ok   {page} ({took:.1f} s)')

            status, output, left = run(['--for', '60', '--keys', 'RED', '--cookie', 'session=abc',
                                        base + 'walkthrough.html'], stop_at=r'play state -> playing')
            if status != 130 or left or not players_balanced(output, at_least=1)[0]:
                fail('SIGTERM', f'exit {status}, left behind {left}', output)
            else:
                print('ok   SIGTERM ends cleanly')
        finally:
            service.send_signal(signal.SIGTERM)
            if service.wait(10) != 0:
                fail('service', f'pavo-media-service ended with status {service.returncode}')
        log.seek(0)
        text = log.read()
        if MEDIA:
            picture(base)
        made, gone = text.count('request create '), text.count('request destroy ')
        if made != gone:
            fail('service', f'{made} players made, {gone} destroyed: players left in the service')
    server.shutdown()
    print('PASS' if not failures else f'{len(failures)} failed: {failures}')
    return 1 if failures else 0


if __name__ == '__main__':
    sys.exit(main())
