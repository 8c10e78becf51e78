#include "support/invariants.h"

#include <fmt/format.h>

#include <cstdint>
#include <set>

#include "index.h"

namespace qztest {

namespace {

// The numbers are those of docs/list-moves.md, "What always holds".
class Checker {
 public:
  explicit Checker(const qz::FileHandle& handle) : h_(handle) {}

  std::string broken() {
    checkState();
    checkPages();
    checkBlocks();
    checkTree();
    checkWriteBlock();
    checkIndex();
    require(8, h_.heldCount == holds_, "heldCount is not the number of holds", holds_);
    return broken_;
  }

 private:
  void require(int invariant, bool holds, const char* text, std::int64_t number = 0) {
    if (!holds && broken_.empty()) broken_ = fmt::format("{}. {} ({})", invariant, text, number);
  }

  // Calls visit for each record of a list. The first broken invariant ends the walk, also of a list
  // that runs in a circle.
  template <class Node, class Visit>
  void walk(const qz::List<Node>& list, Visit visit) {
    const Node* previous = nullptr;
    for (const Node* node = list.head; node != nullptr && broken_.empty(); node = node->next) {
      require(1, node->prev == previous, "not linked back");
      visit(*node);
      previous = node;
    }
    require(1, list.tail == previous, "the tail is not the last record");
  }

  void checkState() {
    require(12, (h_.stateFlags & qz::stateOpen) == 0 || (h_.hostFile != nullptr && h_.fd >= 0),
            "open without a file");
    require(12,
            h_.hostFile != nullptr ||
                (h_.fd == -1 && h_.pageTree == nullptr && h_.lastBlock == nullptr &&
                 h_.writeBlock == nullptr && h_.pageBuffersAllocated == 0 &&
                 h_.blocksAllocated == 0 && h_.nextPage == 0),
            "descriptor, buffers or cursors without a file", h_.fd);
  }

  void checkPages() {
    const auto check = [this](const qz::List<qz::PageBuffer>& list, int held) {
      walk(list, [&](const qz::PageBuffer& buffer) {
        require(2, pages_.insert(&buffer).second, "page buffer listed twice", buffer.pageNumber);
        const int extra = buffer.extraHolds;
        require(2, buffer.held == held && (held == 1 ? extra >= 0 : extra == 0),
                "the holds of a page buffer do not fit its list", buffer.pageNumber);
        emptyFreePages_ += held == 0 && buffer.pageNumber == 0 ? 1 : 0;
        holds_ += held + extra;
      });
    };
    check(h_.pageFreeList, 0);
    check(h_.pageHeldList, 1);
    require(2, h_.pageBuffersAllocated == static_cast<std::int64_t>(pages_.size()),
            "pageBuffersAllocated is not the number of page buffers", h_.pageBuffersAllocated);
    require(9, h_.emptyFreePages == emptyFreePages_, "emptyFreePages is wrong", h_.emptyFreePages);
  }

  void checkBlocks() {
    // A read that came short and could not close the file leaves its block among the held ones.
    const bool open = (h_.stateFlags & qz::stateOpen) != 0;
    const auto check = [&](const qz::List<qz::BlockRecord>& list, bool held) {
      walk(list, [&](const qz::BlockRecord& block) {
        require(3, blocks_.insert(&block).second, "block listed twice", block.blockNumber);
        require(3, held ? block.holdCount > (open ? 0 : -1) : block.holdCount == 0,
                "the holds of a block do not fit its list", block.blockNumber);
        const bool empty = block.blockNumber == 0;
        require(4,
                empty == (block.firstPage == 0) && empty == (block.lastPage == 0) &&
                    block.firstPage <= block.lastPage && (empty || &list != &h_.blockAcquiredList),
                "the pages of a block do not fit its number", block.blockNumber);
        require(5, block.dirtyPages == 0, "dirty pages outside the write block", block.dirtyPages);
        emptyFreeBlocks_ += !held && empty ? 1 : 0;
        holds_ += static_cast<int>(block.holdCount);
      });
    };
    check(h_.blockFreeList, false);
    check(h_.blockHeldList, true);
    check(h_.blockAcquiredList, true);
    require(7, h_.lastBlock == nullptr || blocks_.count(h_.lastBlock) == 1,
            "lastBlock is on no list");
    const auto all = static_cast<std::int64_t>(blocks_.size()) + (h_.writeBlock != nullptr ? 1 : 0);
    require(3, h_.blocksAllocated == all, "blocksAllocated is not the number of blocks", all);
    require(9, h_.emptyFreeBlocks == emptyFreeBlocks_, "emptyFreeBlocks is wrong",
            h_.emptyFreeBlocks);
  }

