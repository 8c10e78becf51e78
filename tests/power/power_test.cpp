// Power cuts at any point of a command. Each write since the last flush of its file may then be on
// disk, lost or torn; changes of names reach the disk in their order. With every such state of the
// disk the file must have its old or its new contents, at once or after a repair.
//
// QZIOP_POWER_STATES: how many states to try for each moment between two flushes (default 24).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <set>

#include "power/commands.h"

namespace qztest {
namespace {

int statesPerMoment() {
  const char* const text = std::getenv("QZIOP_POWER_STATES");  // NOLINT(concurrency-mt-unsafe)
  return text == nullptr ? 24 : std::atoi(text);               // NOLINT(cert-err34-c)
}

// What of a write is on disk.
enum class Fate { lost, kept, firstHalf, secondHalf };

std::string baseName(const std::string& path) { return path.substr(path.rfind('/') + 1); }

// The names and contents of a disk.
class Disk {
 public:
  Disk(const Folder& before, const std::map<std::uint64_t, std::string>& inodes) {
    for (const auto& [inode, name] : inodes) {
      names_[name] = inode;
      contents_[inode] = before.at(name);
    }
  }

  void carryOut(const Event& event, Fate fate) {
    if (fate == Fate::lost) return;
    if (event.is(What::nameAdded)) names_[baseName(event.data)] = event.record.inode;
    if (event.is(What::nameRemoved)) names_.erase(baseName(event.data));
    Bytes& file = contents_[event.record.inode];
    if (event.is(What::resized)) file.resize(static_cast<std::size_t>(event.record.offset));
    if (event.is(What::written)) write(file, event, fate);
  }

  Folder folder() const {
    Folder files;
    for (const auto& [name, inode] : names_) {
      const auto found = contents_.find(inode);
      files[name] = found == contents_.end() ? Bytes() : found->second;
    }
    return files;
  }

 private:
  // A torn write changes one half of its bytes; the others stay as they were.
  static void write(Bytes& file, const Event& event, Fate fate) {
    const auto at = static_cast<std::size_t>(event.record.offset);
    const std::size_t half = event.data.size() / 2;
    const std::size_t from = fate == Fate::secondHalf ? half : 0;
    const std::size_t to = fate == Fate::firstHalf ? half : event.data.size();
    if (file.size() < at + event.data.size()) file.resize(at + event.data.size());
    file.replace(at + from, to - from, event.data, from, to - from);
  }

  std::map<std::string, std::uint64_t> names_;
  std::map<std::uint64_t, Bytes> contents_;
};

// The states in which a power cut just before event `end` may leave the disk.
class Moment {
 public:
  Moment(const CommandCase& command, const Execution& run, std::size_t end)
      : disk_(command.before, run.inodes) {
    std::map<std::uint64_t, std::size_t> flushed;  // event of the last flush, by file
    std::size_t namesFlushed = 0;                  // the same of the folder
    std::set<std::uint64_t> files;
    for (const Event& event : run.trace) {
      if (event.is(What::written) || event.is(What::resized) || event.is(What::nameAdded))
        files.insert(event.record.inode);
    }
    for (std::size_t i = 0; i < end; ++i) {
      const Event& event = run.trace[i];
      if (!event.is(What::flushed)) continue;
      flushed[event.record.inode] = i;
      const bool folder =
          !files.contains(event.record.inode) && !run.inodes.contains(event.record.inode);
      if (folder) namesFlushed = i;
    }
    for (std::size_t i = 0; i < end; ++i) {
      const Event& event = run.trace[i];
      const bool name = event.is(What::nameAdded) || event.is(What::nameRemoved);
      if (!name && !event.is(What::written) && !event.is(What::resized)) continue;
      if (i < (name ? namesFlushed : flushed[event.record.inode])) {
        disk_.carryOut(event, Fate::kept);
      } else {
        (name ? names_ : writes_).push_back(&event);
      }
    }
  }

