# SPDX-License-Identifier: Apache-2.0
"""Servers and a proxy as processes, and clients of them. Needs nothing but Python."""
import http.client
import json
import os
import pathlib
import signal
import socket
import subprocess
import threading
import time

BUILD = pathlib.Path(os.environ["ZEM_BUILD"])
ROOT = pathlib.Path(__file__).resolve().parents[2]


def free_port():
    with socket.socket() as one:
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def wait_until(holds, what, seconds=20.0):
    end = time.monotonic() + seconds
    while not holds():
        if time.monotonic() > end:
            raise AssertionError(f"waited {seconds} s in vain: {what}")
        time.sleep(0.02)


def answers(port):
    try:
        return ask(port, "GET", "/health", timeout=2).status == 200
    except OSError:
        return False


class Server:
    """`zem serve` on a port of its own; its name is that of the model in its answers."""

    def __init__(self, name, model, folder):
        self.name, self.model, self.folder = name, model, folder
        self.port = free_port()
        self.process = None

    def start(self):
        with open(self.folder / f"{self.name}.log", "ab") as log:
            self.process = subprocess.Popen(
                [BUILD / "bin/zem", "serve", "-m", self.model, "--port", str(self.port), "--alias", self.name,
                 "--threads", "1", "--sequences", "2", "--max-queue", "64", "--metrics"],
                stdout=log, stderr=log)
        wait_until(lambda: answers(self.port), f"server {self.name} answers")

    def kill(self):
        self.process.kill()
        self.process.wait()

    def drain(self):
        self.process.send_signal(signal.SIGTERM)

    def running(self):
        return self.process is not None and self.process.poll() is None

    def stop(self):
        for _ in range(2):
            if self.running():
                self.drain()
                time.sleep(0.05)
        self.process.wait(10)

    def metric(self, name):
        text = ask(self.port, "GET", "/metrics").body.decode()
        return sum(float(line.split()[-1]) for line in text.splitlines() if line.split(" ")[0] == name)


class Proxy:
    """HAProxy with the configuration of deploy/, in front of two servers."""

    def __init__(self, servers, folder):
        self.port = free_port()
        self.log = open(folder / "haproxy.log", "ab")
        environment = dict(
            os.environ, ZEM_BIND=f"127.0.0.1:{self.port}", ZEM_TOGETHER="2",
            ZEM_SERVER_ONE=f"127.0.0.1:{servers[0].port}", ZEM_SERVER_TWO=f"127.0.0.1:{servers[1].port}")
        self.process = subprocess.Popen(["haproxy", "-db", "-f", ROOT / "deploy/haproxy.cfg"],
                                        env=environment, stdout=self.log, stderr=self.log)
        wait_until(lambda: answers(self.port), "the proxy answers")

    def stop(self):
        self.process.terminate()
        self.process.wait(10)
        self.log.close()


class Answer:
    def __init__(self, status, headers, body):
        self.status, self.headers, self.body = status, headers, body

    def json(self):
        return json.loads(self.body)


def ask(port, method, path, body=None, timeout=120, key=None):
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=timeout)
    try:
        headers = {"authorization": f"Bearer {key}"} if key else {}
        connection.request(method, path, json.dumps(body) if body is not None else None, headers)
        response = connection.getresponse()
        return Answer(response.status, response.headers, response.read())
    finally:
        connection.close()


def forbid_ends(port):
    """From now on, prompt_of() asks for replies that do not end before their last token."""
    for name in ("<|im_end|>", "<|endoftext|>"):
        [token] = ask(port, "POST", "/tokenize", {"content": name}).json()["tokens"]
        no_ends[str(token)] = -100


no_ends = {}


def prompt_of(text, tokens, stream=False):
    return {"prompt": text, "max_tokens": tokens, "temperature": 0, "stream": stream, "logit_bias": no_ends}


class Client(threading.Thread):
    """Asks for one completion and says what became of it."""

    def __init__(self, port, text, tokens, stream):
        super().__init__(daemon=True)
        self.port, self.stream = port, stream
        self.request = prompt_of(text, tokens, stream)
        self.status = None
        self.events = []        # of a stream, with the time of each
        self.model = None       # the server that began to answer
        self.whole = False      # the answer came to its end
        self.began = threading.Event()
        self.start()

    def run(self):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=300)
        try:
            connection.request("POST", "/v1/completions", json.dumps(self.request))
            response = connection.getresponse()
            self.status = response.status
            if self.stream and self.status == 200:
                self.read_stream(response)
            else:
                answer = json.loads(response.read())
                self.model = answer.get("model")
                self.whole = self.status == 200 and bool(answer.get("choices"))
        except (OSError, http.client.HTTPException) as error:
            self.error = error
        finally:
            connection.close()
            self.began.set()

    def read_stream(self, response):
        while line := response.readline():
            if not line.startswith(b"data: "):
                continue
            data = line[6:].strip()
            if data == b"[DONE]":
                self.whole = True
                continue
            self.events.append((time.monotonic(), json.loads(data)))
            self.model = self.events[0][1].get("model")
            if len(self.events) >= 3:
                self.began.set()

    def text(self):
        return "".join(event["choices"][0]["text"] for _, event in self.events if event.get("choices"))
