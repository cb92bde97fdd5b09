#!/usr/bin/env python3
"""Clients of the HTTP benchmark (bench/http_bench.sh); standard library only.

  http_clients.py latency PORT PATH TOKEN N
      one keep-alive connection, N sequential GETs: median and p99 in ms
  http_clients.py change PORT TOKEN GROUP USER N
      one keep-alive connection, N adds and N removes of USER in GROUP: mean in us
  http_clients.py slow PORT TOKEN PID HEADS IDLE
      HEADS connections holding half-sent heads and IDLE kept-alive idle
      connections from 127.0.1.x addresses; meanwhile 200 GET /api/info from
      127.0.0.1: p99 in ms, and the server's RSS and threads while held
"""
import http.client
import json
import resource
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


def change(port, token, group, user, n):
    conn = http.client.HTTPConnection('127.0.0.1', port)
    headers = {'Authorization': f'Bearer {token}', 'Content-Type': 'application/json'}
    times = []
    for _ in range(n):
        for method in ('add', 'remove'):
            body = json.dumps({'api': 'TAVO.Core.Group.Member', 'version': 1, 'method': method,
                               'params': {'group': group, 'name': user}})
            start = time.perf_counter()
            conn.request('POST', '/api', body=body, headers=headers)
            r = conn.getresponse()
            answer = json.loads(r.read())
            times.append(time.perf_counter() - start)
            if not answer.get('success'):
                raise SystemExit(f'{method}: {answer}')
    times.sort()
    print(f'http change: {sum(times) * 1e6 / len(times):.1f} us mean, '
          f'{times[len(times) // 2] * 1e6:.1f} us median')


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


if __name__ == '__main__':
    cmd, args = sys.argv[1], sys.argv[2:]
    if cmd == 'latency':
        latency(int(args[0]), args[1], args[2], int(args[3]))
    elif cmd == 'change':
        change(int(args[0]), args[1], args[2], args[3], int(args[4]))
    elif cmd == 'slow':
        slow(int(args[0]), args[1], int(args[2]), int(args[3]), int(args[4]))
