// Promises about the converter of file names.
#include <sys/stat.h>
#include <sys/vfs.h>

#include <algorithm>
#include <vector>

#include "files.h"

namespace qz::hostcheck {
namespace {

Converter* makeConverter(const Trial& trial) {
  EncodingServices* const services = trial.host->encodingServices;
  Converter* const converter =
      services->converterCreate(services, services->systemEncoding, 0, trial.journal);
  needed(converter != nullptr, "the host makes no converter");
  promised(converter->convert != nullptr && converter->destroy != nullptr,
           "convert or destroy of a converter is null");
  return converter;
}

// The last character takes more than one byte in most encodings.
constexpr std::u32string_view kName = U"name-\u00E4\u00F6\u00FC";

void conversionsStayWithinTheCapacity(const Trial& trial) {
  Converter* const converter = makeConverter(trial);
  const std::size_t most = 4 * kName.size();
  for (std::size_t capacity = 0; capacity <= most; ++capacity) {
    std::vector<char> output(most + 64, '#');
    converter->convert(converter, kName.data(), kName.size() * sizeof(char32_t), output.data(),
                       capacity, 0, 0);
    promised(std::all_of(output.begin() + static_cast<std::ptrdiff_t>(capacity), output.end(),
                         [](char c) { return c == '#'; }),
             "convert stores more bytes than the capacity of " + std::to_string(capacity));
  }
}

// The system finds a file that the host created under the name that the converter makes.
void conversionsAreTheNamesOfFiles(const Trial& trial) {
  Converter* const converter = makeConverter(trial);
  const std::u32string name = wide(trial.folder) + U"/" + std::u32string(kName);
  const Opened file(trial, name, openflag::readWrite | openflag::create, kExclusive);
  needed(bool(file), "the host did not make a file whose name is not ASCII");
  std::vector<char> path(4 * name.size() + 1, '\0');
  converter->convert(converter, name.data(), name.size() * sizeof(char32_t), path.data(),
                     path.size() - 1, 0, 0);
  struct stat about {};
  struct statfs system {};
  promised(stat(path.data(), &about) == 0 && statfs(path.data(), &system) == 0,
           "the system does not know the converted name of a file");
}

constexpr Check kChecks[] = {
    {35, "convert stays within the capacity", conversionsStayWithinTheCapacity},
    {36, "convert makes the name that the system takes", conversionsAreTheNamesOfFiles},
};

}  // namespace

std::span<const Check> textChecks() { return kChecks; }

}  // namespace qz::hostcheck
