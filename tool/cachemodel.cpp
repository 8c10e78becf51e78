#include "cachemodel.hpp"

#include <algorithm>
#include <list>
#include <set>
#include <unordered_map>
#include <utility>

namespace qzpfile {
namespace {

// --- Page mode. A written page stays cached. A returned page does not: the program may have
// changed it.

class PageModel : public CacheModel {
 public:
  PageModel(const BufferShape& shape, std::int64_t pages)
      : CacheModel(shape, pages), empty_(std::max(shape.buffers, 0) + 1) {}

  void read(std::int64_t page, Address address) override {
    addresses_[address] = page;
    if (held_[page]++ > 0 || uncache(page)) return;
    takeBuffer(cached_.begin());  // the one cached longest ago
    transfer(1);
  }

  void acquire(Address address) override {
    addresses_[address] = kNoPage;
    takeBuffer(std::prev(cached_.end()));  // the one cached last
  }

  void write(std::int64_t page, Address address) override {
    transfer(1);
    pages_ = std::max(pages_, page);
    if (uncache(page)) ++empty_;  // the old copy
    if (endHold(address)) places_[page] = cached_.insert(cached_.end(), page);
  }

  void returnHold(Address address) override {
    if (endHold(address)) ++empty_;
  }

  void truncate(std::int64_t pages) override {
    pages_ = pages;
    for (auto place = cached_.begin(); place != cached_.end();) {
      const std::int64_t page = *place++;
      if (page > pages && uncache(page)) ++empty_;
    }
  }

  void addBuffers(std::int32_t count) override {
    if (count > 0) empty_ += count;
    for (; count < 0; ++count) takeBuffer(std::prev(cached_.end()));
  }

 private:
  using Pages = std::list<std::int64_t>;
  static constexpr std::int64_t kNoPage = 0;

  // Removes the page from the cache. Returns false if it was not cached.
  bool uncache(std::int64_t page) {
    const auto found = places_.find(page);
    if (found == places_.end()) return false;
    cached_.erase(found->second);
    places_.erase(found);
    return true;
  }

  // Takes an empty buffer if there is one, else the buffer of `other`.
  void takeBuffer(Pages::iterator other) {
    if (empty_ > 0) {
      --empty_;
    } else if (!cached_.empty()) {
      uncache(*other);
    }
  }

  // Returns true if this was the buffer's last hold.
  bool endHold(Address address) {
    const auto found = addresses_.find(address);
    if (found == addresses_.end()) return false;
    const std::int64_t page = found->second;
    if (page != kNoPage && --held_[page] > 0) return false;
    held_.erase(page);
    addresses_.erase(found);
    return true;
  }

  std::int64_t empty_;  // free buffers without a page
  Pages cached_;        // cached pages, oldest first
  std::unordered_map<std::int64_t, Pages::iterator> places_;
  std::unordered_map<std::int64_t, int> held_;
  std::unordered_map<Address, std::int64_t> addresses_;
};

// --- Block mode. Appended pages are collected in the write block, from the first page of a block
// on.

struct Block {
  std::int64_t firstPage = 0;  // 0: empty
  std::int64_t lastPage = 0;
  int holds = 0;
  std::set<std::int64_t> stale;  // pages to read again

  bool covers(std::int64_t page) const { return page >= firstPage && page <= lastPage; }
};

class BlockModel : public CacheModel {
 public:
  BlockModel(const BufferShape& shape, std::int64_t pages)
      : CacheModel(shape, pages), free_(static_cast<std::size_t>(std::max(shape.buffers, 0))) {}

  void read(std::int64_t page, Address address) override {
    const bool collected = writeBlock_.covers(page);
    if (collected) writeBack();
    auto block = collected ? held_.end() : holdCached(page);
    if (block == held_.end()) {
      block = holdFree();
      block->firstPage = firstOfBlock(page);
      block->lastPage = std::min(block->firstPage + shape_.pagesPerBlock - 1, pages_);
      block->stale.clear();
      transfer(block->lastPage - block->firstPage + 1);
    } else if (block->stale.erase(page) != 0) {
      transfer(1);
    }
    ++block->holds;
    addresses_[address].push_back({block, page});
  }

  void acquire(Address address) override {
    const auto block = holdFree();
    *block = Block{};
    ++block->holds;
    addresses_[address].push_back({block, 0});
  }

