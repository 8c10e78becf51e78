// What qzpbench can run, one piece of work a file.
#pragma once

#include "../core/runner.h"

namespace qzbench {

void readPages(Runner& run);        // page mode, warm: in order and random
void readBlocks(Runner& run);       // block mode from the disk, in order
void hitBlocks(Runner& run);        // block mode, pages of a cached block
void readDirectPages(Runner& run);  // page mode past the page cache, random
void appendPages(Runner& run);      // page mode
void appendBlocks(Runner& run);     // block mode, past the page cache
void rewritePages(Runner& run);     // page mode, random
void readMany(Runner& run);         // into the caller's memory
void openAndClose(Runner& run);     // both modes
void growReads(Runner& run);        // many buffers: reads and returns
void growAppends(Runner& run);      // many buffers: appends
void growTree(Runner& run);         // many buffers: the host's tree
void packFiles(Runner& run);        // whole files by the tool

}  // namespace qzbench
