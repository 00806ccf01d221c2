# SPDX-License-Identifier: Apache-2.0
"""Trains the demo model: `train.py --folder FOLDER --steps N`; again after a stop: it goes on.

FOLDER holds tokenizer.json, held_out.jsonl and the corpus. It gets checkpoint.pt every few
minutes, loss.tsv (step, tokens, loss of the corpus) and held_out.tsv (step, loss of replies, part
of their tokens that is foretold right). The learning rate rises for 100 steps, stays, and falls to nothing in the
last third of the steps; so --steps may change until the fall begins. Every worker is a process with one
thread that computes its own rows; gradients are averaged. On a GPU there is one worker.
"""
import argparse
import copy
import json
import os
import time

import numpy as np
import torch
import torch.multiprocessing as mp
import torch.nn.functional as F

from data import Documents, pack, read_texts
from model import Decoder, Shape
from vocabulary import Encoder

SEED = 20
PEAK = 2e-3         # of AdamW
PEAK_HIDDEN = 0.02  # of the orthogonalised steps
WARM_UP = 100
FALL = 0.34
MEAN_STEPS = 60   # over which the weights that are shipped are averaged
SAVE_EVERY = 120  # seconds
ROWS = 1          # of a worker, each step


def learning_rate(step, steps):
    """As a factor of the peaks."""
    left = (steps - step) / (FALL * steps)
    return min(1, (step + 1) / WARM_UP, left)


def is_hidden_matrix(p):
    return p.dim() == 2 and min(p.shape) >= 64 and max(p.shape) <= 1024


def orthogonal(g):
    """The nearest matrix with equal singular values, roughly: five steps of Newton and Schulz."""
    wide = g if g.shape[0] <= g.shape[1] else g.t()
    x = wide / (wide.norm() + 1e-7)
    for _ in range(5):
        a = x @ x.t()
        x = 3.4445 * x + (-4.7750 * a + 2.0315 * (a @ a)) @ x
    return x if g.shape[0] <= g.shape[1] else x.t()


class Optimiser:
    """Matrices inside the layers take steps of orthogonalised momentum, everything else AdamW's.
    Each worker orthogonalises its share of the matrices."""

    def __init__(self, model, rank, workers, exchange):
        self.hidden = [p for p in model.parameters() if is_hidden_matrix(p)]
        others = [p for p in model.parameters() if not is_hidden_matrix(p)]
        self.adam = torch.optim.AdamW(others, lr=PEAK, betas=(0.9, 0.98), weight_decay=0.0)
        self.momentum = [torch.zeros_like(p) for p in self.hidden]
        self.rank, self.workers, self.exchange = rank, workers, exchange

    @torch.no_grad()
    def step(self, factor):
        for group in self.adam.param_groups:
            group["lr"] = PEAK * factor
        self.adam.step()
        directions = []
        for i, (p, m) in enumerate(zip(self.hidden, self.momentum)):
            m.mul_(0.95).add_(p.grad, alpha=0.05)
            mine = i % self.workers == self.rank
            directions.append(orthogonal(p.grad * 0.05 + m * 0.95) if mine else torch.zeros_like(p))
        if self.workers > 1:
            directions = self.exchange(directions)
        for p, d in zip(self.hidden, directions):
            rate = PEAK_HIDDEN * factor * max(1, p.shape[0] / p.shape[1]) ** 0.5
            p.mul_(1 - 0.05 * PEAK * factor).add_(d.view_as(p), alpha=-rate)

    def state_dict(self):
        return {"adam": self.adam.state_dict(), "momentum": self.momentum}

    def load_state_dict(self, state):
        self.adam.load_state_dict(state["adam"])
        for m, held in zip(self.momentum, state["momentum"]):
            m.copy_(held)


def loss_of(model, ids, weights, starts):
    """The sum of the weighted losses, and the sum of the weights."""
    hidden = model.hidden(ids, starts)[:, :-1]
    wanted = weights[:, 1:] * ~starts[:, 1:]
    counts = wanted > 0
    logits = F.linear(hidden[counts], model.embed_tokens.weight)
    losses = F.cross_entropy(logits, ids[:, 1:][counts], reduction="none")
    return (losses * wanted[counts]).sum(), wanted.sum()


class Rows:
    def __init__(self, items, device):
        self.items, self.device, self.epoch = items, device, -1

    def take(self, first, count):
        """Rows first, first + 1, ... of an endless supply; each epoch has an order of its own."""
        out = []
        for i in range(first, first + count):
            while True:
                if self.epoch < 0:
                    self.load(0)
                epoch, at = divmod(i, self.count)
                if epoch == self.epoch:
                    break
                self.load(epoch)
            out.append(at)
        return tuple(torch.from_numpy(x[out]).to(self.device) for x in self.packed)

    def load(self, epoch):
        ids, weights, starts = pack(self.items, SEED + epoch)
        order = np.random.RandomState(SEED + epoch).permutation(len(ids))
        self.packed = (ids[order].astype(np.int64), weights[order], starts[order])
        self.count = self.count if epoch else len(ids)
        self.epoch = epoch


@torch.no_grad()
def evaluate(model, packed, device):
    """Loss of held-out replies, and how many tokens of them are foretold right."""
    total = count = right = 0
    for i in range(0, len(packed[0]), 4):
        ids, weights, starts = (torch.from_numpy(x[i:i + 4]).to(device) for x in packed)
        ids = ids.long()
        hidden = model.hidden(ids, starts)[:, :-1]
        counts = (weights[:, 1:] == 1) & ~starts[:, 1:]
        logits = F.linear(hidden[counts], model.embed_tokens.weight)
        wanted = ids[:, 1:][counts]
        total += F.cross_entropy(logits, wanted, reduction="sum").item()
        right += (logits.argmax(-1) == wanted).sum().item()
        count += len(wanted)
    return total / count, right / count


