// SPDX-License-Identifier: Apache-2.0
// uint rowBlocks(): blocks of a row. The last one counts whole, even when k ends
// inside it. The including shader sets kBlock, the elements of a block, and declares
// the push constants before.
uint rowBlocks() { return blocksPerCol + (blocksPerCol * kBlock < k ? 1u : 0u); }
