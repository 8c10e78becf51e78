// The loops of the page contests. Every participant runs the same code with its own store:
//
//   Store(const Task&)             opens the file; the destructor closes it
//   const char* read(page)         the page, valid until returnPage or the next call
//   void returnPage()              ends the use of a page that was read
//   char* readToChange(page)       the page, to be changed and written
//   char* fresh(page)              memory for a new page, to be filled and written
//   void write(page)               writes the page that one of these two returned
//   void finish()                  completes all writes; inside the clock
#pragma once

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "contest.h"
#include "files.h"
#include "stamp.h"

namespace qzbench {

enum class Access { read, append, rewrite };

// The work that a store is opened for.
struct Task {
  Access access;
  Geometry geometry;
  std::string path;  // raw pages, or the store's own format
  bool sequential;
  bool direct = false;          // O_DIRECT
  bool flush = false;           // flush to disk at the end
  std::int32_t blockBytes = 0;  // transfers of whole blocks of this size; 0: of pages
  std::int32_t buffers = 4;     // most buffers held at a time
  std::size_t ring = 1;         // buffers that a bare loop cycles through
  bool hugeBlocks = true;       // for a bare loop
  bool bySettings = false;      // the module's new file is opened through PagedFile::open
};

using Order = std::vector<std::int64_t>;  // page numbers

// 1 to `pages`, in order or shuffled; the shuffle is the same every time.
Order pageOrder(std::int64_t pages, bool sequential);

inline void requireStamps(std::int64_t wrongPages, const std::string& path) {
  if (wrongPages != 0) throw Failure(path + ": " + std::to_string(wrongPages) + " wrong pages");
}

// Goes through `count` items cyclically for `operations` steps: calls step(first, some) for each
// stretch.
template <class Step>
Sample takeSteps(std::size_t& next, std::size_t count, std::size_t operations, Step step) {
  Sample sum;
  while (operations > 0) {
    const std::size_t some = std::min(operations, count - next);
    sum += step(next, some);
    operations -= some;
    next = (next + some) % count;
  }
  return sum;
}

// Where the next slice starts in an order. Contestants that read the same pages from memory share
// it: otherwise one finds in the processor's caches what another has just read, and the next does
// not.
using Place = std::shared_ptr<std::size_t>;
inline Place newPlace() { return std::make_shared<std::size_t>(0); }

// Reads the pages of an order. For each pass through it the store is opened again, outside the
// clock.
template <class Store>
class Reading {
 public:
  Reading(Task task, std::shared_ptr<const Order> order, Place place)
      : task_(std::move(task)), order_(std::move(order)), place_(std::move(place)) {}

  Sample run(std::size_t operations) {
    return takeSteps(
        *place_, order_->size(), operations, [this](std::size_t first, std::size_t count) {
          if (!store_ || first < reached_) {
            store_.reset();
            store_.emplace(task_);
          }
          reached_ = first + count;
          std::int64_t wrong = 0;
          const Sample sample = timed(count, [&] {
            for (std::size_t i = first; i < first + count; ++i) {
              const std::int64_t page = (*order_)[i];
              wrong += isStamped(store_->read(page), task_.geometry.pageSize, page) ? 0 : 1;
              store_->returnPage();
            }
          });
          requireStamps(wrong, task_.path);
          return sample;
        });
  }

 private:
  Task task_;
  std::shared_ptr<const Order> order_;
  std::optional<Store> store_;
  Place place_;
  std::size_t reached_ = 0;  // by this contestant
};

// Writes all pages of a new file. An existing file of that name is removed first, outside the
// clock.
template <class Store>
Sample appendAll(const Task& task) {
  const Geometry& geometry = task.geometry;
  unlink(task.path.c_str());
  return timed(static_cast<std::size_t>(geometry.pages), [&] {
    Store store(task);
    for (std::int64_t page = 1; page <= geometry.pages; ++page) {
      stamp(store.fresh(page), geometry.pageSize, page);
      store.write(page);
    }
    store.finish();
  });
}

// Writes whole files, from open to close, and reads the first one back.
template <class Store>
class Appending {
 public:
  explicit Appending(Task task) : task_(std::move(task)) {}

