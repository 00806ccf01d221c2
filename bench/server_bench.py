#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What HTTP costs: `zem serve` beside `zem bench` on the same model.

    bench/server_bench.py MODEL [--build BUILD] [--tiny MODEL] [--threads N] [--tokens N] [--rounds N]

The two sides of each comparison take turns, so that what slows the machine for a while slows both;
figures are medians, of the ratios too. A second, small model shows the time until the first byte,
which the weights of a large one would hide. Needs Python alone.
"""
import argparse
import http.client
import json
import pathlib
import statistics
import subprocess
import sys
import tempfile
import threading
import time

ASK_HEALTH = "--ask-health"  # what this program runs beside itself


class Server:
    def __init__(self, zem, model, threads, sequences):
        self.process = subprocess.Popen(
            [zem, "serve", "-m", model, "--port", "0", "-t", str(threads), "-np", str(sequences), "--log", "none",
             "--cache-mib", "0"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        if not line:
            raise SystemExit("the server does not start: " + self.process.stderr.read())
        self.port = int(line.rsplit(":", 1)[1])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()


def post(port, body):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=3600)
    connection.request("POST", "/v1/completions", json.dumps(body))
    response = connection.getresponse()
    if response.status != 200:
        raise SystemExit(f"/v1/completions: {response.status} {response.read()}")
    return connection, response


class Stream(threading.Thread):
    """A greedy reply of so many tokens, with the times at which its pieces arrived."""

    def __init__(self, port, prompt, tokens):
        super().__init__()
        self.port, self.tokens, self.times, self.got = port, tokens, [], 0
        self.body = {"prompt": prompt, "max_tokens": tokens, "temperature": 0, "stream": True,
                     "stream_options": {"include_usage": True}}
        self.start()

    def run(self):
        connection, response = post(self.port, self.body)
        while line := response.readline():
            if not line.startswith(b"data: {"):
                continue
            event = json.loads(line[6:])
            if event["choices"] and event["choices"][0]["text"]:
                self.times.append(time.perf_counter())
            elif event["usage"]:
                self.got = event["usage"]["completion_tokens"]
        connection.close()


def rate_of(streams):
    """Tokens a second of all streams together, while all of them run. A piece may have the text of
    several tokens: each counts as the same part of the reply."""
    for stream in streams:
        stream.join()
        if stream.got != stream.tokens:
            raise SystemExit(f"a reply ended after {stream.got} of {stream.tokens} tokens: take another model")
    begin = max(stream.times[0] for stream in streams)
    end = min(stream.times[-1] for stream in streams)
    tokens = sum(sum(begin < at <= end for at in stream.times) * stream.tokens / len(stream.times) for stream in streams)
    return tokens / (end - begin)


def bench_rate(args, together):
    run = subprocess.run(
        [args.zem, "bench", "-m", args.model, "-n", str(args.tokens), "-np", str(together), "-t", str(args.threads), "-r", "1",
         "-o", "json"], stdout=subprocess.PIPE, text=True, check=True)
    return json.loads(run.stdout)["tokens_per_second"]


def compare_rates(args, together):
    engine, served = [], []
    with Server(args.zem, args.model, args.threads, together) as server:
        for i in range(args.rounds):
            engine.append(bench_rate(args, together))
            served.append(rate_of([Stream(server.port, [1 + i, 2 + s], args.tokens) for s in range(together)]))
    ratio = statistics.median(b / a for a, b in zip(engine, served))
    print(f"{together} stream{'s' if together > 1 else ''}: zem bench {statistics.median(engine):.2f}, "
          f"served {statistics.median(served):.2f} tokens/s, ratio {ratio:.3f}", flush=True)


def compare_first_byte(args):
    """A reply of one token to a prompt of one: when its first bytes come, and what the engine took."""
    waits, engine = [], []
    with tempfile.TemporaryDirectory() as folder:
        tiny = args.tiny or f"{folder}/tiny.zem"
        if not args.tiny:
            subprocess.run([args.zem, "make-demo", tiny], check=True, stdout=subprocess.DEVNULL)
        ask_for_tokens(args.zem, tiny, waits, engine)
    over = statistics.median(a - b for a, b in zip(waits, engine))
    print(f"one token, small model: first byte after {statistics.median(waits):.2f} ms, of which the engine "
          f"{statistics.median(engine):.2f} ms; the rest {over:.2f} ms", flush=True)


def ask_for_tokens(zem, model, waits, engine):
    with Server(zem, model, 1, 1) as server:
        connection = http.client.HTTPConnection("127.0.0.1", server.port)
        for i in range(200):
            body = json.dumps({"prompt": [1 + i % 50], "max_tokens": 1, "temperature": 0})
            begin = time.perf_counter()
            connection.request("POST", "/v1/completions", body, {"content-type": "application/json"})
            response = connection.getresponse()
            waits.append(1000 * (time.perf_counter() - begin))
            timings = json.loads(response.read())["timings"]
            engine.append(timings["prompt_ms"])
        connection.close()


def health_beside_a_reply(args):
    """Requests of /health a second from four connections, and what a reply beside them loses."""
    alone, beside, rates, slow = [], [], [], []
    with Server(args.zem, args.model, args.threads, 1) as server:
        for i in range(args.rounds):
            alone.append(rate_of([Stream(server.port, [1 + i], args.tokens)]))
            asker = subprocess.Popen(
                [sys.executable, __file__, ASK_HEALTH, str(server.port), str(args.health)], stdin=subprocess.PIPE,
                stdout=subprocess.PIPE, text=True)
            asker.stdout.readline()  # it asks
            beside.append(rate_of([Stream(server.port, [1 + i], args.tokens)]))
            asker.stdin.close()
            found = json.loads(asker.stdout.read())
            rates.append(found["rate"])
            slow += found["times"]
    slow.sort()
    print(f"/health beside a reply: {statistics.median(rates):.0f} requests/s of {args.health} wanted, "
          f"median {1000 * slow[len(slow) // 2]:.2f} ms, 99 % {1000 * slow[len(slow) * 99 // 100]:.2f} ms; the reply has "
          f"{statistics.median(b / a for a, b in zip(alone, beside)):.3f} of its speed", flush=True)


def ask_health(port, wanted):
    """Asks so often a second, until standard input ends."""
    ended = threading.Event()
    threading.Thread(target=lambda: (sys.stdin.read(), ended.set()), daemon=True).start()
    times = []

    def ask(first):
        connection = http.client.HTTPConnection("127.0.0.1", port)
        at = begin + first
        while not ended.is_set():
            time.sleep(max(0.0, at - time.perf_counter()))
            asked = time.perf_counter()
            connection.request("GET", "/health")
            response = connection.getresponse()
            response.read()
            times.append(time.perf_counter() - asked)
            at += 4 / wanted
        connection.close()

    begin = time.perf_counter()
    threads = [threading.Thread(target=ask, args=(i / wanted,)) for i in range(4)]
    for thread in threads:
        thread.start()
    print("asks", flush=True)
    for thread in threads:
        thread.join()
    print(json.dumps({"rate": len(times) / (time.perf_counter() - begin), "times": times}))


def main():
    parser = argparse.ArgumentParser(description="What HTTP costs: zem serve beside zem bench.")
    parser.add_argument("model")
    parser.add_argument("--build", type=pathlib.Path, default=pathlib.Path("build/release"))
    parser.add_argument("--tiny", help="a small model; by default a demo is written")
    parser.add_argument("--threads", type=int, default=2)
    parser.add_argument("--tokens", type=int, default=32)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--health", type=int, default=1000, help="requests of /health a second")
    args = parser.parse_args()
    args.zem = str(args.build / "bin/zem")
    for together in (1, 8):
        compare_rates(args, together)
    compare_first_byte(args)
    health_beside_a_reply(args)


if __name__ == "__main__":
    if sys.argv[1:2] == [ASK_HEALTH]:
        ask_health(int(sys.argv[2]), float(sys.argv[3]))
    else:
        main()
