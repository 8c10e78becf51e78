// The page tree of the stand-in host against std::map.
#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
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
  void SetUp() override {
    extension = host.handle()->extensionLoad(host.handle(), U"qzeavl", 6, nullptr);
    const qz::TreeAttributes attributes{1, offsetof(PageBuffer, pageNumber), 6, 1};
    tree = extension->treeCreate(extension, &attributes, nullptr, "test");
    ASSERT_NE(tree, nullptr);
  }
  void TearDown() override {
    EXPECT_EQ(tree->destroy(tree), 0U);
    EXPECT_EQ(extension->destroy(extension), 0U);
    EXPECT_EQ(host.liveObjects(), 0U);
  }

  void insert(PageBuffer* node) {
    tree->treeInsert(&tree->anchor, node);
    model.emplace(node->pageNumber, node);
  }
  void remove(std::int64_t key) {
    tree->treeRemove(&tree->anchor, &key);
    model.erase(key);
  }
  PageBuffer* find(std::int64_t key) {
    return static_cast<PageBuffer*>(tree->treeFind(&tree->anchor, &key));
  }
  void expectAsModel(std::int64_t key) {
    const auto place = model.find(key);
    ASSERT_EQ(find(key), place == model.end() ? nullptr : place->second) << key;
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
    ASSERT_FALSE(HasFailure());
  }

  qz::StandInHost host;
  qz::TreeExtension* extension = nullptr;
  qz::PageTree* tree = nullptr;
  std::map<std::int64_t, PageBuffer*> model;
};

TEST_F(TreeTest, RandomOperations) {
  std::mt19937 random(1);
  for (const std::int64_t keys : {3, 10, 60, 1000}) {
    std::vector<PageBuffer> nodes(static_cast<std::size_t>(keys));
    for (int step = 0; step < 20000; ++step) {
      const auto key = static_cast<std::int64_t>(random() % static_cast<unsigned>(keys));
      const std::int64_t page = key * 3 - keys;  // some below 0, none adjacent
      PageBuffer& node = nodes[static_cast<std::size_t>(key)];
      switch (random() % 4) {
        case 0:
          expectAsModel(page + static_cast<std::int64_t>(random() % 3) - 1);
          break;
        case 1:
          remove(page + static_cast<std::int64_t>(random() % 8 == 0));
          break;
        default:
          if (model.count(page) == 0) node.treeLinks[0] = node.treeLinks[1] = &node;  // garbage
          node.pageNumber = page;
          insert(&node);
      }
      if (keys < 100 || step % 100 == 0) checkAll();
      if (HasFatalFailure()) return;
    }
    while (!model.empty()) remove(model.begin()->first);
    ASSERT_EQ(tree->anchor.root, nullptr);
  }
}

// As a cache uses it: find a page that is not there, let an old one go, enter the new one.
TEST_F(TreeTest, RunsOfPagesThroughAFewBuffers) {
  std::mt19937 random(2);
  for (const std::size_t count : {1U, 2U, 5U, 64U, 300U}) {
    std::vector<PageBuffer> buffers(count);
    std::int64_t page = 1;
    for (int step = 0; step < 8000; ++step) {
      if (random() % 50 == 0) page = static_cast<std::int64_t>(random() % 2000) + 1;
      const std::int64_t wanted = step % 4000 < 2000 ? page++ : page--;
      expectAsModel(wanted);
      if (model.count(wanted) == 0) {
        PageBuffer& victim =
            buffers[random() % 4 == 0 ? random() % count : static_cast<std::size_t>(step) % count];
        if (model.count(victim.pageNumber) != 0 && model[victim.pageNumber] == &victim) {
          tree->treeRemove(&tree->anchor, &victim.pageNumber);  // the key inside the node
          model.erase(victim.pageNumber);
        }
        victim.pageNumber = wanted;
        insert(&victim);
      }
      if (step % (count < 10 ? 1 : 50) == 0) checkAll();
      if (HasFatalFailure()) return;
    }
    while (!model.empty()) remove(model.begin()->first);
  }
}

TEST_F(TreeTest, OneEntryPerKeyAndARootClearedFromOutside) {
  PageBuffer nodes[4] = {};
  constexpr std::int64_t kKeys[] = {std::numeric_limits<std::int64_t>::min(), 0, 7,
                                    std::numeric_limits<std::int64_t>::max()};
  for (int round = 0; round < 2; ++round) {
    for (int i = 0; i < 4; ++i) {
      nodes[i].pageNumber = kKeys[i];
      insert(&nodes[i]);
      insert(&nodes[i]);
    }
    PageBuffer twin = {};
    twin.pageNumber = 7;
    insert(&twin);
    EXPECT_EQ(find(7), &nodes[2]);
    remove(8);
    checkAll();
    tree->anchor.root = nullptr;
    model.clear();
    EXPECT_EQ(find(7), nullptr);
    remove(7);
    std::memset(static_cast<void*>(nodes), 0x5A, sizeof nodes);
  }
}

TEST_F(TreeTest, UnknownTreesAreRefused) {
  qz::StandInJournal journal;
  for (const qz::TreeAttributes& attributes :
       {qz::TreeAttributes{1, 20, 6, 2}, {0, 20, 6, 1}, {1, 20, 5, 1}, {1, sizeof(void*), 6, 1}}) {
    EXPECT_EQ(extension->treeCreate(extension, &attributes, &journal, "odd"), nullptr);
  }
  ASSERT_EQ(journal.entries().size(), 4U);
  EXPECT_EQ(journal.entries()[0].status, qz::hostBadParameters);
}

}  // namespace
