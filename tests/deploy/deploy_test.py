# SPDX-License-Identifier: Apache-2.0
"""The files of deploy/ with the programs that they are for. run.sh starts it."""
import json
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import threading
import time
import unittest

from servers import BUILD, ROOT, Client, Proxy, Server, answers, ask, forbid_ends, free_port, prompt_of, wait_until

DEPLOY = ROOT / "deploy"
LONG = 3000  # tokens: a second or a few


class Files(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is missing")
    def test_the_unit_is_right_and_hardened(self):
        unit = self.folder / "zem@.service"
        unit.write_text((DEPLOY / "zem@.service").read_text().replace("=zem serve", f"={BUILD}/bin/zem serve"))
        for command in (["verify"], ["security", "--offline=true", "--threshold=15"]):
            run = subprocess.run(["systemd-analyze", *command, unit], capture_output=True, text=True)
            self.assertEqual(run.returncode, 0, run.stdout + run.stderr)
            if command == ["verify"]:
                self.assertNotIn(unit.name, run.stderr)

    def test_the_command_of_the_unit_serves_with_the_settings_of_the_example(self):
        unit = (DEPLOY / "zem@.service").read_text()
        settings = dict(re.findall(r"^(\w+)=(.*)$", (DEPLOY / "zem.conf").read_text(), re.M))
        options = re.sub(r"--port \d+", f"--port {(port := free_port())}", settings["ZEM_OPTIONS"])
        model = self.folder / "tiny.zem"
        subprocess.run([BUILD / "tests/libzem_write_model", model], check=True)
        (self.folder / "keys").write_text("first\nsecond\n")
        command = re.search(r"^ExecStart=zem (.*)$", unit, re.M).group(1)
        command = command.replace("${ZEM_MODEL}", str(model)).replace("$ZEM_OPTIONS", options)
        server = subprocess.Popen([BUILD / "bin/zem", *command.replace("%d", str(self.folder)).split()],
                                  stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        try:
            wait_until(lambda: answers(port), "the server answers")
            self.assertEqual(ask(port, "POST", "/v1/completions", prompt_of("x", 1)).status, 401, "a key is needed")
            self.assertEqual(ask(port, "GET", "/metrics", key="second").status, 200)
            server.terminate()
            self.assertEqual(server.wait(10), 0)
        finally:
            server.kill()

    def test_the_proxy_takes_its_configuration_without_a_warning(self):
        run = subprocess.run(["haproxy", "-dW", "-c", "-f", DEPLOY / "haproxy.cfg"], capture_output=True, text=True)
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)

    def test_every_query_of_the_board_is_one(self):
        board = json.loads((DEPLOY / "grafana.json").read_text())
        queries = [target["expr"] for panel in board["panels"] for target in panel["targets"]]
        self.assertGreater(len(queries), 12)
        rules = [{"record": f"query:{i}", "expr": query.replace("$__rate_interval", "1m")}
                 for i, query in enumerate(queries)]
        file = self.folder / "rules.json"  # JSON is YAML
        file.write_text(json.dumps({"groups": [{"name": "board", "rules": rules}]}))
        run = subprocess.run(["promtool", "check", "rules", "--lint=none", file], capture_output=True, text=True)
        self.assertEqual(run.returncode, 0, run.stdout + run.stderr)


class Servers(unittest.TestCase):
    """Two servers with one model and a proxy; each test finds all of them up."""

    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.model = cls.folder / "tiny.zem"
        subprocess.run([BUILD / "tests/libzem_write_model", cls.model], check=True)
        cls.servers = [Server(name, cls.model, cls.folder) for name in ("one", "two")]
        for server in cls.servers:
            server.start()
            cls.addClassCleanup(server.stop)
        forbid_ends(cls.servers[0].port)
        cls.proxy = Proxy(cls.servers, cls.folder)
        cls.addClassCleanup(cls.proxy.stop)

    def setUp(self):
        for server in self.servers:
            if not server.running():
                server.start()
        wait_until(lambda: {self.server_of(i) for i in range(12)} == {"one", "two"}, "both servers get requests")

    def server_of(self, key):
        """Where a request with this key goes."""
        request = dict(prompt_of("x", 1), prompt_cache_key=str(key))
        answer = ask(self.proxy.port, "POST", "/v1/completions", request)
        self.assertEqual(answer.status, 200, answer.body)
        return answer.json()["model"]

    def start_clients(self, count, tokens, stream, name):
        return [Client(self.proxy.port, f"{name} {i}: ", tokens, stream) for i in range(count)]

    def wait_for_streams_of_both(self, clients):
        wait_until(lambda: {client.model for client in clients} >= {"one", "two"}, "streams of both servers", 60)

    def finish(self, clients):
        for client in clients:
            client.join(300)
            self.assertFalse(client.is_alive(), "an answer did not come to its end")


class Proxied(Servers):
    def test_a_stream_is_passed_on_as_it_comes(self):
        [client] = self.start_clients(1, LONG, True, "stream")
        self.finish([client])
        self.assertTrue(client.whole)
        times = [at for at, _ in client.events]
        self.assertGreater(len(times), LONG / 2)
        total = times[-1] - times[0]
        longest = max(b - a for a, b in zip(times, times[1:]))
        self.assertLess(longest, total / 4, f"{longest} s of {total} s in silence")

    def test_conversations_come_back_to_their_server(self):
        def turns(first, say, answered):
            """Bodies of a conversation that grows."""
            for count in range(3):
                yield first + [say(f"and {i}") if i % 2 else answered(f"so {i}") for i in range(2 * count)]

        def message(role, text, parts=False):
            return {"role": role, "content": [{"type": "text", "text": text}] if parts else text}

        def openai(i, parts, system):
            begin = [message("system", "You are terse.", parts)] if system else []
            begin.append(message("user", f"question {i}", parts))
            for messages in turns(begin, lambda t: message("user", t), lambda t: message("assistant", t)):
                yield "/v1/chat/completions", {"messages": messages, "max_tokens": 2}

        def anthropic(i, parts, _):
            system = [{"type": "text", "text": f"Be {i}."}] if parts else f"Be {i}."
            begin = [message("user", "question", parts)]
            for messages in turns(begin, lambda t: message("user", t), lambda t: message("assistant", t)):
                yield "/v1/messages", {"system": system, "messages": messages, "max_tokens": 2}

        def responses(i, parts, system):
            items = [{"role": "user", "content": f"question {i}"}]
            for grown in turns(items, lambda t: message("user", t), lambda t: message("assistant", t)):
                body = {"input": grown, "max_output_tokens": 2}
                yield "/v1/responses", dict(body, instructions="You are terse.") if system else body

        def prompts(i, parts, system):
            begin = f"{i}: " + "Once upon a time there was a river. " * 10
            for count in range(3):
                yield "/v1/completions", {"prompt": begin + "It flowed. " * count, "max_tokens": 2}

        for form in (openai, anthropic, responses, prompts):
            for parts, system in ((False, False), (True, True), (False, True)):
                used = set()
                for i in range(12):
                    seen = set()
                    for path, body in form(i, parts, system):
                        answer = ask(self.proxy.port, "POST", path, body)
                        self.assertEqual(answer.status, 200, answer.body)
                        seen.add(answer.json()["model"])
                    self.assertEqual(len(seen), 1, f"{form.__name__}, conversation {i}")
                    used |= seen
                self.assertEqual(used, {"one", "two"}, f"{form.__name__}: the servers share the conversations")

    def test_a_conversation_that_comes_back_is_not_computed_again(self):
        messages = [{"role": "user", "content": "The river was wide and slow. " * 20}]
        path = "/v1/chat/completions"
        first = ask(self.proxy.port, "POST", path, {"messages": messages, "max_tokens": 8}).json()
        messages += [first["choices"][0]["message"], {"role": "user", "content": "Go on."}]
        again = ask(self.proxy.port, "POST", path, {"messages": messages, "max_tokens": 8}).json()
        reused = again["usage"]["prompt_tokens_details"]["cached_tokens"]
        self.assertGreater(reused, first["usage"]["prompt_tokens"] // 2)

    def test_a_request_beyond_the_buffer_is_answered(self):
        text = "x" * 300_000
        answer = ask(self.proxy.port, "POST", "/tokenize", {"content": text})
        self.assertEqual(answer.status, 200)
        large = {"messages": [{"role": "user", "content": "begin"}], "user": text, "max_tokens": 2}
        answered = {ask(self.proxy.port, "POST", "/v1/chat/completions", large).json()["model"] for _ in range(4)}
        self.assertEqual(len(answered), 1, "its beginning chooses the server")

    def test_the_metrics_are_those_that_prometheus_takes(self):
        self.server_of("metrics")
        text = ask(self.servers[0].port, "GET", "/metrics").body
        run = subprocess.run(["promtool", "check", "metrics"], input=text, capture_output=True)
        self.assertEqual((run.returncode, run.stdout, run.stderr), (0, b"", b""))
        self.assertEqual(ask(self.proxy.port, "GET", "/metrics").status, 404, "each server has its own")

    def test_page_and_models_do_not_wait_for_replies(self):
        clients = self.start_clients(12, LONG, True, "busy")
        clients[0].began.wait(60)
        begin = time.monotonic()
        for path in ("/", "/v1/models", "/health"):
            self.assertEqual(ask(self.proxy.port, "GET", path).status, 200)
        self.assertTrue(any(client.is_alive() for client in clients))
        self.assertLess(time.monotonic() - begin, 5)
        self.finish(clients)
        self.assertTrue(all(client.whole for client in clients))

    def test_a_client_that_reads_nothing_is_in_nobodys_way(self):
        slow = socket.create_connection(("127.0.0.1", self.proxy.port))
        slow.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 2048)
        body = json.dumps(prompt_of("slow ", LONG, True)).encode()
        slow.sendall(b"POST /v1/completions HTTP/1.1\r\nhost: localhost\r\ncontent-length: %d\r\n\r\n%s"
                     % (len(body), body))
        clients = self.start_clients(4, 500, True, "quick")
        self.finish(clients)
        self.assertTrue(all(client.whole for client in clients))
        received = b""
        while not received.endswith(b"0\r\n\r\n"):
            received += (piece := slow.recv(4096))
            self.assertTrue(piece, "the stream was cut off")
        self.assertIn(b"[DONE]", received)
        slow.close()

    def test_clients_that_leave_free_their_places(self):
        body = json.dumps(prompt_of("left ", 2 * LONG, False)).encode()
        request = b"POST /v1/completions HTTP/1.1\r\nhost: localhost\r\ncontent-length: %d\r\n\r\n%s" % (len(body), body)
        sockets = [socket.create_connection(("127.0.0.1", self.proxy.port)) for _ in range(30)]
        for one in sockets:
            one.sendall(request)

        def busy():
            return sum(s.metric("zem_requests_processing") + s.metric("zem_requests_deferred") for s in self.servers)

        wait_until(lambda: busy() > 0, "the replies begin")
        for one in sockets:
            one.close()
        wait_until(lambda: busy() == 0, "all places are free", seconds=5)


class Failures(Servers):
    def test_what_a_killed_server_had_not_begun_to_answer_is_not_lost(self):
        streams = self.start_clients(2, LONG, True, "first")
        silent = self.start_clients(3, LONG, False, "silent")  # computed, and nothing sent yet
        streams += self.start_clients(2, LONG, True, "second")
        self.wait_for_streams_of_both(streams)
        # These wait behind the others: none has begun.
        waiting = silent + self.start_clients(10, 100, False, "whole") + self.start_clients(10, 100, True, "later")
        time.sleep(0.3)
        begun = [client for client in streams if client.is_alive() and client.events]
        victim = self.servers[0]
        victim.kill()
        self.finish(streams + waiting)
        lost = [client for client in waiting if not client.whole]
        self.assertEqual(lost, [], [(client.status, client.model, len(client.events)) for client in lost])
        cut = [client for client in begun if not client.whole]
        self.assertEqual({client.model for client in cut}, {"one"}, "only the victim's streams end early")
        self.assertTrue(all(client.whole for client in streams if client.model == "two"))
        print(f"\n  killed: {len(cut)} streams cut, {len(waiting)} others all answered", end=" ")

        victim.start()  # on the same port, at once
        wait_until(lambda: {self.server_of(i) for i in range(12)} == {"one", "two"}, "it gets requests again")

    def test_a_body_beyond_the_buffer_is_not_asked_again(self):
        received = []
        body = dict(prompt_of("large ", LONG), user="x" * 300_000)
        asking = threading.Thread(
            target=lambda: received.append(ask(self.proxy.port, "POST", "/v1/completions", body)))
        asking.start()

        def busy():
            return [server for server in self.servers if server.metric("zem_requests_processing") > 0]

        wait_until(busy, "a server computes")
        busy()[0].kill()
        asking.join(60)
        self.assertEqual(received[0].status, 502)
        self.assertIn("ask again", received[0].json()["error"]["message"])

    def test_a_server_that_ends_finishes_its_streams_and_loses_nothing(self):
        streams = self.start_clients(4, LONG, True, "stream")
        self.wait_for_streams_of_both(streams)
        ending = self.servers[1]
        ending.drain()
        later = []
        for i in range(10):
            later += self.start_clients(2, 10, i % 2 == 0, f"later {i}")
            time.sleep(0.1)
        self.finish(streams + later)
        self.assertTrue(all(client.whole for client in streams + later),
                        [(client.status, client.model) for client in later if not client.whole])
        ending.process.wait(40)
        self.assertEqual(ending.process.returncode, 0)

    def test_rolling_restart_loses_nothing(self):
        clients = []
        for server in self.servers:
            clients += self.start_clients(6, LONG, True, f"roll {server.name}")
            server.drain()
            clients += self.start_clients(6, 100, False, f"roll on {server.name}")
            server.process.wait(60)
            server.start()
            wait_until(lambda: {self.server_of(i) for i in range(12)} == {"one", "two"}, "both are back")
        self.finish(clients)
        self.assertTrue(all(client.whole for client in clients),
                        [(client.status, client.model) for client in clients if not client.whole])

    def test_both_down_is_said_soon_and_in_json(self):
        for server in self.servers:
            server.kill()
        for _ in range(3):
            begin = time.monotonic()
            answer = ask(self.proxy.port, "POST", "/v1/completions", prompt_of("x", 1))
            self.assertEqual(answer.status, 503)
            self.assertIn("message", answer.json()["error"])
            self.assertEqual(answer.headers["retry-after"], "1")
            self.assertLess(time.monotonic() - begin, 10)
        wait_until(lambda: ask(self.proxy.port, "GET", "/health").status == 503, "the proxy knows")
        for server in self.servers:
            server.start()
        wait_until(lambda: answers(self.proxy.port), "the proxy finds them again")


if __name__ == "__main__":
    unittest.main()