  void write(std::int64_t page, Address address) override {
    if (!collect(page)) transfer(1);
    pages_ = std::max(pages_, page);
    for (Block& block : free_) {
      if (block.firstPage == firstOfBlock(page)) block = Block{};
    }
    for (Block& block : held_) {
      if (block.firstPage == firstOfBlock(page) && page == block.lastPage + 1) ++block.lastPage;
    }
    const Hold hold = endHold(address);
    if (hold.block == held_.end()) return;
    if (hold.block->holds == 0) {
      *hold.block = Block{};
      free_.splice(free_.begin(), held_, hold.block);
    } else if (hold.page != page) {
      hold.block->stale.insert(hold.page);
    }
  }

  void returnHold(Address address) override {
    const Hold hold = endHold(address);
    if (hold.block == held_.end()) return;
    hold.block->stale.insert(hold.page);
    if (hold.block->holds == 0) free_.splice(free_.end(), held_, hold.block);
  }

  void writeBack() override {
    if (writeBlock_.firstPage != 0) transfer(writeBlock_.lastPage - writeBlock_.firstPage + 1);
    writeBlock_ = Block{};
  }

  void truncate(std::int64_t pages) override {
    if (pages < writeBlock_.firstPage) writeBlock_ = Block{};
    writeBlock_.lastPage = std::min(writeBlock_.lastPage, pages);
    writeBack();
    pages_ = pages;
    for (Block& block : free_) {
      if (block.firstPage > pages) block = Block{};
      block.lastPage = std::min(block.lastPage, pages);
    }
  }

  void addBuffers(std::int32_t count) override {
    for (; count > 0; --count) free_.emplace_front();
    for (; count < 0 && !free_.empty(); ++count) free_.erase(nextFree());
  }

 private:
  using Place = std::list<Block>::iterator;
  struct Hold {
    Place block;
    std::int64_t page;  // 0 for an acquired block
  };

  std::int64_t firstOfBlock(std::int64_t page) const {
    return (page - 1) / shape_.pagesPerBlock * shape_.pagesPerBlock + 1;
  }

  // Moves the block that contains the page to the held list, if it is free. Returns held_.end() if
  // no block contains it.
  Place holdCached(std::int64_t page) {
    const auto hasPage = [page](const Block& block) { return block.covers(page); };
    const auto cached = std::ranges::find_if(free_, hasPage);
    if (cached == free_.end()) return std::ranges::find_if(held_, hasPage);
    held_.splice(held_.begin(), free_, cached);
    return cached;
  }

  // The first empty block, else the one returned last.
  Place nextFree() {
    const auto empty = std::ranges::find(free_, 0, &Block::firstPage);
    return empty != free_.end() ? empty : std::prev(free_.end());
  }

  // Adds a block if none is free.
  Place holdFree() {
    if (free_.empty()) free_.emplace_front();
    held_.splice(held_.begin(), free_, nextFree());
    return held_.begin();
  }

  Hold endHold(Address address) {
    const auto found = addresses_.find(address);
    if (found == addresses_.end()) return {held_.end(), 0};
    const Hold hold = found->second.back();
    found->second.pop_back();
    if (found->second.empty()) addresses_.erase(found);
    --hold.block->holds;
    return hold;
  }

  // Returns true if the page needs no call of its own.
  bool collect(std::int64_t page) {
    if (writeBlock_.covers(page)) return true;
    if (page <= pages_) return false;
    const bool begins = writeBlock_.firstPage == 0 && page == firstOfBlock(page);
    if (!begins && page != writeBlock_.lastPage + 1) return false;
    if (begins) writeBlock_.firstPage = page;
    writeBlock_.lastPage = page;
    if (page - writeBlock_.firstPage + 1 == shape_.pagesPerBlock) writeBack();
    return true;
  }

  std::list<Block> free_;
  std::list<Block> held_;
  Block writeBlock_;  // covers no page while it is empty
  std::unordered_map<Address, std::list<Hold>> addresses_;
};

}  // namespace

std::unique_ptr<CacheModel> CacheModel::make(const BufferShape& shape, std::int64_t pages) {
  if (shape.pagesPerBlock == 0) return std::make_unique<PageModel>(shape, pages);
  return std::make_unique<BlockModel>(shape, pages);
}

void CacheModel::readMany(std::int64_t page, std::int64_t count, bool contiguous) {
  constexpr std::int64_t kMostEntries = 1024;  // iovec entries per readv
  const std::int64_t step = contiguous ? std::max<std::int64_t>(count, 1) : kMostEntries;
  for (std::int64_t done = 0; done < count; done += step) {
    const std::int64_t left = std::clamp<std::int64_t>(pages_ - page - done + 1, 0, count - done);
    transfer(std::min(left, step));
  }
}

}  // namespace qzpfile
