// The host's objects: each is a record of the host interface, followed by this host's own data. The
// slots get the record's address and find that data after it.
#pragma once

#include <sys/single_threaded.h>

#include <algorithm>
#include <limits>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "blockstore.h"
#include "qzstandin.h"

namespace qz {

struct HostRecords;

// Locks the mutex, unless the process has only ever had one thread: uncontended locks would
// otherwise take most of the host's time to open a file.
inline std::unique_lock<std::mutex> lockUnlessAlone(std::mutex& mutex) {
  std::unique_lock lock(mutex, std::defer_lock);
  if (__libc_single_threaded == 0) lock.lock();
  return lock;
}

// All objects of one kind that the host has created and not destroyed yet. Those left over are
// destroyed with the host.
template <class Object>
class Registry {
 public:
  // May throw std::bad_alloc.
  Object* add(std::unique_ptr<Object> object) {
    const auto lock = lockUnlessAlone(mutex_);
    objects_.push_back(std::move(object));
    return objects_.back().get();
  }
  // Destroys the object.
  void remove(const Object* object) noexcept {
    std::unique_ptr<Object> gone;  // destroyed outside the lock
    const auto lock = lockUnlessAlone(mutex_);
    const auto place = std::find_if(objects_.begin(), objects_.end(),
                                    [&](const auto& owned) { return owned.get() == object; });
    if (place == objects_.end()) return;
    gone = std::move(*place);
    objects_.erase(place);
  }
  std::size_t size() const {
    const auto lock = lockUnlessAlone(mutex_);
    return objects_.size();
  }
  // Calls visit(object) for each object, the newest last.
  template <class Visit>
  void each(Visit visit) const {
    const auto lock = lockUnlessAlone(mutex_);
    for (const auto& object : objects_) visit(*object);
  }

 private:
  mutable std::mutex mutex_;
  std::vector<std::unique_ptr<Object>> objects_;
};

// Blocks of any size from one store, counted. Safe to use from several threads.
struct Pool : MemoryPool {
  Pool(HostRecords* host, const char* poolName);

  HostRecords* host;
  std::string name;
  mutable std::mutex mutex;  // protects the members below
  BlockStore store;
  PoolCounts counts;
};

// The first two words of a record in a page tree, or the tree's anchor, whose left link is the
// root.
struct TreeNode {
  void* links[2];
};

// A link of a page tree: its node and the side of it.
struct FingerLevel {
  TreeNode* node;
  std::size_t side;

  void*& link() const { return node->links[side]; }
  bool operator==(const FingerLevel& level) const = default;
};

// The links from a tree's root down to the one at which the last search ended, and the lowest and
// the highest of a range of keys that belong below that link.
struct Finger {
  // An AVL tree of this height has more nodes than fit into an address space.
  static constexpr std::size_t kMostLevels = 64;
  using Key = std::numeric_limits<std::int64_t>;

  explicit Finger(TreeAnchor* anchor) { levels[0] = {reinterpret_cast<TreeNode*>(anchor), 0}; }
  Finger(const Finger&) = delete;
  Finger& operator=(const Finger&) = delete;

  void reset() {
    last = levels;
    bounds[0] = Key::min();
    bounds[1] = Key::max();
  }
  void enter(const FingerLevel& level) { *++last = level; }
  // Inserts a level before one that is below the root.
  void insert(FingerLevel* place, const FingerLevel& level) {
    std::copy_backward(place, last + 1, last + 2);
    *place = level;
    ++last;
  }
  void remove(FingerLevel* place) {
    std::copy(place + 1, last + 1, place);
    --last;
  }

  FingerLevel* last = levels;
  std::int64_t bounds[2] = {Key::min(), Key::max()};
  FingerLevel levels[kMostLevels];
};

// A page tree and the offset of the key in a node. It begins on its own cache line, because other
// threads use the trees of other files.
struct alignas(64) Tree : PageTree {
  Tree(HostRecords* host, std::size_t keyOffset);

  HostRecords* host;
  std::size_t keyOffset;
  Finger search;   // for treeFind and treeInsert
  Finger removal;  // for treeRemove
};

struct AvlExtension : TreeExtension {
  explicit AvlExtension(HostRecords* host);

  HostRecords* host;
};

struct Utf8Converter : Converter {
  explicit Utf8Converter(HostRecords* host);

  HostRecords* host;
};

enum class Lock { none, shared, exclusive };

struct OpenFile : HostFile {
  explicit OpenFile(HostRecords* host);
  OpenFile(const OpenFile&) = delete;
  OpenFile& operator=(const OpenFile&) = delete;
  ~OpenFile();

  HostRecords* host;
  std::u32string name;  // as given
  std::string path;     // as the system takes it
  FileInfo info = {-1, 0};
  Lock lock = Lock::none;  // held by the descriptor
};

struct Files : FileService {
  explicit Files(HostRecords* host);

  HostRecords* host;
  FileMethods methods = {};
};

struct Encodings : EncodingServices {
  explicit Encodings(HostRecords* host);

  HostRecords* host;
};

// The toolkit's handle and everything it reaches.
struct HostRecords : QZHandle {
  explicit HostRecords(const StandInOptions& options);

  std::optional<std::int32_t> hostPageSize;
  StandInJournal journal;
  Task current = {};
  Task main = {};
  Files files;
  Encodings encodings;

  std::mutex retiredMutex;
  std::map<std::string, PoolCounts, std::less<>> retiredPools;  // counts of destroyed pools

  Registry<Pool> pools;
  Registry<AvlExtension> extensions;
  Registry<Tree> trees;
  Registry<Utf8Converter> converters;
  Registry<OpenFile> openFiles;
};

// The encoding identifier of UTF-8: its name in ASCII.
inline constexpr Word kUtf8Encoding = 0x55544638;

// Journals a status of this host at error level; nothing with a null journal.
void journalStatus(Journal* journal, HostStatus status, ...) noexcept;

// Journals a failure that names a file and the system's reason; nothing with a null journal.
void journalFileFailure(Journal* journal, HostStatus status, std::u32string_view fileName,
                        int errorNumber) noexcept;

// The slots of the toolkit's handle that create objects.
MemoryPool* createPool(QZHandle* host, const PoolAttributes* attributes, Journal* journal,
                       const char* name) noexcept;
TreeExtension* loadExtension(QZHandle* host, const char32_t* name, std::uint32_t nameLength,
                             Journal* journal) noexcept;

}  // namespace qz
