// Type records: what the framework knows of a class by its name, and the generic
// interface that reads and writes attributes by name.
//
// A class declares itself once, inside its body:
//   value types   QUOR_VALUE_TYPE (Quor/Strep.h): fields, text form, binary form, record
//   entities      QUOR_ENTITY_TYPE(Type, "App::Type", Quor::attr(...), Quor::collection(...))
// and its record is registered when the shared object that holds it is loaded. Nothing
// else is written per class: readers, mutators and reactions named in the declaration
// give every operation of the record.
//
//   attr("x", &T::x)                      a readable scalar
//   attr("x", &T::x, &T::xIs)             ... written from text through its mutator
//   collection("x", &T::xKeys, &T::x)     a readable collection: keys in order, member by key
//   collection("x", keys, get, &T::xIs, &T::xDel, &T::NotifieeConst::onX)
//                                         ... streamed: set and delete members, and the
//                                         reaction that reports a member's change
// A collection member equal to its type's default value counts as absent: directories
// read past their end as the default, so a set of the default and a delete agree.
//
// Costs: records are built once per class; a read by name walks the class's attribute
// list and formats the value. Nothing here is on a block's hot path.
#pragma once
#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

#include <Quor/Entity.h>
#include <Quor/NboAttrLog.h>
#include <Quor/Strep.h>

namespace Quor {

/// The six introspection flags of an attribute or a type. Out-of-range values throw
/// "QuorAttrIntrospectionFlags::value > 0x3f not allowed".
class QUOR_API QuorAttrIntrospectionFlags {
 public:
  static constexpr U32 readable = 0x01;    // read by name
  static constexpr U32 writable = 0x02;    // written by name from text
  static constexpr U32 collection = 0x04;  // keyed members
  static constexpr U32 streamable = 0x08;  // has a binary form (values) or change records (attributes)
  static constexpr U32 notifying = 0x10;   // its changes can be followed (a tap)
  static constexpr U32 reference = 0x20;   // holds entities, shown by name

  constexpr QuorAttrIntrospectionFlags() = default;
  explicit QuorAttrIntrospectionFlags(U32 v) { valueIs(v); }
  U32 value() const { return value_; }
  void valueIs(U32 v);
  bool has(U32 f) const { return (value_ & f) == f; }

 private:
  U8 value_ = 0;
};

/// One decoded change record, applied later and whole.
struct QUOR_API AttrChange {
  String8 type;
  String8 entity;
  String8 attr;
  NboAttrLog::ChangeOp op = NboAttrLog::memberSet;
  String8 key;                                // the key's text (members only)
  std::function<void(PtrInterface&)> apply;   // runs the mutator
};

/// Follows one attribute of one entity: alive while held.
class QUOR_API AttrTap {
 public:
  virtual ~AttrTap() = default;
};
using ChangeSink = std::function<void(std::string&& record)>;

struct QUOR_API AttrRecord {
  std::string name;
  std::string typeName;     // the value's type
  std::string keyTypeName;  // collections: the key's type
  QuorAttrIntrospectionFlags flags;

  // scalars
  std::function<String8(PtrInterface const&)> text;
  std::function<void(PtrInterface&, String8 const&)> textIs;
  // collections: members as (key text, value text) in the collection's order
  std::function<std::vector<std::pair<String8, String8>>(PtrInterface const&)> members;
  std::function<std::vector<String8>(PtrInterface const&)> keys;
  std::function<void(PtrInterface&, String8 const& key)> keyDel;
  // streaming: the present state as change records, the rest of a change record, a tap
  std::function<void(PtrInterface const&, String8 const& entity, NboAttrLog::Out&)> writeAll;
  std::function<void(NboAttrLog::In&, AttrChange&)> readChange;
  std::function<std::unique_ptr<AttrTap>(PtrInterface const&, String8 const& entity, ChangeSink)> tap;
};

struct QUOR_API TypeRecord {
  std::string name;
  QuorAttrIntrospectionFlags flags;
  std::vector<AttrRecord> attrs;  // declaration order
  /// Entities made from a name alone (directories); empty otherwise.
  std::function<Ptr<PtrInterface>(Name const&)> make;
  /// Value types: a payload read and printed as text.
  std::function<String8(NboAttrLog::In&)> payloadText;

