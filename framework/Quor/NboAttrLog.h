// Binary attribute logs in network byte order: values, and changes of an entity's
// attributes, written by Out and read back by In.
//
//   value record    'V' <type name> <payload>
//   change record   'C' <entity type> <entity name> <attribute> <op> [<key>] [<value>]
//                   op: 1 set a member (key, value), 2 delete a member (key),
//                       3 set a scalar (value)
//   payloads        integers big-endian at their width; bool one byte 0 or 1;
//                   enumerations 32 bits; floating point their IEEE bits; strings a
//                   32-bit length and the bytes; value types their fields in declaration
//                   order (the record names the type once, at its head).
//
// In never trusts its input: a read past the end, a length longer than what is left, an
// unknown type or attribute, or a byte that is no value of its type throws
// RangeException (id nboParseErrorId) naming what was read and where. In reads a
// whole record before anything acts on it, so a bad record changes nothing.
#pragma once
#include <bit>
#include <concepts>
#include <cstring>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>

#include <Quor/Exception.h>
#include <Quor/Strep.h>
#include <Quor/String.h>

namespace Quor {

/// The id carried by every exception that reports a bad binary record.
inline constexpr U32 nboParseErrorId = 13;

namespace NboAttrLog {

namespace detail {
template <std::unsigned_integral T>
constexpr T toNetwork(T v) {
  if constexpr (std::endian::native == std::endian::big || sizeof(T) == 1) return v;
  else if constexpr (sizeof(T) == 2) return __builtin_bswap16(v);
  else if constexpr (sizeof(T) == 4) return __builtin_bswap32(v);
  else return __builtin_bswap64(v);
}
}  // namespace detail

enum RecordKind : U8 { valueRecord = 'V', changeRecord = 'C' };
enum ChangeOp : U8 { memberSet = 1, memberDel = 2, scalarSet = 3 };

/// The longest string a record may carry (a larger length is a corrupt record).
inline constexpr U32 maxStringBytes = 1u << 24;

class QUOR_API Out {
 public:
  void u8(U8 v) { buf_.push_back(static_cast<char>(v)); }
  void u16(U16 v) { put(v); }
  void u32(U32 v) { put(v); }
  void u64(U64 v) { put(v); }
  /// Throws RangeException for a string longer than maxStringBytes.
  void str(std::string_view s);
  /// A value's payload, without a record head.
  template <class T>
  void payload(T const& v);
  /// A whole value record.
  template <class T>
  void value(T const& v);

  std::string const& bytes() const { return buf_; }
  std::string take() { return std::move(buf_); }
  void clear() { buf_.clear(); }

 private:
  template <std::unsigned_integral T>
  void put(T v) {
    v = detail::toNetwork(v);
    buf_.append(reinterpret_cast<char const*>(&v), sizeof v);
  }
  std::string buf_;
};

class QUOR_API In {
 public:
  explicit In(std::string_view bytes) : p_(bytes) {}
  U8 u8() { return get<U8>("U8"); }
  U16 u16() { return get<U16>("U16"); }
  U32 u32() { return get<U32>("U32"); }
  U64 u64() { return get<U64>("U64"); }
  std::string str();
  template <class T>
  T payload();
  /// A whole value record of type T; another type's record is an error.
  template <class T>
  T value();
  /// Reads a record head of kind k (an error for another kind).
  void needKind(RecordKind k);

  bool atEnd() const { return at_ == p_.size(); }
  std::size_t offset() const { return at_; }
  std::size_t left() const { return p_.size() - at_; }
  /// Throws unless every byte was read.
  void needEnd() const;
  [[noreturn]] void fail(std::string const& what) const;

