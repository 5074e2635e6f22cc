// The builtin pieces of the text form.
#include <algorithm>
#include <cctype>
#include <charconv>
#include <cstring>
#include <memory>
#include <string>

#include <Quor/Quor.h>

namespace Quor {

namespace {
bool isBlank(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\r'; }

// Every text error of the parsers carries the same id, so callers can tell a bad text
// from a bad attribute value.
[[noreturn]] void throwParseError(String8 text) { throw RangeException(std::move(text), valueParseErrorId); }
}  // namespace

void skipBlanks(StrepIt& it, StrepIt end) {
  while (it != end && isBlank(*it)) ++it;
}

void needString(StrepIt& it, StrepIt end, char const* pattern) {
  for (char const* p = pattern; *p; ++p) {
    if (*p == ' ') {
      skipBlanks(it, end);
    } else if (it == end || *it != *p) {
      throwParseError(String8(std::string("expected \"") + pattern + "\""));
    } else {
      ++it;
    }
  }
}

U64 parseUnsigned(StrepIt& it, StrepIt end, U64 max) {
  char const* b = std::to_address(it);
  char const* e = b + (end - it);
  U64 v = 0;
  auto r = std::from_chars(b, e, v);
  if (r.ec == std::errc::invalid_argument) throwParseError("expected an unsigned number");
  if (r.ec == std::errc::result_out_of_range || v > max)
    throwParseError(format("number out of range (> %llu)", static_cast<unsigned long long>(max)));
  it += r.ptr - b;
  return v;
}

S64 parseSigned(StrepIt& it, StrepIt end, S64 min, S64 max) {
  char const* b = std::to_address(it);
  char const* e = b + (end - it);
  S64 v = 0;
  auto r = std::from_chars(b, e, v);
  if (r.ec == std::errc::invalid_argument) throwParseError("expected a number");
  if (r.ec == std::errc::result_out_of_range || v < min || v > max)
    throwParseError(format("number out of range (%lld to %lld)", static_cast<long long>(min),
                           static_cast<long long>(max)));
  it += r.ptr - b;
  return v;
}

double parseDouble(StrepIt& it, StrepIt end) {
  char const* b = std::to_address(it);
  char const* e = b + (end - it);
  double v = 0;
  auto r = std::from_chars(b, e, v);
  if (r.ec == std::errc::invalid_argument) throwParseError("expected a number");
  if (r.ec == std::errc::result_out_of_range) throwParseError("number out of range");
  it += r.ptr - b;
  return v;
}

void writeDouble(std::string& out, double d) {
  char buf[32];
  auto r = std::to_chars(buf, buf + sizeof buf, d);  // shortest text that reads back exactly
  out.append(buf, r.ptr);
}

std::string parseQuoted(StrepIt& it, StrepIt end) {
  if (it == end || (*it != '\'' && *it != '"')) throwParseError("expected a quoted string");
  char const quote = *it;
  StrepIt p = it + 1;
  std::string s;
  for (;;) {
    if (p == end) throwParseError("unterminated quoted string");
    char c = *p++;
    if (c == quote) break;
    if (c == '\\') {
      if (p == end) throwParseError("unterminated quoted string");
      c = *p++;
      if (c == 'n') c = '\n';
      else if (c == 't') c = '\t';
    }
    s += c;
  }
  it = p;
  return s;
}

void writeQuoted(std::string& out, std::string_view s) {
  out += '\'';
  for (char c : s) {
    if (c == '\'' || c == '\\') out += '\\';
    if (c == '\n') {
      out += "\\n";
      continue;
    }
    out += c;
  }
  out += '\'';
}

void needTypeName(StrepIt& it, StrepIt end, char const* typeName) {
  StrepIt p = it;
  skipBlanks(p, end);
  auto const n = static_cast<std::ptrdiff_t>(std::strlen(typeName));
  if (end - p < n + 2 || p[0] != '\'' || !std::equal(p + 1, p + 1 + n, typeName) || p[n + 1] != '\'')
    throwParseError(String8(std::string("expected \" '") + typeName + "'\""));
  it = p + n + 2;
}

void rethrowFromDeserializeAttr(char const* field, RangeException const& e) {
  throw RangeException(String8(e.text().str() + " in attribute " + field), e.id());
}

void throwJunkAtColumn(long long column, String8 const& text) {
  // Built by concatenation, not %s: the whole input is quoted, even past a NUL byte.
  throwParseError(String8(format("junk at column %lld deserializing ", column).str() + text.str()));
}

char const* shortTypeName(char const* qualified) {
  char const* p = std::strrchr(qualified, ':');
  return p ? p + 1 : qualified;
}

void throwPrematureEnd(char const* qualified) {
  throwParseError(String8(std::string("premature end of value type ") + shortTypeName(qualified)));
}

void throwNoSuchAttribute(char const* qualified, std::string const& name) {
  throwParseError(String8(std::string(shortTypeName(qualified)) + " has no such attribute: " + name));
}

}  // namespace Quor
