# SPDX-License-Identifier: Apache-2.0
import signal
import subprocess
import sys

PROGRAM = """
import sys, zem
with zem.Model(sys.argv[1], threads=1) as model:
    stream = model.complete("Once", stream=True, seed=3, **{settings})
    try:
        for event in stream:
            print("event", flush=True)
    except KeyboardInterrupt:
        print("interrupted", flush=True)
    while model.statistics.running:
        pass
    print("over", model.complete("Once", max_tokens=3).usage.generated_tokens > 0, flush=True)
"""


def run(path, settings, wait_for_event):
    program = PROGRAM.replace("{settings}", repr(settings))
    with subprocess.Popen([sys.executable, "-c", program, path], stdout=subprocess.PIPE,
                          text=True) as child:
        if wait_for_event:
            assert child.stdout.readline() == "event\n"
        child.send_signal(signal.SIGINT)
        lines = child.stdout.read().splitlines()
    return child.returncode, [line for line in lines if line != "event"]


def test_ctrl_c_ends_a_reply_and_not_the_model(path):
    settings = {"logit_bias": {"256": -100, "258": -100}}
    assert run(path, settings, wait_for_event=True) == (0, ["interrupted", "over True"])
