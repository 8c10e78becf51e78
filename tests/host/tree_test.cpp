// The page tree of the stand-in host against std::map.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <map>
#include <random>
#include <vector>

#include "qzpos.h"
#include "qzstandin.h"

namespace {

using qz::PageBuffer;

// A link without the bit in which the tree keeps its balance.
PageBuffer* target(void* link) {
  return std::bit_cast<PageBuffer*>(std::bit_cast<std::uintptr_t>(link) & ~std::uintptr_t{1});
}

struct TreeTest : testing::Test {
  void TearDown() override {
    EXPECT_EQ(tree->destroy(tree), 0U);
    EXPECT_EQ(extension->destroy(extension), 0U);
    EXPECT_EQ(host.liveObjects(), 0U);
  }

  qz::PageTree* create(const qz::TreeAttributes& attributes) {
    return extension->treeCreate(extension, &attributes, &journal, "test");
  }
  void insert(PageBuffer* node) {
    tree->treeInsert(&tree->anchor, node);
    model.emplace(node->pageNumber, node);
  }
  void remove(std::int64_t key) {
    tree->treeRemove(&tree->anchor, &key);
    model.erase(key);
  }
  void expectAsModel(std::int64_t key) {
    const auto place = model.find(key);
    ASSERT_EQ(tree->treeFind(&tree->anchor, &key), place == model.end() ? nullptr : place->second);
  }

  // The height of a subtree in key order, balanced everywhere, whose nodes are the model's.
  int check(PageBuffer* node, std::map<std::int64_t, PageBuffer*>::iterator* next) {
    if (node == nullptr) return 0;
    const int left = check(target(node->treeLinks[0]), next);
    EXPECT_EQ((*next)->second, node);
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
  std::map<std::int64_t, PageBuffer*> model;
};

// Runs of neighbouring keys with jumps between them, as pages are used; two nodes for each key, of
// which the first to come stays. At times the root is cleared from outside.
TEST_F(TreeTest, HoldsWhatAMapHolds) {
  using Limits = std::numeric_limits<std::int64_t>;
  std::mt19937 random(1);
  for (const std::int64_t keys : {3, 10, 60, 1000}) {
    std::vector<PageBuffer> nodes(static_cast<std::size_t>(2 * keys));
    std::int64_t key = 0;
    for (int step = 0; step < 20000; ++step) {
      key = (random() % 3 == 0 ? static_cast<std::int64_t>(random()) : key + 1) % keys;
      std::int64_t page = key * 3 - keys;  // some below 0, none adjacent
      if (key == 0) page = Limits::min();
      if (key == 1) page = Limits::max();
      PageBuffer& node = nodes[static_cast<std::size_t>(2 * key) + random() % 2];
      const auto kind = random() % 4;
      if (kind == 0) {
        expectAsModel(page ^ static_cast<std::int64_t>(random() % 4));
      } else if (kind == 1 || (kind == 2 && step % 4000 >= 2000)) {  // grows, then shrinks
        remove(page ^ static_cast<std::int64_t>(random() % 8 == 0));
      } else {
        if (model.count(page) == 0) node.treeLinks[0] = node.treeLinks[1] = &node;  // garbage
        node.pageNumber = page;
        insert(&node);
      }
      if (random() % 2500 == 0) {
        tree->anchor.root = nullptr;
        model.clear();
      }
      if (keys < 100 || step % 100 == 0) checkAll();
      if (HasFailure()) return;
    }
    while (!model.empty()) remove(model.begin()->first);
    ASSERT_EQ(tree->anchor.root, nullptr);
  }
}

TEST_F(TreeTest, UnknownTreesAreRefused) {
  for (const qz::TreeAttributes& attributes :
       {qz::TreeAttributes{1, 20, 6, 2}, {0, 20, 6, 1}, {1, 20, 5, 1}, {1, sizeof(void*), 6, 1}}) {
    EXPECT_EQ(create(attributes), nullptr);
    EXPECT_EQ(journal.entries().back().status, qz::hostBadParameters);
  }
}

}  // namespace
