// The failure of a command: thrown, shown once at the end as text or JSON, and turned into the
// program's exit status.
#pragma once

#include <cstdint>
#include <exception>
#include <optional>
#include <string>

#include "qziop.hpp"

namespace qzpfile {

enum class Exit {
  good = 0,
  different = 1,      // verify or compare found damage or a difference
  usage = 64,         // the command line is wrong
  badData = 65,       // a file is damaged or not of the expected kind
  noInput = 66,       // a file to read is missing or cannot be read
  cannotCreate = 73,  // a file to write already exists or cannot be created
  ioError = 74,
  noPermission = 77,
};

class Failure : public std::exception {
 public:
  Failure(Exit exit, std::string what, std::string file = {})
      : exit_(exit), what_(std::move(what)), file_(std::move(file)) {}

  const char* what() const noexcept override { return what_.c_str(); }
  Exit exit() const { return exit_; }
  // What happened and why, without the file's name.
  std::string reason() const;

  // Each adds a detail to a temporary Failure.
  Failure at(std::int64_t page, std::int64_t offset) &&;  // offset: bytes into the file
  Failure because(int errorNumber) &&;                    // the system's reason
  Failure fromModule(const qz::Error& error) &&;
  Failure tryThis(std::string hint) &&;
  // Adds what the failed command has or has not changed.
  void note(std::string text) { note_ = std::move(text); }

  // Several lines for standard error, each with its newline; `colour` highlights the first line.
  std::string text(bool colour) const;
  // One JSON document of the schema "qzpfile/error", with its newline.
  std::string json() const;

 private:
  Exit exit_;
  std::string what_;
  std::string file_;
  std::optional<std::int64_t> page_;
  std::optional<std::int64_t> offset_;
  int errorNumber_ = 0;
  std::optional<std::uint32_t> status_;
  std::string statusText_;
  std::string note_;
  std::string hint_;
};

// Whether a file was to be read or written: this decides between "no input" and "cannot create".
enum class Purpose { input, output };

// A failed system call of the tool itself. errorNumber: its errno.
Failure systemFailure(Purpose purpose, std::string what, std::string file, int errorNumber);

// A failed operation of the module on `file`.
Failure moduleFailure(Purpose purpose, std::string what, std::string file, const qz::Error& error);

// Thrown when SIGINT, SIGTERM or SIGHUP asked the program to end.
struct Interrupted {
  int signal;
};

}  // namespace qzpfile
