// Reads a trace and sums it up. docs/trace.md describes its lines.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cachemodel.hpp"

namespace qzpfile {

struct OperationSum {
  std::int64_t count = 0;
  std::int64_t failed = 0;
  std::int64_t nanoseconds = 0;
  std::int64_t ownNanoseconds = 0;  // without nested operations
  std::int64_t longest = 0;
  std::int64_t systemCalls = 0;
};

struct SlowOperation {
  std::int64_t nanoseconds = 0;
  std::string operation;
  std::string file;
  std::optional<std::int64_t> page;
  std::int64_t systemNanoseconds = 0;  // of these, in the module's own system calls
};

// Failures of one kind: the same operation, file and reason.
struct FailureSum {
  std::string operation;
  std::string file;
  std::uint32_t status = 0;
  int errorNumber = 0;  // 0: no system call failed
  std::int64_t count = 0;
  std::int64_t firstLine = 0;
  std::optional<std::int64_t> firstPage;
};

// The cost of a replay with other hints.
struct Alternative {
  std::string hints;
  Transfers transfers;
};

// The pages that one file moved through buffers of one shape.
struct UseSum {
  std::string hints;  // the shape
  std::int64_t opens = 0;
  Transfers recorded;
  Transfers replayed;    // the model with these hints
  Transfers pageByPage;  // the model without blocks
  bool inBlocks = false;
  std::vector<Alternative> alternatives;
};

// Everything that was done with one file, through any handle.
struct FileSum {
  std::string name;
  std::int64_t pagesRead = 0;  // in place
  std::int64_t hits = 0;       // of these, without a system call
  std::int64_t pagesReadMany = 0;
  std::int64_t pagesWritten = 0;
  std::int64_t collected = 0;  // of these, without a system call
  std::map<std::string, Transfers> systemCalls;
  std::vector<UseSum> uses;
};

struct TraceSummary {
  std::string program;
  std::string started;
  std::int64_t operationCount = 0;
  std::int64_t threads = 0;
  std::int64_t nanoseconds = 0;  // from the first operation to the end of the last
  std::int64_t linesLost = 0;    // because memory ran out, as the trace says
  bool endsInsideALine = false;  // the program was killed while it wrote
  std::map<std::string, OperationSum> operations;
  std::vector<FileSum> files;  // in the order in which they were named
  std::vector<SlowOperation> slowest;
  std::vector<FailureSum> failures;
};

// Throws Failure if the file is not a trace or has an invalid line.
TraceSummary readTrace(const std::string& fileName);

}  // namespace qzpfile
