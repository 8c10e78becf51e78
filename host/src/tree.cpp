// The extension "qzeavl": AVL trees through the first two words of the caller's own records.
//
// A node's words are its left and right link. Bit 0 of a link tells that this side is the taller
// one, by one level; the addresses of nodes are even. A node that is in no tree may have anything
// in them. No operation allocates, and nothing is kept but the root, so that a root set to null
// empties the tree.
#include <array>
#include <cstring>
#include <new>

#include "objects.h"

namespace qz {
namespace {

// Enough for any tree that fits an address space: an AVL tree of this height has 2^44 nodes.
constexpr std::size_t kMostLevels = 64;

enum Side : std::size_t { left = 0, right = 1 };

struct Node {
  void* links[2];
};

std::uintptr_t bits(const void* link) { return reinterpret_cast<std::uintptr_t>(link); }

Node* target(void* link) { return reinterpret_cast<Node*>(bits(link) & ~std::uintptr_t{1}); }

bool isTaller(const Node* node, std::size_t side) { return (bits(node->links[side]) & 1U) != 0; }

void setTaller(Node* node, std::size_t side, bool taller) {
  node->links[side] =
      reinterpret_cast<void*>((bits(node->links[side]) & ~std::uintptr_t{1}) | (taller ? 1U : 0U));
}

// Lets a link lead to another node; its side stays as tall as it was.
void lead(void** link, const Node* node) {
  *link = reinterpret_cast<void*>(bits(node) | (bits(*link) & 1U));
}

std::size_t other(std::size_t side) { return side ^ 1U; }

Tree& treeOf(TreeAnchor* anchor) {
  auto* tree = reinterpret_cast<char*>(anchor) - offsetof(PageTree, anchor);
  return *static_cast<Tree*>(reinterpret_cast<PageTree*>(tree));
}

std::int64_t keyAt(const void* place) {
  std::int64_t key = 0;
  std::memcpy(&key, place, sizeof key);  // i386 aligns it to 4 bytes only
  return key;
}

std::int64_t keyOf(const Node* node, std::size_t keyOffset) {
  return keyAt(reinterpret_cast<const char*>(node) + keyOffset);
}

// Moves the child on `side` of the node behind `link` into its place.
Node* rotate(void** link, std::size_t side) {
  Node* node = target(*link);
  Node* child = target(node->links[side]);
  lead(&node->links[side], target(child->links[other(side)]));
  lead(&child->links[other(side)], node);
  lead(link, child);
  return child;
}

// Rebalances below `link`, whose node is two levels taller on `side`. True: the whole is one level
// shorter than it was with the two levels.
bool rebalance(void** link, std::size_t side) {
  Node* node = target(*link);
  Node* child = target(node->links[side]);
  if (isTaller(child, other(side))) {
    Node* grandchild = target(child->links[other(side)]);
    const bool outerShort = isTaller(grandchild, other(side));
    const bool innerShort = isTaller(grandchild, side);
    setTaller(node, side, false);
    setTaller(child, other(side), false);
    rotate(&node->links[side], other(side));
    rotate(link, side);
    setTaller(node, side, false);
    setTaller(node, other(side), innerShort);
    setTaller(child, side, outerShort);
    setTaller(grandchild, left, false);
    setTaller(grandchild, right, false);
    return true;
  }
  const bool shortens = isTaller(child, side);
  rotate(link, side);
  setTaller(node, side, !shortens);
  setTaller(child, side, false);
  setTaller(child, other(side), !shortens);
  return shortens;
}

void treeInsert(TreeAnchor* anchor, void* record) noexcept {
  const std::size_t keyOffset = treeOf(anchor).keyOffset;
  auto* added = static_cast<Node*>(record);
  const std::int64_t key = keyOf(added, keyOffset);
  void** link = &anchor->root;
  void** growing = link;  // to the last node on the way that is not balanced, else to the root
  while (Node* node = target(*link)) {
    const std::int64_t nodeKey = keyOf(node, keyOffset);
    if (nodeKey == key) return;
    if (((bits(node->links[left]) | bits(node->links[right])) & 1U) != 0) growing = link;
    link = &node->links[key > nodeKey ? right : left];
  }
  added->links[left] = nullptr;
  added->links[right] = nullptr;
  *link = added;  // no side that ended here was the taller one
  Node* top = target(*growing);
  if (top == added) return;
  const std::size_t side = key > keyOf(top, keyOffset) ? right : left;
  for (Node* node = target(top->links[side]); node != added;) {
    const std::size_t grown = key > keyOf(node, keyOffset) ? right : left;
    setTaller(node, grown, true);
    node = target(node->links[grown]);
  }
  if (isTaller(top, other(side))) {
    setTaller(top, other(side), false);
  } else if (!isTaller(top, side)) {
    setTaller(top, side, true);
  } else {
    rebalance(growing, side);
  }
}

void* treeFind(TreeAnchor* anchor, const std::int64_t* key) noexcept {
  const std::size_t keyOffset = treeOf(anchor).keyOffset;
  const std::int64_t wanted = keyAt(key);
  Node* node = target(anchor->root);
  while (node != nullptr) {
    const std::int64_t nodeKey = keyOf(node, keyOffset);
    if (nodeKey == wanted) return node;
    // Both links are loaded beside the key: the choice need not wait for a further load.
    void* const below = node->links[left];
    void* const above = node->links[right];
    node = target(wanted > nodeKey ? above : below);
  }
  return nullptr;
}

// The links from the root down to a node that is to go.
struct Path {
  std::array<void**, kMostLevels> links;
  std::size_t depth = 0;

