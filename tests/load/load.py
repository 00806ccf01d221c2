# SPDX-License-Identifier: Apache-2.0
"""Many clients of `zem serve`, of which half leave early. See run.sh.

    load.py ZEM MODEL MINUTES
"""
import asyncio
import concurrent.futures
import http.client
import json
import random
import re
import subprocess
import sys
import time

CLIENTS = 64
TOGETHER = 8
MOST_GROWTH = 1024  # KiB
HEALTH_LIMIT = 0.05  # seconds
MOST_WAIT = 120  # seconds for an answer: beyond, it is lost
KEY = "load"


def request_bytes(method, path, body=None):
    data = b"" if body is None else json.dumps(body).encode()
    head = f"{method} {path} HTTP/1.1\r\nhost: localhost\r\nauthorization: Bearer {KEY}\r\ncontent-length: {len(data)}\r\n\r\n"
    return head.encode() + data


async def read_head(reader):
    head = (await reader.readuntil(b"\r\n\r\n")).decode()
    status = int(head.split(" ", 2)[1])
    length = re.search(r"^content-length: (\d+)\r$", head, re.M)
    return status, int(length.group(1)) if length else None


async def read_pieces(reader):
    while True:
        size = int(await reader.readline(), 16)
        piece = await reader.readexactly(size + 2)
        if size == 0:
            return
        yield piece[:-2]


async def ask(port, method, path, body=None):
    reader, writer = await asyncio.open_connection("127.0.0.1", port)
    try:
        writer.write(request_bytes(method, path, body))
        status, length = await read_head(reader)
        data = await reader.readexactly(length) if length is not None else b"".join(
            [piece async for piece in read_pieces(reader)])
        return status, data
    finally:
        writer.close()


# ---- What is asked: the dialects in turn, with streams and without ----

def make_request(number):
    rng = random.Random(number)
    words = " ".join(rng.choice(["river", "train", "cloud", "stone", "seven", "again"]) for _ in range(rng.randint(1, 60)))
    tokens = rng.randint(8, 120)
    stream = number % 2 == 0
    turns = [{"role": "user", "content": f"{number} {words}"}]
    kind = number % 4
    if kind < 2:
        return "/v1/completions", {"prompt": f"{number} {words}", "max_tokens": tokens, "temperature": 0, "stream": stream}
    if kind == 2:
        return "/v1/chat/completions", {"messages": turns, "max_tokens": tokens, "temperature": 0, "stream": stream}
    return "/v1/messages", {"messages": turns, "max_tokens": tokens, "temperature": 0, "stream": stream}


def text_of(path, stream, data):
    """What the model said, in one text, with the reason of its end."""
    if not stream:
        answer = json.loads(data)
        if path == "/v1/messages":
            return "".join(block.get("text", "") for block in answer["content"]), answer["stop_reason"]
        choice = answer["choices"][0]
        return choice.get("text") or str(choice.get("message", "")), choice["finish_reason"]
    text, reason = "", None
    for line in data.decode().split("\n"):
        if not line.startswith("data: ") or line == "data: [DONE]":
            continue
        event = json.loads(line[6:])
        for choice in event.get("choices", []):
            delta = choice.get("delta", {})
            text += choice.get("text") or delta.get("reasoning_content") or delta.get("content") or ""
            reason = choice["finish_reason"] or reason
    return text, reason


