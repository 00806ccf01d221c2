// Where the rows of a matrix of 256-element blocks lie. Include gemv_push.glsl and
// set kBlockWords, the words of a block, before.

// Blocks of a row: the last one counts whole, even when k ends inside it.
uint rowBlocks() { return blocksPerCol + (blocksPerCol * 256u < k ? 1u : 0u); }

// The word of the matrix at which block `b` of row `row` begins.
uint blockWord(uint row, uint b) { return row * (colBytes >> 2) + b * kBlockWords; }
