// The loops of the page contests. Every participant runs the same code over its own store:
//
//   Store(const Task&)             opens what it works on
//   const char* read(page)         the page, until giveBack, change or the next read
//   void giveBack()                ends the use of a page that was read
//   char* readToChange(page)       the page, to be changed and then written
//   char* fresh(page)              room for a new page, to be filled and then written
//   void write(page)               stores the page that the last two gave
//   void finish()                  all is written as far as this store writes; inside the clock
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "contest.h"
#include "files.h"
#include "stamp.h"

namespace qzbench {

enum class Access { read, append, rewrite };

// What a store is opened for.
struct Task {
  Access access;
  Geometry geometry;
  std::string path;  // raw pages, or the store's own format
  bool sequential;
  bool direct = false;          // O_DIRECT
  bool flush = false;           // to the disk at the end
  std::int32_t blockBytes = 0;  // transfers of whole blocks of this size; 0: of pages
  std::int32_t buffers = 4;     // that the module may hand out
  std::size_t ring = 1;         // buffers that a bare loop goes through
  bool hugeBlocks = true;       // of a bare loop
};

using Order = std::vector<std::int64_t>;  // page numbers

// 1 to `pages`, as they lie or shuffled; the same shuffle every time.
Order pageOrder(std::int64_t pages, bool sequential);

inline void requireStamps(std::int64_t wrongPages, const std::string& path) {
  if (wrongPages != 0) throw Failure(path + ": " + std::to_string(wrongPages) + " wrong pages");
}

template <class Store>
Sample readPass(const Task& task, const Order& order, std::int64_t version = 0) {
  Store store(task);
  const std::int32_t pageSize = task.geometry.pageSize;
  std::int64_t wrong = 0;
  const Sample sample = timed(order.size(), [&] {
    for (const std::int64_t page : order) {
      wrong += isStamped(store.read(page), pageSize, page, version) ? 0 : 1;
      store.giveBack();
    }
    store.finish();
  });
  requireStamps(wrong, task.path);
  return sample;
}

// Writes all pages anew, then reads them back outside the clock.
template <class Store>
Sample appendPass(const Task& task) {
  const Geometry& geometry = task.geometry;
  Sample sample;
  {
    Store store(task);
    sample = timed(static_cast<std::size_t>(geometry.pages), [&] {
      for (std::int64_t page = 1; page <= geometry.pages; ++page) {
        stamp(store.fresh(page), geometry.pageSize, page);
        store.write(page);
      }
      store.finish();
    });
  }
  Task check = task;
  check.access = Access::read;
  check.sequential = true;
  check.flush = false;
  readPass<Store>(check, pageOrder(geometry.pages, true));
  return sample;
}

// Every page of the order is found as version `version` and becomes the next one.
template <class Store>
Sample rewritePass(const Task& task, const Order& order, std::int64_t version) {
  const std::int32_t pageSize = task.geometry.pageSize;
  std::int64_t wrong = 0;
  Store store(task);
  const Sample sample = timed(order.size(), [&] {
    for (const std::int64_t page : order) {
      char* at = store.readToChange(page);
      wrong += isStamped(at, pageSize, page, version) ? 0 : 1;
      stamp(at, pageSize, page, version + 1);
      store.write(page);
    }
    store.finish();
  });
  requireStamps(wrong, task.path);
  return sample;
}

template <class Store>
Participant reader(std::string name, Task task, const std::shared_ptr<const Order>& order) {
  task.access = Access::read;
  return {std::move(name),
          [task = std::move(task), order] { return readPass<Store>(task, *order); }};
}

template <class Store>
Participant appender(std::string name, Task task) {
  task.access = Access::append;
  task.sequential = true;
  return {std::move(name), [task = std::move(task)] { return appendPass<Store>(task); }};
}

// Each pass leaves the file one version on: stores that share a file share `version`, too.
template <class Store>
Participant rewriter(std::string name, Task task, const std::shared_ptr<const Order>& order,
                     const std::shared_ptr<std::int64_t>& version) {
  task.access = Access::rewrite;
  return {std::move(name), [task = std::move(task), order, version] {
            const Sample sample = rewritePass<Store>(task, *order, *version);
            ++*version;
            return sample;
          }};
}

}  // namespace qzbench