  AttrRecord const* attr(std::string_view n) const;
};

/// Registers a record (at load time, from the declarations). A second record under a
/// name already taken is ignored: the first one stands.
QUOR_API void typeRecordIs(TypeRecord const* r);
/// The record registered under name, or null.
QUOR_API TypeRecord const* typeRecord(std::string_view name);
/// Every record, by name.
QUOR_API std::vector<TypeRecord const*> typeRecords();

struct TypeRegistration {
  explicit TypeRegistration(TypeRecord const& (*record)()) { typeRecordIs(&record()); }
};

/// Reads one change record whole (its mutator is not run yet). Throws like In, also for
/// an unknown type or attribute.
QUOR_API AttrChange nboReadChange(NboAttrLog::In& in);
/// Reads one whole record of either kind and prints it: a value as its type's text, a
/// change as "entity attr op key". For logs and for fuzzing; throws like In.
QUOR_API String8 nboRecordText(NboAttrLog::In& in);

// ---- the generic interface ----------------------------------------------------------------------

/// Attribute access by name on any object with a type record.
class QUOR_API GenericIf {
 public:
  /// Read-only: every write throws "attempting to modify a const instance".
  explicit GenericIf(Ptr<PtrInterface const> const& o);
  explicit GenericIf(Ptr<PtrInterface> const& o);

  TypeRecord const& type() const { return *type_; }
  std::vector<std::string> attrNames() const;
  /// A scalar's text, or a collection's members one "key value" a line.
  String8 attr(std::string_view name) const;
  std::vector<std::pair<String8, String8>> members(std::string_view name) const;
  /// Parses text as the attribute's type and calls its mutator (bounds and
  /// notifications as usual). Throws RangeException for an unknown or read-only
  /// attribute and for a text that is no value of its type.
  void attrIs(std::string_view name, String8 const& text);

