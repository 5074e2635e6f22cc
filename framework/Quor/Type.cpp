// The type registry, the generic interface and the binary records' plumbing.
#include <Quor/Type.h>

#include <map>

namespace Quor {

void QuorAttrIntrospectionFlags::valueIs(U32 v) {
  if (v > 0x3f) throwRangeException("QuorAttrIntrospectionFlags::value > 0x3f not allowed");
  value_ = static_cast<U8>(v);
}

AttrRecord const* TypeRecord::attr(std::string_view n) const {
  for (auto const& a : attrs)
    if (a.name == n) return &a;
  return nullptr;
}

namespace {
// The registry is filled while shared objects load, before main: a function-local map
// avoids depending on the order of static initialisation across objects.
std::map<std::string, TypeRecord const*, std::less<>>& registry() {
  static std::map<std::string, TypeRecord const*, std::less<>> r;
  return r;
}
}  // namespace

void typeRecordIs(TypeRecord const* r) { registry().emplace(r->name, r); }

TypeRecord const* typeRecord(std::string_view name) {
  auto it = registry().find(name);
  return it == registry().end() ? nullptr : it->second;
}

std::vector<TypeRecord const*> typeRecords() {
  std::vector<TypeRecord const*> out;
  for (auto const& [n, r] : registry()) out.push_back(r);
  return out;
}

// ---- binary records ----------------------------------------------------------------------------

namespace NboAttrLog {

void Out::str(std::string_view s) {
  if (s.size() > maxStringBytes)
    throwRangeException(format("NboAttrLog: string of %zu bytes > %u not allowed", s.size(), maxStringBytes));
  u32(static_cast<U32>(s.size()));
  buf_.append(s);
}

std::string In::str() {
  U32 const n = u32();
  if (n > maxStringBytes || n > left())
    fail("string length " + std::to_string(n) + " with " + std::to_string(left()) + " bytes left");
  std::string s(p_.substr(at_, n));
  at_ += n;
  return s;
}

void In::needKind(RecordKind k) {
  U8 const got = u8();
  if (got != k) fail("record kind " + std::to_string(got) + " where " + std::to_string(k) + " was expected");
}

void In::needEnd() const {
  if (!atEnd()) fail(std::to_string(left()) + " bytes after the record");
}

void In::fail(std::string const& what) const {
  throw RangeException(String8("NboAttrLog: " + what + " at offset " + std::to_string(at_)), nboParseErrorId);
}

}  // namespace NboAttrLog

AttrChange nboReadChange(NboAttrLog::In& in) {
  in.needKind(NboAttrLog::changeRecord);
  AttrChange c;
  c.type = String8(in.str());
  c.entity = String8(in.str());
  c.attr = String8(in.str());
  U8 const op = in.u8();
  TypeRecord const* t = typeRecord(c.type.str());
  if (!t) in.fail("unknown type '" + c.type.str() + "'");
  AttrRecord const* a = t->attr(c.attr.str());
  if (!a || !a->readChange) in.fail("no streamed attribute '" + c.attr.str() + "' in " + c.type.str());
  if (op < NboAttrLog::memberSet || op > NboAttrLog::scalarSet) in.fail("change op " + std::to_string(op));
  c.op = static_cast<NboAttrLog::ChangeOp>(op);
  a->readChange(in, c);
  return c;
}

String8 nboRecordText(NboAttrLog::In& in) {
  NboAttrLog::In peek = in;
  if (peek.u8() == NboAttrLog::changeRecord) {
    AttrChange const c = nboReadChange(in);
    return String8(c.entity.str() + " " + c.attr.str() + " " + std::to_string(c.op) + " " + c.key.str());
  }
  in.needKind(NboAttrLog::valueRecord);
  std::string const name = in.str();
  TypeRecord const* t = typeRecord(name);
  if (!t || !t->payloadText) in.fail("unknown value type '" + name + "'");
  return t->payloadText(in);
}

// ---- the generic interface ----------------------------------------------------------------------

GenericIf::GenericIf(Ptr<PtrInterface const> const& o) : object_(o) {
  QUOR_ASSERT(o);
  type_ = o->fwkType();
  if (!type_) throwRangeException("no type record for this object");
}

GenericIf::GenericIf(Ptr<PtrInterface> const& o) : GenericIf(Ptr<PtrInterface const>(o)) { mutable_ = o.ptr(); }

std::vector<std::string> GenericIf::attrNames() const {
  std::vector<std::string> out;
  for (auto const& a : type_->attrs) out.push_back(a.name);
  return out;
}

AttrRecord const& GenericIf::need(std::string_view name) const {
  AttrRecord const* a = type_->attr(name);
  if (!a) throwRangeException(String8(type_->name + " has no attribute '" + std::string(name) + "'"));
  return *a;
}

String8 GenericIf::attr(std::string_view name) const {
  AttrRecord const& a = need(name);
  if (a.text) return a.text(*object_);
  std::string out;
  for (auto const& [k, v] : a.members(*object_)) out += k.str() + " " + v.str() + "\n";
  return String8(std::move(out));
}

std::vector<std::pair<String8, String8>> GenericIf::members(std::string_view name) const {
  AttrRecord const& a = need(name);
  if (!a.members) throwRangeException(String8(type_->name + "::" + std::string(name) + " is no collection"));
  return a.members(*object_);
}

void GenericIf::attrIs(std::string_view name, String8 const& text) {
  AttrRecord const& a = need(name);
  if (!mutable_) throwRangeException(constInstanceMessage());
  if (!a.textIs) throwRangeException(String8(type_->name + "::" + std::string(name) + " is read-only"));
  a.textIs(*mutable_, text);
}

}  // namespace Quor
