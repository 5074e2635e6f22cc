// The framework's strings: thin value classes over std::string.
#pragma once
#include <cstdarg>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include <Quor/Types.h>

namespace Quor {

/// An 8-bit string. IteratorConst is what the text parsers advance.
class QUOR_API String8 {
 public:
  using IteratorConst = std::string::const_iterator;

  String8() = default;
  String8(char const* s) : s_(s ? s : "") {}
  String8(std::string s) : s_(std::move(s)) {}
  String8(std::string_view s) : s_(s) {}
  String8(char const* s, std::size_t n) : s_(s, n) {}

  char const* charPtr() const { return s_.c_str(); }
  std::size_t size() const { return s_.size(); }
  bool empty() const { return s_.empty(); }
  String8 substr(std::size_t start, std::size_t length = std::string::npos) const {
    return start >= s_.size() ? String8() : String8(s_.substr(start, length));
  }
  std::string const& str() const { return s_; }
  IteratorConst begin() const { return s_.begin(); }
  IteratorConst end() const { return s_.end(); }
  char operator[](std::size_t i) const { return s_[i]; }

  String8& operator+=(String8 const& o) { s_ += o.s_; return *this; }
  String8& operator+=(char const* o) { s_ += o; return *this; }
  String8& operator+=(char c) { s_ += c; return *this; }
  friend String8 operator+(String8 a, String8 const& b) { return a += b; }
  friend String8 operator+(String8 a, char const* b) { return a += b; }

  friend bool operator==(String8 const& a, String8 const& b) { return a.s_ == b.s_; }
  friend bool operator==(String8 const& a, char const* b) { return a.s_ == b; }
  friend bool operator==(String8 const& a, std::string const& b) { return a.s_ == b; }
  friend auto operator<=>(String8 const& a, String8 const& b) { return a.s_ <=> b.s_; }
  friend std::ostream& operator<<(std::ostream& o, String8 const& s) { return o << s.s_; }

 private:
  std::string s_;
};

/// The name of an entity, or a key.
class QUOR_API Name : public String8 {
 public:
  using String8::String8;
  Name() = default;
  Name(String8 const& s) : String8(s) {}
};

/// printf-style formatting into a String8.
QUOR_API String8 format(char const* fmt, ...) __attribute__((format(printf, 1, 2)));
QUOR_API String8 vformat(char const* fmt, va_list ap);

}  // namespace Quor

template <>
struct std::hash<Quor::String8> {
  std::size_t operator()(Quor::String8 const& s) const noexcept { return std::hash<std::string>()(s.str()); }
};
template <>
struct std::hash<Quor::Name> {
  std::size_t operator()(Quor::Name const& s) const noexcept { return std::hash<std::string>()(s.str()); }
};
