#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""A host in Python: loads the plug-in, asks whether it suits a model, streams the
reply to one message and prints what it took. Ctrl-C ends the reply, a second one
the program.

  host.py PLUGIN MODEL MESSAGE

The reply goes to standard output, everything else to standard error. The exit
status is 0 for success, 1 when something failed and one line says why, 2 for wrong
arguments.
"""

import ctypes
import os
import signal
import sys
from ctypes import CFUNCTYPE, POINTER, byref
from ctypes import c_char_p, c_double, c_int, c_size_t, c_uint32, c_uint64, c_void_p


# The records and tables of zem/plugin.h, field by field.
class Probe(ctypes.Structure):
    _fields_ = [
        ("confidence", c_int),
        ("architecture", c_char_p),
        ("backend", c_char_p),
        ("reason", c_char_p),
    ]


class Stats(ctypes.Structure):
    _fields_ = [
        ("struct_size", c_uint32),
        ("tokens", c_uint64),
        ("generation_ms", c_double),
        ("last_step_ms", c_double),
    ]


# c_void_p for the piece: as a c_char_p it would end at its first zero byte.
TokenFn = CFUNCTYPE(None, c_void_p, c_uint32, c_void_p)


class Entries(ctypes.Structure):
    _fields_ = [
        ("abi_version", c_uint32),
        ("struct_size", c_uint32),
        ("id", c_char_p),
        ("name", c_char_p),
        ("caps_v2", c_uint64),
        ("probe", CFUNCTYPE(c_int, c_char_p, POINTER(Probe))),
        (
            "create",
            CFUNCTYPE(c_int, c_char_p, c_char_p, POINTER(c_void_p), c_char_p, c_size_t),
        ),
        ("destroy", CFUNCTYPE(None, c_void_p)),
        ("generate", c_void_p),
        ("generate_ex", c_void_p),
        ("bench", c_void_p),
        ("configure", c_void_p),
        ("chat_turn", c_void_p),
        ("reset", c_void_p),
        ("stats", CFUNCTYPE(c_int, c_void_p, POINTER(Stats))),
    ]


class Streaming(ctypes.Structure):
    _fields_ = [
        ("abi_version", c_uint32),
        ("struct_size", c_uint32),
        ("id", c_char_p),
        (
            "chat_turn_stream",
            CFUNCTYPE(c_int, c_void_p, c_char_p, TokenFn, c_void_p, POINTER(c_int)),
        ),
    ]


class HostError(Exception):
    pass


def log(text):
    print("host.py: " + text, file=sys.stderr, flush=True)


def open_runtime(path):
    """The two tables of the plug-in. They stay valid until the process ends."""
    try:
        library = ctypes.CDLL(path)
        runtimes = library.zem_plugin_runtimes_v2
        streamings = library.zem_plugin_runtimes_v2s
    except OSError as error:
        raise HostError(f"cannot load the plug-in: {error}") from error
    except AttributeError as error:
        raise HostError(f"{path}: not a runtime plug-in") from error
    runtimes.restype = POINTER(Entries)
    streamings.restype = POINTER(Streaming)
    entries = runtimes(None).contents
    streaming = streamings(None).contents
    # Nothing is called through a table of another version.
    for table, version in ((entries, 3), (streaming, 1)):
        if table.abi_version != version or table.struct_size < ctypes.sizeof(table):
            raise HostError(f"{path}: made for another version of the boundary")
    return entries, streaming


def create(entries, model):
    try:  # the runtime says no more of a file than that it does not open
        open(model, "rb").close()
    except OSError as error:
        raise HostError(f"{model}: {error.strerror}") from error
    handle = c_void_p()
    error = ctypes.create_string_buffer(256)
    hint = b"host.py;ctx=2048"
    if entries.create(os.fsencode(model), hint, byref(handle), error, len(error)) != 0:
        raise HostError(f"{model}: {error.value.decode(errors='replace')}")
    return handle


def converse(entries, streaming, session, message):
    cancel = c_int(0)
    pieces = 0

    def on_interrupt(*_):
        cancel.value = 1
        signal.signal(signal.SIGINT, signal.SIG_DFL)  # once

    # An exception cannot leave a callback; what fails in it ends the reply.
    @TokenFn
    def show_piece(piece, length, _user):
        nonlocal pieces
        try:
            sys.stdout.buffer.write(ctypes.string_at(piece, length))
            sys.stdout.buffer.flush()
        except OSError:
            cancel.value = 1
        pieces += 1

    # Python runs the handler between two of its own steps, so at the next piece.
    signal.signal(signal.SIGINT, on_interrupt)
    log("Ctrl-C ends the reply")
    text = os.fsencode(message)
    if streaming.chat_turn_stream(session, text, show_piece, None, byref(cancel)) != 0:
        raise HostError("the turn failed: a line above says why, or the context is full")
    print(flush=True)
    if cancel.value != 0:
        log(f"cancelled after {pieces} pieces")
    stats = Stats()
    if entries.stats(session, byref(stats)) != 0:
        raise HostError("stats failed")
    log(f"{stats.tokens} tokens in {stats.generation_ms:.1f} ms")


def main():
    if len(sys.argv) != 4:
        print("usage: host.py PLUGIN MODEL MESSAGE", file=sys.stderr)
        return 2
    _, plugin, model, message = sys.argv
    try:
        entries, streaming = open_runtime(plugin)
        # 0 means no more than that there is no GPU for it: the CPU may still do.
        probe = Probe()
        entries.probe(os.fsencode(model), byref(probe))
        log(f"{entries.id.decode()}, confidence {probe.confidence}")
        session = create(entries, model)
        try:
            converse(entries, streaming, session, message)
        finally:
            entries.destroy(session)
    except HostError as error:
        log(str(error))
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
