#include "script.h"

#include <fmt/format.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <regex>
#include <sstream>
#include <variant>

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
    return static_cast<Number>(std::stoll(word(fallback), nullptr, 0));
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

// "pwrite#2*3!28": see script.h.
Fault faultOf(const std::string& text) {
  std::size_t mark = text.find_first_of("#*!=");
  Fault fault{callOf(text.substr(0, mark))};
  while (mark != std::string::npos) {
    const std::size_t next = text.find_first_of("#*!=", mark + 1);
    const std::string value = text.substr(mark + 1, next - mark - 1);
    if (text[mark] == '#') {
      fault.nth = std::stoi(value);
    } else if (text[mark] == '*') {
      fault.count = value.empty() ? kEveryLater : std::stoi(value);
    } else if (text[mark] == '!') {
      const int base = fault.call > Call::lastSystemCall ? 16 : 10;
      fault.error = static_cast<std::uint32_t>(std::stoul(value, nullptr, base));
    } else {
      fault.result = value == "half" ? kShort : value == "undone" ? kNotDone : std::stoll(value);
    }
    mark = next;
  }
  return fault;
}

// "5": its page; "+1": so many more holds; "=100": its valid bytes, where they are not a page.
std::string shown(const qz::PageBuffer& buffer) {
  std::string text = fmt::format(" {}", buffer.pageNumber);
  if (buffer.extraHolds != 0) text += fmt::format("+{}", buffer.extraHolds);
  const bool whole = buffer.pageNumber == 0 || buffer.validBytes == kPage;
  return text + (whole ? "" : fmt::format("={}", buffer.validBytes));
}

// "5-8": its pages; "x2": held twice; "/3": the first of its stale bits; "=100": its valid bytes,
// where they are not those of its pages.
std::string shown(const qz::BlockRecord& block) {
  std::string text = fmt::format(" {}", block.firstPage);
  const std::int64_t pages = block.firstPage == 0 ? 0 : block.lastPage - block.firstPage + 1;
  if (pages != 0) text += fmt::format("-{}", block.lastPage);
  if (block.holdCount > 1) text += fmt::format("x{}", block.holdCount);
  if (*block.staleBits != 0) text += fmt::format("/{:x}", *block.staleBits);
  return text + (block.validBytes == pages * kPage ? "" : fmt::format("={}", block.validBytes));
}

template <class Record>
std::string shown(const char* name, const qz::List<Record>& list) {
  std::string text = list.head != nullptr ? std::string(" ") + name : "";
  for (const Record* record = list.head; record != nullptr; record = record->next)
    text += shown(*record);
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
  std::string text = shown("free", h.pageFreeList) + shown("held", h.pageHeldList) +
                     shown("blocks", h.blockFreeList) + shown("heldBlocks", h.blockHeldList) +
                     shown("acquired", h.blockAcquiredList);
  if (h.writeBlock != nullptr)
    text += fmt::format(" write {}-{}", h.writeBlock->firstPage, h.writeBlock->lastPage);
  return text.empty() ? text : text.substr(1);
}

// A field's value, after it has been given `value`, if any.
std::int64_t fieldOf(World& world, const std::string& name, const std::int64_t* value) {
  std::map<std::string, Field> fields = fieldsOf(*world.h);
  fields["length"] = &world.length;
  fields["readLength"] = &world.request.length;
  fields["textLength"] = &world.recorder.textLength;
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
    if (wanted[0] == '!') wanted = fmt::format("{} {{{}}}", wanted.substr(1), wanted);
    EXPECT_EQ(arrow == std::string::npos ? outcome.substr(0, outcome.find(' ')) : outcome, wanted)
        << outcome;
  }
}

void ScriptTest::playRows(const std::string& script, const std::string& rows) {
  std::istringstream lines(rows);
  for (std::string row; std::getline(lines, row);) {
    if (row.find_first_not_of(' ') == std::string::npos) continue;
    SCOPED_TRACE(row);
    std::string text = script;
    for (int column = 1;; ++column) {
      const std::size_t bar = row.find(" | ");
      const std::regex place(fmt::format("%{}", column));
      text = std::regex_replace(text, place, row.substr(0, bar));
      if (bar == std::string::npos) break;
      row.erase(0, bar + 3);
    }
    play(std::regex_replace(text, std::regex("%[0-9]"), ""));  // columns that the row lacks
  }
}

