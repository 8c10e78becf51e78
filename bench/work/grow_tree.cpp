// The stand-in host's tree under a cache that is full: a page is looked for in vain, the oldest
// goes, the new one comes in.
#include <fmt/format.h>

#include <map>
#include <vector>

#include "../core/passes.h"
#include "work.h"

namespace qzbench {
namespace {

constexpr std::size_t kMisses = 262144;  // of a pass

// The module's page buffers as the tree sees them.
using Nodes = std::vector<qz::PageBuffer>;

// The standard library's tree, its nodes reused as they are there.
class StandardTree {
 public:
  bool has(std::int64_t page) const { return tree_.count(page) != 0; }
  void enter(qz::PageBuffer* buffer) { tree_.emplace(buffer->pageNumber, buffer); }
  void replace(qz::PageBuffer* buffer, std::int64_t page) {
    auto node = tree_.extract(buffer->pageNumber);
    node.key() = page;
    buffer->pageNumber = page;
    tree_.insert(std::move(node));
  }

 private:
  std::map<std::int64_t, qz::PageBuffer*> tree_;
};

class HostTree {
 public:
  HostTree() : extension_(host_.handle()->extensionLoad(host_.handle(), U"qzeavl", 6, nullptr)) {
    const qz::TreeAttributes attributes{1, offsetof(qz::PageBuffer, pageNumber), 6, 1};
    tree_ = extension_->treeCreate(extension_, &attributes, nullptr, "pages");
    if (tree_ == nullptr) throw Failure("the host makes no tree");
  }
  HostTree(const HostTree&) = delete;
  HostTree& operator=(const HostTree&) = delete;
  ~HostTree() {
    tree_->destroy(tree_);
    extension_->destroy(extension_);
  }

  bool has(std::int64_t page) const { return tree_->treeFind(&tree_->anchor, &page) != nullptr; }
  void enter(qz::PageBuffer* buffer) { tree_->treeInsert(&tree_->anchor, buffer); }
  void replace(qz::PageBuffer* buffer, std::int64_t page) {
    tree_->treeRemove(&tree_->anchor, &buffer->pageNumber);
    buffer->pageNumber = page;
    tree_->treeInsert(&tree_->anchor, buffer);
  }

 private:
  qz::StandInHost host_;
  qz::TreeExtension* extension_;
  qz::PageTree* tree_ = nullptr;
};

// A full cache whose pages are those of `order` in turn; there are twice as many of them.
template <class Tree>
class Cache {
 public:
  Cache(std::size_t buffers, const Order& order) : buffers_(buffers), order_(order) {
    for (qz::PageBuffer& buffer : buffers_) {
      buffer.pageNumber = nextPage();
      tree_.enter(&buffer);
    }
  }

  Sample pass() {
    std::size_t hits = 0;
    const Sample sample = timed(kMisses, [&] {
      for (std::size_t i = 0; i < kMisses; ++i) {
        const std::int64_t page = nextPage();
        hits += tree_.has(page) ? 1 : 0;
        tree_.replace(&buffers_[oldest_], page);
        oldest_ = oldest_ + 1 == buffers_.size() ? 0 : oldest_ + 1;
      }
    });
    if (hits != 0) throw Failure("a page was found that had gone");
    return sample;
  }

 private:
  std::int64_t nextPage() {
    const std::int64_t page = order_[next_];
    next_ = next_ + 1 == order_.size() ? 0 : next_ + 1;
    return page;
  }

  Nodes buffers_;
  const Order& order_;
  Tree tree_;
  std::size_t next_ = 0;
  std::size_t oldest_ = 0;
};

template <class Tree>
Participant cacheOf(std::string name, std::size_t buffers, std::shared_ptr<const Order> order) {
  auto cache = std::make_shared<Cache<Tree>>(buffers, *order);
  return {std::move(name), [cache, order = std::move(order)] { return cache->pass(); }};
}

}  // namespace

void growTree(Runner& run) {
  const auto buffers = static_cast<std::size_t>(run.settings().bufferCounts.back());
  for (const bool sequential : {true, false}) {
    const auto order = std::make_shared<const Order>(
        pageOrder(static_cast<std::int64_t>(2 * buffers), sequential));
    Contest contest;
    contest.work = "host's tree, find + remove + insert of a miss";
    contest.variant =
        fmt::format("{} nodes, {}", buffers, sequential ? "pages in order" : "random pages");
    contest.participants = {cacheOf<StandardTree>("std::map", buffers, order),
                            cacheOf<HostTree>("qziop's host", buffers, order)};
    contest.goals = {{Quantity::wallNs, "qziop's host", "", 60}};
    run.hold(contest, 11);
  }
}

}  // namespace qzbench