class Load:
    def __init__(self, process, port, minutes):
        self.process, self.port = process, port
        self.seconds = minutes * 60
        self.expected = []
        self.wrong = []
        self.answered = self.left = self.refused = 0
        self.health = []
        self.memory = []  # (seconds since the begin, KiB)

    async def learn(self):
        """The answers, one after the other, before anything runs beside them."""
        for number in range(CLIENTS):
            path, body = make_request(number)
            status, data = await ask(self.port, "POST", path, body)
            if status != 200:
                raise SystemExit(f"{path}: {status} {data[:200]}")
            self.expected.append(text_of(path, body["stream"], data))

    async def client(self, number):
        rng = random.Random(number)
        leaves = number % 2 == 1
        while time.monotonic() < self.end:
            wanted = rng.randrange(CLIENTS)
            path, body = make_request(wanted)
            try:
                if leaves:
                    await asyncio.wait_for(self.leave(path, body, rng), MOST_WAIT)
                    self.left += 1
                else:
                    await asyncio.wait_for(self.read(path, body, wanted), MOST_WAIT)
            except (OSError, asyncio.IncompleteReadError, ValueError) as error:
                self.wrong.append(f"client {number}, {path}: {error!r}")
                await asyncio.sleep(0.1)

    async def read(self, path, body, wanted):
        status, data = await ask(self.port, "POST", path, body)
        if status == 429:
            self.refused += 1
            return await asyncio.sleep(0.1)
        self.answered += 1
        if status != 200 or text_of(path, body["stream"], data) != self.expected[wanted]:
            self.wrong.append(f"{path}, request {wanted}: status {status}, {data[:200]}")

    async def leave(self, path, body, rng):
        reader, writer = await asyncio.open_connection("127.0.0.1", self.port)
        writer.write(request_bytes("POST", path, dict(body, max_tokens=4000)))
        if body["stream"]:
            status, _ = await read_head(reader)
            left = rng.randint(0, 20)
            if status == 200:
                async for _ in read_pieces(reader):
                    left -= 1
                    if left <= 0:
                        break
        else:
            await asyncio.sleep(rng.random() * 0.1)
        if rng.random() < 0.5:
            writer.transport.abort()  # a reset, as of a client that died
        else:
            writer.close()

    async def watch_memory(self):
        while time.monotonic() < self.end:
            self.memory.append((time.monotonic() - self.begin, resident_kib(self.process.pid)))
            await asyncio.sleep(0.5)

    async def metrics(self):
        _, data = await ask(self.port, "GET", "/metrics")
        lines = [line.rsplit(" ", 1) for line in data.decode().splitlines() if not line.startswith("#")]
        return {name: float(value) for name, value in lines}

    async def run(self):
        await self.learn()
        before = await self.metrics()
        self.begin = time.monotonic()
        self.end = self.begin + self.seconds
        with concurrent.futures.ProcessPoolExecutor(1) as pool:
            health = asyncio.get_running_loop().run_in_executor(pool, watch_health, self.port, self.seconds)
            await asyncio.gather(self.watch_memory(), *(self.client(i) for i in range(CLIENTS)))
            self.health = await health
        for _ in range(100):
            after = await self.metrics()
            if after["zem_requests_processing"] + after["zem_requests_deferred"] == 0 and after["zem_connections"] == 1:
                break
            await asyncio.sleep(0.1)
        return self.verdict(before, after)

    def verdict(self, before, after):
        failures = list(self.wrong)
        ends = {name: after.get(name, 0) - before.get(name, 0) for name in after if name.startswith("zem_replies_total")}
        print(f"{self.answered} answers read, all compared; {self.left} clients left; {self.refused} told 429; "
              f"ends: {ends}")
        for name, wanted in (("zem_requests_processing", 0), ("zem_requests_deferred", 0), ("zem_connections", 1)):
            if after[name] != wanted:
                failures.append(f"{name} is {after[name]} at the end, needed {wanted}")
        if self.answered < CLIENTS or self.left < CLIENTS:
            failures.append("too few answers for a test: is the machine this busy?")

        # Caches and the system's pools are full after a third of the time.
        warm = [kib for at, kib in self.memory if at < self.seconds / 3]
        rest = [kib for at, kib in self.memory if at >= self.seconds / 3]
        growth = max(rest) - max(warm)
        print(f"memory: {max(warm)} KiB in the first third, {max(rest)} KiB afterwards: growth {growth} KiB")
        if growth > MOST_GROWTH:
            failures.append(f"memory grew by {growth} KiB, needed at most {MOST_GROWTH}")

        self.health.sort()
        print(f"/health: {len(self.health)} times, median {self.health[len(self.health) // 2] * 1000:.1f} ms, "
              f"99 % {self.health[len(self.health) * 99 // 100] * 1000:.1f} ms, longest {self.health[-1] * 1000:.1f} ms"
              + ("" if self.health[-1] < HEALTH_LIMIT else f": beyond {HEALTH_LIMIT * 1000:.0f} ms"))
        return failures


def watch_health(port, seconds):
    """How long /health took, again and again. In a process of its own: the clients keep theirs busy."""
    times = []
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=MOST_WAIT)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        begin = time.monotonic()
        connection.request("GET", "/health")
        response = connection.getresponse()
        response.read()
        times.append(time.monotonic() - begin)
        if response.status != 200:
            raise AssertionError(f"/health: {response.status}")
        time.sleep(0.05)
    return times


def resident_kib(pid):
    with open(f"/proc/{pid}/status") as status:
        return int(re.search(r"^VmRSS:\s+(\d+) kB", status.read(), re.M).group(1))


def main():
    zem, model, minutes = sys.argv[1], sys.argv[2], float(sys.argv[3])
    process = subprocess.Popen(
        [zem, "serve", "-m", model, "--port", "0", "--threads", "1", "-np", str(TOGETHER), "--max-queue", "128",
         "--cache-mib", "4", "--metrics", "--api-key", KEY, "--log", "none"], stdout=subprocess.PIPE, text=True)
    try:
        port = int(process.stdout.readline().rsplit(":", 1)[1])
        failures = asyncio.run(Load(process, port, minutes).run())
        process.terminate()
        if process.wait(40) != 0:
            failures.append(f"the server ended with {process.returncode}")
    finally:
        if process.poll() is None:
            process.kill()
    for failure in failures[:20]:
        print("FAILED:", failure)
    sys.exit(1 if failures else 0)


if __name__ == "__main__":
    main()
