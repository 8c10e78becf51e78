#include "support/fixture.h"

#include <dlfcn.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "support/hostcalls.h"
#include "support/invariants.h"
#include "support/names.h"

namespace qztest {

// --- The library

const Library& Library::get() {
  static const Library library = [] {
    Library loaded{};
    loaded.handle = dlopen(QZIOP_MODULE, RTLD_NOW | RTLD_LOCAL);
    if (loaded.handle == nullptr) {
      fmt::print(stderr, "{}\n", dlerror());
      std::abort();
    }
    loaded.qziop = reinterpret_cast<decltype(loaded.qziop)>(loaded.symbol("qziop"));
    loaded.qzextent = reinterpret_cast<decltype(loaded.qzextent)>(loaded.symbol("qzextent"));
    calls().watch(loaded.symbol("qziop"));
    return loaded;
  }();
  return library;
}

void* Library::symbol(const char* name) const { return dlsym(handle, name); }

// --- The journal

namespace {

// The text that statusToBuf gives a status, as the module's reports contain it: "!" and hexadecimal
// digits, of module codes (0x803FCxxx) only the last three. Only reports begin with "!".
constexpr std::uint32_t kModuleCodes = 0x803FC000;

std::string reportText(std::uint32_t status) {
  return fmt::format("!{:X}", (status & ~0xFFFU) == kModuleCodes ? status & 0xFFF : status);
}

// The entry of a report: the name of its status, and the name line unless that names the file.
std::string reportEntry(const std::string& text) {
  std::size_t digits = 0;
  const auto code = static_cast<std::uint32_t>(std::stoul(text.substr(1), &digits, 16));
  std::string nameLine = text.substr(1 + digits);
  std::erase(nameLine, ' ');
  return "report " + nameOfStatus(code > 0xFFF ? code : kModuleCodes | code) + nameLine;
}

std::string nameIn(const char32_t* name, const std::u32string& expected) {
  if (name == nullptr) return "null";
  return name == expected ? "file" : qz::toUtf8(name);
}

std::string withInserts(std::u32string_view text, const std::u32string& name,
                        std::va_list arguments) {
  std::string filled = qz::toUtf8(text);
  for (std::size_t place = 0; (place = filled.find('%', place)) != std::string::npos;) {
    const bool number = filled.at(place + 1) == 'd';
    filled.replace(place, 2,
                   number ? std::to_string(va_arg(arguments, int))
                          : nameIn(va_arg(arguments, const char32_t*), name));
  }
  return filled;
}

// Placeholders for the inserts of a status.
std::u32string_view placeholders(std::uint32_t status) {
  const int inserts = qz::insertsOf(Status{status});
  return inserts == 2 ? U"(%s|%s)" : inserts == 1 ? U"(%s)" : U"";
}

NamingJournal& self(qz::Journal* journal) { return *static_cast<NamingJournal*>(journal); }

// Stores the text of a status, or the name line, which is empty if it names the right file. Blanks
// fill both up to the length that the test asked for.
qz::HostStatus statusToBuf(qz::Journal* journal, std::uint32_t status, char32_t* buffer,
                           std::uint32_t capacity, std::uint32_t* lengthOut,
                           std::va_list arguments) {
  NamingJournal& me = self(journal);
  const bool names = Status{status} == Status::fileNameLine;
  std::string text = names ? nameIn(va_arg(arguments, const char32_t*), me.fileName) : "";
  text = !names ? reportText(status) : text == "file" ? "" : "(" + text + ")";
  text.resize(std::max<std::size_t>(text.size(), names ? me.nameLineLength : me.textLength), ' ');
  me.capacities.push_back(capacity);
  if (text.size() > capacity) return qz::hostTextTooLong;
  std::copy(text.begin(), text.end(), buffer);
  *lengthOut = static_cast<std::uint32_t>(text.size());
  return 0;
}

// An error with the mark is a report of the module. One without it is the host's own message about
// a file that it could not open, which is not written down.
qz::HostStatus messageToJnl(qz::Journal* journal, qz::JournalLevel level, const char32_t* text,
                            std::uint32_t textLength, std::va_list arguments) {
  NamingJournal& me = self(journal);
  me.lastLength = textLength;
  if (level != qz::JournalLevel::error) {
    me.add("note " + withInserts({text, textLength}, me.fileName, arguments));
  } else if (text[0] == U'!') {
    me.add(reportEntry(qz::toUtf8({text, textLength})));
  }
  return 0;
}

qz::HostStatus statusToJnl(qz::Journal* journal, qz::JournalLevel level, std::uint32_t status,
                           std::va_list arguments) {
  NamingJournal& me = self(journal);
  const std::string kind = level == qz::JournalLevel::error ? "error " : "note ";
  me.add(kind + nameOfStatus(status) + withInserts(placeholders(status), me.fileName, arguments));
  return 0;
}

}  // namespace

NamingJournal::NamingJournal() : qz::Journal{} {
  Journal::messageToJnl = qztest::messageToJnl;
  Journal::statusToBuf = qztest::statusToBuf;
  Journal::statusToJnl = qztest::statusToJnl;
}

// --- Pages

void stamp(char* data, std::int64_t bytes, std::int64_t page, std::uint32_t version) {
  for (std::int64_t i = 0; i + 8 <= bytes; i += 8) {
    const std::uint64_t word = (static_cast<std::uint64_t>(page) << 32) ^
                               (static_cast<std::uint64_t>(version) << 16) ^
                               static_cast<std::uint64_t>(i / 8);
    std::memcpy(data + i, &word, 8);
  }
}

bool isStamped(const char* data, std::int64_t bytes, std::int64_t page, std::uint32_t version) {
  const CallerMemory wanted = callerMemory(bytes);
  stamp(wanted.get(), bytes, page, version);
  return data != nullptr && std::memcmp(data, wanted.get(), static_cast<std::size_t>(bytes)) == 0;
}

CallerMemory callerMemory(std::int64_t bytes) {
  const std::size_t rounded = (static_cast<std::size_t>(bytes) + 4095) / 4096 * 4096;
  return {static_cast<char*>(std::aligned_alloc(4096, rounded)), std::free};
}

const char* nameOf(Shape shape) {
  return shape == Shape::buffered ? "buffered" : shape == Shape::direct ? "direct" : "block";
}

// --- The world

std::string memoryFolder() { return access("/dev/shm", W_OK) == 0 ? "/dev/shm" : ""; }

World::World(const std::string& folder) {
  const Library& library = Library::get();
  setDirectIo(DirectIo::simulated);
  calls().plan({});
  calls().clear();
  calls().fileSystemType = 0;
  recordHostCalls(host);
  library.qzextent(host.handle());
  host.handle()->defaultJournal = &recorder;
  std::string made = (folder.empty() ? std::filesystem::temp_directory_path().string() : folder) +
                     "/qziop-test-XXXXXX";
  folder_ = mkdtemp(made.data()) != nullptr ? made : "";
  path = folder_ + "/file.qzp";
  module = library.qziop(host.handle(), journal);
  h = module->operations.qzpgetmemhandle(module, journal);
  setName(path);
}

World::~World() {
  std::error_code ignored;
  std::filesystem::remove_all(folder_, ignored);
}

void World::setName(const std::string& utf8Name) {
  path = utf8Name;
  recorder.fileName = qz::toUtf32(utf8Name);
  call(&Table::qzpsetfilename, recorder.fileName.data(),
       static_cast<std::int32_t>(recorder.fileName.size()));
}

void World::settle(Shape shape, std::int32_t buffers) {
  h->openMode = qz::openOrKeep;
  h->readAccess = shape == Shape::block ? qz::readOrdered : qz::readRandom;
  h->writeAccess = qz::rewritePages;
  h->openOptions = shape == Shape::buffered ? 0U : qz::optionDirectIo;
  h->pageSize = kPage;
  h->headerSize = kHeader;
  h->pageCount = 0;
  h->fileSize = 0;
  h->bufferCount = buffers;
  h->requestedBlockBytes = std::int64_t{kPage} * kPagesPerBlock;
}

void World::makeFile(std::int64_t pages, std::int64_t headerBytes) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  const std::string header(static_cast<std::size_t>(headerBytes), 'H');
  file.write(header.data(), static_cast<std::streamsize>(header.size()));
  const std::int32_t pageSize = h->pageSize > 0 ? h->pageSize : kPage;
  std::string page(static_cast<std::size_t>(pageSize), 0);
  for (std::int64_t number = 1; number <= pages; ++number) {
    stamp(page.data(), pageSize, number, 0);
    file.write(page.data(), pageSize);
  }
}

