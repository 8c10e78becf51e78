// JSON text in memory of its own. Without memory the text is marked as lost, and nothing throws: a
// trace must not end the program that it watches.
#pragma once

#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <string_view>

namespace qz::trace {

class Text {
 public:
  Text() = default;
  Text(const Text&) = delete;
  Text& operator=(const Text&) = delete;
  // A thread may still record while its variables end: the text is then begun anew.
  ~Text() {
    std::free(data_);
    data_ = nullptr;
    size_ = capacity_ = 0;
  }

  const char* data() const { return data_; }
  std::size_t size() const { return size_; }
  bool isLost() const { return lost_; }

  void cutTo(std::size_t size) {
    size_ = size;
    if (size == 0) lost_ = false;
  }

  void add(std::string_view text) {
    if (!reserve(text.size())) return;
    std::memcpy(data_ + size_, text.data(), text.size());
    size_ += text.size();
  }

  // A member's name, behind a comma where another member stands before it.
  void key(std::string_view name) {
    comma();
    add("\"");
    add(name);
    add("\":");
  }
  void comma() {
    if (size_ != 0 && data_[size_ - 1] != '{' && data_[size_ - 1] != '[') add(",");
  }

  template <class Number>
  void number(Number value, int base = 10) {
    constexpr std::size_t kMostDigits = std::numeric_limits<std::uint64_t>::digits10 + 2;
    if (!reserve(kMostDigits)) return;
    size_ = static_cast<std::size_t>(
        std::to_chars(data_ + size_, data_ + size_ + kMostDigits, value, base).ptr - data_);
  }

  template <class Number>
  void field(std::string_view name, Number value) {
    key(name);
    number(value);
  }
  void field(std::string_view name, std::string_view plainText) {
    key(name);
    add("\"");
    add(plainText);
    add("\"");
  }
  void address(std::string_view name, const void* value) {
    key(name);
    add("\"");
    number(reinterpret_cast<std::uintptr_t>(value), 16);
    add("\"");
  }
  // A name in ASCII with escapes. What is no Unicode character becomes U+FFFD.
  void name(std::string_view fieldName, const char32_t* text, std::size_t length);
  // The same for a path of bytes, of which those beyond ASCII become U+FFFD.
  void name(std::string_view fieldName, const char* bytes);

 private:
  bool reserve(std::size_t bytes) {
    if (bytes <= capacity_ - size_) return true;
    const std::size_t wanted = 2 * capacity_ + bytes + 512;
    void* larger = std::realloc(data_, wanted);
    if (larger == nullptr) {
      lost_ = true;
      return false;
    }
    data_ = static_cast<char*>(larger);
    capacity_ = wanted;
    return true;
  }
  void character(char32_t c);
  void escape(char32_t unit);

  char* data_ = nullptr;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
  bool lost_ = false;  // something is missing
};

}  // namespace qz::trace
