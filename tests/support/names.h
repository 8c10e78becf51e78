// The names that tests use in place of numbers: statuses, error numbers, flags and settings.
#pragma once

#include <cstdint>
#include <string>

namespace qztest {

// "notHeld", "hostForeignBlock", "ok"; a status without a name as a number.
std::string nameOfStatus(std::uint32_t status);

// "ENOSPC".
std::string nameOfError(int error);

// The value of a text: numbers and names of settings, statuses and error numbers, joined by "+":
// "optionDirectIo+optionFlushAtClose". Throws std::invalid_argument for another text.
std::int64_t valueOf(const std::string& text);

}  // namespace qztest