void World::openWith(Shape shape, std::int64_t pages, std::int32_t buffers) {
  settle(shape, buffers);
  makeFile(pages);
  ASSERT_EQ(did(open()), "ok") << nameOf(shape);
}

Status World::preopen(void* buffer, std::int32_t bytes) {
  length = bytes;
  return call(&Table::qzppreopen, buffer, &length);
}

Status World::read(std::int64_t page) {
  request = {page, reinterpret_cast<char*>(&request), 0, 0, 0};  // the address is to be cleared
  const Status status = call(&Table::qzpread, &request);
  at = request.buffer;
  return status;
}

Status World::write(std::int64_t page, void* from, std::uint32_t flags) {
  request = {page, static_cast<char*>(from), flags, 0, h->pageSize};
  return call(&Table::qzpwrite, &request);
}

Status World::writeOwn(std::int64_t page, std::uint32_t version) {
  const CallerMemory memory = callerMemory(h->pageSize);
  stamp(memory.get(), h->pageSize, page, version);
  return write(page, memory.get(), kOwn);
}

Status World::rewrite(std::int64_t page, std::uint32_t version) {
  const Status status = read(page);
  if (status != Status::ok) return status;
  stamp(at, h->pageSize, page, version);
  return write(page, at);
}

Status World::acquire() {
  void* address = nullptr;
  const Status status = call(&Table::qzpbufacquire, &address);
  at = static_cast<char*>(address);
  return status;
}

