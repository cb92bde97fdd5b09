#!/usr/bin/env python3
"""Clients of the HTTP benchmark (bench/http_bench.sh); standard library only.

  http_clients.py latency PORT PATH TOKEN N
      one keep-alive connection, N sequential GETs: median and p99 in ms
  http_clients.py paired PORT TOKEN GROUP USER N CMD...
      N rounds of: USER added to and removed from GROUP over one keep-alive
      connection, then the same two changes made by CMD (call_in_process on a
      copy of the root); the median of each, the median of the differences
      of the pairs, and the median of what each HTTP change took beyond the
      module's own time for it (the answer's Server-Timing), in us
  http_clients.py idle PORT PATH TOKEN N GAP_MS
      one keep-alive connection, N GETs of PATH (with the bearer TOKEN, or
      none for -) each after GAP_MS of doing nothing: the median and p90 of
      a round trip that finds the machine idle, in us (what any server pays
      here before a change's answer), and of that less the module's time
      when the answers carry Server-Timing
  http_clients.py slow PORT TOKEN PID HEADS IDLE
      HEADS connections holding half-sent heads and IDLE kept-alive idle
      connections from 127.0.1.x addresses; meanwhile 200 GET /api/info from
      127.0.0.1: p99 in ms, and the server's RSS and threads while held
  http_clients.py streams PORT PASSWORD PID N
      N change streams (GET /api/live) held open from 127.0.1.x addresses,
      by N/8 sessions of admin (a session may hold 8); meanwhile 200 GET
      /api/info from 127.0.0.1: p99 in ms, the server's RSS per stream, and
      how long one change takes to reach every stream
"""
import http.client
import json
import resource
import selectors
import socket
import sys
import time


def pct(values, p):
    values = sorted(values)
    return values[min(len(values) - 1, int(len(values) * p))]


def timed_gets(port, path, headers, n):
    conn = http.client.HTTPConnection('127.0.0.1', port)
    times = []
    for _ in range(n):
        t = time.perf_counter()
        conn.request('GET', path, headers=headers)
        r = conn.getresponse()
        r.read()
        if r.status != 200:
            raise SystemExit(f'GET {path}: HTTP {r.status}')
        times.append((time.perf_counter() - t) * 1000)
    conn.close()
    return times


def latency(port, path, token, n):
    headers = {'Authorization': f'Bearer {token}'} if token != '-' else {}
    times = timed_gets(port, path, headers, n)
    print(f'median {pct(times, 0.5):.3f} ms  p99 {pct(times, 0.99):.3f} ms')


