// The extension "qzeavl": AVL trees through the first two words of the caller's own records.
//
// A node's words are its left and right link. Bit 0 of a link tells that this side is the taller
// one, by one level; the addresses of nodes are even. A node that is in no tree may have anything
// in them. No operation allocates. A root set to null from outside empties the tree.
//
// Pages are mostly used in runs, so a search begins where the last one ended if its key belongs
// there: a finger keeps the links from the root down, each with the range of keys behind it. There
// is one for finding and inserting and one for removing, as a cache that makes room removes its
// oldest page between a find and the insert that follows it. Whoever changes what lies behind a
// link cuts the other finger off there.
#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "objects.h"

namespace qz {
namespace {

// Levels up from where the last search ended that the next one tries before the root.
constexpr std::size_t kLevelsTried = 4;

enum Side : std::size_t { left = 0, right = 1 };

struct Node {
  void* links[2];
};

std::uintptr_t bits(const void* link) { return reinterpret_cast<std::uintptr_t>(link); }

Node* target(void* link) { return std::bit_cast<Node*>(bits(link) & ~std::uintptr_t{1}); }

bool isTaller(const Node* node, std::size_t side) { return (bits(node->links[side]) & 1U) != 0; }

void setTaller(Node* node, std::size_t side, bool taller) {
  node->links[side] =
      std::bit_cast<void*>((bits(node->links[side]) & ~std::uintptr_t{1}) | (taller ? 1U : 0U));
}

// Lets a link lead to another node; its side stays as tall as it was.
void lead(void** link, const Node* node) {
  *link = std::bit_cast<void*>(bits(node) | (bits(*link) & 1U));
}

std::size_t other(std::size_t side) { return side ^ 1U; }

// The side of a node that a link of it is.
std::size_t sideOf(const Node* node, void* const* link) {
  return link == &node->links[right] ? right : left;
}

Tree* treeOf(TreeAnchor* anchor) {
  auto* tree = reinterpret_cast<char*>(anchor) - offsetof(PageTree, anchor);
  return static_cast<Tree*>(reinterpret_cast<PageTree*>(tree));
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

// Whether the first words of the tree changed hands, as when a close clears the root.
void forgetIfCleared(Tree* tree) {
  if (tree->anchor.root != nullptr) return;
  tree->search.depth = 1;
  tree->removal.depth = 1;
}

// Leads the finger to the link where the key is or would be, and returns the node there or null.
Node* seek(Tree* tree, Finger* finger, std::int64_t key) {
  forgetIfCleared(tree);
  for (std::size_t tried = 0; !finger->last().holds(key); ++tried) {
    finger->depth = tried == kLevelsTried ? 1 : finger->depth - 1;
  }
  FingerLevel at = finger->last();
  Node* node = target(*at.link);
  while (node != nullptr) {
    const std::int64_t nodeKey = keyOf(node, tree->keyOffset);
    if (nodeKey == key) break;
    // Both links are loaded beside the key: the choice need not wait for a further load.
    void* const below = node->links[left];
    void* const above = node->links[right];
    const bool isAbove = key > nodeKey;
    at.low = isAbove ? nodeKey + 1 : at.low;
    at.high = isAbove ? at.high : nodeKey - 1;
    at.link = &node->links[isAbove ? right : left];
    finger->levels[finger->depth++] = at;
    node = target(isAbove ? above : below);
  }
  return node;
}

// What lies behind the finger's link `level` was rearranged: neither finger may go on further.
void cutBelow(Finger* changed, Finger* bystander, std::size_t level) {
  changed->depth = level + 1;
  if (bystander->depth > level && bystander->levels[level].link == changed->levels[level].link) {
    bystander->depth = level + 1;
  }
}

void treeInsert(TreeAnchor* anchor, void* record) noexcept {
  Tree* tree = treeOf(anchor);
  Finger& finger = tree->search;
  auto* added = static_cast<Node*>(record);
  const std::int64_t key = keyOf(added, tree->keyOffset);
  if (seek(tree, &finger, key) != nullptr) return;
  added->links[left] = nullptr;
  added->links[right] = nullptr;
  *finger.last().link = added;  // no side that ended here was the taller one
  // Every node upwards grows by a level on its side, up to the first that was not balanced.
  for (std::size_t level = finger.depth - 1; level > 0; --level) {
    Node* node = target(*finger.levels[level - 1].link);
    const std::size_t side = sideOf(node, finger.levels[level].link);
    if (isTaller(node, other(side))) {
      setTaller(node, other(side), false);
      return;
    }
    if (isTaller(node, side)) {
      rebalance(finger.levels[level - 1].link, side);
      cutBelow(&finger, &tree->removal, level - 1);
      return;
    }
    setTaller(node, side, true);
  }
}

void* treeFind(TreeAnchor* anchor, const std::int64_t* key) noexcept {
  Tree* tree = treeOf(anchor);
  return seek(tree, &tree->search, keyAt(key));
}

// Puts the next larger node in the place of a node with two children, which the finger is at, and
// leads the finger to the link that this leaves shorter.
void replaceBySuccessor(Finger* finger, Node* node) {
  void** const place = finger->last().link;
  const std::size_t below = finger->depth;
  Node* successor = target(node->links[right]);
  finger->enter(&node->links[right]);
  while (Node* smaller = target(successor->links[left])) {
    finger->enter(&successor->links[left]);
    successor = smaller;
  }
  lead(finger->last().link, target(successor->links[right]));
  lead(place, successor);
  successor->links[left] = node->links[left];
  successor->links[right] = node->links[right];
  finger->levels[below].link = &successor->links[right];
}

// Rebalances upwards after the side behind the finger's last link has become one level shorter.
// Returns the uppermost level whose link leads to another node now, if it is above `level`.
std::size_t shorten(const Finger& finger, std::size_t changed) {
  for (std::size_t level = finger.depth - 1; level > 0; --level) {
    void** link = finger.levels[level - 1].link;
    Node* node = target(*link);
    const std::size_t side = sideOf(node, finger.levels[level].link);
    if (isTaller(node, side)) {
      setTaller(node, side, false);
    } else if (!isTaller(node, other(side))) {
      setTaller(node, other(side), true);
      break;
    } else {
      changed = std::min(changed, level - 1);
      if (!rebalance(link, other(side))) break;
    }
  }
  return changed;
}

void treeRemove(TreeAnchor* anchor, const std::int64_t* key) noexcept {
  Tree* tree = treeOf(anchor);
  Finger& finger = tree->removal;
  Node* node = seek(tree, &finger, keyAt(key));
  if (node == nullptr) return;
  const std::size_t place = finger.depth - 1;
  Node* below = target(node->links[left]);
  Node* above = target(node->links[right]);
  if (below != nullptr && above != nullptr) {
    replaceBySuccessor(&finger, node);
  } else {
    lead(finger.last().link, below != nullptr ? below : above);
  }
  cutBelow(&finger, &tree->search, shorten(finger, place));
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

Tree::Tree(HostRecords* owner, std::size_t offset)
    : PageTree{}, host(owner), keyOffset(offset), search(&anchor.root), removal(&anchor.root) {
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
