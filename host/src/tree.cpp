// The extension "qzeavl": AVL trees linked through the first two words of the caller's own records.
//
// These words of a node are its left and right link. Bit 0 of a link is set if that side is taller,
// by one level; the addresses of nodes are even. In a node that is in no tree the words can have
// any value. No operation allocates. If the caller sets the root to null, the tree is empty.
//
// Pages are mostly used in runs, so a search begins where the last one ended if its key belongs
// there: a finger keeps the links from the root down, each with the range of keys below it. There
// is one finger for finding and inserting and one for removing, because a cache that needs room
// removes its oldest page between a find and the insert that follows it. A rotation updates the
// finger whose search led to it, so that the next key of a run is found one step further; the other
// finger is cut off at the link where the rotation was.
#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "objects.h"

namespace qz {
namespace {

// How many levels above the end of the last search the next one tries before it starts at the root.
constexpr std::size_t kLevelsTried = 4;

enum Side : std::size_t { left = 0, right = 1 };

struct Node {
  void* links[2];
};

std::uintptr_t bits(const void* link) { return reinterpret_cast<std::uintptr_t>(link); }

Node* target(void* link) { return std::bit_cast<Node*>(bits(link) & ~std::uintptr_t{1}); }

bool isTaller(const void* link) { return (bits(link) & 1U) != 0; }

// A link to a node or to null, with the bit for a taller side.
void* linkTo(const Node* node, bool taller) {
  return std::bit_cast<void*>(bits(node) | (taller ? 1U : 0U));
}

void setTaller(void** link, bool taller) { *link = linkTo(target(*link), taller); }

// Makes a link point to another node and keeps its bit for a taller side.
void lead(void** link, const Node* node) {
  *link = std::bit_cast<void*>(bits(node) | (bits(*link) & 1U));
}

std::size_t other(std::size_t side) { return side ^ 1U; }

// The side of the node on which its link `link` is.
std::size_t sideOf(const Node* node, void* const* link) {
  return link == &node->links[right] ? right : left;
}

// The other link of the node that `link` is part of.
void** opposite(Node* node, void* const* link) {
  return link == &node->links[left] ? &node->links[right] : &node->links[left];
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

// Rebalances the subtree at `link`, whose node is two levels taller on `side`, by a single or
// double rotation. True: the subtree is one level shorter than before the rotation.
[[gnu::always_inline]] inline bool rebalance(void** link, std::size_t side) {
  Node* node = target(*link);
  Node* child = target(node->links[side]);
  const std::size_t inner = other(side);
  if (isTaller(child->links[inner])) {
    Node* top = target(child->links[inner]);
    child->links[inner] = target(top->links[side]);
    node->links[side] = target(top->links[inner]);
    if (isTaller(top->links[inner])) setTaller(&child->links[side], true);
    if (isTaller(top->links[side])) setTaller(&node->links[inner], true);
    top->links[side] = child;
    top->links[inner] = node;
    lead(link, top);
    return true;
  }
  const bool shortens = isTaller(child->links[side]);
  node->links[side] = linkTo(target(child->links[inner]), !shortens);
  child->links[inner] = linkTo(node, !shortens);
  child->links[side] = target(child->links[side]);
  lead(link, child);
  return shortens;
}

// The part of a link's key range that is below its node's link on `side`.
FingerLevel levelBelow(const FingerLevel& level, Node* node, std::int64_t nodeKey,
                       std::size_t side) {
  if (side == left) return {&node->links[left], {level.bounds[0], nodeKey - 1}};
  return {&node->links[right], {nodeKey + 1, level.bounds[1]}};
}

// Resets the fingers if the caller set the root to null, which empties the tree.
void forgetIfCleared(Tree* tree) {
  if (tree->anchor.root != nullptr) return;
  tree->search.last = tree->search.levels;
  tree->removal.last = tree->removal.levels;
}

// Moves the finger from the node at its last link down to where the key is or would be. In a long
// search the side is random, so a branch would be mispredicted at every other node; the loop has
// none. A cache miss costs most: both nodes that may come next are prefetched.
Node* descend(Finger* finger, Node* node, std::int64_t key, std::size_t keyOffset) {
  FingerLevel* at = finger->last;
  while (node != nullptr) {
    const std::int64_t nodeKey = keyOf(node, keyOffset);
    if (nodeKey == key) break;
    __builtin_prefetch(target(node->links[left]));
    __builtin_prefetch(target(node->links[right]));
    const std::size_t side = key > nodeKey ? right : left;
    at[1] = {&node->links[side], {at->bounds[0], at->bounds[1]}};
    ++at;
    // An index selects the bound: masks take more instructions, especially on a 32-bit machine.
    at->bounds[other(side)] = nodeKey + (2 * static_cast<std::int64_t>(side) - 1);
    node = target(*at->link);
  }
  finger->last = at;
  return node;
}

// Moves the finger to the link where the key is or would be, and returns the node there or null.
[[gnu::always_inline]] inline Node* seek(Tree* tree, Finger* finger, std::int64_t key) {
  forgetIfCleared(tree);
  for (std::size_t tried = 0; !finger->last->holds(key); ++tried) {
    finger->last = tried == kLevelsTried ? finger->levels : finger->last - 1;
  }
  // In a run of pages the search ends here or one level further down.
  Node* node = target(*finger->last->link);
  if (node == nullptr) return nullptr;
  const std::int64_t nodeKey = keyOf(node, tree->keyOffset);
  if (nodeKey == key) return node;
  finger->enter(levelBelow(*finger->last, node, nodeKey, key > nodeKey ? right : left));
  node = target(*finger->last->link);
  return node == nullptr ? nullptr : descend(finger, node, key, tree->keyOffset);
}

// The subtree at the link of `level` was rearranged: cuts the other finger off there.
void cutBystander(Finger* bystander, const Finger& changed, const FingerLevel* level) {
  FingerLevel* same = bystander->levels + (level - changed.levels);
  if (same < bystander->last && same->link == level->link) bystander->last = same;
}

// Rotates the node at the link of `level`, which an insert made too tall on `side`.
void rebalanceInserted(Tree* tree, FingerLevel* level, std::size_t side) {
  Finger& finger = tree->search;
  rebalance(level->link, side);
  cutBystander(&tree->removal, finger, level);
  Node* top = target(*level->link);
  if (level[2].link == &top->links[side]) {
    // A single rotation: the child moved up one level, with everything that the finger has below
    // it.
    finger.remove(level + 1);
  } else {
    finger.last = level;
  }
}

void treeInsert(TreeAnchor* anchor, void* record) noexcept {
  Tree* tree = treeOf(anchor);
  Finger& finger = tree->search;
  auto* added = static_cast<Node*>(record);
  if (seek(tree, &finger, keyOf(added, tree->keyOffset)) != nullptr) return;
  added->links[left] = nullptr;
  added->links[right] = nullptr;
  *finger.last->link = added;  // an empty side is never the taller one
  // Each node above becomes one level taller on that side, up to the first one that was not
  // balanced.
  for (FingerLevel* level = finger.last; level != finger.levels; --level) {
    Node* node = target(*level[-1].link);
    void** const across = opposite(node, level->link);
    if (isTaller(*across)) {
      setTaller(across, false);
      return;
    }
    if (isTaller(*level->link)) {
      rebalanceInserted(tree, level - 1, sideOf(node, level->link));
      return;
    }
    setTaller(level->link, true);
  }
}

void* treeFind(TreeAnchor* anchor, const std::int64_t* key) noexcept {
  Tree* tree = treeOf(anchor);
  const std::int64_t wanted = keyAt(key);
  // The page of the previous search, which a write or another read asks for, needs no bounds.
  if (Node* same = tree->anchor.root == nullptr ? nullptr : target(*tree->search.last->link);
      same != nullptr && keyOf(same, tree->keyOffset) == wanted) {
    return same;
  }
  return seek(tree, &tree->search, wanted);
}

// The side of a node with two children from which its neighbour replaces it when it is removed: the
// side where the last search found room for a key. When a run of new pages replaces the run before
// it, both operations then change only leaves. From the other side, the next page to be removed
// would move up here each time, and every search for its neighbours would pass the whole height
// below it.
std::size_t sideOfNeighbour(const Finger& search, const Finger& removal, const Node* node) {
  const FingerLevel* same = search.levels + (removal.last - removal.levels);
  const bool passes = same < search.last && same->link == removal.last->link;
  return passes && same[1].link == &node->links[left] ? left : right;
}

// Replaces the node with two children at the finger's last link by its neighbour on that side, and
// moves the finger to the link that becomes shorter. The levels that it adds have no range of keys.
void replaceByNeighbour(Finger* finger, Node* node, std::size_t side) {
  FingerLevel* const place = finger->last;
  Node* neighbour = target(node->links[side]);
  finger->enter({&node->links[side], {}});
  while (Node* nearer = target(neighbour->links[other(side)])) {
    finger->enter({&neighbour->links[other(side)], {}});
    neighbour = nearer;
  }
  lead(finger->last->link, target(neighbour->links[side]));
  lead(place->link, neighbour);
  neighbour->links[left] = node->links[left];
  neighbour->links[right] = node->links[right];
  place[1].link = &neighbour->links[side];
}

// Rebalances upwards after the subtree at the finger's last link has become one level shorter. The
// finger still leads to it. Returns the uppermost level whose link now points to another node, if
// it is above `changed`.
FingerLevel* shorten(Finger* finger, std::size_t keyOffset, FingerLevel* changed) {
  for (FingerLevel* level = finger->last; level != finger->levels; --level) {
    const FingerLevel& above = level[-1];
    Node* node = target(*above.link);
    void** const across = opposite(node, level->link);
    if (isTaller(*level->link)) {
      setTaller(level->link, false);
    } else if (!isTaller(*across)) {
      setTaller(across, true);
      break;
    } else {
      const std::size_t side = sideOf(node, level->link);
      changed = std::min(changed, level - 1);
      const bool shorter = rebalance(above.link, other(side));
      Node* top = target(*above.link);  // now between the link and the node
      finger->insert(level, levelBelow(above, top, keyOf(top, keyOffset), side));
      if (!shorter) break;
    }
  }
  return changed;
}

void treeRemove(TreeAnchor* anchor, const std::int64_t* key) noexcept {
  Tree* tree = treeOf(anchor);
  Finger& finger = tree->removal;
  Node* node = seek(tree, &finger, keyAt(key));
  if (node == nullptr) return;
  FingerLevel* const place = finger.last;
  Node* below = target(node->links[left]);
  Node* above = target(node->links[right]);
  const bool hasBoth = below != nullptr && above != nullptr;
  if (hasBoth) {
    replaceByNeighbour(&finger, node, sideOfNeighbour(tree->search, finger, node));
  } else {
    lead(place->link, below != nullptr ? below : above);
  }
  FingerLevel* const changed = shorten(&finger, tree->keyOffset, place);
  cutBystander(&tree->search, finger, changed);
  if (hasBoth) finger.last = changed;
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