Status World::add(std::int32_t buffers) {
  length = buffers;
  return call(&Table::qzpbufadd, &length);
}

Status World::writeHeader(const void* header, std::int32_t bytes) {
  length = bytes;
  return call(&Table::qzpwritehdr, header, &length);
}

// The request for direct I/O comes from the handle, whose options a reopen only adds to.
Status World::reopen(bool direct, std::uint32_t read, std::uint32_t write) {
  h->openOptions = (h->openOptions & ~qz::optionDirectIo) | (direct ? qz::optionDirectIo : 0U);
  const qz::AccessHints hints{read, write, 0};
  return call(&Table::qzpreopen, &hints);
}

Status World::reopen(Shape shape) {
  const auto access = shape == Shape::block ? qz::readOrdered : qz::readRandom;
  return reopen(shape != Shape::buffered, access, qz::rewritePages);
}

Status World::readMany(std::int64_t page, std::int32_t count, std::uint32_t options, char* area) {
  const auto entries = static_cast<std::size_t>(std::max(count, 1));
  std::vector<qz::PageRequest> requests(entries);
  std::vector<qz::PageRequest*> addresses(entries);
  for (std::size_t i = 0; i < entries; ++i) {
    requests[i].buffer = area + i * static_cast<std::size_t>(h->pageSize);
    addresses[i] = &requests[i];
  }
  return call(&Table::qzpreadmany, addresses.data(), page, count, options);
}

void World::begin() {
  calls().clear();
  recorder.entries.clear();
  recorder.capacities.clear();
  recorder.lastLength = 0;
}

void World::end() {
  if (h == nullptr) return;
  const auto blocks = [this](const char* pool) { return host.poolCounts(pool).liveBlocks; };
  EXPECT_EQ(brokenInvariant(*h, blocks("qziop pool"), blocks("qziop buffer pool")), "");
}

std::string World::did(Status status) const {
  const std::string io = calls().io();
  const std::string name = nameOfStatus(static_cast<std::uint32_t>(status));
  std::string outcome = name + (io.empty() ? "" : ": " + io);
  if (recorder.entries.empty()) return outcome + (status == Status::ok ? "" : " unreported");
  if (recorder.entries == "report " + name) return outcome;
  return outcome + " {" + recorder.entries + "}";
}

std::int64_t World::bytesOnDisk() const {
  std::error_code failed;
  const auto bytes = std::filesystem::file_size(path, failed);
  return failed ? -1 : static_cast<std::int64_t>(bytes);
}

bool World::onDisk(std::int64_t page, std::uint32_t version) const {
  std::ifstream file(path, std::ios::binary);
  std::string data(static_cast<std::size_t>(h->pageSize), 0);
  file.seekg(static_cast<std::streamoff>((page - 1) * h->pageSize + h->headerSize));
  file.read(data.data(), h->pageSize);
  return file.gcount() == h->pageSize && isStamped(data.data(), h->pageSize, page, version);
}

void World::finish() {
  calls().plan({});
  if (module == nullptr) return;
  if (h != nullptr) {
    h->openOptions &= ~qz::optionFlushAtClose;
    EXPECT_TRUE(h->hostFile == nullptr || close() == Status::ok);
    EXPECT_EQ(module->operations.qzpfreememhandle(h, journal), Status::ok);
    h = nullptr;
  }
  EXPECT_EQ(module->qzpdestroy(module), 0U);
  module = nullptr;
  const qz::PoolCounts counts = host.poolCounts();
  EXPECT_EQ(counts.liveBlocks + counts.leakedBlocks + counts.refusedFrees, 0U);
}

}  // namespace qztest
