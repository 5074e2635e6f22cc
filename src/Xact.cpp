// Transaction records and their directories: attributes that notify only on change.
#include <Vell/XactLib.h>

#include <algorithm>
#include <string>

namespace Vell {

// ---- Xact ----------------------------------------------------------------------------

// A reactor may drop the last outside reference while it is being told of a change.
Quor::Ptr<Xact> Xact::hold() { return Quor::Ptr<Xact>(references() ? this : nullptr); }

namespace {
// Sets and notifies; the entity is held only while someone is told.
template <class T, class R>
void notifyingSet(Xact& x, T& field, T const& v, R reaction) {
  if (field == v) return;
  field = v;
  if (x.notifiees().empty()) return;
  Quor::Ptr<Xact> const keep(x.references() ? &x : nullptr);
  x.notifiees().notify(reaction);
}
}  // namespace

void Xact::configVersionIs(U32 v) { notifyingSet(*this, configVersion_, v, &NotifieeConst::onConfigVersion); }

void Xact::startTimeIs(Quor::Seconds t) { notifyingSet(*this, startTime_, t, &NotifieeConst::onStartTime); }

void Xact::statusVersionIs(U32 v) { notifyingSet(*this, statusVersion_, v, &NotifieeConst::onStatusVersion); }

void Xact::resultIs(XactResult r) { notifyingSet(*this, result_, r, &NotifieeConst::onResult); }

Quor::String8 Xact::comment(Quor::String8 const& key) const {
  auto it = comment_.find(key);
  return it == comment_.end() ? Quor::String8() : it->second;
}

void Xact::commentIs(Quor::String8 const& key, Quor::String8 const& text) {
  auto [it, fresh] = comment_.try_emplace(key, text);
  if (!fresh) {
    if (it->second == text) return;
    it->second = text;
  }
  auto const keep = hold();
  notifiees_.notify(&NotifieeConst::onComment, key);
}

void Xact::commentDel(Quor::String8 const& key) {
  if (comment_.erase(key) == 0) return;
  auto const keep = hold();
  notifiees_.notify(&NotifieeConst::onComment, key);
}

void Xact::commentDelAll() {
  if (comment_.empty()) return;
  auto const keep = hold();
  Comments gone;
  gone.swap(comment_);
  for (auto const& [key, text] : gone) notifiees_.notify(&NotifieeConst::onComment, key);
}

void Xact::blockingXactIs(Quor::Ptr<Xact const> const& x) {
  Quor::checkNotNull("Vell::Xact", "blockingXact", x);
  auto [it, fresh] = blockingXact_.try_emplace(x->id(), x);
  if (!fresh) {
    if (it->second == x) return;
    it->second = x;
  }
  auto const keep = hold();
  notifiees_.notify(&NotifieeConst::onBlockingXact, x->id());
}

void Xact::blockingXactDel(U32 id) {
  if (blockingXact_.erase(id) == 0) return;
  auto const keep = hold();
  notifiees_.notify(&NotifieeConst::onBlockingXact, id);
}

void Xact::blockingXactDelAll() {
  if (blockingXact_.empty()) return;
  auto const keep = hold();
  BlockingXacts gone;
  gone.swap(blockingXact_);
  for (auto const& [id, x] : gone) notifiees_.notify(&NotifieeConst::onBlockingXact, id);
}

Quor::Ptr<Xact> xactFactory(Quor::Name const& name, U32 id) { return Quor::makeEntity<Xact>(name, id); }

// ---- directories ---------------------------------------------------------------------

Quor::Ptr<Xact> XactDir::xact(U32 id) const {
  auto it = xact_.find(id);
  return it == xact_.end() ? nullptr : it->second;
}

Quor::Ptr<Xact> XactDir::xactIs(U32 id) {
  auto [it, fresh] = xact_.try_emplace(id);
  if (!fresh) return it->second;
  it->second = xactFactory(Quor::Name(std::to_string(id)), id);
  Quor::Ptr<Xact> x = it->second;
  notifiees_.notify(&NotifieeConst::onXact, id);
  return x;
}

void XactDir::xactDel(U32 id) {
  auto it = xact_.find(id);
  if (it == xact_.end()) return;
  Quor::Ptr<Xact> const gone = it->second;  // its deletion runs after the reactors
  xact_.erase(it);
  notifiees_.notify(&NotifieeConst::onXact, id);
}

Quor::Ptr<XactDir> xactDirFactory(Quor::Name const& name) { return Quor::makeEntity<XactDir>(name); }

XactConfig XactConfigDir::xactConfig(U32 id) const {
  auto it = xactConfig_.find(id);
  return it == xactConfig_.end() ? XactConfig() : it->second;
}

void XactConfigDir::xactConfigIs(XactConfig const& c) {
  auto [it, fresh] = xactConfig_.try_emplace(c.id(), c);
  if (!fresh) {
    if (it->second == c) return;
    it->second = c;
  }
  notifiees_.notify(&NotifieeConst::onXactConfig, c.id());
}

void XactConfigDir::xactConfigDel(U32 id) {
  if (xactConfig_.erase(id) != 0) notifiees_.notify(&NotifieeConst::onXactConfig, id);
}

void XactConfigDir::xactConfigDelAll() {
  std::vector<U32> const gone = xactConfigIds();
  xactConfig_.clear();
  for (U32 id : gone) notifiees_.notify(&NotifieeConst::onXactConfig, id);
}

std::vector<U32> XactConfigDir::xactConfigIds() const {
  std::vector<U32> ids;
  ids.reserve(xactConfig_.size());
  for (auto const& [id, c] : xactConfig_) ids.push_back(id);
  std::sort(ids.begin(), ids.end());
  return ids;
}

Quor::Ptr<XactConfigDir> xactConfigDirFactory(Quor::Name const& name) {
  return Quor::makeEntity<XactConfigDir>(name);
}

XactStatus const& XactStatusDir::xactStatus(U32 id) const {
  static XactStatus const absent;
  auto it = xactStatus_.find(id);
  return it == xactStatus_.end() ? absent : it->second;
}

void XactStatusDir::xactStatusIs(XactStatus const& s) {
  auto [it, fresh] = xactStatus_.try_emplace(s.id(), s);
  if (!fresh) {
    if (it->second == s) return;
    it->second = s;
  }
  notifiees_.notify(&NotifieeConst::onXactStatus, s.id());
}

void XactStatusDir::xactStatusDel(U32 id) {
  if (xactStatus_.erase(id) != 0) notifiees_.notify(&NotifieeConst::onXactStatus, id);
}

void XactStatusDir::xactStatusDelAll() {
  std::unordered_map<U32, XactStatus> gone;
  gone.swap(xactStatus_);
  for (auto const& [id, s] : gone) notifiees_.notify(&NotifieeConst::onXactStatus, id);
}

Quor::Ptr<XactStatusDir> xactStatusDirFactory(Quor::Name const& name) {
  return Quor::makeEntity<XactStatusDir>(name);
}

}  // namespace Vell
