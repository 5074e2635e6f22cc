// The text form of values: one writer and one parser per kind, composed for value types
// from their field lists.
//
//   value type    Value('App::Point', ** {'x': 12, 'y': 34})
//   enumeration   its enumerator's name; a number that is none prints as "<Type>(%d)"
//   numbers       decimal; doubles in their shortest exact form
//   strings       single-quoted, with \' and \\ escaped
//
// A value type declares its name and fields once with QUOR_VALUE_TYPE and gets its
// writer, parser, operator<< and operator== from that. A type with a text form of its
// own defines `void quorWrite(std::string&) const` and `static T quorParse(It&, It)`;
// one that is a single number in text declares it with QUOR_WRAPPED_VALUE_TYPE. Both
// macros also give the type its binary form and type record (Quor/Type.h).
// A failed parse throws RangeException (id valueParseErrorId) and leaves the target
// unchanged.
#pragma once
#include <cctype>
#include <charconv>
#include <concepts>
#include <cstdint>
#include <cstring>
#include <limits>
#include <ostream>
#include <string>
#include <tuple>
#include <type_traits>
#include <utility>

#include <Quor/Exception.h>
#include <Quor/String.h>

namespace Quor {

// Declared in Quor/Type.h and Quor/NboAttrLog.h, which the value-type macros reach.
struct TypeRecord;
struct TypeRegistration;
template <class T>
TypeRecord const& valueTypeRecord();
namespace NboAttrLog {
class Out;
class In;
}  // namespace NboAttrLog

using StrepIt = String8::IteratorConst;

/// The id carried by every exception that reports a text which is no value of its type.
inline constexpr U32 valueParseErrorId = 12;

// ---- builtin pieces -------------------------------------------------------------

/// Matches pattern at it: a blank in the pattern skips any blanks in the text, any
/// other character must be there exactly. Throws RangeException (it may have moved).
QUOR_API void needString(StrepIt& it, StrepIt end, char const* pattern);
/// Skips blanks.
QUOR_API void skipBlanks(StrepIt& it, StrepIt end);
/// Decimal integers; throw RangeException on no digits or overflow.
QUOR_API U64 parseUnsigned(StrepIt& it, StrepIt end, U64 max);
QUOR_API S64 parseSigned(StrepIt& it, StrepIt end, S64 min, S64 max);
QUOR_API double parseDouble(StrepIt& it, StrepIt end);
/// A single- or double-quoted string with backslash escapes.
QUOR_API std::string parseQuoted(StrepIt& it, StrepIt end);
QUOR_API void writeQuoted(std::string& out, std::string_view s);
QUOR_API void writeDouble(std::string& out, double d);
/// Matches " '<typeName>'" at it (blanks before the quote are skipped).
QUOR_API void needTypeName(StrepIt& it, StrepIt end, char const* typeName);
/// Re-throws a field's parse error with the field's name added.
[[noreturn]] QUOR_API void rethrowFromDeserializeAttr(char const* field, RangeException const& e);
/// "junk at column %lld deserializing %s"
[[noreturn]] QUOR_API void throwJunkAtColumn(long long column, String8 const& text);

// ---- enumerations ----------------------------------------------------------------

template <class E>
struct EnumTable {
  char const* typeName;
  std::pair<E, char const*> const* entries;
  std::size_t count;
};

template <class E>
concept TextEnum = std::is_enum_v<E> && requires(E e) { quorEnumTable(e); };

/// Declares an enumeration's text form at namespace scope:
///   QUOR_ENUM_TEXT(XactResult, "XactResult", {XactResult::xactSuccess, "xactSuccess"}, ...)
#define QUOR_ENUM_TEXT(E, typeNameText, ...)                                      \
  inline ::Quor::EnumTable<E> quorEnumTable(E) {                                  \
    static constexpr std::pair<E, char const*> entries[] = {__VA_ARGS__};         \
    return {typeNameText, entries, sizeof(entries) / sizeof(entries[0])};         \
  }                                                                               \
  inline std::ostream& operator<<(std::ostream& o, E e) { return ::Quor::writeTo(o, e); }
/// The same for an enumeration nested in a class, written inside the class.
#define QUOR_ENUM_TEXT_IN_CLASS(E, typeNameText, ...)                             \
  friend ::Quor::EnumTable<E> quorEnumTable(E) {                                  \
    static constexpr std::pair<E, char const*> entries[] = {__VA_ARGS__};         \
    return {typeNameText, entries, sizeof(entries) / sizeof(entries[0])};         \
  }                                                                               \
  friend std::ostream& operator<<(std::ostream& o, E e) { return ::Quor::writeTo(o, e); }

// ---- value types with fields ----------------------------------------------------------

template <class C, class M>
struct Field {
  char const* name;
  M C::*member;
};
template <class C, class M>
constexpr Field<C, M> field(char const* name, M C::*member) { return {name, member}; }

template <class T>
concept FieldValue = requires { T::quorTypeName; T::quorFields(); };
template <class T>
concept CustomText = requires(T const& t, std::string& s, StrepIt& it) {
  t.quorWrite(s);
  { T::quorParse(it, it) } -> std::same_as<T>;
};

/// Declares a value type's text name and fields (storage named <field>_), giving it
/// writer, parser, operator<< and field-wise operator==.
#define QUOR_VALUE_TYPE(Type, typeNameText, ...)                                         \
  static constexpr char const* quorTypeName = typeNameText;                              \
  static constexpr auto quorFields() { return std::make_tuple(__VA_ARGS__); }            \
  [[maybe_unused]] friend std::ostream& operator<<(std::ostream& o, Type const& v) { return ::Quor::writeTo(o, v); } \
  [[maybe_unused]] friend bool operator==(Type const& a, Type const& b) { return ::Quor::fieldsEqual(a, b); } \
  static inline ::Quor::TypeRegistration const quorTypeRegistration_{&::Quor::valueTypeRecord<Type>};
#define QUOR_FIELD(Type, name) ::Quor::field(#name, &Type::name##_)

/// Declares a value type whose text is that of its one field (storage <field>_), as a
/// sequence number is written "17": writer, parser and operator<<.
#define QUOR_WRAPPED_VALUE_TYPE(Type, name)                                                \
  void quorWrite(std::string& out) const { ::Quor::writeValue(out, name##_); }             \
  static Type quorParse(::Quor::StrepIt& it, ::Quor::StrepIt end) {                        \
    Type v{};                                                                              \
    ::Quor::parseValue(it, end, v.name##_);                                                \
    return v;                                                                              \
  }                                                                                        \
  [[maybe_unused]] friend std::ostream& operator<<(std::ostream& o, Type const& v) { return ::Quor::writeTo(o, v); } \
  void quorWriteNbo(::Quor::NboAttrLog::Out& out) const { out.payload(name##_); }                    \
  static Type quorReadNbo(::Quor::NboAttrLog::In& in) {                                              \
    Type v{};                                                                                        \
    v.name##_ = in.payload<decltype(v.name##_)>();                                                   \
    return v;                                                                                        \
  }

/// Gives a value type the constructor that parses it from text, leaving it behind the
/// parsed text: Type(it, end). Opt-in, so that plain aggregates stay aggregates.
#define QUOR_TEXT_CONSTRUCTOR(Type) \
  Type(::Quor::StrepIt& it, ::Quor::StrepIt end) : Type(::Quor::TextForm<Type>::parse(it, end)) {}

/// The type name without its namespaces, for error texts ("UniqueId").
QUOR_API char const* shortTypeName(char const* qualified);
[[noreturn]] QUOR_API void throwPrematureEnd(char const* qualified);
[[noreturn]] QUOR_API void throwNoSuchAttribute(char const* qualified, std::string const& name);

// ---- the writer and parser, by kind ---------------------------------------------------------

template <class T>
struct TextForm;

template <class T>
void writeValue(std::string& out, T const& v) { TextForm<T>::write(out, v); }
/// Parses a T at it, leaving it behind the text; the target changes only on success.
template <class T>
void parseValue(StrepIt& it, StrepIt end, T& v) { v = TextForm<T>::parse(it, end); }

template <class T>
std::ostream& writeTo(std::ostream& o, T const& v) {
  std::string s;
  writeValue(s, v);
  return o << s;
}

template <class T>
bool fieldsEqual(T const& a, T const& b) {
  return std::apply([&](auto const&... f) { return ((a.*(f.member) == b.*(f.member)) && ...); },
                    T::quorFields());
}

template <std::integral T>
struct TextForm<T> {
  static void write(std::string& out, T v) {
    if constexpr (std::is_same_v<T, bool>) {
      out += v ? '1' : '0';
    } else {
      char buf[24];
      auto r = std::to_chars(buf, buf + sizeof buf, v);
      out.append(buf, static_cast<std::size_t>(r.ptr - buf));
    }
  }
  static T parse(StrepIt& it, StrepIt end) {
    if constexpr (std::is_same_v<T, bool>) {
      return parseUnsigned(it, end, 1) != 0;
    } else if constexpr (std::is_unsigned_v<T>) {
      return static_cast<T>(parseUnsigned(it, end, std::numeric_limits<T>::max()));
    } else {
      return static_cast<T>(parseSigned(it, end, std::numeric_limits<T>::min(), std::numeric_limits<T>::max()));
    }
  }
};

template <std::floating_point T>
struct TextForm<T> {
  static void write(std::string& out, T v) { writeDouble(out, static_cast<double>(v)); }
  static T parse(StrepIt& it, StrepIt end) { return static_cast<T>(parseDouble(it, end)); }
};

template <class S>
  requires std::is_base_of_v<String8, S>
struct TextForm<S> {
  static void write(std::string& out, S const& v) { writeQuoted(out, v.str()); }
  static S parse(StrepIt& it, StrepIt end) { return S(parseQuoted(it, end)); }
};

template <>
struct TextForm<std::string> {
  static void write(std::string& out, std::string const& v) { writeQuoted(out, v); }
  static std::string parse(StrepIt& it, StrepIt end) { return parseQuoted(it, end); }
};

template <TextEnum E>
struct TextForm<E> {
  static void write(std::string& out, E e) {
    auto const t = quorEnumTable(e);
    for (std::size_t i = 0; i < t.count; ++i)
      if (t.entries[i].first == e) {
        out += t.entries[i].second;
        return;
      }
    out += t.typeName;
    out += '(';
    TextForm<long long>::write(out, static_cast<long long>(e));
    out += ')';
  }
  static E parse(StrepIt& it, StrepIt end) {
    auto const t = quorEnumTable(E{});
    auto start = it;
    while (it != end && (std::isalnum(static_cast<unsigned char>(*it)) || *it == '_' || *it == ':')) ++it;
    std::string const word(start, it);
    for (std::size_t i = 0; i < t.count; ++i)
      if (word == t.entries[i].second) return t.entries[i].first;
    if (word == t.typeName && it != end && *it == '(') {  // the fallback form reads back
      ++it;
      auto const n = parseSigned(it, end, INT32_MIN, INT32_MAX);
      needString(it, end, ")");
      return static_cast<E>(n);
    }
    it = start;
    throw RangeException(String8(std::string(t.typeName) + " has no enumerator " + word), valueParseErrorId);
  }
};

template <CustomText T>
struct TextForm<T> {
  static void write(std::string& out, T const& v) { v.quorWrite(out); }
  static T parse(StrepIt& it, StrepIt end) { return T::quorParse(it, end); }
};

template <class T>
concept AfterParse = requires(T& t) { t.quorAfterParse(); };

template <FieldValue T>
  requires(!CustomText<T>)
struct TextForm<T> {
  static void write(std::string& out, T const& v) {
    out += "Value('";
    out += T::quorTypeName;
    out += "', ** {";
    bool first = true;
    std::apply(
        [&](auto const&... f) {
          ((out += first ? "'" : ", '", first = false, out += f.name, out += "': ",
            writeValue(out, v.*(f.member))),
           ...);
        },
        T::quorFields());
    out += "})";
  }
  static T parse(StrepIt& it, StrepIt end) {
    T v{};
    needString(it, end, " Value");
    needString(it, end, " (");
    needTypeName(it, end, T::quorTypeName);
    needString(it, end, " ,");
    needString(it, end, " **");
    needString(it, end, " {");
    for (bool first = true;; first = false) {
      needString(it, end, " ");
      if (it == end) throwPrematureEnd(T::quorTypeName);
      if (*it == '}') {
        needString(it, end, "} ");
        needString(it, end, ") ");
        break;
      }
      if (!first) needString(it, end, ", ");
      std::string const name = parseQuoted(it, end);
      needString(it, end, " : ");
      bool found = false;
      std::apply(
          [&](auto const&... f) {
            ((!found && name == f.name ? (parseField(it, end, v.*(f.member), f.name), found = true) : false), ...);
          },
          T::quorFields());
      if (!found) throwNoSuchAttribute(T::quorTypeName, name);
    }
    if constexpr (AfterParse<T>) v.quorAfterParse();
    return v;
  }

 private:
  template <class M>
  static void parseField(StrepIt& it, StrepIt end, M& m, char const* name) {
    try {
      parseValue(it, end, m);
    } catch (RangeException const& e) {
      rethrowFromDeserializeAttr(name, e);
    }
  }
};

template <class T>
concept HasTextForm = requires(std::string& s, T const& v) { TextForm<T>::write(s, v); };

/// The text form of a value.
template <HasTextForm T>
String8 valueToStrep(T const& v) {
  std::string s;
  writeValue(s, v);
  return String8(std::move(s));
}

/// Parses a whole text; text left over after the value is an error
/// ("junk at column %lld deserializing %s", with the whole input).
template <HasTextForm T>
T strepToValue(String8 const& text) {
  StrepIt it = text.begin();
  T v = TextForm<T>::parse(it, text.end());
  if (it != text.end()) throwJunkAtColumn(static_cast<long long>(it - text.begin()), text);
  return v;
}

}  // namespace Quor
