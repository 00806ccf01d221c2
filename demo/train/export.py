# SPDX-License-Identifier: Apache-2.0
"""Writes a checkpoint folder that `zem convert` takes.

usage: export.py FOLDER TEMPLATE OUTPUT TYPE
FOLDER is the one that train.py worked in; TYPE of the matrices is F32 or F16.
"""
import json
import os
import shutil
import struct
import sys

import torch

from model import Decoder, Shape, checkpoint_names


def write_safetensors(path, tensors, kind):
    tensors = [(name, tensor.half() if tensor.dim() == 2 and kind == "F16" else tensor)
               for name, tensor in tensors]
    header, at = {}, 0
    for name, tensor in tensors:
        size = tensor.numel() * tensor.element_size()
        dtype = "F16" if tensor.dtype == torch.float16 else "F32"
        header[name] = {"dtype": dtype, "shape": list(tensor.shape), "data_offsets": [at, at + size]}
        at += size
    text = json.dumps(header).encode()
    text += b" " * (-len(text) % 8)
    with open(path, "wb") as out:
        out.write(struct.pack("<Q", len(text)) + text)
        for _, tensor in tensors:
            out.write(tensor.detach().contiguous().numpy().tobytes())


def config_of(s, end):
    kinds = ["full_attention" if s.is_full(i) else "linear_attention" for i in range(s.layers)]
    return {"model_type": "qwen3_5_text", "hidden_size": s.width, "hidden_act": "silu",
            "intermediate_size": s.feed_forward, "vocab_size": s.vocabulary,
            "num_hidden_layers": s.layers, "full_attention_interval": s.full_every,
            "layer_types": kinds, "num_attention_heads": s.heads, "head_dim": s.head_size,
            "num_key_value_heads": s.kv_heads, "attn_output_gate": True,
            "linear_num_key_heads": s.key_heads, "linear_num_value_heads": s.value_heads,
            "linear_key_head_dim": s.state_size, "linear_value_head_dim": s.state_size,
            "linear_conv_kernel_dim": s.taps, "rms_norm_eps": s.epsilon,
            "rope_parameters": {"rope_type": "default", "rope_theta": s.rotary_base,
                                "partial_rotary_factor": s.rotary_size / s.head_size},
            "max_position_embeddings": s.context, "tie_word_embeddings": True,
            "eos_token_id": end}


def write_json(path, value):
    with open(path, "w", encoding="utf-8") as out:
        json.dump(value, out, indent=1)
        out.write("\n")


def main():
    folder, template, output, kind = sys.argv[1:]
    held = torch.load(f"{folder}/checkpoint.pt", map_location="cpu")
    shape = Shape(**held["shape"])
    model = Decoder(shape)
    model.load_state_dict(held["mean"])
    os.makedirs(output, exist_ok=True)
    with open(f"{folder}/tokenizer.json", encoding="utf-8") as file:
        ids = {t["content"]: t["id"] for t in json.load(file)["added_tokens"]}
    end, pad = ids["<|im_end|>"], ids["<|endoftext|>"]
    write_safetensors(f"{output}/model.safetensors", list(checkpoint_names(model)), kind)
    write_json(f"{output}/config.json", config_of(shape, end))
    write_json(f"{output}/generation_config.json", {"eos_token_id": [end, pad], "temperature": 0.2,
                                                    "top_k": 20, "top_p": 0.8,
                                                    "presence_penalty": 0})
    write_json(f"{output}/tokenizer_config.json", {"eos_token": "<|im_end|>",
                                                   "pad_token": "<|endoftext|>"})
    shutil.copy(f"{folder}/tokenizer.json", f"{output}/tokenizer.json")
    shutil.copy(template, f"{output}/chat_template.jinja")
    print(f"{output}: step {held['step']}")


if __name__ == "__main__":
    main()