def save(path, model, opt, mean, step):
    torch.save({"shape": model.shape.as_dict(), "model": model.state_dict(),
                "optimiser": opt.state_dict(), "mean": mean.state_dict(), "step": step},
               path + ".new")
    os.replace(path + ".new", path)


def work(rank, workers, options, items, held_out, shared, sums, barrier):
    device = "cuda" if torch.cuda.is_available() else "cpu"
    if device == "cpu":
        torch.set_num_threads(1)
    torch.set_flush_denormal(True)
    with open(f"{options.folder}/tokenizer.json", encoding="utf-8") as file:
        size = Encoder(json.load(file)).size
    path = f"{options.folder}/checkpoint.pt"
    model = Decoder(Shape(vocabulary=-(-size // 64) * 64)).to(device)
    model.initialise(SEED)

    def exchange(directions):
        sizes = [d.numel() for d in directions]
        shared[rank, :sum(sizes)].copy_(torch.cat([d.flatten() for d in directions]))
        barrier.wait()
        joined = shared[:, :sum(sizes)].sum(0).split(sizes)
        barrier.wait()
        return joined

    opt = Optimiser(model, rank, workers, exchange)
    mean = copy.deepcopy(model)
    step = 0
    if os.path.exists(path):
        held = torch.load(path, map_location=device)
        model.load_state_dict(held["model"])
        opt.load_state_dict(held["optimiser"])
        mean.load_state_dict(held.get("mean", held["model"]))
        step = held["step"]
    if workers > 1:
        barrier.wait()
    rows = Rows(items, device)
    counted = step
    parameters = list(model.parameters())
    saved, began, weight_seen, loss_seen = time.time(), time.time(), 0.0, 0.0
    until = options.until or options.steps
    while step < until:
        per_step = ROWS * workers * (8 if device == "cuda" else 1)
        mine = per_step // workers
        ids, weights, starts = rows.take(step * per_step + rank * mine, mine)
        loss, weight = loss_of(model, ids, weights, starts)
        loss.backward()
        if workers > 1:
            shared[rank].copy_(torch.nn.utils.parameters_to_vector([p.grad for p in parameters]))
            sums[rank, 0], sums[rank, 1] = loss.item(), weight.item()
            barrier.wait()
            gradient, loss, weight = shared.sum(0), sums[:, 0].sum(), sums[:, 1].sum()
            barrier.wait()
        else:
            gradient = torch.nn.utils.parameters_to_vector([p.grad for p in parameters])
        gradient /= weight
        gradient *= min(1.0, 1.0 / (gradient.norm().item() + 1e-6))
        at = 0
        for p in parameters:
            p.grad.copy_(gradient[at:at + p.numel()].view_as(p))
            at += p.numel()
        opt.step(learning_rate(step, options.steps))
        model.zero_grad(set_to_none=True)
        step += 1
        loss_seen, weight_seen = loss_seen + float(loss), weight_seen + float(weight)
        if rank:
            continue
        with torch.no_grad():
            for m, p in zip(mean.parameters(), parameters):
                m.lerp_(p, 1 / MEAN_STEPS)
        if step % 20 == 0:
            rate = (step - counted) * per_step * 512 / (time.time() - began)
            print(f"step {step} loss {loss_seen / weight_seen:.4f} {rate:.0f} tokens/s", flush=True)
            with open(f"{options.folder}/loss.tsv", "a", encoding="utf-8") as log:
                log.write(f"{step}\t{step * per_step * 512}\t{loss_seen / weight_seen:.4f}\n")
            loss_seen = weight_seen = 0.0
            began, counted = time.time(), step
        if time.time() - saved > SAVE_EVERY or step == until:
            save(path, model, opt, mean, step)
            loss, right = evaluate(mean, held_out, device)
            print(f"step {step} held-out loss {loss:.4f}, tokens right {right:.4f}", flush=True)
            with open(f"{options.folder}/held_out.tsv", "a", encoding="utf-8") as log:
                log.write(f"{step}\t{loss:.4f}\t{right:.4f}\n")
            saved = began = time.time()
            counted = step


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--folder", required=True)
    parser.add_argument("--steps", type=int, required=True)
    parser.add_argument("--until", type=int, help="stop behind this step (default: the last)")
    parser.add_argument("--corpus", default="train.jsonl", help="in the folder")
    parser.add_argument("--workers", type=int, default=2)
    options = parser.parse_args()
    torch.set_num_threads(1)
    with open(f"{options.folder}/tokenizer.json", encoding="utf-8") as file:
        encoder = Encoder(json.load(file))
    items = Documents(encoder, read_texts(f"{options.folder}/{options.corpus}")).items
    held_out = pack(Documents(encoder, read_texts(f"{options.folder}/held_out.jsonl")).items, 0)
    print(f"{len(items)} documents, {sum(len(i) for i, _ in items)} tokens", flush=True)
    if torch.cuda.is_available() or options.workers == 1:
        work(0, 1, options, items, held_out, None, None, None)
        return
    size = sum(p.numel() for p in Decoder(Shape(vocabulary=-(-encoder.size // 64) * 64)).parameters())
    shared = torch.zeros(options.workers, size).share_memory_()
    sums = torch.zeros(options.workers, 2).share_memory_()
    context = mp.get_context("fork")
    barrier = context.Barrier(options.workers)
    others = [context.Process(target=work, args=(r, options.workers, options, items, held_out,
                                                 shared, sums, barrier), daemon=True)
              for r in range(1, options.workers)]
    for process in others:
        process.start()
    work(0, options.workers, options, items, held_out, shared, sums, barrier)
    for process in others:
        process.join()


if __name__ == "__main__":
    main()
