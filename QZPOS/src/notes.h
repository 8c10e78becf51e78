// Notes about the I/O type, written only when the environment has QZIOP_DISPLAY_IOP_TYPE.
#pragma once

#include <cstdlib>
#include <string_view>

#include "qzpos.h"

namespace qz {

// Any value counts, the empty one included.
inline bool showsIoType() { return std::getenv("QZIOP_DISPLAY_IOP_TYPE") != nullptr; }

// Notes go to the caller's journal, else to the host's; null when there is neither.
inline Journal* noteJournal(const FileHandle& h, Journal* journal) {
  return journal != nullptr ? journal : h.module->host->defaultJournal;
}

// A note whose text takes the given inserts.
template <class... Inserts>
void writeNote(Journal* journal, std::u32string_view text, Inserts... inserts) {
  if (journal == nullptr) return;
  qzlMessageToJnl(journal, JournalLevel::note, text.data(), static_cast<std::uint32_t>(text.size()),
                  inserts...);
}

}  // namespace qz
