// Promises about the page tree.
#include <malloc.h>

#include <cstring>
#include <random>
#include <vector>

#include "checks.h"

namespace qz::hostcheck {
namespace {

// Like the module's record of a page buffer: the key comes after the tree's words and some words of
// the caller, on i386 at a multiple of 4.
struct Node {
  void* links[2];
  void* before[3];
  std::int64_t key;
  std::int32_t behind[4];
};

constexpr TreeAttributes kAttributes = {1, offsetof(Node, key), 6, 1};

class Tree {
 public:
  explicit Tree(const Trial& trial) {
    constexpr std::u32string_view name = U"qzeavl";
    TreeExtension* const extension = trial.host->extensionLoad(
        trial.host, name.data(), static_cast<std::uint32_t>(name.size()), trial.journal);
    needed(extension != nullptr, "the host loads no extension \"qzeavl\"");
    tree_ = extension->treeCreate(extension, &kAttributes, trial.journal, "page tree");
    needed(tree_ != nullptr, "the host makes no tree");
  }

  void insert(Node* node) { tree_->treeInsert(&tree_->anchor, node); }
  void* find(std::int64_t key) { return tree_->treeFind(&tree_->anchor, &key); }
  void remove(std::int64_t key) { tree_->treeRemove(&tree_->anchor, &key); }
  PageTree* record() const { return tree_; }

