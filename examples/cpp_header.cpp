// Keeps notes with the C++ header: opens or creates FILE, appends NOTE as its last page and prints
// all notes. The file has a header that names its kind, then one page for each note.
#include <cstdio>
#include <cstring>
#include <qziop.hpp>

static constexpr char kKind[64] = "notes, one a page of 512 bytes";

static int failed(const qz::Error& error) {
  std::fprintf(stderr, "notes: %s\n", error.message().c_str());
  return 1;
}

// Opens an existing file by its header, or starts a new one.
static qz::Result<void> open(qz::PagedFile& file) {
  char kind[sizeof kKind];
  std::int32_t length = sizeof kKind;
  file.settings().pageSize = 512;
  file.settings().headerSize = length;
  file.settings().readAccess = qz::readRandom;
  file.settings().writeAccess = qz::rewritePages;
  file.settings().openMode = qz::openOrKeep;
  auto found = file.preopen(kind, &length);
  if (found && std::memcmp(kind, kKind, sizeof kKind) == 0) return file.open();
  if (found) {
    file.settings().writeAccess = qz::noWrite;  // otherwise the close would remove an empty file
    return qz::Error{qz::Status::misfit, "This is not a file of notes", 0, 0, 0, {}};
  }
  if (found.status() != qz::Status::fileNotFound) return found;
  file.settings().openMode = qz::createOrReplace;
  if (auto created = file.open(); !created) return created;
  file.settings().headerSize = length;  // creating a file sets it to 0
  return file.writeHeader(kKind, &length);
}

int main(int argc, char** argv) {
  if (argc != 3) return std::fputs("usage: cpp_header FILE NOTE\n", stderr), 64;
  qz::StandInHost host;
  const auto module = qz::Module::load(host.handle());
  if (!module) return failed(module.error());
  auto file = module->newFile();
  if (!file) return failed(file.error());
  if (const auto named = file->setName(argv[1]); !named) return failed(named.error());
  if (const auto opened = open(*file); !opened) return failed(opened.error());

  auto note = file->acquire();  // the module's own memory, returned at the end of the scope
  if (!note) return failed(note.error());
  std::strncpy(note->data(), argv[2], std::size_t(note->bytes()));
  const auto written = file->write(*note, file->settings().pageCount + 1);
  if (!written) return failed(written.error());
  if (const auto flushed = file->flush(); !flushed) return failed(flushed.error());

  for (std::int64_t page = 1; page <= file->settings().pageCount; ++page) {
    const auto read = file->read(page);
    if (!read) return failed(read.error());
    std::printf("%d. %.*s\n", int(page), read->bytes(), read->data());
  }
  const auto closed = file->close();
  return closed ? 0 : failed(closed.error());
}