  void checkTree() {
    std::size_t entries = h_.pageTree == nullptr ? 0 : entriesBelow(h_.pageTree->anchor.root);
    for (const qz::PageBuffer* buffer : pages_) {
      if (buffer->pageNumber == 0) continue;
      --entries;
      require(10,
              h_.pageTree != nullptr &&
                  h_.pageTree->treeFind(&h_.pageTree->anchor, &buffer->pageNumber) == buffer,
              "page not in the tree", buffer->pageNumber);
    }
    require(10, entries == 0, "entries in the tree without a buffer");
  }

  // The stand-in host links nodes through their first two words and tags the low bits.
  std::size_t entriesBelow(void* link) {
    // NOLINTNEXTLINE(performance-no-int-to-ptr): the tags are taken off as a number
    const auto* node = reinterpret_cast<qz::PageBuffer*>(reinterpret_cast<std::uintptr_t>(link) &
                                                         ~std::uintptr_t{3});
    if (node == nullptr) return 0;
    require(10, pages_.contains(node), "the tree reaches a freed buffer");
    if (!broken_.empty()) return 0;
    return 1 + entriesBelow(node->treeLinks[0]) + entriesBelow(node->treeLinks[1]);
  }

  void checkWriteBlock() {
    if (h_.writeBlock == nullptr) return;
    const qz::BlockRecord& block = *h_.writeBlock;
    require(6, blocks_.count(&block) == 0, "the write block is on a list");
    const std::int64_t pages = block.firstPage == 0 ? 0 : block.lastPage - block.firstPage + 1;
    const bool empty = pages == 0 && block.lastPage == 0;
    const bool last = pages > 0 && pages < h_.pagesPerBlock &&
                      (block.firstPage - 1) % h_.pagesPerBlock == 0 &&
                      block.lastPage == h_.pageCount;
    require(6, (empty || last) && block.dirtyPages == pages && block.holdCount == 0,
            "the write block has other pages than the file's last", block.firstPage);
  }

  void checkIndex() {
    if (h_.index == nullptr || !broken_.empty()) return;
    for (const qz::PageBuffer* buffer : pages_) {
      require(11, h_.index->bufferAt(buffer->data) == buffer, "page buffer is not in the index",
              buffer->pageNumber);
    }
    for (const qz::BlockRecord* block : blocks_) {
      int byAddress = 0;
      int byNumber = 0;
      h_.index->visitBlocksNear(block->data, [&](auto* one) { byAddress += one == block ? 1 : 0; });
      h_.index->visitBlocks(block->blockNumber,
                            [&](auto* one) { byNumber += one == block ? 1 : 0; });
      require(11, byAddress == 1 && byNumber == (block->blockNumber == 0 ? 0 : 1),
              "block is not exactly once in the index", block->blockNumber);
    }
  }

  const qz::FileHandle& h_;
  int holds_ = 0;
  int emptyFreePages_ = 0;
  int emptyFreeBlocks_ = 0;
  std::set<const qz::PageBuffer*> pages_;
  std::set<const qz::BlockRecord*> blocks_;
  std::string broken_;
};

}  // namespace

std::string brokenInvariant(const qz::FileHandle& h, std::size_t moduleBlocks,
                            std::size_t bufferBlocks) {
  const std::string broken = Checker(h).broken();
  const auto pages = static_cast<std::size_t>(h.pageBuffersAllocated);
  const auto blocks = static_cast<std::size_t>(h.blocksAllocated);
  const std::size_t own = 2 + (h.fileName != nullptr ? 1 : 0) + pages + 2 * blocks;
  const bool balanced = moduleBlocks == own && bufferBlocks == pages + blocks;
  return broken.empty() && !balanced ? "the pools have other live blocks than the handle uses"
                                     : broken;
}

}  // namespace qztest
