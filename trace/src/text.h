// JSON text in its own memory. If memory runs out, the text is marked as lost and nothing throws: a
// trace must not end the program that it observes.
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
  // A thread may still record while its variables are destroyed; the text then starts again.
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

  // A member's name, after a comma if another member precedes it. Names are literals, copied
  // without a loop.
  template <std::size_t bytes>
  void key(const char (&name)[bytes]) {
    if (!reserve(bytes + 3)) return;
    char* to = data_ + size_;
    if (size_ != 0 && to[-1] != '{' && to[-1] != '[') *to++ = ',';
    *to++ = '"';
    std::memcpy(to, name, bytes - 1);
    to += bytes - 1;
    *to++ = '"';
    *to++ = ':';
    size_ = static_cast<std::size_t>(to - data_);
  }

  template <class Number>
  void number(Number value, int base = 10) {
    constexpr std::size_t kMostDigits = std::numeric_limits<std::uint64_t>::digits10 + 2;
    if (!reserve(kMostDigits)) return;
    size_ = static_cast<std::size_t>(
        std::to_chars(data_ + size_, data_ + size_ + kMostDigits, value, base).ptr - data_);
  }

  template <std::size_t bytes, class Number>
  void field(const char (&name)[bytes], Number value) {
    key(name);
    number(value);
  }
  template <std::size_t bytes>
  void field(const char (&name)[bytes], std::string_view plainText) {
    key(name);
    add("\"");
    add(plainText);
    add("\"");
  }
  template <std::size_t bytes>
  void address(const char (&name)[bytes], const void* value) {
    key(name);
    add("\"");
    number(reinterpret_cast<std::uintptr_t>(value), 16);
    add("\"");
  }
  // A string in ASCII with escapes. Code points that Unicode does not have become U+FFFD.
  void string(const char32_t* text, std::size_t length);
  // The same for a path in bytes; bytes outside ASCII become U+FFFD.
  void string(const char* path);

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
  bool lost_ = false;  // some text is missing
};

}  // namespace qz::trace