 private:
  AttrRecord const& need(std::string_view name) const;
  Ptr<PtrInterface const> object_;
  PtrInterface* mutable_ = nullptr;
  TypeRecord const* type_ = nullptr;
};

// ---- declarations ---------------------------------------------------------------------------------

template <class T, class Get, class Set = std::nullptr_t>
struct ScalarDecl {
  char const* name;
  Get get;
  Set set;
};
template <class Keys, class Get, class Set = std::nullptr_t, class Del = std::nullptr_t,
          class React = std::nullptr_t>
struct CollectionDecl {
  char const* name;
  Keys keys;
  Get get;
  Set set;
  Del del;
  React react;
};

template <class Get>
constexpr auto attr(char const* name, Get get) {
  return ScalarDecl<void, Get>{name, get, nullptr};
}
template <class Get, class Set>
constexpr auto attr(char const* name, Get get, Set set) {
  return ScalarDecl<void, Get, Set>{name, get, set};
}
template <class Keys, class Get>
constexpr auto collection(char const* name, Keys keys, Get get) {
  return CollectionDecl<Keys, Get>{name, keys, get, nullptr, nullptr, nullptr};
}
template <class Keys, class Get, class Set, class Del, class React>
constexpr auto collection(char const* name, Keys keys, Get get, Set set, Del del, React react) {
  return CollectionDecl<Keys, Get, Set, Del, React>{name, keys, get, set, del, react};
}

namespace detail {

/// How an attribute's value prints: a reference to an entity prints its name.
template <class V>
void writeText(std::string& out, V const& v) {
  if constexpr (requires { v->name(); }) {
    if (v) writeQuoted(out, v->name().str());
    else out += "None";
  } else {
    writeValue(out, v);
  }
}
template <class V>
String8 text(V const& v) {
  std::string s;
  writeText(s, v);
  return String8(std::move(s));
}

template <class F>
struct MemberFn;
template <class C, class R, class... A>
struct MemberFn<R (C::*)(A...) const> {
  using Result = std::decay_t<R>;
  using Args = std::tuple<std::decay_t<A>...>;
};
template <class C, class R, class... A>
struct MemberFn<R (C::*)(A...)> {
  using Result = std::decay_t<R>;
  using Args = std::tuple<std::decay_t<A>...>;
};

/// The keys a keys-reader returns, in order: a range of keys or of (key, value) pairs;
/// unordered ones are sorted so that listings and copies are stable.
template <class C>
auto orderedKeys(C const& c) {
  using E = typename C::value_type;
  if constexpr (requires(E e) { e.first; }) {
    std::vector<std::decay_t<typename E::first_type>> ks;
    ks.reserve(c.size());
    for (auto const& e : c) ks.push_back(e.first);
    std::sort(ks.begin(), ks.end());
    return ks;
  } else {
    std::vector<E> ks(c.begin(), c.end());
    std::sort(ks.begin(), ks.end());
    return ks;
  }
}

template <class T>
T& as(PtrInterface& o) { return static_cast<T&>(o); }
template <class T>
T const& as(PtrInterface const& o) { return static_cast<T const&>(o); }

template <class T, class Get, class Set>
AttrRecord scalarRecord(ScalarDecl<void, Get, Set> const& d) {
  using V = typename MemberFn<Get>::Result;
  AttrRecord r;
  r.name = d.name;
  r.typeName = NboAttrLog::typeName<V>();
  U32 f = QuorAttrIntrospectionFlags::readable;
  if constexpr (requires(V v) { v->name(); }) f |= QuorAttrIntrospectionFlags::reference;
  auto get = d.get;
  r.text = [get](PtrInterface const& o) { return text((as<T>(o).*get)()); };
  if constexpr (!std::is_same_v<Set, std::nullptr_t>) {
    f |= QuorAttrIntrospectionFlags::writable;
    auto set = d.set;
    r.textIs = [set](PtrInterface& o, String8 const& t) { (as<T>(o).*set)(strepToValue<V>(t)); };
    if constexpr (NboAttrLog::HasCodec<V>) {
      f |= QuorAttrIntrospectionFlags::streamable;
      std::string const attrName = d.name;
      r.writeAll = [get, attrName](PtrInterface const& o, String8 const& entity, NboAttrLog::Out& out) {
        out.u8(NboAttrLog::changeRecord);
        out.str(T::quorTypeName);
        out.str(entity.str());
        out.str(attrName);
        out.u8(NboAttrLog::scalarSet);
        out.payload((as<T>(o).*get)());
      };
      r.readChange = [set](NboAttrLog::In& in, AttrChange& c) {
        if (c.op != NboAttrLog::scalarSet) in.fail("a member change of a scalar");
        V v = in.payload<V>();
        c.apply = [set, v](PtrInterface& o) { (as<T>(o).*set)(v); };
      };
    }
  }
  r.flags = QuorAttrIntrospectionFlags(f);
  return r;
}

template <class T, class Keys, class Get, class Set, class Del, class React>
AttrRecord collectionRecord(CollectionDecl<Keys, Get, Set, Del, React> const& d) {
  using K = std::decay_t<std::tuple_element_t<0, typename MemberFn<Get>::Args>>;
  using V = typename MemberFn<Get>::Result;
  AttrRecord r;
  r.name = d.name;
  r.typeName = NboAttrLog::typeName<V>();
  r.keyTypeName = NboAttrLog::typeName<K>();
  U32 f = QuorAttrIntrospectionFlags::readable | QuorAttrIntrospectionFlags::collection;
  if constexpr (requires(V v) { v->name(); }) f |= QuorAttrIntrospectionFlags::reference;
  auto keys = d.keys;
  auto get = d.get;
  r.keys = [keys](PtrInterface const& o) {
    std::vector<String8> out;
    for (auto const& k : orderedKeys((as<T>(o).*keys)())) out.push_back(text(k));
    return out;
  };
  r.members = [keys, get](PtrInterface const& o) {
    std::vector<std::pair<String8, String8>> out;
    for (auto const& k : orderedKeys((as<T>(o).*keys)())) out.emplace_back(text(k), text((as<T>(o).*get)(k)));
    return out;
  };
  if constexpr (!std::is_same_v<Set, std::nullptr_t>) {
    static_assert(NboAttrLog::HasCodec<K> && NboAttrLog::HasCodec<V>, "a streamed collection needs binary forms");
    f |= QuorAttrIntrospectionFlags::writable | QuorAttrIntrospectionFlags::streamable |
         QuorAttrIntrospectionFlags::notifying;
    auto set = d.set;
    auto del = d.del;
    auto react = d.react;
    std::string const attrName = d.name;
    // A setter takes the value alone (the key is inside it) or the key and the value.
    auto store = [set](T& o, K const& k, V const& v) {
      if constexpr (std::is_invocable_v<decltype(set), T&, K const&, V const&>) (o.*set)(k, v);
      else (o.*set)(v);
    };
    auto head = [attrName](NboAttrLog::Out& out, String8 const& entity, NboAttrLog::ChangeOp op, K const& k) {
      out.u8(NboAttrLog::changeRecord);
      out.str(T::quorTypeName);
      out.str(entity.str());
      out.str(attrName);
      out.u8(op);
      out.payload(k);
    };
    // One member's present state: a set, or a delete when it reads as the default.
    auto writeMember = [get, head](T const& o, String8 const& entity, K const& k, NboAttrLog::Out& out) {
      V const v = (o.*get)(k);
      if (v == V{}) {
        head(out, entity, NboAttrLog::memberDel, k);
      } else {
        head(out, entity, NboAttrLog::memberSet, k);
        out.payload(v);
      }
    };
    r.keyDel = [del](PtrInterface& o, String8 const& key) { (as<T>(o).*del)(strepToValue<K>(key)); };
    r.writeAll = [keys, writeMember](PtrInterface const& o, String8 const& entity, NboAttrLog::Out& out) {
      for (auto const& k : orderedKeys((as<T>(o).*keys)())) writeMember(as<T>(o), entity, k, out);
    };
    r.readChange = [store, del](NboAttrLog::In& in, AttrChange& c) {
      if (c.op != NboAttrLog::memberSet && c.op != NboAttrLog::memberDel) in.fail("a scalar change of a collection");
      K const k = in.payload<K>();
      c.key = text(k);
      if (c.op == NboAttrLog::memberDel) {
        c.apply = [del, k](PtrInterface& o) { (as<T>(o).*del)(k); };
      } else {
        V const v = in.payload<V>();
        c.apply = [store, k, v](PtrInterface& o) { store(as<T>(o), k, v); };
      }
    };
    r.tap = [react, writeMember](PtrInterface const& o, String8 const& entity, ChangeSink sink) {
      struct Tap final : AttrTap, NotifieeTap {
        T const* object;
        String8 entity;
        ChangeSink sink;
        decltype(react) reaction;
        decltype(writeMember) write;
        Tap(T const* o, String8 e, ChangeSink s, decltype(react) r, decltype(writeMember) w)
            : object(o), entity(std::move(e)), sink(std::move(s)), reaction(r), write(w) {
          object->notifiees().tapIs(this);
        }
        ~Tap() override { object->notifiees().tapDel(this); }
        void onTap(Erased reactionSeen, Erased key) override {
          auto const* seen = reactionSeen.as<decltype(react)>();
          auto const* k = key.as<K>();
          if (!seen || !k || *seen != reaction) return;
          NboAttrLog::Out out;
          write(*object, entity, *k, out);
          sink(out.take());
        }
      };
      return std::unique_ptr<AttrTap>(new Tap(&as<T>(o), entity, std::move(sink), react, writeMember));
    };
  }
  r.flags = QuorAttrIntrospectionFlags(f);
  return r;
}

template <class T, class Get, class Set>
AttrRecord attrRecord(ScalarDecl<void, Get, Set> const& d) {
  return scalarRecord<T>(d);
}
template <class T, class Keys, class Get, class Set, class Del, class React>
AttrRecord attrRecord(CollectionDecl<Keys, Get, Set, Del, React> const& d) {
  return collectionRecord<T>(d);
}

}  // namespace detail

/// The record of an entity class declared with QUOR_ENTITY_TYPE.
template <class T>
TypeRecord const& entityTypeRecord() {
  static TypeRecord const record = [] {
    TypeRecord r;
    r.name = T::quorTypeName;
    std::apply([&](auto const&... d) { (r.attrs.push_back(detail::attrRecord<T>(d)), ...); }, T::quorAttrs());
    U32 f = QuorAttrIntrospectionFlags::readable;
    for (auto const& a : r.attrs)
      if (a.flags.has(QuorAttrIntrospectionFlags::streamable)) f |= QuorAttrIntrospectionFlags::streamable;
    r.flags = QuorAttrIntrospectionFlags(f);
    if constexpr (!std::is_abstract_v<T> && std::is_constructible_v<T, Name const&>)
      r.make = [](Name const& n) { return Ptr<PtrInterface>(makeEntity<T>(n)); };
    return r;
  }();
  return record;
}

/// The record of a value type: its fields, read-only, and its binary form.
template <class T>
TypeRecord const& valueTypeRecord() {
  static TypeRecord const record = [] {
    TypeRecord r;
    r.name = NboAttrLog::typeName<T>();
    U32 f = QuorAttrIntrospectionFlags::readable;
    if constexpr (NboAttrLog::HasCodec<T>) {
      f |= QuorAttrIntrospectionFlags::streamable;
      r.payloadText = [](NboAttrLog::In& in) { return ::Quor::valueToStrep(in.payload<T>()); };
    }
    r.flags = QuorAttrIntrospectionFlags(f);
    if constexpr (FieldValue<T>) {  // the fields, for listing: a value is read whole
      std::apply(
          [&](auto const&... fl) {
            (r.attrs.push_back([&] {
              using M = std::decay_t<decltype(std::declval<T const&>().*(fl.member))>;
              AttrRecord a;
              a.name = fl.name;
              a.typeName = NboAttrLog::typeName<M>();
              a.flags = QuorAttrIntrospectionFlags(QuorAttrIntrospectionFlags::readable);
              return a;
            }()),
             ...);
          },
          T::quorFields());
    }
    return r;
  }();
  return record;
}

/// Declares an entity class's type record inside its body (see the top of this file).
#define QUOR_ENTITY_TYPE(Type, typeNameText, ...)                                                 \
  static constexpr char const* quorTypeName = typeNameText;                                      \
  static auto quorAttrs() { return std::make_tuple(__VA_ARGS__); }                               \
  ::Quor::TypeRecord const* fwkType() const override { return &::Quor::entityTypeRecord<Type>(); } \
  static inline ::Quor::TypeRegistration const quorTypeRegistration_{&::Quor::entityTypeRecord<Type>};

}  // namespace Quor
