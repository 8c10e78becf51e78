// The work that qzpbench can run, one file for each piece.
#pragma once

#include "../core/runner.h"

namespace qzbench {

void readPages(Runner& run);        // page mode, warm: in order and random
void readBlocks(Runner& run);       // block mode from the disk, in order
void hitPages(Runner& run);         // pages in memory: in a cached block, and held
void readDirectPages(Runner& run);  // page mode past the page cache, random
void readOnThreads(Runner& run);    // the same with many handles, each with its own thread
void appendPages(Runner& run);      // page mode
void appendBlocks(Runner& run);     // block mode, past the page cache
void rewritePages(Runner& run);     // page mode, random
void readMany(Runner& run);         // into the caller's memory
void openAndClose(Runner& run);     // both modes
void growReads(Runner& run);        // many buffers: reads and returns
void growAppends(Runner& run);      // many buffers: appends
void growTree(Runner& run);         // many buffers: the host's tree
void sqliteLayers(Runner& run);     // SQLite on the module and on its own file layer
void wholeFiles(Runner& run);       // with the tool: pack, unpack, verify

}  // namespace qzbench
