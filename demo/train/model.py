# SPDX-License-Identifier: Apache-2.0
"""The hybrid decoder in PyTorch, for training: gated delta rule and gated softmax attention.

Rows of tokens hold several documents one behind the other. Every document starts from an empty
state: its first token wipes the recurrent state, the convolution does not look across the
boundary, and attention stays inside the document. So a row has no padding, and each document
is computed as if it were alone.
"""
import math
from dataclasses import asdict, dataclass

import torch
import torch.nn.functional as F
from torch import nn

WIPE = -30.0  # logarithm of the decay at a document's first token: e^-30 is nothing in float32


@dataclass
class Shape:
    layers: int = 4
    full_every: int = 4
    width: int = 256
    feed_forward: int = 256
    vocabulary: int = 1536
    heads: int = 4
    kv_heads: int = 2
    head_size: int = 64
    rotary_size: int = 16
    key_heads: int = 2
    value_heads: int = 4
    state_size: int = 64
    taps: int = 4
    rotary_base: float = 1e7
    epsilon: float = 1e-6
    context: int = 2048

    def is_full(self, layer):
        return layer % self.full_every == self.full_every - 1

    def as_dict(self):
        return asdict(self)


class Norm(nn.Module):
    """Root mean square; the weight is centred on zero."""

    def __init__(self, size, epsilon):
        super().__init__()
        self.weight = nn.Parameter(torch.zeros(size))
        self.epsilon = epsilon

    def forward(self, x):
        scale = torch.rsqrt(x.pow(2).mean(-1, keepdim=True) + self.epsilon)
        return x * scale * (1 + self.weight)


class Places:
    """Where the documents of a batch of rows begin. `starts` is [B, T], true at first tokens."""

    def __init__(self, starts):
        self.starts = starts
        rows, length = starts.shape
        device = starts.device
        self.document = starts.long().cumsum(1)
        position = torch.arange(length, device=device)
        first = torch.where(starts, position, torch.zeros_like(position))
        self.position = position - first.cummax(1).values
        # keeps[d][b, t]: the token d places back belongs to the same document.
        self.keeps = [(self.position >= d).unsqueeze(-1).float() for d in range(8)]
        same = self.document.unsqueeze(2) == self.document.unsqueeze(1)
        self.visible = (same & (position[:, None] >= position[None, :])).unsqueeze(1)
        self.wipe = starts.float().unsqueeze(-1) * WIPE


def causal_convolution(x, weight, places):
    """Depthwise, as shifted products. x: [B, T, channels]; weight: [channels, taps]."""
    taps = weight.shape[1]
    y = x * weight[:, taps - 1]
    for back in range(1, taps):
        shifted = F.pad(x, (0, 0, back, 0))[:, :-back]
        y = y + shifted * places.keeps[back] * weight[:, taps - 1 - back]
    return F.silu(y)


