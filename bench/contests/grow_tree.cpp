// The stand-in host's tree under a full cache: a page is looked up and missed, the oldest page is
// removed, the new one is inserted.
#include <fmt/format.h>

#include <map>
#include <vector>

#include "../core/passes.h"
#include "work.h"

namespace qzbench {
namespace {

// The module's page buffers as the tree sees them.
using Nodes = std::vector<qz::PageBuffer>;

// The standard library's tree, which reuses its nodes.
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

// A full cache. The pages of `order`, twice as many as fit, are used in turn.
template <class Tree>
class Cache {
 public:
  Cache(std::size_t buffers, std::shared_ptr<const Order> order)
      : buffers_(buffers), order_(std::move(order)) {
    for (qz::PageBuffer& buffer : buffers_) {
      buffer.pageNumber = nextPage();
      tree_.enter(&buffer);
    }
  }

  Sample run(std::size_t misses) {
    std::size_t hits = 0;
    const Sample sample = timed(misses, [&] {
      for (std::size_t i = 0; i < misses; ++i) {
        const std::int64_t page = nextPage();
        hits += tree_.has(page) ? 1 : 0;
        tree_.replace(&buffers_[oldest_], page);
        oldest_ = oldest_ + 1 == buffers_.size() ? 0 : oldest_ + 1;
      }
    });
    if (hits != 0) throw Failure("a removed page was found");
    return sample;
  }

 private:
  std::int64_t nextPage() {
    const std::int64_t page = (*order_)[next_];
    next_ = next_ + 1 == order_->size() ? 0 : next_ + 1;
    return page;
  }

  Nodes buffers_;
  std::shared_ptr<const Order> order_;
  Tree tree_;
  std::size_t next_ = 0;
  std::size_t oldest_ = 0;
};

template <class Tree>
Participant cacheOf(std::string name, std::size_t buffers, std::shared_ptr<const Order> order) {
  return participant(std::move(name), std::make_shared<Cache<Tree>>(buffers, std::move(order)));
}

}  // namespace

void growTree(Runner& run) {
  struct Load {
    std::int32_t buffers;
    bool sequential;
    double limitNs;
  };
  const std::int32_t most = run.settings().bufferCounts.back();
  for (const Load& load : {Load{1024, true, 25}, Load{most, true, 60}, Load{most, false, 60}}) {
    const auto order =
        std::make_shared<const Order>(pageOrder(2 * std::int64_t{load.buffers}, load.sequential));
    const auto buffers = static_cast<std::size_t>(load.buffers);
    Contest contest;
    contest.work = "host's tree, find + remove + insert of a miss";
    contest.variant = fmt::format("{} nodes, {}", load.buffers,
                                  load.sequential ? "pages in order" : "random pages");
    contest.participants = {cacheOf<StandardTree>("std::map", buffers, order),
                            cacheOf<HostTree>("qziop's host", buffers, order)};
    contest.goals = {{Quantity::wallNs, "qziop's host", "", load.limitNs}};
    run.hold(contest);
  }
}

}  // namespace qzbench
