// The page tree of the stand-in host against std::map.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <deque>
#include <limits>
#include <map>
#include <memory>
#include <random>
#include <utility>

#include "qzpos.h"
#include "qzstandin.h"

namespace {

using qz::PageBuffer;

// A link without the bit in which the tree keeps its balance.
PageBuffer* target(void* link) {
  return std::bit_cast<PageBuffer*>(std::bit_cast<std::uintptr_t>(link) & ~std::uintptr_t{1});
}

struct TreeTest : testing::Test {
  using Model = std::map<std::int64_t, std::unique_ptr<PageBuffer>>;

  void TearDown() override {
    EXPECT_EQ(tree->destroy(tree), 0U);
    EXPECT_EQ(extension->destroy(extension), 0U);
    EXPECT_EQ(host.liveObjects(), 0U);
  }

  qz::PageTree* create(const qz::TreeAttributes& attributes) {
    return extension->treeCreate(extension, &attributes, &journal, "test");
  }
  // Inserts a new node. If the key is in the tree already, the tree does not take the node, which
  // is freed.
  void insert(std::int64_t key) {
    auto node = std::make_unique<PageBuffer>();
    node->treeLinks[0] = node->treeLinks[1] = node.get();  // garbage
    node->pageNumber = key;
    tree->treeInsert(&tree->anchor, node.get());
    model.emplace(key, std::move(node));
  }
  // Frees the node: the sanitizer sees whether the tree touches it later.
  void remove(std::int64_t key) {
    const auto place = model.find(key);
    // The module gives the key inside the node.
    tree->treeRemove(&tree->anchor, place == model.end() ? &key : &place->second->pageNumber);
    model.erase(key);
  }
  // Empties the tree by its root, as a close of the module does, and frees all nodes.
  void clearRoot() {
    tree->anchor.root = nullptr;
    model.clear();
  }
  void expectAsModel(std::int64_t key) {
    const auto place = model.find(key);
    ASSERT_EQ(tree->treeFind(&tree->anchor, &key),
              place == model.end() ? nullptr : place->second.get());
  }

  // Checks that the subtree is balanced and has the model's nodes from *next on, in their order.
  // Returns its height.
  int check(PageBuffer* node, Model::iterator* next) {
    if (node == nullptr) return 0;
    const int left = check(target(node->treeLinks[0]), next);
    EXPECT_EQ((*next)->second.get(), node);
    ++*next;
    const int right = check(target(node->treeLinks[1]), next);
    EXPECT_LE(std::abs(left - right), 1);
    return std::max(left, right) + 1;
  }
  void checkAll() {
    auto next = model.begin();
    check(static_cast<PageBuffer*>(tree->anchor.root), &next);
    ASSERT_EQ(next, model.end());
  }

  qz::StandInHost host;
  qz::StandInJournal journal;
  qz::TreeExtension* extension = host.handle()->extensionLoad(host.handle(), U"qzeavl", 6, nullptr);
  qz::PageTree* tree = create({1, offsetof(PageBuffer, pageNumber), 6, 1});
  Model model;
};

// After random inserts and removals the tree must be balanced and find what a map finds. The keys
// are runs of neighbours, up and down, with jumps between them, as pages are used.
TEST_F(TreeTest, HoldsWhatAMapHolds) {
  using Limits = std::numeric_limits<std::int64_t>;
  std::mt19937 random(1);
  for (const std::int64_t keys : {3, 10, 60, 1000}) {
    std::int64_t key = 0;
    for (int step = 0; step < 20000; ++step) {
      const std::int64_t neighbour = step % 1000 < 500 ? key + 1 : key + keys - 1;
      key = (random() % 3 == 0 ? static_cast<std::int64_t>(random()) : neighbour) % keys;
      std::int64_t page = key * 3 - keys;  // some below 0, none adjacent
      if (key == 0) page = Limits::min();
      if (key == 1) page = Limits::max();
      const auto kind = random() % 4;
      if (kind == 0) {
        expectAsModel(page ^ static_cast<std::int64_t>(random() % 4));
      } else if (kind == 1 || (kind == 2 && step % 4000 >= 2000)) {  // grows, then shrinks
        remove(page ^ static_cast<std::int64_t>(random() % 8 == 0));
      } else {
        insert(page);
      }
      if (random() % 2500 == 0) clearRoot();
      if (keys < 100 || step % 100 == 0) checkAll();
      if (HasFailure()) return;
    }
    while (!model.empty()) remove(model.begin()->first);
    ASSERT_EQ(tree->anchor.root, nullptr);
  }
}

// The same for a full cache that moves through a file: at each miss the oldest page is removed and
// the new one inserted. The tree keeps the path of the last insert and of the last removal. In a
// short file, from step 3000 on, the run of new pages replaces the run of old pages next to it.
TEST_F(TreeTest, FollowsACacheThroughAFileUpAndDown) {
  std::mt19937 random(2);
  for (const std::size_t buffers : {1U, 2U, 7U, 64U, 300U}) {
    std::deque<std::int64_t> cached;
    std::int64_t page = 0;
    std::int64_t direction = 1;
    for (int step = 0; step < 6000; ++step) {
      if (random() % 700 == 0) direction = -direction;
      if (random() % 900 == 0) page += static_cast<std::int64_t>(random() % 5000);
      if (random() % 3000 == 0) {
        clearRoot();
        cached.clear();
      }
      page += direction;
      if (const auto pages = static_cast<std::int64_t>(2 * buffers + 1); step >= 3000) {
        page = (page % pages + pages) % pages;
      }
      expectAsModel(page);
      if (model.count(page) != 0) continue;
      if (cached.size() == buffers) {
        remove(cached.front());
        cached.pop_front();
      }
      insert(page);
      cached.push_back(page);
      if (buffers < 10 || step % 20 == 0) checkAll();
      if (HasFailure()) return;
    }
    while (!model.empty()) remove(model.rbegin()->first);
  }
}

// A tree with other attributes than a page tree's would search by the wrong key.
TEST_F(TreeTest, UnknownTreesAreRefused) {
  for (const qz::TreeAttributes& attributes :
       {qz::TreeAttributes{1, 20, 6, 2}, {0, 20, 6, 1}, {1, 20, 5, 1}, {1, sizeof(void*), 6, 1}}) {
    EXPECT_EQ(create(attributes), nullptr);
    EXPECT_EQ(journal.entries().back().status, qz::hostBadParameters);
  }
}

}  // namespace