def inverse_unit_lower(below):
    """The inverse of 1 + `below`, which is strictly lower triangular: [..., n, n], n a power of 2
    and at least 4. Block by block: much faster than a triangular solve of many small systems."""
    n = below.shape[-1]
    eye = torch.eye(4, device=below.device)
    blocks = below.unflatten(-1, (n // 4, 4)).unflatten(-3, (n // 4, 4))
    a = blocks.diagonal(dim1=-4, dim2=-2).movedim(-1, -3)  # [..., n / 4, 4, 4]
    inverse = (eye - a) @ (eye + a @ a)
    size = 4
    while size < n:
        pairs = n // (2 * size)
        blocks = below.unflatten(-1, (pairs, 2 * size)).unflatten(-3, (pairs, 2 * size))
        corner = blocks.diagonal(dim1=-4, dim2=-2).movedim(-1, -3)[..., size:, :size]
        upper, lower = inverse[..., 0::2, :, :], inverse[..., 1::2, :, :]
        joined = below.new_zeros(*upper.shape[:-2], 2 * size, 2 * size)
        joined[..., :size, :size] = upper
        joined[..., size:, size:] = lower
        joined[..., size:, :size] = -(lower @ corner @ upper)
        inverse = joined
        size *= 2
    return inverse.squeeze(-3)


class SolveUnitLower(torch.autograd.Function):
    """x in (1 + below) x = right."""

    @staticmethod
    def forward(ctx, below, right):
        inverse = inverse_unit_lower(below)
        x = inverse @ right
        ctx.save_for_backward(inverse, x)
        return x

    @staticmethod
    def backward(ctx, grad):
        inverse, x = ctx.saved_tensors
        to_right = inverse.transpose(-1, -2) @ grad
        return -(to_right @ x.transpose(-1, -2)).tril(-1), to_right


def delta_rule(q, k, v, log_decay, beta, chunk):
    """The gated delta rule. q, k: [B, H, T, dk]; v: [B, H, T, dv]; log_decay, beta: [B, H, T].

    S <- S * decay;  S <- S + k (beta (v - S^T k))^T;  out = S^T q, chunk by chunk.
    """
    rows, heads, length, dk = k.shape
    dv = v.shape[-1]
    count = length // chunk
    q, k, v = (x.reshape(rows, heads, count, chunk, -1) for x in (q, k, v))
    beta = beta.reshape(rows, heads, count, chunk, 1)
    total = log_decay.reshape(rows, heads, count, chunk).cumsum(-1)
    upper = torch.ones(chunk, chunk, dtype=torch.bool, device=q.device).triu(1)
    between = (total.unsqueeze(-1) - total.unsqueeze(-2)).masked_fill(upper, -1e9).exp()
    grown = total.exp().unsqueeze(-1)
    weighted = k * beta
    # Row i of `solve` is one equation: what token i adds, given what those before it add.
    solve = (weighted @ k.transpose(-1, -2) * between).tril(-1)
    both = SolveUnitLower.apply(solve, torch.cat([v * beta, weighted * grown], -1))
    fresh, of_state = both.split([dv, dk], -1)
    inside = q @ k.transpose(-1, -2) * between
    from_state = q * grown
    last = total[..., -1:]
    kept = k * (last - total).exp().unsqueeze(-1)
    fade = last.exp().unsqueeze(-1)
    state = q.new_zeros(rows, heads, dk, dv)
    out = []
    for c in range(count):
        added = fresh[:, :, c] - of_state[:, :, c] @ state
        out.append(from_state[:, :, c] @ state + inside[:, :, c] @ added)
        state = state * fade[:, :, c] + kept[:, :, c].transpose(-1, -2) @ added
    return torch.stack(out, 2).reshape(rows, heads, length, dv)


class LinearAttention(nn.Module):
    def __init__(self, s):
        super().__init__()
        self.s = s
        keys, values = s.key_heads * s.state_size, s.value_heads * s.state_size
        self.keys, self.values = keys, values
        self.in_proj_qkv = nn.Linear(s.width, 2 * keys + values, bias=False)
        self.in_proj_z = nn.Linear(s.width, values, bias=False)
        self.in_proj_b = nn.Linear(s.width, s.value_heads, bias=False)
        self.in_proj_a = nn.Linear(s.width, s.value_heads, bias=False)
        self.conv1d = nn.Parameter(torch.empty(2 * keys + values, s.taps))
        self.dt_bias = nn.Parameter(torch.empty(s.value_heads))
        self.A_log = nn.Parameter(torch.empty(s.value_heads))
        self.norm = nn.Parameter(torch.ones(s.state_size))
        self.out_proj = nn.Linear(values, s.width, bias=False)

    def forward(self, x, places, chunk):
        s = self.s
        rows, length, _ = x.shape
        mixed = causal_convolution(self.in_proj_qkv(x), self.conv1d, places)
        q, k, v = mixed.split([self.keys, self.keys, self.values], -1)

        def heads(t, count):
            return t.reshape(rows, length, count, s.state_size).transpose(1, 2)

        def unit(t):
            return t * torch.rsqrt(t.pow(2).sum(-1, keepdim=True) + s.epsilon)

        repeats = s.value_heads // s.key_heads
        q = unit(heads(q, s.key_heads)) * s.state_size**-0.5
        k = unit(heads(k, s.key_heads))
        if repeats > 1:
            q, k = (t.repeat_interleave(repeats, 1) for t in (q, k))
        v = heads(v, s.value_heads)
        beta = torch.sigmoid(self.in_proj_b(x)).transpose(1, 2)
        decay = -self.A_log.exp() * F.softplus(self.in_proj_a(x) + self.dt_bias)
        decay = (decay + places.wipe).transpose(1, 2)
        out = delta_rule(q, k, v, decay, beta, chunk).transpose(1, 2)
        scale = torch.rsqrt(out.pow(2).mean(-1, keepdim=True) + s.epsilon)
        gate = F.silu(self.in_proj_z(x)).reshape(rows, length, s.value_heads, s.state_size)
        out = out * scale * self.norm * gate
        return self.out_proj(out.reshape(rows, length, self.values))


class FullAttention(nn.Module):
    def __init__(self, s):
        super().__init__()
        self.s = s
        self.q_proj = nn.Linear(s.width, 2 * s.heads * s.head_size, bias=False)
        self.k_proj = nn.Linear(s.width, s.kv_heads * s.head_size, bias=False)
        self.v_proj = nn.Linear(s.width, s.kv_heads * s.head_size, bias=False)
        self.o_proj = nn.Linear(s.heads * s.head_size, s.width, bias=False)
        self.q_norm = Norm(s.head_size, s.epsilon)
        self.k_norm = Norm(s.head_size, s.epsilon)

    def rotate(self, x, position):
        half = self.s.rotary_size // 2
        steps = torch.arange(half, device=x.device, dtype=torch.float32) / half
        angle = position.float().unsqueeze(-1) * self.s.rotary_base**-steps
        cos, sin = angle.cos().unsqueeze(1), angle.sin().unsqueeze(1)
        a, b, rest = x.split([half, half, x.shape[-1] - 2 * half], -1)
        return torch.cat([a * cos - b * sin, b * cos + a * sin, rest], -1)

    def forward(self, x, places, _):
        s = self.s
        rows, length, _ = x.shape
        both = self.q_proj(x).reshape(rows, length, s.heads, 2 * s.head_size)
        q, gate = both.split(s.head_size, -1)
        gate = gate.reshape(rows, length, -1)
        k = self.k_proj(x).reshape(rows, length, s.kv_heads, s.head_size)
        v = self.v_proj(x).reshape(rows, length, s.kv_heads, s.head_size).transpose(1, 2)
        q = self.rotate(self.q_norm(q).transpose(1, 2), places.position)
        k = self.rotate(self.k_norm(k).transpose(1, 2), places.position)
        k, v = (t.repeat_interleave(s.heads // s.kv_heads, 1) for t in (k, v))
        scores = q @ k.transpose(-1, -2) * s.head_size**-0.5
        weights = scores.masked_fill(~places.visible, -1e9).softmax(-1)
        out = (weights @ v).transpose(1, 2).reshape(rows, length, -1)
        return self.o_proj(out * torch.sigmoid(gate))


class FeedForward(nn.Module):
    def __init__(self, s):
        super().__init__()
        self.gate_proj = nn.Linear(s.width, s.feed_forward, bias=False)
        self.up_proj = nn.Linear(s.width, s.feed_forward, bias=False)
        self.down_proj = nn.Linear(s.feed_forward, s.width, bias=False)

    def forward(self, x):
        return self.down_proj(F.silu(self.gate_proj(x)) * self.up_proj(x))


class Layer(nn.Module):
    def __init__(self, s, full):
        super().__init__()
        self.input_layernorm = Norm(s.width, s.epsilon)
        self.post_attention_layernorm = Norm(s.width, s.epsilon)
        self.attention = FullAttention(s) if full else LinearAttention(s)
        self.mlp = FeedForward(s)

    def forward(self, x, places, chunk):
        x = x + self.attention(self.input_layernorm(x), places, chunk)
        return x + self.mlp(self.post_attention_layernorm(x))


class Decoder(nn.Module):
    def __init__(self, shape):
        super().__init__()
        self.shape = shape
        self.embed_tokens = nn.Embedding(shape.vocabulary, shape.width)
        self.layers = nn.ModuleList(
            Layer(shape, shape.is_full(i)) for i in range(shape.layers))
        self.norm = Norm(shape.width, shape.epsilon)

    def hidden(self, ids, starts, chunk=64):
        """ids, starts: [B, T], T a multiple of `chunk`. The normalised hidden states."""
        places = Places(starts)
        x = self.embed_tokens(ids)
        for layer in self.layers:
            x = layer(x, places, chunk)
        return self.norm(x)

    def forward(self, ids, starts, chunk=64):
        return F.linear(self.hidden(ids, starts, chunk), self.embed_tokens.weight)

    def initialise(self, seed):
        torch.manual_seed(seed)
        for name, p in self.named_parameters():
            if name.endswith("embed_tokens.weight"):
                nn.init.normal_(p, std=0.04)
            elif name.endswith("conv1d"):
                nn.init.uniform_(p, -0.5, 0.5)
            elif name.endswith("dt_bias"):
                step = torch.exp(torch.empty_like(p).uniform_(math.log(1e-3), math.log(1e-1)))
                p.data.copy_(step + torch.log(-torch.expm1(-step)))
            elif name.endswith("A_log"):
                p.data.copy_(torch.empty_like(p).uniform_(1, 16).log())
            elif p.dim() == 2:
                into_stream = name.endswith(("o_proj.weight", "out_proj.weight",
                                             "down_proj.weight"))
                depth = math.sqrt(2 * self.shape.layers) if into_stream else 1
                nn.init.normal_(p, std=1 / math.sqrt(p.shape[1]) / depth)


def checkpoint_names(model):
    """(name in a published checkpoint, tensor) of every parameter."""
    for name, p in model.named_parameters():
        parts = name.split(".")
        if parts[0] == "layers" and parts[2] == "attention":
            parts[2] = "self_attn" if model.shape.is_full(int(parts[1])) else "linear_attn"
            if parts[-1] == "conv1d":
                p = p.unsqueeze(1)
            if parts[-1] in ("conv1d", "norm"):
                parts.append("weight")
        yield "model.language_model." + ".".join(parts), p
