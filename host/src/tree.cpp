// The extension "qzeavl": AVL trees linked through the first two words of the caller's own records.
//
// These words of a node are its left and right link. Bit 0 of a link is set if that side is taller,
// by one level; the addresses of nodes are even. In a node that is in no tree the words can have
// any value. No operation allocates. If the caller sets the root to null, the tree is empty.
//
// Pages are mostly used in runs, so a search begins where the last one ended if its key belongs
// there: a finger keeps the links from the root down and a range of keys below the last of them.
// There is one finger for finding and inserting and one for removing, because a cache that needs
// room removes its oldest page between a find and the insert that follows it. A rotation updates
// the finger whose search led to it, so that the next key of a run is found one step further; the
// other finger is cut off at the link where the rotation was.
#include <algorithm>
#include <bit>
#include <cstring>
#include <new>

#include "objects.h"

namespace qz {
namespace {

// How many levels above the end of the last search the next one tries before it starts at the root.
constexpr std::size_t kLevelsTried = 2;

enum Side : std::size_t { left = 0, right = 1 };

using Node = TreeNode;

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

// Forgets what the tree remembers if the caller set the root to null, which empties the tree.
void forgetIfCleared(Tree* tree) {
  if (tree->anchor.root != nullptr) return;
  tree->search.reset();
  tree->removal.reset();
}

// Moves the finger up to a link below which the key belongs. The key is beyond the bound on `side`,
// which comes from a node whose other side the finger leads to. The levels keep no bounds of their
// own: that would take longer at each step down than reading a few keys here does.
[[gnu::noinline]] void climb(Finger* finger, std::int64_t key, std::size_t side,
                             std::size_t keyOffset) {
  FingerLevel* at = finger->last;
  for (std::size_t tried = 0; tried != kLevelsTried && at != finger->levels; ++tried, --at) {
    if (at->side == side) continue;
    const std::int64_t nodeKey = keyOf(at->node, keyOffset);
    if (nodeKey == key) {
      finger->bounds[side] = key;
      finger->last = at - 1;
      return;
    }
    if ((nodeKey < key) == (side == left)) {
      finger->bounds[side] = side == left ? nodeKey + 1 : nodeKey - 1;
      finger->last = at;
      return;
    }
  }
  finger->reset();
}

// Moves the finger to the link where the key is or would be, and returns the node there or null.
// In a long search the side is random, so a branch would be mispredicted at every other node; the
// loop has none. A cache miss costs most: both nodes that may come next are prefetched.
[[gnu::always_inline]] inline Node* seek(Tree* tree, Finger* finger, std::int64_t key) {
  const std::size_t keyOffset = tree->keyOffset;
  if (key < finger->bounds[left]) {
    climb(finger, key, left, keyOffset);
  } else if (key > finger->bounds[right]) {
    climb(finger, key, right, keyOffset);
  }
  FingerLevel* at = finger->last;
  Node* node = target(at->link());
  while (node != nullptr) {
    const std::int64_t nodeKey = keyOf(node, keyOffset);
    if (nodeKey == key) break;
    __builtin_prefetch(node->links[left]);
    __builtin_prefetch(node->links[right]);
    const std::size_t side = key > nodeKey ? right : left;
    *++at = {node, side};
    // An index selects the bound: masks take more instructions, especially on a 32-bit machine.
    finger->bounds[other(side)] = nodeKey + (2 * static_cast<std::int64_t>(side) - 1);
    node = target(node->links[side]);
  }
  finger->last = at;
  return node;
}

// The subtree at the link of `level` was rearranged: cuts the other finger off there.
void cutBystander(Finger* bystander, const Finger& changed, const FingerLevel* level) {
  FingerLevel* same = bystander->levels + (level - changed.levels);
  if (same < bystander->last && *same == *level) bystander->last = same;
}

// Rotates the node of `level`, which an insert made too tall on that side.
[[gnu::noinline]] void rebalanceInserted(Tree* tree, FingerLevel* level) {
  Finger& finger = tree->search;
  const std::size_t side = level->side;
  FingerLevel* const above = level - 1;
  rebalance(&above->link(), side);
  cutBystander(&tree->removal, finger, above);
  if (level[1].side == side) {
    // A single rotation: the child moved up one level, with everything that the finger has below
    // it.
    finger.remove(level);
  } else {
    finger.last = above;
  }
}

void treeInsert(TreeAnchor* anchor, void* record) noexcept {
  Tree* tree = treeOf(anchor);
  Finger& finger = tree->search;
  auto* added = static_cast<Node*>(record);
  forgetIfCleared(tree);
  if (seek(tree, &finger, keyOf(added, tree->keyOffset)) != nullptr) return;
  added->links[left] = nullptr;
  added->links[right] = nullptr;
  finger.last->link() = added;  // an empty side is never the taller one
  // Each node above becomes one level taller on that side, up to the first one that was not
  // balanced.
  for (FingerLevel* level = finger.last; level != finger.levels; --level) {
    if (isTaller(level->node->links[other(level->side)])) {
      setTaller(&level->node->links[other(level->side)], false);
      return;
    }
    if (isTaller(level->link())) {
      rebalanceInserted(tree, level);
      return;
    }
    setTaller(&level->link(), true);
  }
}

// Not part of treeFind, which can then answer from the last search without saving registers.
[[gnu::noinline]] Node* findAnew(Tree* tree, std::int64_t key) {
  return seek(tree, &tree->search, key);
}

void* treeFind(TreeAnchor* anchor, const std::int64_t* key) noexcept {
  Tree* tree = treeOf(anchor);
  if (anchor->root == nullptr) return nullptr;
  const std::int64_t wanted = keyAt(key);
  // The page of the previous search, which a write or another read asks for, needs no bounds.
  if (Node* same = target(tree->search.last->link());
      same != nullptr && keyOf(same, tree->keyOffset) == wanted) {
    return same;
  }
  return findAnew(tree, wanted);
}

// The side of a node with two children from which its neighbour replaces it when it is removed: the
// side where the last search found room for a key. When a run of new pages replaces the run before
// it, both operations then change only leaves. From the other side, the next page to be removed
// would move up here each time, and every search for its neighbours would pass the whole height
// below it.
std::size_t sideOfNeighbour(const Finger& search, const Finger& removal, const Node* node) {
  const FingerLevel* below = search.levels + (removal.last - removal.levels) + 1;
  return below <= search.last && below->node == node ? below->side : right;
}

// Replaces the node with two children at the finger's last link by its neighbour on that side, and
// moves the finger to the link that becomes shorter.
void replaceByNeighbour(Finger* finger, Node* node, std::size_t side) {
  FingerLevel* const place = finger->last;
  Node* neighbour = target(node->links[side]);
  finger->enter({node, side});
  while (Node* nearer = target(neighbour->links[other(side)])) {
    finger->enter({neighbour, other(side)});
    neighbour = nearer;
  }
  lead(&finger->last->link(), target(neighbour->links[side]));
  lead(&place->link(), neighbour);
  neighbour->links[left] = node->links[left];
  neighbour->links[right] = node->links[right];
  place[1].node = neighbour;
}

// Rebalances upwards after the subtree at the finger's last link has become one level shorter. The
// finger still leads to it. Returns the uppermost level whose link now points to another node, if
// it is above `changed`.
FingerLevel* shorten(Finger* finger, FingerLevel* changed) {
  for (FingerLevel* level = finger->last; level != finger->levels; --level) {
    Node* node = level->node;
    const std::size_t side = level->side;
    void** const across = &node->links[other(side)];
    if (isTaller(node->links[side])) {
      setTaller(&node->links[side], false);
    } else if (!isTaller(*across)) {
      setTaller(across, true);
      break;
    } else {
      FingerLevel* const above = level - 1;
      changed = std::min(changed, above);
      const bool shorter = rebalance(&above->link(), other(side));
      finger->insert(level, {target(above->link()), side});  // now between the link and the node
      if (!shorter) break;
    }
  }
  return changed;
}

void treeRemove(TreeAnchor* anchor, const std::int64_t* key) noexcept {
  Tree* tree = treeOf(anchor);
  Finger& finger = tree->removal;
  forgetIfCleared(tree);
  Node* node = seek(tree, &finger, keyAt(key));
  if (node == nullptr) return;
  FingerLevel* const place = finger.last;
  Node* below = target(node->links[left]);
  Node* above = target(node->links[right]);
  const bool hasBoth = below != nullptr && above != nullptr;
  if (hasBoth) {
    replaceByNeighbour(&finger, node, sideOfNeighbour(tree->search, finger, node));
  } else {
    lead(&place->link(), below != nullptr ? below : above);
  }
  FingerLevel* const changed = shorten(&finger, place);
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
    : PageTree{}, host(owner), keyOffset(offset), search(&anchor), removal(&anchor) {
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
