#include "power/commands.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace qztest {
namespace {

namespace fs = std::filesystem;

Bytes contentsOf(const fs::path& path) {
  std::ifstream file(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

// Text whose pages all differ.
Bytes text(std::size_t bytes, int seed) {
  Bytes result;
  while (result.size() < bytes) result += std::to_string(++seed * 7919) + "\n";
  result.resize(bytes);
  return result;
}

std::vector<Event> readTrace(const fs::path& path) {
  std::vector<Event> trace;
  const Bytes bytes = contentsOf(path);
  for (std::size_t at = 0; at + sizeof(TraceRecord) <= bytes.size();) {
    Event event;
    std::memcpy(&event.record, bytes.data() + at, sizeof event.record);
    at += sizeof event.record;
    event.data = bytes.substr(at, static_cast<std::size_t>(event.record.length));
    at += event.data.size();
    trace.push_back(std::move(event));
  }
  return trace;
}

std::vector<char*> pointers(const std::vector<std::string>& words) {
  std::vector<char*> result;
  result.reserve(words.size() + 1);
  for (const std::string& word : words) result.push_back(const_cast<char*>(word.c_str()));
  result.push_back(nullptr);
  return result;
}

// The file that a put leaves if a call fails just after its change was committed: with the redo
// record of the change.
Folder interruptedPut(const Workplace& place, const CommandCase& put) {
  const auto calls = static_cast<int>(place.record(put).trace.size());
  for (int call = 1; call <= calls; ++call) {
    place.record(put, {"QZR_FAIL=" + std::to_string(call), "QZR_ERROR=" + std::to_string(EIO)});
    const Folder left = place.contents();
    if (left.at("x").find("QZPREDO") != Bytes::npos) return {{"x", left.at("x")}};
  }
  ADD_FAILURE() << "after no failed call was there a redo record";
  return put.before;
}

}  // namespace

std::string whyNoRecorder() {
#if defined(__SANITIZE_ADDRESS__)
  return "the sanitizer must be loaded before anything else";
#elif !defined(__x86_64__)
  return "the recorder makes the system calls of x86-64";
#else
  return {};
#endif
}

// On a file system in memory if there is one: each state is written and flushed several times.
Workplace::Workplace() : folder_("/dev/shm/qziop-power-XXXXXX") {
  if (mkdtemp(folder_.data()) != nullptr) return;
  folder_ = QZIOP_PROGRAMS "/power-XXXXXX";
  if (mkdtemp(folder_.data()) == nullptr) std::abort();
}

Workplace::~Workplace() {
  fs::remove_all(folder_);
  for (const char* suffix : {".out", ".err", ".trace"}) fs::remove(folder_ + suffix);
}

void Workplace::fill(const Folder& files) const {
  for (const auto& entry : fs::directory_iterator(folder_)) {
    if (!files.contains(entry.path().filename())) fs::remove(entry.path());
  }
  for (const auto& [name, bytes] : files) {
    std::ofstream(folder_ + "/" + name, std::ios::binary) << bytes;
  }
}

Folder Workplace::contents() const {
  Folder files;
  for (const auto& entry : fs::directory_iterator(folder_)) {
    files[entry.path().filename()] = contentsOf(entry.path());
  }
  return files;
}

Execution Workplace::run(const std::vector<std::string>& arguments, const std::string& input,
                         const std::vector<std::string>& settings,
                         const std::function<void()>& whenStopped) const {
  std::vector<std::string> words = {QZIOP_PROGRAMS "/qzpfile"};
  words.insert(words.end(), arguments.begin(), arguments.end());
  std::vector<std::string> environment = settings;
  if (!settings.empty()) environment.emplace_back("LD_PRELOAD=" QZIOP_RECORDER);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addchdir_np(&actions, folder_.c_str());
  posix_spawn_file_actions_addopen(&actions, 0, input.empty() ? "/dev/null" : input.c_str(),
                                   O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, (folder_ + ".out").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_addopen(&actions, 2, (folder_ + ".err").c_str(),
                                   O_WRONLY | O_CREAT | O_TRUNC, 0600);
  pid_t child = 0;
  const int spawned = posix_spawn(&child, words[0].c_str(), &actions, nullptr,
                                  pointers(words).data(), pointers(environment).data());
  posix_spawn_file_actions_destroy(&actions);
  Execution result;
  int status = 0;
  if (spawned != 0) std::abort();
  while (waitpid(child, &status, WUNTRACED) == child && WIFSTOPPED(status)) {
    whenStopped();
    kill(child, SIGCONT);
  }
  result.status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  result.out = contentsOf(folder_ + ".out");
  return result;
}

Execution Workplace::record(const CommandCase& command, const std::vector<std::string>& settings,
                            const std::function<void()>& whenStopped) const {
  fill(command.before);
  fs::remove(folder_ + ".trace");
  std::vector<std::string> all = settings;
  all.push_back("QZR_TRACE=" + folder_ + ".trace");
  std::map<std::uint64_t, std::string> inodes;
  for (const auto& entry : fs::directory_iterator(folder_)) {
    struct stat info = {};
    stat(entry.path().c_str(), &info);
    inodes[info.st_ino] = entry.path().filename();
  }
  Execution result = run(command.arguments, command.input, all, whenStopped);
  result.trace = readTrace(folder_ + ".trace");
  result.inodes = std::move(inodes);
  return result;
}

Bytes Workplace::held(const Folder& files) const {
  fill(files);
  if (!files.contains("x")) return "absent";
  if (files.at("x").rfind("QZPFILE", 0) != 0) return "plain:" + files.at("x");
  const Execution payload = run({"unpack", "x", "-"});
  if (payload.status != 0) return kDamaged;
  // Only header --set, whose input is h, changes the header area behind the header's own fields.
  const Bytes area = files.contains("h") ? run({"header", "x"}).out : Bytes();
  return "payload:" + payload.out + area;
}

Bytes Workplace::heldAfterRepair(const Folder& files) const {
  fill(files);
  const Execution repaired = run({"repair", "--yes", "x"});
  return repaired.status != 0 ? kDamaged : held(contents());
}

// Pages of 512 bytes: 63 of them share a checksum page.
std::vector<CommandCase> commandCases(const Workplace& place, int version) {
  const std::vector<std::string> sizes = {
      "--page-size", "512", "--header-size", "512", "--format-version", std::to_string(version)};
  const auto packed = [&](const Bytes& payload) {
    place.fill({{"in", payload}});
    std::vector<std::string> words = {"pack", "in", "x"};
    words.insert(words.end(), sizes.begin(), sizes.end());
    EXPECT_EQ(place.run(words).status, 0);
    return place.contents().at("x");
  };
  const Bytes old = packed(text(31332, 1));  // 61 pages and a part
  const Bytes longer = packed(text(35840, 2));
  Bytes damaged = old;
  damaged[version == 2 ? 520 : 40] ^= 1;  // in the first checksum page, or reserved bytes
  Bytes header = old.substr(0, 512);
  header.replace(100, 9, "new bytes");
  const Folder fresh = {{"in", text(2567, 3)}, {"x", old}};
  const auto with = [&](std::vector<std::string> words) {
    words.insert(words.end(), sizes.begin(), sizes.end());
    return words;
  };
  const Bytes three = text(1536, 4);
  std::vector<CommandCase> cases = {
      {"pack", with({"pack", "--force", "in", "x"}), {}, fresh},
      {"copy",
       with({"copy", "--force", "a", "x"}),
       {},
       {{"a", packed(fresh.at("in"))}, {"x", old}}},
      {"unpack", {"unpack", "--force", "a", "x"}, {}, {{"a", old}, {"x", "older"}}},
      {"copy --raw",
       {"copy", "--raw", "--page-size", "512", "--force", "a", "x"},
       {},
       {{"a", text(1024, 6)}, {"x", "older"}}},
      {"put", {"put", "x", "3"}, "in", {{"in", three}, {"x", old}}},
      {"put over the end", {"put", "x", "61"}, "in", {{"in", text(2560, 5)}, {"x", old}}},
      {"put --append", {"put", "--append", "x"}, "in", {{"in", three}, {"x", old}}},
      {"truncate", {"truncate", "x", "60"}, {}, {{"x", longer}}},
      {"header --set", {"header", "--set", "h", "x"}, {}, {{"h", header}, {"x", old}}},
      {"repair", {"repair", "--yes", "x"}, {}, {{"x", damaged}}},
  };
  const auto put = std::ranges::find(cases, "put over the end", &CommandCase::name);
  const Folder left = interruptedPut(place, *put);
  Folder withPages = left;
  withPages["in"] = three;
  cases.push_back({"repair a change", {"repair", "x"}, {}, left});
  cases.push_back({"put after it", {"put", "x", "7"}, "in", withPages});
  return cases;
}

int sumOverCommands(
    const std::function<int(const Workplace&, const CommandCase&, int version)>& tryCommand) {
  const Workplace place;
  int sum = 0;
  for (const int version : {1, 2}) {
    for (const CommandCase& command : commandCases(place, version)) {
      SCOPED_TRACE(command.name + ", version " + std::to_string(version));
      sum += tryCommand(place, command, version);
    }
  }
  return sum;
}

}  // namespace qztest