 private:
  PageTree* tree_;
};

// Nodes with even keys in random order: small, large and negative ones.
std::vector<Node> makeNodes(std::size_t count = 500) {
  std::vector<Node> nodes(count);
  std::minstd_rand random(1);
  for (std::size_t i = 0; i < count; ++i) {
    std::memset(&nodes[i], 0xC3, sizeof nodes[i]);
    const auto number = static_cast<std::int64_t>(i) - 100;
    nodes[i].key = 2 * number + (i % 7 == 0 ? std::int64_t{1} << 40 : 0);
  }
  for (std::size_t i = count; i > 1; --i) std::swap(nodes[i - 1], nodes[random() % i]);
  return nodes;
}

void insertAll(Tree& tree, std::vector<Node>& nodes) {
  for (Node& node : nodes) tree.insert(&node);
}

bool findsAll(Tree& tree, std::vector<Node>& nodes, std::size_t from = 0) {
  for (std::size_t i = from; i < nodes.size(); ++i) {
    if (tree.find(nodes[i].key) != &nodes[i]) return false;
  }
  return true;
}

void keysLeadToNodes(const Trial& trial) {
  Tree tree(trial);
  std::vector<Node> nodes = makeNodes();
  insertAll(tree, nodes);
  for (Node& node : nodes) {
    promised(tree.find(node.key) == &node,
             "treeFind of the key " + std::to_string(node.key) + " does not return its node");
    promised(tree.find(node.key + 1) == nullptr, "treeFind returns a node for a key without one");
  }
  Node twin = nodes[0];
  tree.insert(&twin);
  tree.remove(twin.key);
  promised(tree.find(twin.key) == nullptr, "a key has two entries");
  for (std::size_t i = 1; i < nodes.size(); i += 2) tree.remove(nodes[i].key);
  for (std::size_t i = 1; i < nodes.size(); ++i) {
    void* const wanted = i % 2 == 1 ? nullptr : &nodes[i];
    promised(tree.find(nodes[i].key) == wanted,
             "treeFind is wrong after every second node was removed");
  }
}

void missingKeysChangeNothing(const Trial& trial) {
  Tree tree(trial);
  std::vector<Node> nodes = makeNodes();
  insertAll(tree, nodes);
  needed(findsAll(tree, nodes), "the tree does not find what was inserted");
  for (const Node& node : nodes) {
    tree.find(node.key + 1);
    tree.remove(node.key + 1);
  }
  promised(findsAll(tree, nodes), "a node is lost after missing keys were removed");
}

void insertingTwiceChangesNothing(const Trial& trial) {
  Tree tree(trial);
  std::vector<Node> nodes = makeNodes();
  insertAll(tree, nodes);
  needed(findsAll(tree, nodes), "the tree does not find what was inserted");
  insertAll(tree, nodes);
  promised(findsAll(tree, nodes), "a node is lost after it was inserted again");
  for (const Node& node : nodes) tree.remove(node.key);
  for (const Node& node : nodes) {
    promised(tree.find(node.key) == nullptr, "a node that was inserted twice was removed once");
  }
}

// Tests what can be seen: the memory that the C library allocates.
void insertsTakeNoMemory(const Trial& trial) {
  Tree tree(trial);
  std::vector<Node> nodes = makeNodes(5000);
  const std::size_t before = mallinfo2().uordblks;
  insertAll(tree, nodes);
  const std::size_t after = mallinfo2().uordblks;
  promised(after < before + nodes.size(), "5000 inserts took " + std::to_string(after - before) +
                                              " bytes of memory from the C library");
}

// Compares the bytes that do not belong to the tree.
bool sameBehindLinks(const Node& a, const Node& b) {
  constexpr std::size_t begin = offsetof(Node, before);
  return std::memcmp(reinterpret_cast<const char*>(&a) + begin,
                     reinterpret_cast<const char*>(&b) + begin, sizeof(Node) - begin) == 0;
}

void onlyTheLinksAreWritten(const Trial& trial) {
  Tree tree(trial);
  std::vector<Node> nodes = makeNodes();
  const std::vector<Node> copies = nodes;
  insertAll(tree, nodes);
  for (std::size_t i = 0; i < nodes.size(); i += 3) tree.remove(nodes[i].key);
  for (std::size_t i = 0; i < nodes.size(); ++i) {
    promised(sameBehindLinks(nodes[i], copies[i]),
             "the tree writes past the first two words of a node");
  }
}

void scribble(Node* node) { std::memset(node, 0xA5, sizeof *node); }

bool isScribbled(const Node& node) {
  const auto* bytes = reinterpret_cast<const unsigned char*>(&node);
  for (std::size_t i = 0; i < sizeof node; ++i) {
    if (bytes[i] != 0xA5) return false;
  }
  return true;
}

void removedNodesAreLeftAlone(const Trial& trial) {
  Tree tree(trial);
  std::vector<Node> nodes = makeNodes();
  insertAll(tree, nodes);
  needed(findsAll(tree, nodes), "the tree does not find what was inserted");
  const std::size_t removed = nodes.size() / 2;
  for (std::size_t i = 0; i < removed; ++i) {
    tree.remove(nodes[i].key);
    scribble(&nodes[i]);
  }
  promised(findsAll(tree, nodes, removed), "the tree needs nodes that were removed");
  for (std::size_t i = removed; i < nodes.size(); ++i) tree.remove(nodes[i].key);
  for (std::size_t i = 0; i < removed; ++i) {
    promised(isScribbled(nodes[i]), "the tree writes to a node that was removed");
  }
}

void aNullRootIsAnEmptyTree(const Trial& trial) {
  Tree tree(trial);
  std::vector<Node> nodes = makeNodes();
  insertAll(tree, nodes);
  needed(findsAll(tree, nodes), "the tree does not find what was inserted");
  const std::int64_t key = nodes[7].key;
  tree.record()->anchor.root = nullptr;
  for (Node& node : nodes) scribble(&node);
  promised(tree.find(key) == nullptr, "a tree whose root was set to null still finds a node");
  std::vector<Node> others = makeNodes(50);
  insertAll(tree, others);
  promised(findsAll(tree, others), "a tree whose root was set to null loses later nodes");
  for (const Node& node : nodes) {
    promised(isScribbled(node), "a tree whose root was set to null writes to former nodes");
  }
}

void destroyTouchesNoNode(const Trial& trial) {
  Tree tree(trial);
  std::vector<Node> nodes = makeNodes();
  insertAll(tree, nodes);
  for (Node& node : nodes) scribble(&node);
  tree.record()->anchor.root = nullptr;
  tree.record()->destroy(tree.record());
  for (const Node& node : nodes) promised(isScribbled(node), "destroy of a tree writes to a node");
}

void guardsPair(const Trial& trial) {
  const Tree tree(trial);
  TreeGuard* const guard = tree.record()->guard;
  if (guard == nullptr) return;
  promised(guard->guardEnter != nullptr && guard->guardLeave != nullptr,
           "the guard of a tree lacks guardEnter or guardLeave");
  for (int i = 0; i < 2; ++i) {
    guard->guardEnter(guard, 1, 1);
    guard->guardLeave(guard);
  }
}

constexpr Check kChecks[] = {
    {26, "each key finds its one node", keysLeadToNodes},
    {27, "finding or removing a missing key changes nothing", missingKeysChangeNothing},
    {28, "inserting a node that is there changes nothing", insertingTwiceChangesNothing},
    {29, "an insert takes no memory", insertsTakeNoMemory},
    {30, "a tree writes only a node's first two words", onlyTheLinksAreWritten},
    {31, "a removed node is not touched", removedNodesAreLeftAlone},
    {32, "a tree whose root is null is empty", aNullRootIsAnEmptyTree},
    {33, "destroy of a tree touches no node", destroyTouchesNoNode},
    {34, "a guard can be entered and left", guardsPair},
};

}  // namespace

std::span<const Check> treeChecks() { return kChecks; }

}  // namespace qz::hostcheck
