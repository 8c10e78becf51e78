// The list moves against a deque.
#include "list.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <deque>
#include <random>

namespace qz {
namespace {

TEST(List, MovesLikeADeque) {
  std::array<BlockRecord, 5> records{};
  List<BlockRecord> list{};
  std::deque<BlockRecord*> model;
  std::mt19937 random(1);
  for (int move = 0; move < 20000; ++move) {
    BlockRecord* const record = &records.at(random() % records.size());
    const auto place = std::find(model.begin(), model.end(), record);
    if (place != model.end()) {
      unlink(list, record);
      model.erase(place);
    } else if (random() % 2 == 0) {
      pushHead(list, record);
      model.push_front(record);
    } else {
      pushTail(list, record);
      model.push_back(record);
    }
    std::deque<BlockRecord*> forward;
    std::deque<BlockRecord*> backward;
    for (BlockRecord* node = list.head; node != nullptr; node = node->next) {
      forward.push_back(node);
    }
    for (BlockRecord* node = list.tail; node != nullptr; node = node->prev) {
      backward.push_front(node);
    }
    ASSERT_TRUE(forward == model && backward == model) << "move " << move;
  }
}

}  // namespace
}  // namespace qz