def paired(port, token, group, user, n, cmd):
    """Each HTTP change is paired with the same change made in process just
    before or after it, so that drift in the disk's sync times (larger than the HTTP
    layer's cost) falls on both alike. The in-process changes use a copy of
    the root: on the same root each side would find the files changed by the
    other at every change and read them again. The HTTP client is a minimal
    one (the request bytes made once, the answer read by its length), so that
    what is measured is the server, not http.client's own parsing (which adds
    40 to 110 us a request here).

    The pairing still leaves the two roots' own disk drift (it has given
    negative figures), so each HTTP change is also measured against itself:
    the server says in Server-Timing how long the module ran for it, and
    what the change took beyond that is the HTTP layer's cost, with no
    second disk in the comparison."""
    import subprocess
    inproc = subprocess.Popen(cmd, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
    sock = socket.create_connection(('127.0.0.1', port))
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    requests = {}
    for method in ('add', 'remove'):
        body = json.dumps({'api': 'TAVO.Core.Group.Member', 'version': 1, 'method': method,
                           'params': {'group': group, 'name': user}}).encode()
        requests[method] = (f'POST /api HTTP/1.1\r\nHost: 127.0.0.1\r\n'
                            f'Authorization: Bearer {token}\r\n'
                            f'Content-Type: application/json\r\n'
                            f'Content-Length: {len(body)}\r\n\r\n').encode() + body

    def over_http(method):
        start = time.perf_counter()
        sock.sendall(requests[method])
        data = b''
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                raise SystemExit('the server closed the connection')
            data += chunk
            head = data.find(b'\r\n\r\n')
            if head < 0:
                continue
            length = 0
            module_us = None
            for line in data[:head].split(b'\r\n')[1:]:
                name, _, value = line.partition(b':')
                name = name.strip().lower()
                if name == b'content-length':
                    length = int(value)
                elif name == b'server-timing' and b'module;dur=' in value:
                    module_us = float(value.split(b'dur=')[1].split(b',')[0]) * 1000
            if len(data) >= head + 4 + length:
                break
        took = (time.perf_counter() - start) * 1e6
        if b'"success":true' not in data:
            raise SystemExit(f'{method} over HTTP: {data[:300]!r}')
        if module_us is None:
            raise SystemExit(f'{method} over HTTP: no Server-Timing in the answer')
        beyond.append(took - module_us)
        return took

    beyond = []  # per HTTP change: its time less the module's own time

    def in_process(method):
        inproc.stdin.write(method + '\n')
        inproc.stdin.flush()
        line = inproc.stdout.readline()
        if not line:
            raise SystemExit(f'{method} in process failed')
        return float(line)

    # Which side goes first alternates from pair to pair: the second change of
    # a pair finds the disk still busy with the first one's writing back. The
    # differences are taken apart by which side went first, and the HTTP cost
    # is the mean of the two medians, in which that penalty cancels out.
    http, local, diffs = [], [], []
    by_order = ([], [])  # [0]: HTTP first, [1]: in process first
    for k in range(n):
        for method in ('add', 'remove'):
            if k % 2 == 0:
                h = over_http(method)
                p = in_process(method)
            else:
                p = in_process(method)
                h = over_http(method)
            http.append(h)
            local.append(p)
            diffs.append(h - p)
            by_order[k % 2].append(h - p)
    changes_beyond = list(beyond)
    # The same request when the user is a member already: the module makes
    # every check and takes every lock, but writes nothing, so no disk time
    # hides what the HTTP layer costs.
    over_http('add')
    in_process('add')
    noop_http, noop_local, noop_diffs = [], [], []
    for _ in range(2 * n):
        h = over_http('add')
        p = in_process('add')
        noop_http.append(h)
        noop_local.append(p)
        noop_diffs.append(h - p)
    over_http('remove')
    in_process('remove')
    inproc.stdin.close()
    inproc.wait()
    sock.close()
    print(f'http change: median {pct(http, 0.5):.1f} us; in-process change: median '
          f'{pct(local, 0.5):.1f} us; {len(diffs)} pairs')
    first, second = pct(by_order[0], 0.5), pct(by_order[1], 0.5)
    print(f'paired with the same change in process, the HTTP layer adds '
          f'{(first + second) / 2:.1f} us per change (median difference '
          f'{first:.1f} us with HTTP first, {second:.1f} us with it second)')
    print(f'the HTTP layer adds {pct(changes_beyond, 0.5):.1f} us per change: the median of what '
          f'each took beyond the module\'s own time for that change (Server-Timing), '
          f'p90 {pct(changes_beyond, 0.9):.1f} us')
    print(f'an add of a member already there (nothing written): http median '
          f'{pct(noop_http, 0.5):.1f} us, in process {pct(noop_local, 0.5):.1f} us; the HTTP '
          f'layer adds {pct(noop_diffs, 0.5):.1f} us (median of {len(noop_diffs)} pairs)')


def idle_round_trips(port, path, token, n, gap_ms):
    """A change waits milliseconds for the disk, and meanwhile the server's
    threads and the client sleep; its answer then costs whatever waking them
    costs on this machine. The same wait before a plain GET shows that cost
    for any server: nginx's figure is the floor of an HTTP round trip after
    such a wait."""
    sock = socket.create_connection(('127.0.0.1', port))
    sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
    auth = f'Authorization: Bearer {token}\r\n' if token != '-' else ''
    request = f'GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\n{auth}\r\n'.encode()
    times, beyond = [], []
    for _ in range(n):
        time.sleep(gap_ms / 1000)
        start = time.perf_counter()
        sock.sendall(request)
        data = b''
        while True:
            chunk = sock.recv(65536)
            if not chunk:
                raise SystemExit('the server closed the connection')
            data += chunk
            head = data.find(b'\r\n\r\n')
            if head < 0:
                continue
            length = 0
            module_us = None
            for line in data[:head].split(b'\r\n')[1:]:
                name, _, value = line.partition(b':')
                name = name.strip().lower()
                if name == b'content-length':
                    length = int(value)
                elif name == b'server-timing' and b'module;dur=' in value:
                    module_us = float(value.split(b'dur=')[1].split(b',')[0]) * 1000
            if len(data) >= head + 4 + length:
                break
        times.append((time.perf_counter() - start) * 1e6)
        if not data.startswith(b'HTTP/1.1 200'):
            raise SystemExit(f'GET {path}: {data[:100]!r}')
        if module_us is not None:
            beyond.append(times[-1] - module_us)
    sock.close()
    line = f'median {pct(times, 0.5):.1f} us  p90 {pct(times, 0.9):.1f} us'
    if len(beyond) == len(times):
        line += f'; beyond the module\'s time: median {pct(beyond, 0.5):.1f} us'
    print(line)


def proc_status(pid):
    fields = {}
    with open(f'/proc/{pid}/status') as f:
        for line in f:
            k, _, v = line.partition(':')
            fields[k] = v.strip()
    return fields['VmRSS'], fields['Threads']


def slow(port, token, pid, heads, idle):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    rss0, _ = proc_status(pid)
    held = []
    for i in range(heads + idle):
        s = socket.socket()
        s.bind((f'127.0.1.{1 + i % 200}', 0))
        s.connect(('127.0.0.1', port))
        if i < heads:
            s.sendall(b'GET /api HTTP/1.1\r\nHost: 127.0.0.1\r\n')
        else:
            s.sendall(b'GET /page.json HTTP/1.1\r\nHost: 127.0.0.1\r\n\r\n')
        held.append(s)
    for s in held[heads:]:  # read each idle connection's answer; it stays open
        s.settimeout(10)
        got = b''
        while b'\r\n\r\n' not in got:
            got += s.recv(65536)
    rss, threads = proc_status(pid)
    times = timed_gets(port, '/api/info', {'Authorization': f'Bearer {token}'}, 200)
    still_open = 0
    for s in held:
        s.setblocking(False)
        try:
            still_open += 1 if s.recv(1, socket.MSG_PEEK) != b'' else 0
        except BlockingIOError:
            still_open += 1
        except OSError:
            pass
    print(f'{heads} half-sent heads + {idle} idle keep-alive held ({still_open} still open): '
          f'logged-in client median {pct(times, 0.5):.3f} ms p99 {pct(times, 0.99):.3f} ms; '
          f'server RSS {rss} (idle {rss0}), threads {threads}')
    for s in held:
        s.close()


def log_in(port, password):
    conn = http.client.HTTPConnection('127.0.0.1', port)
    conn.request('POST', '/api/auth/login', body=json.dumps({'account': 'admin', 'password': password}),
                 headers={'Content-Type': 'application/json'})
    token = json.loads(conn.getresponse().read())['data']['token']
    conn.close()
    return token


def streams(port, password, pid, n):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    tokens = [log_in(port, password) for _ in range((n + 7) // 8)]
    rss0, _ = proc_status(pid)
    sel = selectors.DefaultSelector()
    held = []

    def open_stream(i):
        s = socket.socket()
        s.bind((f'127.0.1.{1 + i % 200}', 0))
        s.connect(('127.0.0.1', port))
        s.sendall(f'GET /api/live HTTP/1.1\r\nHost: 127.0.0.1\r\n'
                  f'X-Tavo-Token: {tokens[i // 8]}\r\n\r\n'.encode())
        return s

    # Opened 100 at a time, as pages come: a burst larger than the workers'
    # queue (each opening rechecks its session's account) would get 503.
    for first in range(0, n, 100):
        batch = [open_stream(i) for i in range(first, min(n, first + 100))]
        for s in batch:  # each stream's head and its "ready"
            s.settimeout(10)
            got = b''
            while b'event: ready' not in got:
                chunk = s.recv(65536)
                if not chunk or got.startswith(b'HTTP/1.1 5'):
                    raise SystemExit(f'a stream was refused or closed: {got[:200]!r}')
                got += chunk
            s.setblocking(False)
            sel.register(s, selectors.EVENT_READ)
        held += batch
    rss, threads = proc_status(pid)
    times = timed_gets(port, '/api/info', {'Authorization': f'Bearer {tokens[0]}'}, 200)
    # One change, told to every stream.
    t = time.perf_counter()
    conn = http.client.HTTPConnection('127.0.0.1', port)
    # A membership change: a root of many groups is past the group limit, so
    # a creation would change nothing.
    conn.request('POST', '/api', body=json.dumps({'api': 'TAVO.Core.Group.Member', 'version': 1,
                                                  'method': 'add',
                                                  'params': {'group': 'g00002', 'name': ['u09999']}}),
                 headers={'Content-Type': 'application/json', 'X-Tavo-Token': tokens[0]})
    answer = json.loads(conn.getresponse().read())
    if not answer.get('success'):
        raise SystemExit(f'the change failed: {answer}')
    waiting = set(held)
    while waiting and time.perf_counter() - t < 10:
        for key, _ in sel.select(timeout=1):
            if key.fileobj in waiting and b'event: change' in key.fileobj.recv(65536):
                waiting.discard(key.fileobj)
    fan_out = (time.perf_counter() - t) * 1000
    to_kib = lambda v: int(v.split()[0])
    per = (to_kib(rss) - to_kib(rss0)) / n
    print(f'{n} change streams held: logged-in client median {pct(times, 0.5):.3f} ms '
          f'p99 {pct(times, 0.99):.3f} ms; server RSS {rss} (before {rss0}: {per:.1f} KiB a stream), '
          f'threads {threads}; one change reached {n - len(waiting)} of them in {fan_out:.0f} ms')
    for s in held:
        s.close()


if __name__ == '__main__':
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd == 'latency':
        latency(int(args[0]), args[1], args[2], int(args[3]))
    elif cmd == 'paired':
        paired(int(args[0]), args[1], args[2], args[3], int(args[4]), args[5:])
    elif cmd == 'idle':
        idle_round_trips(int(args[0]), args[1], args[2], int(args[3]), float(args[4]))
    elif cmd == 'slow':
        slow(int(args[0]), args[1], int(args[2]), int(args[3]), int(args[4]))
    elif cmd == 'streams':
        streams(int(args[0]), args[1], int(args[2]), int(args[3]))
