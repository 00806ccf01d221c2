#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Chats with `zem serve` of a Windows build under Wine and with that of a build for Linux: the
answers are the same, whole and streamed, and a client that leaves frees its place.

    tests/windows/serve_same_as_linux.py LINUX_BUILD WINDOWS_BUILD
"""
import contextlib
import http.client
import json
import os
import pathlib
import re
import select
import subprocess
import sys
import tempfile
import time

MOST_WAIT = 120  # seconds; Wine takes long to start


class Server:
    def __init__(self, build, model):
        zem = pathlib.Path(build).resolve() / "bin/zem"
        self.process = subprocess.Popen(
            [zem, "serve", "-m", model.name, "--port", "0", "-t", "1", "--alias", "demo", "--metrics", "--log", "none"],
            cwd=model.parent, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, start_new_session=True)
        self.port = self.find_port()

    def find_port(self):
        out, end = b"", time.monotonic() + MOST_WAIT
        while time.monotonic() < end:
            if select.select([self.process.stdout], [], [], 1)[0]:
                piece = os.read(self.process.stdout.fileno(), 4096)
                out += piece
                if found := re.search(rb"listening on http://127\.0\.0\.1:(\d+)\r?\n", out):
                    return int(found.group(1))
                if not piece:
                    break
        self.close()
        raise SystemExit(f"the server of {self.process.args[0]} does not listen: {out}")

    def close(self):
        with contextlib.suppress(ProcessLookupError):
            os.killpg(self.process.pid, 9)
        self.process.wait()

    def ask(self, method, path, body=None):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=MOST_WAIT)
        try:
            connection.request(method, path, json.dumps(body) if body is not None else None)
            response = connection.getresponse()
            return response.status, response.read()
        finally:
            connection.close()

    def running(self):
        text = self.ask("GET", "/metrics")[1].decode()
        return float(re.search(r"^zem_requests_processing (\S+)$", text, re.M).group(1))

    def leave(self):
        """Begins a long stream and leaves it."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=MOST_WAIT)
        body = {"prompt": "Once", "max_tokens": 7000, "stream": True}
        connection.request("POST", "/v1/completions", json.dumps(body))
        response = connection.getresponse()
        self.wait_for(1, "the reply does not run")
        response.close()
        connection.close()
        self.wait_for(0, "the place is not free")

    def wait_for(self, running, problem):
        end = time.monotonic() + MOST_WAIT
        while self.running() != running:
            if time.monotonic() > end:
                raise SystemExit(problem)
            time.sleep(0.05)


def comparable(data):
    """Without what differs from call to call: ids and times."""
    text = data.decode()
    text = re.sub(r'"(id|created|created_at)":("[^"]*"|\d+)', r'"\1":0', text)
    return re.sub(r'"timings":\{[^}]*\}', '"timings":0', text)


def main():
    turns = [{"role": "user", "content": "Wie heißt du? 東京 😀"}]
    chat = {"messages": turns, "max_tokens": 40, "seed": 5, "chat_template_kwargs": {"enable_thinking": False}}
    asked = [("GET", "/health"), ("GET", "/"),
             ("POST", "/tokenize", {"content": "Zwölf Boxkämpfer"}),
             ("POST", "/v1/chat/completions", chat),
             ("POST", "/v1/chat/completions", dict(chat, stream=True)),
             ("POST", "/v1/messages", {"messages": turns, "max_tokens": 40, "temperature": 0, "stream": True}),
             ("POST", "/v1/completions", {"prompt": "Once", "max_tokens": 40, "seed": 5, "logprobs": 2}),
             ("POST", "/v1/completions", {"prompt": "Once", "max_tokens": -3})]
    with tempfile.TemporaryDirectory() as folder, contextlib.ExitStack() as stack:
        model = pathlib.Path(folder) / "modèle.zem"
        subprocess.run([pathlib.Path(sys.argv[1]) / "bin/zem", "make-demo", model], check=True, stdout=subprocess.DEVNULL)
        servers = []
        for build in sys.argv[1:3]:
            servers.append(Server(build, model))
            stack.callback(servers[-1].close)
        for call in asked:
            (status, want), (other, found) = (server.ask(*call) for server in servers)
            if status != other or comparable(want) != comparable(found):
                sys.exit(f"{call}: the answers differ\n{status} {want[:2000]}\n{other} {found[:2000]}")
        servers[1].leave()
    print(f"serve_same_as_linux.py: {len(asked)} answers are the same; a client that left freed its place")


if __name__ == "__main__":
    main()