  Sample run(std::size_t operations) {
    Sample sum;
    for (; sum.operations < static_cast<double>(operations);) sum += appendAll<Store>(task_);
    if (!std::exchange(isChecked_, true)) {
      Task back = task_;
      back.access = Access::read;
      back.flush = false;
      const auto order = std::make_shared<const Order>(pageOrder(task_.geometry.pages, true));
      Reading<Store>(back, order, newPlace()).run(order->size());
    }
    return sum;
  }

 private:
  Task task_;
  bool isChecked_ = false;
};

// How many pages of an order have the next version already.
struct Progress {
  std::size_t next = 0;
  std::int64_t version = 0;
};

// Checks that every page of an order has the current version and writes the next one. Stores that
// share a file share its progress: each run opens the file again, because no side may use pages
// that it cached before another side changed them.
template <class Store>
class Rewriting {
 public:
  Rewriting(Task task, std::shared_ptr<const Order> order, std::shared_ptr<Progress> progress)
      : task_(std::move(task)), order_(std::move(order)), progress_(std::move(progress)) {}

  Sample run(std::size_t operations) {
    return takeSteps(progress_->next, order_->size(), operations,
                     [this](std::size_t first, std::size_t count) {
                       if (!store_) store_.emplace(task_);
                       const bool isLast = first + count == order_->size();
                       const Sample sample = rewrite(first, count, isLast || Store::kRawPages);
                       if (isLast) ++progress_->version;
                       return sample;
                     });
  }

 private:
  Sample rewrite(std::size_t first, std::size_t count, bool finish) {
    const std::int32_t pageSize = task_.geometry.pageSize;
    const std::int64_t version = progress_->version;
    std::int64_t wrong = 0;
    const Sample sample = timed(count, [&] {
      for (std::size_t i = first; i < first + count; ++i) {
        const std::int64_t page = (*order_)[i];
        char* at = store_->readToChange(page);
        wrong += isStamped(at, pageSize, page, version) ? 0 : 1;
        stamp(at, pageSize, page, version + 1);
        store_->write(page);
      }
      if (finish) store_->finish();
    });
    if (finish) store_.reset();
    requireStamps(wrong, task_.path);
    return sample;
  }

  Task task_;
  std::shared_ptr<const Order> order_;
  std::shared_ptr<Progress> progress_;
  std::optional<Store> store_;
};

// A participant that runs `work`, which it owns.
template <class Work>
Participant participant(std::string name, std::shared_ptr<Work> work, std::size_t grain = 1) {
  return {std::move(name),
          [work = std::move(work)](std::size_t operations) { return work->run(operations); },
          grain};
}

template <class Store>
Participant reader(std::string name, Task task, const std::shared_ptr<const Order>& order,
                   const Place& place = newPlace()) {
  task.access = Access::read;
  const std::int32_t pagesPerBlock = std::max(task.blockBytes / task.geometry.pageSize, 1);
  return participant(std::move(name),
                     std::make_shared<Reading<Store>>(std::move(task), order, place),
                     static_cast<std::size_t>(pagesPerBlock));
}

template <class Store>
Participant appender(std::string name, Task task) {
  const auto pages = static_cast<std::size_t>(task.geometry.pages);
  return participant(std::move(name), std::make_shared<Appending<Store>>(std::move(task)), pages);
}

template <class Store>
Participant rewriter(std::string name, Task task, const std::shared_ptr<const Order>& order,
                     const std::shared_ptr<Progress>& progress) {
  return participant(std::move(name),
                     std::make_shared<Rewriting<Store>>(std::move(task), order, progress));
}

}  // namespace qzbench