char* ScriptTest::address(const std::string& name) {
  if (name == "null") return nullptr;
  named_["stray"] = path.data();
  named_["wb"] = h->writeBlock != nullptr ? h->writeBlock->data : nullptr;
  const std::size_t plus = name.find('+');
  return named_.at(name.substr(0, plus)) +
         (plus == std::string::npos ? 0 : std::stoi(name.substr(plus)));
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

Status ScriptTest::handOut(Status status, Words& words) {
  EXPECT_EQ(at == nullptr, status != Status::ok);
  named_[words.word("it")] = at;
  named_["it"] = at;
  return status;
}

Status ScriptTest::readAs(Words& words) {
  const auto [page, version] = words.page();
  const Status status = handOut(read(page), words);
  EXPECT_TRUE(!version || holdsPage(page, *version));
  return status;
}

Status ScriptTest::writeFrom(Words& words) {
  const auto [page, version] = words.page();
  char* from = address(words.word("it"));
  if (version) stamp(from, h->pageSize, page, *version);
  return write(page, from);
}

// The first two pages of a run that was read must have arrived, where the file has them.
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

// "own", "rewrite" or "touch": page after page, up to the first failure.
Status ScriptTest::eachPage(const std::string& verb, Words& words) {
  Status status = Status::ok;
  while (status == Status::ok && !words.ended()) {
    const auto [page, version] = words.page();
    if (verb == "own") status = writeOwn(page, version.value_or(0));
    if (verb == "rewrite") status = rewrite(page, version.value_or(0));
    if (verb == "touch") status = read(page);
    if (verb == "touch" && status == Status::ok) status = giveBack(at);
  }
  return status;
}

std::string ScriptTest::carryOut(const std::string& verb, Words& words) {
  const auto number = [&] { return words.number(); };
  const auto bits = [&] { return static_cast<std::uint32_t>(words.number<std::int64_t>()); };
  const std::map<std::string, std::function<Status()>> operations = {
      {"open", [&] { return openAs(words); }},
      {"close", [&] { return close(bits()); }},
      {"acquire", [&] { return handOut(acquire(), words); }},
      {"give", [&] { return giveBack(address(words.word("it"))); }},
      {"add", [&] { return add(number()); }},
      {"remove", [&] { return remove(number()); }},
      {"read", [&] { return readAs(words); }},
      {"write", [&] { return writeFrom(words); }},
      {"own", [&] { return eachPage(verb, words); }},
      {"rewrite", [&] { return eachPage(verb, words); }},
      {"touch", [&] { return eachPage(verb, words); }},
      {"truncate", [&] { return truncate(words.number<std::int64_t>()); }},
      {"flush", [&] { return flush(); }},
      {"delete", [&] { return call(&Table::qzpdelete); }},
      {"info", [&] { return call(&Table::qzpinfo); }},
      {"name",
       [&] {
         const std::u32string name = qz::toUtf32(words.word());
         return call(&Table::qzpsetfilename, name.data(), static_cast<std::int32_t>(name.size()));
       }},
      {"psize",
       [&] {
         const qz::PageSizeRequest wanted{number(), number(), number()};
         return call(&Table::qzppsize, &wanted);
       }},
      {"preopen", [&] { return preopenAs(words); }},
      {"many", [&] { return readRun(words); }},
      {"header", [&] { return writeHeader(memory_.get(), number()); }},
      {"reopen", [&] { return reopen(shapeOf(words.word())); }},
      {"hint", [&] {
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
  if (verb == "host") return calls().hostCalls();
  if (verb == "lists") return listsOf(*h);
  if (verb == "bytes") return std::to_string(bytesOnDisk());
  if (verb == "texts")
    return fmt::format("{} [{}]", recorder.lastLength, fmt::join(recorder.capacities, " "));
  if (verb == "cut") return std::filesystem::resize_file(path, words.number<std::uint64_t>()), "ok";
  if (verb == "end") return h->hostFile == nullptr ? "ok" : did(close());
  if (verb == "settle") return settle(shapeOf(words.word())), "ok";
  if (verb == "option") return host.setHostPageSize(words.number()), "ok";
  if (verb == "file") {
    const auto pages = words.number();
    return makeFile(pages, words.number("4096")), "ok";
  }
  if (verb == "fail") {
    std::vector<Fault> faults;
    while (!words.ended()) faults.push_back(faultOf(words.word()));
    return calls().plan(faults), "ok";
  }
  const char* from = verb == "has" ? address(words.word()) : nullptr;
  std::string wrong = words.ended() ? "no such step" : "";
  while (!words.ended()) {
    if (verb == "has" || verb == "disk") {
      const auto [page, version] = words.page();
      const bool same = from != nullptr ? isStamped(from, h->pageSize, page, version.value_or(0))
                                        : onDisk(page, version.value_or(0));
      if (!same) wrong += fmt::format("page {} is another ", page);
    } else {
      const std::string name = words.word();
      const auto value = words.number<std::int64_t>();
      const std::int64_t now = verb == "count"
                                   ? calls().count(callOf(name))
                                   : fieldOf(*this, name, verb == "set" ? &value : nullptr);
      if (now != value) wrong += fmt::format("{} {} ", name, now);
    }
  }
  return wrong.empty() ? "ok" : wrong;
}

}  // namespace qztest