  void enter(void** link) { links[depth++] = link; }
  void** last() const { return links[depth - 1]; }
};

// Puts the next larger node in the place of a node with two children, so that the path ends at a
// node with at most one.
void replaceBySuccessor(Path* path, Node* node) {
  const std::size_t place = path->depth;
  Node* successor = target(node->links[right]);
  path->enter(&node->links[right]);
  while (Node* smaller = target(successor->links[left])) {
    path->enter(&successor->links[left]);
    successor = smaller;
  }
  lead(path->last(), target(successor->links[right]));
  lead(path->links[place - 1], successor);
  successor->links[left] = node->links[left];
  successor->links[right] = node->links[right];
  path->links[place] = &successor->links[right];
}

// Rebalances upwards after the side behind the path's last link has become one level shorter.
void shorten(const Path& path) {
  for (std::size_t level = path.depth - 1; level > 0; --level) {
    Node* node = target(*path.links[level - 1]);
    const std::size_t side = path.links[level] == &node->links[right] ? right : left;
    if (isTaller(node, side)) {
      setTaller(node, side, false);
    } else if (!isTaller(node, other(side))) {
      setTaller(node, other(side), true);
      return;
    } else if (!rebalance(path.links[level - 1], other(side))) {
      return;
    }
  }
}

void treeRemove(TreeAnchor* anchor, const std::int64_t* key) noexcept {
  const std::size_t keyOffset = treeOf(anchor).keyOffset;
  const std::int64_t wanted = keyAt(key);
  Path path;
  path.enter(&anchor->root);
  Node* node = target(anchor->root);
  while (node != nullptr) {
    const std::int64_t nodeKey = keyOf(node, keyOffset);
    if (nodeKey == wanted) break;
    path.enter(&node->links[wanted > nodeKey ? right : left]);
    node = target(*path.last());
  }
  if (node == nullptr) return;
  Node* below = target(node->links[left]);
  Node* above = target(node->links[right]);
  if (below != nullptr && above != nullptr) {
    replaceBySuccessor(&path, node);
  } else {
    lead(path.last(), below != nullptr ? below : above);
  }
  shorten(path);
}

HostStatus destroyTree(PageTree* self) noexcept {
  auto* tree = static_cast<Tree*>(self);
  tree->host->trees.remove(tree);
  return hostOk;
}

HostStatus destroyExtension(TreeExtension* self) noexcept {
  auto* extension = static_cast<AvlExtension*>(self);
  extension->host->extensions.remove(extension);
  return hostOk;
}

PageTree* createTree(TreeExtension* self, const TreeAttributes* attributes, Journal* journal,
                     const char* /*name*/) noexcept try {
  const bool known = attributes->first == 1 && attributes->third == 6 && attributes->fourth == 1;
  if (!known || attributes->keyOffset < sizeof(Node)) {
    journalStatus(journal, hostBadParameters);
    return nullptr;
  }
  HostRecords* host = static_cast<AvlExtension*>(self)->host;
  return host->trees.add(std::make_unique<Tree>(host, attributes->keyOffset));
} catch (const std::bad_alloc&) {
  journalStatus(journal, hostNoMemory);
  return nullptr;
}

}  // namespace

Tree::Tree(HostRecords* owner, std::size_t offset) : PageTree{}, host(owner), keyOffset(offset) {
  PageTree::destroy = destroyTree;
  PageTree::treeInsert = qz::treeInsert;
  PageTree::treeFind = qz::treeFind;
  PageTree::treeRemove = qz::treeRemove;
}

AvlExtension::AvlExtension(HostRecords* owner) : TreeExtension{}, host(owner) {
  TreeExtension::destroy = destroyExtension;
  TreeExtension::treeCreate = createTree;
}

TreeExtension* loadExtension(QZHandle* host, const char32_t* name, std::uint32_t nameLength,
                             Journal* journal) noexcept try {
  if (name == nullptr || std::u32string_view(name, nameLength) != U"qzeavl") {
    journalStatus(journal, hostNoSuchExtension);
    return nullptr;
  }
  auto* records = static_cast<HostRecords*>(host);
  return records->extensions.add(std::make_unique<AvlExtension>(records));
} catch (const std::bad_alloc&) {
  journalStatus(journal, hostNoMemory);
  return nullptr;
}

}  // namespace qz
