#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints the table of scripts/quality.sh, which builds what this needs."""
import argparse
import json
import os
import subprocess
import sys
import tempfile

ZEM = "build/release/bin/zem"
BEHAVIOUR = "build/release/demo/behaviour"
TYPES = ("f32", "bf16", "q8_0", "q6_k", "q5_k_m", "q4_k_m")


def convert(folder, kind, output):
    subprocess.run([ZEM, "convert", folder, "-o", output, "--type", kind, "--no-verify", "--force"],
                   check=True, stdout=subprocess.DEVNULL)


def perplexity(model, reference, text, math, cache):
    done = subprocess.run([ZEM, "perplexity", "-m", model, "-f", text, "--reference", reference,
                           "--math", math, "--cache", cache, "--json"],
                          check=True, text=True, stdout=subprocess.PIPE)
    return json.loads(done.stdout)


def behaviours(model, cases, math, cache):
    done = subprocess.run([BEHAVIOUR, model, cases, "--math", math, "--cache", cache, "--json"],
                          check=True, text=True, stdout=subprocess.PIPE)
    return json.loads(done.stdout)


def row(cells):
    print("| " + " | ".join(cells) + " |", flush=True)


def measured_row(kind, model, reference, options, math, cache):
    found = perplexity(model, reference, options.text, math, cache)
    cells = [kind, math, cache, f"{os.path.getsize(model) / 2**20:.1f} MiB",
             f"{found['perplexity']:.4f}", f"{found['mean_kl_divergence']:.2e}",
             f"{100 * found['same_best']:.2f} %"]
    if options.cases:
        rates = behaviours(model, options.cases, math, cache)
        cells += [f"{100 * r['passed'] / r['asked']:.0f} %" for r in rates.values()]
        if options.header:
            header(list(rates))
            options.header = False
    elif options.header:
        header([])
        options.header = False
    row(cells)


def header(kinds):
    names = ["type", "math", "cache", "file", "perplexity", "KL", "same best", *kinds]
    row(names)
    row(["---"] * 3 + ["---:"] * (len(names) - 3))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("folder")
    parser.add_argument("text")
    parser.add_argument("--reference", default="f32", choices=("f32", "bf16"))
    parser.add_argument("--cases")
    options = parser.parse_args()
    options.header = True
    types = TYPES[TYPES.index(options.reference):]
    with tempfile.TemporaryDirectory() as work:
        reference = f"{work}/reference.zem"
        convert(options.folder, options.reference, reference)
        for kind in types:
            model = reference
            if kind != options.reference:
                model = f"{work}/{kind}.zem"
                convert(options.folder, kind, model)
            for math in ("exact", "fast"):
                if math == "fast" and kind in ("f32", "bf16"):
                    continue  # the same arithmetic: these types have no integer products
                for cache in ("f32", "f16"):
                    measured_row(kind, model, reference, options, math, cache)
            if model != reference:
                os.remove(model)


if __name__ == "__main__":
    sys.exit(main())
