#include "script.h"

#include <fmt/format.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <sstream>
#include <variant>
#include <vector>

#include "support/names.h"

namespace qztest {

// The words of a step, taken one after another.
class ScriptTest::Words : public std::istringstream {
 public:
  using std::istringstream::istringstream;

  std::string word(const std::string& fallback = "") {
    std::string taken;
    return *this >> taken ? taken : fallback;
  }
  template <class Number = std::int32_t>
  Number number(const std::string& fallback = "0") {
    return static_cast<Number>(valueOf(word(fallback)));
  }
  std::pair<std::int64_t, std::optional<std::uint32_t>> page() {
    const std::string text = word();
    const std::size_t colon = text.find(':');
    if (colon == std::string::npos) return {std::stoll(text), std::nullopt};
    return {std::stoll(text), static_cast<std::uint32_t>(std::stoul(text.substr(colon + 1)))};
  }
  bool ended() { return (*this >> std::ws).eof(); }
};

namespace {

Shape shapeOf(const std::string& name) {
  static const std::map<std::string, Shape> shapes = {
      {"buffered", Shape::buffered}, {"direct", Shape::direct}, {"block", Shape::block}};
  return shapes.at(name);
}

Call callOf(const std::string& name) {
  for (int i = 0; i < static_cast<int>(Call::count); ++i) {
    if (name == nameOf(static_cast<Call>(i))) return static_cast<Call>(i);
  }
  throw std::invalid_argument("no call: " + name);
}

// "text" or "text(detail, detail)".
std::string withDetails(const std::string& text, const std::vector<std::string>& details) {
  return details.empty() ? text : fmt::format("{}({})", text, fmt::join(details, ", "));
}

// A page buffer: its page; its holds if there are several; its valid bytes unless they are one
// page: "5(2 holds, 100 bytes)".
std::string shown(const qz::PageBuffer& buffer) {
  if (buffer.pageNumber == 0) return "empty";
  std::vector<std::string> details;
  if (buffer.extraHolds != 0) details.push_back(fmt::format("{} holds", buffer.extraHolds + 1));
  if (buffer.validBytes != kPage) details.push_back(fmt::format("{} bytes", buffer.validBytes));
  return withDetails(std::to_string(buffer.pageNumber), details);
}

// A block: its pages; its holds if there are several; its stale pages among the first eight; its
// valid bytes unless they are those of its pages: "5-8(2 holds, stale 5 6, 100 bytes)". An empty
// block has no page numbers, so its stale pages are counted from 1: "empty(stale slot 1)".
std::string shown(const qz::BlockRecord& block) {
  const bool empty = block.firstPage == 0;
  const std::int64_t pages = empty ? 0 : block.lastPage - block.firstPage + 1;
  std::vector<std::string> details;
  if (block.holdCount > 1) details.push_back(fmt::format("{} holds", block.holdCount));
  if (*block.staleBits != 0) {
    std::string stale = empty ? "stale slot" : "stale";
    for (int i = 0; i < 8; ++i) {
      if ((*block.staleBits >> i & 1) != 0)
        stale += fmt::format(" {}", empty ? i + 1 : block.firstPage + i);
    }
    details.push_back(stale);
  }
  if (block.validBytes != pages * kPage)
    details.push_back(fmt::format("{} bytes", block.validBytes));
  const std::string text = empty ? "empty" : fmt::format("{}-{}", block.firstPage, block.lastPage);
  return withDetails(text, details);
}

template <class Record>
std::string shown(const char* name, const qz::List<Record>& list) {
  std::string text = list.head != nullptr ? std::string(" ") + name : "";
  for (const Record* record = list.head; record != nullptr; record = record->next)
    text += " " + shown(*record);
  return text;
}

using Field = std::variant<std::int32_t*, std::uint32_t*, std::int64_t*>;

std::map<std::string, Field> fieldsOf(qz::FileHandle& h) {
#define FIELD(name) std::pair(#name, &h.name)
  return {FIELD(pageCount),         FIELD(fileSize),
          FIELD(nextPage),          FIELD(lastPageRead),
          FIELD(heldCount),         FIELD(fd),
          FIELD(bufferCount),       FIELD(lastErrno),
          FIELD(hostErrorDetail1),  FIELD(hostErrorDetail2),
          FIELD(stateFlags),        FIELD(directIoMode),
          FIELD(readAccess),        FIELD(writeAccess),
          FIELD(openOptions),       FIELD(openMode),
          FIELD(pageSize),          FIELD(headerSize),
          FIELD(openRetryCount),    FIELD(firstBlockRead),
          FIELD(hostPageSize),      FIELD(sequentialStartPage),
          FIELD(directIoSupport),   FIELD(requestedBlockBytes),
          FIELD(blockBytes),        FIELD(pagesPerBlock),
          FIELD(bitmapBytes),       FIELD(defaultPageSize),
          FIELD(autoPageSizeLimit), FIELD(minPageSize),
          FIELD(maxPageSize),       FIELD(fileNameCapacity),
          FIELD(fileNameLength)};
#undef FIELD
}

std::string listsOf(const qz::FileHandle& h) {
  std::string text = shown("freePages", h.pageFreeList) + shown("heldPages", h.pageHeldList) +
                     shown("freeBlocks", h.blockFreeList) + shown("heldBlocks", h.blockHeldList) +
                     shown("acquiredBlocks", h.blockAcquiredList);
  if (const qz::BlockRecord* block = h.writeBlock; block != nullptr) {
    text += block->firstPage == 0 && block->lastPage == 0
                ? " writeBlock empty"
                : fmt::format(" writeBlock {}-{}", block->firstPage, block->lastPage);
  }
  return text.empty() ? "none" : text.substr(1);
}

std::vector<std::string> columnsOf(const std::string& row) {
  std::vector<std::string> columns;
  std::size_t begin = 0;
  for (std::size_t bar = 0; bar != std::string::npos; begin = bar + 3) {
    bar = row.find(" | ", begin);
    columns.push_back(row.substr(begin, bar == std::string::npos ? bar : bar - begin));
  }
  return columns;
}

// Stores `value` in a field of the handle or of the test's journal, if any is given; the field's
// value.
std::int64_t fieldOf(World& world, const std::string& name, const std::int64_t* value) {
  std::map<std::string, Field> fields = fieldsOf(*world.h);
  fields["length"] = &world.length;
  fields["readLength"] = &world.request.length;
  fields["textLength"] = &world.recorder.textLength;
  fields["messageLength"] = &world.recorder.lastLength;
  fields["ownAllocations"] = &calls().ownAllocations;
  fields["nameLineLength"] = &world.recorder.nameLineLength;
  const auto access = [&](auto* place) {
    if (value != nullptr) *place = static_cast<std::remove_pointer_t<decltype(place)>>(*value);
    return static_cast<std::int64_t>(*place);
  };
  return std::visit(access, fields.at(name));
}

}  // namespace

void ScriptTest::play(const std::string& script) {
  std::string text = script;
  std::replace(text.begin(), text.end(), '\n', ';');
  std::istringstream steps(text);
  for (std::string step; std::getline(steps, step, ';');) {
    const std::size_t arrow = step.find(" ->");
    Words words(step.substr(0, arrow));
    if (words.ended()) continue;
    SCOPED_TRACE(step);
    const std::string outcome = carryOut(words.word(), words);
    EXPECT_TRUE(words.ended()) << "too many words";
    std::string wanted = arrow == std::string::npos ? "ok" : step.substr(arrow + 3);
    wanted.erase(0, wanted.find_first_not_of(' '));
    wanted.erase(wanted.find_last_not_of(' ') + 1);
    const std::string status = outcome.substr(0, outcome.find_first_of(": "));
    EXPECT_EQ(arrow == std::string::npos ? status : outcome, wanted) << outcome;
  }
}

void ScriptTest::playRows(const std::string& script, const std::string& rows) {
  std::istringstream lines(rows);
  std::vector<std::string> names;
  for (std::string row; std::getline(lines, row);) {
    if (row.find_first_not_of(' ') == std::string::npos) continue;
    const std::vector<std::string> columns = columnsOf(row);
    if (names.empty()) {
      names = columns;
      continue;
    }
    SCOPED_TRACE(row);
    std::string text = script;
    for (std::size_t i = 0; i < names.size(); ++i) {
      const std::string column = "<" + names[i] + ">";
      for (std::size_t found = 0; (found = text.find(column)) != std::string::npos;)
        text.replace(found, column.size(), columns.at(i));
    }
    play(text);
  }
}

char* ScriptTest::address(const std::string& name) {
  if (name == "null") return nullptr;
  named_["stray"] = path.data();
  named_["writeBlock"] = h->writeBlock != nullptr ? h->writeBlock->data : nullptr;
  const std::size_t plus = name.find('+');
  return named_.at(name.substr(0, plus)) +
         (plus == std::string::npos ? 0 : std::stoi(name.substr(plus)));
}

// The steps of "fail": see script.h.
std::vector<Fault> ScriptTest::faultsOf(Words& words) {
  std::vector<Fault> faults;
  for (std::string word = words.word(); !word.empty(); word = words.word()) {
    if (word == "number") {
      faults.at(faults.size() - 1).nth = words.number<int>();
    } else if (word == "times") {
      faults.at(faults.size() - 1).count = words.number<int>();
    } else if (word == "always") {
      faults.at(faults.size() - 1).count = kEveryLater;
    } else if (word == "with") {
      faults.at(faults.size() - 1).error = words.number<std::uint32_t>();
    } else if (word == "returning") {
      faults.at(faults.size() - 1).result = words.number<std::int64_t>();
    } else if (word == "half") {
      faults.at(faults.size() - 1).result = kShort;
    } else if (word == "undone") {
      faults.at(faults.size() - 1).result = kNotDone;
    } else if (word != "and" && word != "nothing") {
      faults.push_back({callOf(word)});
    }
  }
  return faults;
}

Status ScriptTest::openAs(Words& words) {
  if (words.ended()) return open();
  const Shape shape = shapeOf(words.word());
  const auto pages = words.number();
  settle(shape, words.number("3"));
  makeFile(pages);
  return open();
}

Status ScriptTest::preopenAs(Words& words) {
  const std::int32_t bytes = words.number();
  char* const header = memory_.get() + words.number("1");
  std::fill_n(header, bytes, 'x');
  const Status status = preopen(header, bytes);
  EXPECT_TRUE(status != Status::ok || std::count(header, header + bytes, 'H') == bytes);
  return status;
}

// Gives the address of a read or acquired page the name that the step has for it.
Status ScriptTest::nameAddress(Status status, Words& words) {
  EXPECT_EQ(at == nullptr, status != Status::ok);
  named_[words.word("it")] = at;
  named_["it"] = at;
  return status;
}

Status ScriptTest::readAs(Words& words) {
  const auto [page, version] = words.page();
  const Status status = nameAddress(read(page), words);
  EXPECT_TRUE(!version || holdsPage(page, *version));
  return status;
}

Status ScriptTest::writeFrom(Words& words) {
  const auto [page, version] = words.page();
  char* from = address(words.word("it"));
  if (version) stamp(from, h->pageSize, page, *version);
  return write(page, from);
}

// Of a run that was read the first two pages must have arrived, if the file has them.
Status ScriptTest::readRun(Words& words) {
  const auto page = words.number<std::int64_t>();
  const std::int32_t pages = words.number();
  const CallerMemory memory = callerMemory(std::clamp(pages, 2, 2600) * std::int64_t{h->pageSize});
  const Status status = readMany(page, pages, words.number<std::uint32_t>(), memory.get());
  const bool numbered = page < std::numeric_limits<std::int64_t>::max();
  for (std::int64_t i = 0; numbered && i < 2; ++i) {
    const bool arrives = status == Status::ok && onDisk(page + i, 0);
    EXPECT_TRUE(!arrives || isStamped(memory.get() + i * h->pageSize, h->pageSize, page + i, 0));
  }
  return status;
}

// "writeOwn", "rewrite" or "touch": page after page, up to the first failure.
Status ScriptTest::eachPage(const std::string& verb, Words& words) {
  Status status = Status::ok;
  while (status == Status::ok && !words.ended()) {
    const auto [page, version] = words.page();
    if (verb == "writeOwn") status = writeOwn(page, version.value_or(0));
    if (verb == "rewrite") status = rewrite(page, version.value_or(0));
    if (verb == "touch") status = read(page);
    if (verb == "touch" && status == Status::ok) status = returnBuffer(at);
  }
  return status;
}

std::string ScriptTest::carryOut(const std::string& verb, Words& words) {
  const auto number = [&] { return words.number(); };
  const auto bits = [&] { return static_cast<std::uint32_t>(words.number<std::int64_t>()); };
  const std::map<std::string, std::function<Status()>> operations = {
      {"open", [&] { return openAs(words); }},
      {"close", [&] { return close(bits()); }},
      {"acquire", [&] { return nameAddress(acquire(), words); }},
      {"return", [&] { return returnBuffer(address(words.word("it"))); }},
      {"add", [&] { return add(number()); }},
      {"remove", [&] { return remove(number()); }},
      {"read", [&] { return readAs(words); }},
      {"write", [&] { return writeFrom(words); }},
      {"writeOwn", [&] { return eachPage(verb, words); }},
      {"rewrite", [&] { return eachPage(verb, words); }},
      {"touch", [&] { return eachPage(verb, words); }},
      {"truncate", [&] { return truncate(words.number<std::int64_t>()); }},
      {"flush", [&] { return flush(); }},
      {"delete", [&] { return call(&Table::qzpdelete); }},
      {"info", [&] { return call(&Table::qzpinfo); }},
      {"setName",
       [&] {
         const std::u32string name = qz::toUtf32(words.word());
         return call(&Table::qzpsetfilename, name.data(), static_cast<std::int32_t>(name.size()));
       }},
      {"choosePageSize",
       [&] {
         const qz::PageSizeRequest wanted{number(), number(), number()};
         return call(&Table::qzppsize, &wanted);
       }},
      {"preopen", [&] { return preopenAs(words); }},
      {"readMany", [&] { return readRun(words); }},
      {"writeHeader", [&] { return writeHeader(memory_.get(), number()); }},
      {"reopen", [&] { return reopen(shapeOf(words.word())); }},
      {"reopenWith", [&] {
         const qz::AccessHints hints{bits(), bits(), bits()};
         return call(&Table::qzpreopen, &hints);
       }}};
  const auto operation = operations.find(verb);
  if (operation == operations.end()) return check(verb, words);
  const Status status = operation->second();
  EXPECT_TRUE(h->status == status || verb == "delete" || verb == "info") << "not stored";
  return did(status);
}

std::string ScriptTest::check(const std::string& verb, Words& words) {
  if (verb == "hostCalls") return calls().hostCalls();
  if (verb == "lists") return listsOf(*h);
  if (verb == "fileBytes") return std::to_string(bytesOnDisk());
  if (verb == "textCapacities") return fmt::format("{}", fmt::join(recorder.capacities, " "));
  if (verb == "shrink") {
    std::filesystem::resize_file(path, words.number<std::uint64_t>());
    return "ok";
  }
  if (verb == "closeIfAttached") return h->hostFile == nullptr ? "ok" : did(close());
  if (verb == "settle") return settle(shapeOf(words.word())), "ok";
  if (verb == "setHostPageSize") return host.setHostPageSize(words.number()), "ok";
  if (verb == "makeFile") {
    const auto pages = words.number();
    return makeFile(pages, words.number("4096")), "ok";
  }
  if (verb == "fail") {
    return calls().plan(faultsOf(words)), "ok";
  }
  const char* from = verb == "has" ? address(words.word()) : nullptr;
  std::string wrong = words.ended() ? "no such step" : "";
  while (!words.ended()) {
    if (verb == "has" || verb == "onDisk") {
      const auto [page, version] = words.page();
      const bool same = from != nullptr ? isStamped(from, h->pageSize, page, version.value_or(0))
                                        : onDisk(page, version.value_or(0));
      if (!same) wrong += fmt::format("page {} has other bytes ", page);
    } else {
      const std::string name = words.word();
      const auto value = words.number<std::int64_t>();
      const std::int64_t now = verb == "count"
                                   ? calls().count(callOf(name))
                                   : fieldOf(*this, name, verb == "set" ? &value : nullptr);
      if (now != value) wrong += fmt::format("{} is {} ", name, now);
    }
  }
  return wrong.empty() ? "ok" : wrong;
}

}  // namespace qztest