  // All states if there are at most `most`; else a sample: first that with nothing unflushed on
  // disk, then that with everything.
  std::vector<Folder> disks(int most, std::mt19937& random) const {
    double all = static_cast<double>(names_.size()) + 1;
    for (std::size_t i = 0; i < writes_.size() && all <= most; ++i) all *= kFates;
    std::vector<Folder> result;
    if (all <= most) {
      for (int number = 0; number < static_cast<int>(all); ++number) {
        result.push_back(disk([rest = number](int choices) mutable {
          const int chosen = rest % choices;
          rest /= choices;
          return chosen;
        }));
      }
      return result;
    }
    result.push_back(disk([](int) { return 0; }));
    result.push_back(disk([this](int choices) {
      return choices == kFates ? static_cast<int>(Fate::kept) : static_cast<int>(names_.size());
    }));
    while (static_cast<int>(result.size()) < most) {
      // Two of three samples give most writes the same fate; independent draws hardly ever would.
      const auto usual = static_cast<int>(random() % kFates);
      const auto often = random() % 3;
      result.push_back(disk([&](int choices) {
        const auto drawn = static_cast<int>(random() % static_cast<unsigned>(choices));
        return choices == kFates && often != 0 && random() % 8 != 0 ? usual : drawn;
      }));
    }
    return result;
  }

 private:
  static constexpr int kFates = 4;

  // choose(n) gives a number below n: first how many changes of names are on disk, then the fate of
  // each write.
  template <class Choose>
  Folder disk(Choose choose) const {
    Disk result = disk_;
    const auto names = static_cast<std::size_t>(choose(static_cast<int>(names_.size()) + 1));
    for (std::size_t i = 0; i < names; ++i) result.carryOut(*names_[i], Fate::kept);
    for (const Event* event : writes_) {
      result.carryOut(*event, static_cast<Fate>(choose(kFates)));
    }
    return result.folder();
  }

  Disk disk_;  // with all that was flushed
  std::vector<const Event*> names_;
  std::vector<const Event*> writes_;
};

struct Count {
  int states = 0;
  int repaired = 0;  // of these, those that are good only after a repair
};

void tryPowerCuts(const Workplace& place, const CommandCase& command, Count* count) {
  const Execution run = place.record(command);
  ASSERT_EQ(run.status, 0);
  const Folder left = place.contents();
  Disk uncut(command.before, run.inodes);
  for (const Event& event : run.trace) uncut.carryOut(event, Fate::kept);
  ASSERT_TRUE(uncut.folder() == left) << "the recorder lacks a call that the program made";
  const Bytes after = place.held(left);
  Bytes before = place.held(command.before);
  if (before == kDamaged) before = place.heldAfterRepair(command.before);
  ASSERT_NE(before, kDamaged);
  ASSERT_NE(after, kDamaged);
  std::mt19937 random(1);
  std::set<Folder> seen;
  for (std::size_t end = 0; end <= run.trace.size(); ++end) {
    if (end < run.trace.size() && !run.trace[end].is(What::flushed)) continue;
    for (const Folder& disk : Moment(command, run, end).disks(statesPerMoment(), random)) {
      if (!seen.insert(disk).second) continue;
      ++count->states;
      const Bytes read = place.held(disk);
      const Bytes repaired = place.heldAfterRepair(disk);
      if (read == kDamaged) ++count->repaired;
      EXPECT_TRUE(read == before || read == after || read == kDamaged) << "before event " << end;
      if (before.starts_with("plain:")) continue;  // such a file cannot be repaired
      EXPECT_TRUE(repaired == before || repaired == after) << "before event " << end;
      EXPECT_TRUE(read == kDamaged || read == repaired) << "before event " << end;
    }
  }
}

// A power cut at any moment, with any part of the unflushed writes on disk, must leave the old or
// the new file.
TEST(Power, CutsLeaveTheOldOrTheNewFile) {
  if (const std::string why = whyNoRecorder(); !why.empty()) GTEST_SKIP() << why;
  const int total =
      sumOverCommands([](const Workplace& place, const CommandCase& command, int version) {
        Count count;
        tryPowerCuts(place, command, &count);
        std::printf("  version %d, %-16s %4d states, %d good after a repair\n", version,
                    command.name.c_str(), count.states, count.repaired);
        EXPECT_GT(count.states, 1) << "at least the old and the new file";
        // Only a file that was damaged before the command needs a repair after it.
        EXPECT_TRUE(count.repaired == 0 || command.name == "repair") << count.repaired;
        return count.states;
      });
  std::printf("  %d states\n", total);
}

}  // namespace
}  // namespace qztest
