// The page tree of the stand-in host against std::map.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <iterator>
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

// Runs of neighbouring keys with jumps between them, as pages are used.
TEST_F(TreeTest, HoldsWhatAMapHolds) {
  std::mt19937 random(1);
  for (const std::int64_t keys : {3, 10, 60, 1000}) {
    std::vector<PageBuffer> nodes(static_cast<std::size_t>(keys));
    std::int64_t key = 0;
    for (int step = 0; step < 20000; ++step) {
      key = (random() % 3 == 0 ? static_cast<std::int64_t>(random()) : key + 1) % keys;
      const std::int64_t page = key * 3 - keys;  // some below 0, none adjacent
      PageBuffer& node = nodes[static_cast<std::size_t>(key)];
      const auto kind = random() % 4;
      if (kind == 0) {
        expectAsModel(page + static_cast<std::int64_t>(random() % 3) - 1);
      } else if (kind == 1 || (kind == 2 && step % 4000 >= 2000)) {  // grows, then shrinks
        remove(page + static_cast<std::int64_t>(random() % 8 == 0));
      } else {
        if (model.count(page) == 0) node.treeLinks[0] = node.treeLinks[1] = &node;  // garbage
        node.pageNumber = page;
        insert(&node);
      }
      if (keys < 100 || step % 100 == 0) checkAll();
      if (HasFailure()) return;
    }
    while (!model.empty()) remove(model.begin()->first);
    ASSERT_EQ(tree->anchor.root, nullptr);
  }
}

TEST_F(TreeTest, OneEntryPerKeyAndARootClearedFromOutside) {
  constexpr std::int64_t kKeys[] = {std::numeric_limits<std::int64_t>::min(), 0, 7,
                                    std::numeric_limits<std::int64_t>::max(), 7};
  for (int round = 0; round < 2; ++round) {
    PageBuffer nodes[std::size(kKeys)];
    std::memset(static_cast<void*>(nodes), 0x5A, sizeof nodes);
    for (std::size_t i = 0; i < std::size(kKeys); ++i) {
      nodes[i].pageNumber = kKeys[i];
      insert(&nodes[i]);
      insert(&nodes[i]);
    }
    expectAsModel(7);
    checkAll();
    tree->anchor.root = nullptr;
    model.clear();
    remove(7);
    expectAsModel(7);
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