 private:
  template <std::unsigned_integral T>
  T get(char const* what) {
    if (left() < sizeof(T)) fail(std::string("truncated ") + what);
    T v;
    std::memcpy(&v, p_.data() + at_, sizeof v);
    at_ += sizeof v;
    return detail::toNetwork(v);
  }
  std::string_view p_;
  std::size_t at_ = 0;
};

// ---- codecs, by kind (the same kinds as the text form) ----------------------------------------

template <class T>
struct Codec;

template <class T>
concept HasCodec = requires(Out& o, In& i, T const& v) {
  Codec<T>::write(o, v);
  { Codec<T>::read(i) } -> std::same_as<T>;
};

template <std::integral T>
struct Codec<T> {
  static void write(Out& o, T v) {
    if constexpr (std::is_same_v<T, bool>) {
      o.u8(v ? 1 : 0);
    } else {
      using UT = std::make_unsigned_t<T>;
      if constexpr (sizeof(T) == 1) o.u8(static_cast<U8>(v));
      else if constexpr (sizeof(T) == 2) o.u16(static_cast<UT>(v));
      else if constexpr (sizeof(T) == 4) o.u32(static_cast<UT>(v));
      else o.u64(static_cast<U64>(static_cast<UT>(v)));
    }
  }
  static T read(In& i) {
    if constexpr (std::is_same_v<T, bool>) {
      U8 const b = i.u8();
      if (b > 1) i.fail("bool byte " + std::to_string(b));
      return b != 0;
    } else if constexpr (sizeof(T) == 1) {
      return static_cast<T>(i.u8());
    } else if constexpr (sizeof(T) == 2) {
      return static_cast<T>(i.u16());
    } else if constexpr (sizeof(T) == 4) {
      return static_cast<T>(i.u32());
    } else {
      return static_cast<T>(i.u64());
    }
  }
};

template <std::floating_point T>
struct Codec<T> {
  using Bits = std::conditional_t<sizeof(T) == 4, U32, U64>;
  static void write(Out& o, T v) { Codec<Bits>::write(o, std::bit_cast<Bits>(v)); }
  static T read(In& i) { return std::bit_cast<T>(Codec<Bits>::read(i)); }
};

template <class S>
  requires std::is_base_of_v<String8, S>
struct Codec<S> {
  static void write(Out& o, S const& v) { o.str(v.str()); }
  static S read(In& i) { return S(i.str()); }
};

template <>
struct Codec<std::string> {
  static void write(Out& o, std::string const& v) { o.str(v); }
  static std::string read(In& i) { return i.str(); }
};

template <TextEnum E>
struct Codec<E> {
  static void write(Out& o, E e) { o.u32(static_cast<U32>(e)); }
  static E read(In& i) { return static_cast<E>(i.u32()); }
};

/// A type with a binary form of its own defines quorWriteNbo(Out&) and quorReadNbo(In&).
template <class T>
concept CustomNbo = requires(T const& t, Out& o, In& i) {
  t.quorWriteNbo(o);
  { T::quorReadNbo(i) } -> std::same_as<T>;
};

template <CustomNbo T>
struct Codec<T> {
  static void write(Out& o, T const& v) { v.quorWriteNbo(o); }
  static T read(In& i) { return T::quorReadNbo(i); }
};

template <class T>
constexpr bool fieldsHaveCodecs() {
  return std::apply(
      [](auto const&... f) { return (HasCodec<std::decay_t<decltype(std::declval<T const&>().*(f.member))>> && ...); },
      T::quorFields());
}

template <FieldValue T>
  requires(!CustomNbo<T> && fieldsHaveCodecs<T>())
struct Codec<T> {
  static void write(Out& o, T const& v) {
    std::apply([&](auto const&... f) { (Codec<std::decay_t<decltype(v.*(f.member))>>::write(o, v.*(f.member)), ...); },
               T::quorFields());
  }
  static T read(In& i) {
    T v{};
    std::apply([&](auto const&... f) { ((v.*(f.member) = Codec<std::decay_t<decltype(v.*(f.member))>>::read(i)), ...); },
               T::quorFields());
    return v;
  }
};

// ---- type names -------------------------------------------------------------------------------

/// The name a value's type goes by in records and type records.
template <class T>
constexpr char const* typeName() {
  if constexpr (std::is_same_v<T, bool>) return "bool";
  else if constexpr (std::is_same_v<T, U8>) return "U8";
  else if constexpr (std::is_same_v<T, U16>) return "U16";
  else if constexpr (std::is_same_v<T, U32>) return "U32";
  else if constexpr (std::is_same_v<T, U64> || std::is_same_v<T, unsigned long>) return "U64";
  else if constexpr (std::is_same_v<T, int>) return "int";
  else if constexpr (std::is_same_v<T, long> || std::is_same_v<T, long long>) return "S64";
  else if constexpr (std::is_same_v<T, float>) return "float";
  else if constexpr (std::is_same_v<T, double>) return "double";
  else if constexpr (std::is_same_v<T, Name>) return "Name";
  else if constexpr (std::is_same_v<T, String8> || std::is_same_v<T, std::string>) return "String8";
  else if constexpr (TextEnum<T>) return quorEnumTable(T{}).typeName;
  else if constexpr (requires { T::quorTypeName; }) return T::quorTypeName;
  else if constexpr (requires(T t) { t.ptr(); }) return "Ptr";
  else return "opaque";
}

// ---- the templates ------------------------------------------------------------------------------

template <class T>
void Out::payload(T const& v) {
  Codec<T>::write(*this, v);
}

template <class T>
void Out::value(T const& v) {
  u8(valueRecord);
  str(typeName<T>());
  payload(v);
}

template <class T>
T In::payload() {
  return Codec<T>::read(*this);
}

template <class T>
T In::value() {
  needKind(valueRecord);
  std::string const name = str();
  if (name != typeName<T>()) fail("a " + name + " where a " + typeName<T>() + " was expected");
  return payload<T>();
}

}  // namespace NboAttrLog
}  // namespace Quor
