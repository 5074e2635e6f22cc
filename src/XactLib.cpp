// The transaction coordinator and the executor base.
#include <Vell/XactLib.h>

#include <utility>

namespace Vell {

namespace {
Quor::TraceHandle traceHandle("XactLib");

// A directory's standing on one in-progress attempt: no current answer, a current
// answer that is not a failure, or a current failure.
enum Standing : U8 { unanswered = 0, answered = 1, failed = 2 };

Standing standingOf(XactStatus const& s, U32 configVersion) {
  if (s == XactStatus() || s.statusVersion() != configVersion) return unanswered;
  return s.result() == xactFailure ? failed : answered;
}
}  // namespace

// ---- nested reactors of the coordinator -----------------------------------------------

/// Watches one status directory and keeps, per in-progress transaction, this
/// directory's standing, so a status change is judged without asking every directory.
class XactAggregatorSm::QuorXactStatusDir : public XactStatusDir::NotifieeConst {
 public:
  explicit QuorXactStatusDir(XactAggregatorSm* owner) : owner_(owner) {}
  void onXactStatus(U32 id) override { handleStatus(id); }

  /// Judges every status present (run when the directory is registered).
  void handleStatus() {
    QUOR_TRACE(traceHandle, 8, "void Vell::XactAggregatorSm::QuorXactStatusDir::handleStatus()");
    std::vector<U32> ids;
    for (auto const& [id, s] : notifier()->xactStatuses()) ids.push_back(id);
    for (U32 id : ids) handleStatus(id);
  }
  void handleStatus(U32 id) {
    if (!owner_) return;
    QUOR_TRACE(traceHandle, 8, "void Vell::XactAggregatorSm::QuorXactStatusDir::handleStatus(U32)" << " id: " << id);
    auto it = owner_->inProgress_.find(id);
    if (it != owner_->inProgress_.end()) restand(id, it->second);
    owner_->judge(id, it);
  }
  /// Brings this directory's standing on id up to date, and the attempt's counts with it.
  void restand(U32 id, InProgress& p) {
    Standing const now = standingOf(notifier()->xactStatus(id), p.xact->configVersion());
    auto [s, fresh] = standing_.try_emplace(id, unanswered);
    Standing const before = fresh ? unanswered : s->second;
    if (now == unanswered) {
      standing_.erase(s);
    } else {
      s->second = now;
    }
    p.answered += (now != unanswered) - (before != unanswered);
    p.failed += (now == failed) - (before == failed);
  }
  /// Forgets id (the attempt left), or everything (the directory leaves).
  void forget(U32 id) { standing_.erase(id); }
  void withdraw() {
    for (auto const& [id, s] : standing_) {
      auto it = owner_->inProgress_.find(id);
      if (it == owner_->inProgress_.end()) continue;
      it->second.answered -= 1;
      it->second.failed -= s == failed;
    }
    standing_.clear();
    owner_ = nullptr;
  }

 private:
  XactAggregatorSm* owner_;  // not a reference: the coordinator owns this reactor
  std::unordered_map<U32, Standing> standing_;
};

/// One blocked transaction: watches its blocking collection and, through one nested
/// reactor per blocker, each blocker's statusVersion.
class XactAggregatorSm::QuorBlockedXact : public Xact::NotifieeConst {
 public:
  class QuorBlockingXact : public Xact::NotifieeConst {
   public:
    explicit QuorBlockingXact(QuorBlockedXact* owner) : owner_(owner) {}
    void onStatusVersion() override {
      if (owner_) owner_->handleBlockingXactStatus(*notifier());
    }
    QuorBlockedXact* owner_;
  };

  QuorBlockedXact(XactAggregatorSm* owner, Quor::Ptr<Xact> const& x) : owner_(owner), xact_(x) {
    notifierIs(x);
    for (auto const& [id, b] : x->blockingXact()) watch(id, b);
  }
  ~QuorBlockedXact() override { release(); }
  void release() {
    owner_ = nullptr;
    for (auto& [id, w] : blocking_) w->owner_ = nullptr;
    blocking_.clear();
  }
  Quor::Ptr<Xact> const& xact() const { return xact_; }

  void onBlockingXact(U32 id) override {
    if (!owner_) return;
    auto const& all = xact_->blockingXact();
    auto it = all.find(id);
    if (it == all.end()) {
      blocking_.erase(id);
      // The last blocker may have gone: a user who removes it expects the start.
      if (!releasing_ && !owner_->xactIsBlocked(*xact_)) handleBlockingXactStatus(*xact_);
    } else {
      watch(id, it->second);
    }
  }

  void handleBlockingXactStatus(Xact const& blocking) {
    QUOR_TRACE(traceHandle, 8,
               "void Vell::XactAggregatorSm::QuorBlockedXact::QuorBlockingXact::handleBlockingXactStatus()"
                   << "blockingXact: " << blocking.name() << " blockedXact: " << xact_->name());
    if (!owner_ || owner_->xactIsBlocked(*xact_)) return;
    Quor::Ptr<QuorBlockedXact> const keep(this);  // starting it deletes this entry
    XactAggregatorSm* const owner = owner_;
    Quor::Ptr<Xact> const x = xact_;
    releasing_ = true;
    // Released for good: a later restart does not wait for the same transactions again.
    x->blockingXactDelAll();
    releasing_ = false;
    owner->doStartXact(x);
  }

 private:
  void watch(U32 id, Quor::Ptr<Xact const> const& b) {
    auto& w = blocking_[id];
    if (w && w->notifier() == b) return;
    if (w) w->owner_ = nullptr;
    w = new QuorBlockingXact(this);
    w->notifierIs(b);
  }
  XactAggregatorSm* owner_;
  Quor::Ptr<Xact> xact_;
  std::unordered_map<U32, Quor::Ptr<QuorBlockingXact>> blocking_;
  bool releasing_ = false;
};

class XactAggregatorSm::QuorClock : public Quor::OwnerClockReactor<XactAggregatorSm, &XactAggregatorSm::handleClock> {
  using OwnerClockReactor::OwnerClockReactor;
};

// ---- the coordinator -------------------------------------------------------------------

XactAggregatorSm::XactAggregatorSm(Quor::String8 const& name, Quor::Ptr<Quor::Clock const> const& clock)
    : Entity(Quor::Name(name.str())), name_(name) {
  clockIs(clock);
}

XactAggregatorSm::~XactAggregatorSm() {
  if (clock_) clock_->ownerIs(nullptr);
  for (auto& [name, r] : xactStatusDir_) r->withdraw();
  for (auto& [id, b] : blocked_) b->release();
}

Quor::Ptr<XactAggregatorSm> XactAggregatorSm::hold() {
  return Quor::Ptr<XactAggregatorSm>(references() ? this : nullptr);
}

Quor::Ptr<XactAggregatorSm> xactAggregatorSmFactory(Quor::String8 const& name,
                                                    Quor::Ptr<Quor::Clock const> const& clock) {
  auto a = Quor::makeEntity<XactAggregatorSm>(name, clock);
  QUOR_TRACE(traceHandle, 8, "void Vell::XactAggregatorSm::handleInit()" << name);
  return a;
}

void XactAggregatorSm::handleDel() {
  QUOR_TRACE(traceHandle, 9, "void Vell::XactAggregatorSm::handleDel()" << name_);
  if (clock_) clock_->timeMinIs(Quor::endOfTime);
  for (auto const& [name, d] : xactConfigDir_) d->xactConfigDelAll();
}

void XactAggregatorSm::clockIs(Quor::Ptr<Quor::Clock const> const& clock) {
  Quor::Seconds const armed = clock_ ? clock_->timeMin() : Quor::endOfTime;
  if (clock_) {
    clock_->ownerIs(nullptr);
    clock_->timeMinIs(Quor::endOfTime);
  }
  clock_ = nullptr;
  if (!clock) return;
  clock_ = new QuorClock(this);
  clock_->notifierIs(clock);
  clock_->timeMinIs(armed);  // a poll in progress goes on
}

Quor::Seconds XactAggregatorSm::clockTimeMin() const { return clock_ ? clock_->timeMin() : Quor::endOfTime; }

std::vector<U32> XactAggregatorSm::inProgressIds() const {
  std::vector<U32> ids;
  ids.reserve(inProgress_.size());
  for (auto const& [id, p] : inProgress_) ids.push_back(id);
  return ids;
}

void XactAggregatorSm::xactConfigDirIs(Quor::Ptr<XactConfigDir> const& d) {
  Quor::checkNotNull("Vell::XactAggregatorSm", "xactConfigDir", d);
  xactConfigDir_[d->name()] = d;
  configDirsChanged();
}

void XactAggregatorSm::xactConfigDirDel(Quor::Name const& name) {
  if (xactConfigDir_.erase(name)) configDirsChanged();
}

void XactAggregatorSm::configDirsChanged() {
  auto list = std::make_shared<std::vector<Quor::Ptr<XactConfigDir>>>();
  for (auto const& [name, d] : xactConfigDir_) list->push_back(d);
  configDirList_ = std::move(list);
}

void XactAggregatorSm::xactStatusDirIs(Quor::Ptr<XactStatusDir const> const& d) {
  Quor::checkNotNull("Vell::XactAggregatorSm", "xactStatusDir", d);
  auto const keep = hold();
  auto& slot = xactStatusDir_[d->name()];
  if (slot && slot->notifier() == d) return;
  if (slot) slot->withdraw();
  Quor::Ptr<QuorXactStatusDir> r = new QuorXactStatusDir(this);
  r->notifierIs(d);
  slot = r;
  handleXactStatusDir(d->name().str());
  r->handleStatus();
}

void XactAggregatorSm::xactStatusDirDel(Quor::Name const& name) {
  auto it = xactStatusDir_.find(name);
  if (it == xactStatusDir_.end()) return;
  auto const keep = hold();
  Quor::Ptr<QuorXactStatusDir> const gone = it->second;
  xactStatusDir_.erase(it);
  gone->withdraw();
  handleXactStatusDir(name.str());
}

void XactAggregatorSm::handleXactStatusDir(Quor::String8 const& name) {
  QUOR_TRACE(traceHandle, 8, "void Vell::XactAggregatorSm::handleXactStatusDir(Quor::String)" << name);
  if (xactStatusDir_.count(Quor::Name(name.str()))) return;  // added: its reactor judges what it holds
  QUOR_TRACE(traceHandle, 8, "xactStatusDir " << name << " removed");
  for (U32 id : inProgressIds()) handleStatusChange(id);
}

// Blocked while any blocker's attempt is open or did not succeed.
bool XactAggregatorSm::xactIsBlocked(Xact const& x) const {
  for (auto const& [id, b] : x.blockingXact()) {
    if (b->configVersion() != b->statusVersion() || b->result() != xactSuccess) {
      QUOR_TRACE(traceHandle, 8,
                 "Xact: " << x.id() << " " << x.name() << " blocked due to: " << id << " " << b->name());
      return true;
    }
  }
  return false;
}

void XactAggregatorSm::doStartXact(Quor::Ptr<Xact> const& x) {
  Quor::checkNotNull("Vell::XactAggregatorSm", "inProgressXact", x);
  QUOR_TRACE(traceHandle, 8,
             "void Vell::XactAggregatorSm::doStartXact(const Vell::Xact::Ptr&)"
                 << " xact name: " << x->name() << " id: " << x->id() << " configVersion: " << x->configVersion());
  auto const keep = hold();
  // NOLINTNEXTLINE(performance-unnecessary-copy-initialization): `x` may be an entry we remove
  Quor::Ptr<Xact> const xact = x;
  U32 const id = xact->id();
  xact->resultIs(xactInProgress);
  if (xactIsBlocked(*xact)) {
    if (blocked_.count(id)) return;
    blocked_[id] = new QuorBlockedXact(this, xact);
    xact->resultIs(xactInProgress);
    return;
  }
  if (auto it = blocked_.find(id); it != blocked_.end()) {
    Quor::Ptr<QuorBlockedXact> const gone = it->second;  // may be running this call
    blocked_.erase(it);
    gone->release();
  }
  if (inProgress_.size() >= maxAllowedInProgressXacts_) {
    QUOR_TRACE(traceHandle, 8, "Xact: " << id << " could not be started due to maxAllowedInProgress Xacts");
    pending_[id] = xact;
    return;
  }
  pending_.erase(id);
  if (xactConfigDir_.empty() || xactStatusDir_.empty()) {
    QUOR_TRACE(traceHandle, 8, "No xactConfigDirs or xactStatusDirs. Marking Xact as success");
    xact->configVersionInc(1);
    xact->commentDelAll();
    xact->resultIs(xactSuccess);
    xact->statusVersionIs(xact->configVersion());
    return;
  }
  admit(xact);
}

void XactAggregatorSm::admit(Quor::Ptr<Xact> const& xact) {
  U32 const id = xact->id();
  auto [slot, fresh] = inProgress_.try_emplace(id);
  bool const wasInProgress = !fresh;
  slot->second.xact = xact;
  xact->startTimeIs(Quor::now());
  QUOR_ASSERT_TEXT(clock_, "clock: a coordinator without a clock cannot time out what it admits");
  if (clock_->timeMin() == Quor::endOfTime) clock_->timeMinIs(Quor::now() + pollingInterval_);
  xact->configVersionInc(1);
  U32 const cv = xact->configVersion();
  // A new attempt: every directory's earlier answers are stale now. (Standings were
  // forgotten when an earlier attempt ended; one restarted while open is reset here.)
  InProgress& p = inProgress_[id];
  if (wasInProgress) {
    p.answered = p.failed = 0;
    for (auto const& [name, r] : xactStatusDir_) r->forget(id);
  }
  for (auto const& [name, r] : xactStatusDir_)
    if (standingOf(r->notifier()->xactStatus(id), cv) != unanswered) r->restand(id, p);
  // Executors may answer (and so decide the attempt) inside xactConfigIs, and their code
  // may register or drop directories: publish to the directories of this moment.
  auto const dirs = configDirList_;
  for (auto const& d : *dirs) {
    QUOR_TRACE(traceHandle, 8, d->name() << ": setting xactConfig: id: " << id << " configVersion: " << cv);
    d->xactConfigIs(XactConfig(id, cv));
  }
}

void XactAggregatorSm::doStopXact(U32 id) {
  QUOR_TRACE(traceHandle, 8, "void Vell::XactAggregatorSm::doStopXact(U32) " << name_ << " id: " << id);
  auto const keep = hold();
  pending_.erase(id);
  if (auto it = blocked_.find(id); it != blocked_.end()) {
    Quor::Ptr<QuorBlockedXact> const gone = it->second;
    blocked_.erase(it);
    gone->release();
  }
  inProgressDel(inProgress_.find(id));
  if (auto const dirs = configDirList_) {
    for (auto const& d : *dirs) d->xactConfigDel(id);
  }
}

void XactAggregatorSm::inProgressDel(std::map<U32, InProgress>::iterator it) {
  if (it == inProgress_.end()) return;
  U32 const id = it->first;
  inProgress_.erase(it);
  for (auto const& [name, r] : xactStatusDir_) r->forget(id);
  handleInProgressXact(id);
}

// A slot may have freed: admit pending transactions while slots last.
void XactAggregatorSm::handleInProgressXact(U32 id) {
  QUOR_TRACE(traceHandle, 8, "void Vell::XactAggregatorSm::handleInProgressXact(U32)" << " id: " << id);
  if (inProgress_.count(id) || pending_.empty() || purgingPendingXact_) return;
  purgingPendingXact_ = true;
  struct Reset {
    bool& flag;
    ~Reset() { flag = false; }
  } const reset{purgingPendingXact_};
  while (!pending_.empty() && inProgress_.size() < maxAllowedInProgressXacts_) {
    auto it = pending_.begin();
    Quor::Ptr<Xact> const x = it->second;
    pending_.erase(it);
    doStartXact(x);
  }
}

void XactAggregatorSm::handleStatusChange(U32 id) { judge(id, inProgress_.find(id)); }

void XactAggregatorSm::judge(U32 id, std::map<U32, InProgress>::iterator it) {
  QUOR_TRACE(traceHandle, 8, "void Vell::XactAggregatorSm::handleStatusChange(U32)" << " " << name_ << " id: " << id);
  if (it == inProgress_.end()) {
    QUOR_TRACE(traceHandle, 8, "Xact not found for the id: " << id);
    return;
  }
  InProgress const& p = it->second;
  U32 const cv = p.xact->configVersion();
  QUOR_TRACE(traceHandle, 8, " id " << id << " configVersion " << cv << " name " << p.xact->name());
  if (cv == 0) return;
  // Failure if any directory failed this attempt; open while one has not answered.
  XactResult const outcome = p.failed ? xactFailure : p.answered >= xactStatusDir_.size() ? xactSuccess : xactInProgress;
  QUOR_TRACE(traceHandle, 8, " id " << id << " version " << cv << " result " << outcome);
  if (outcome == xactInProgress) return;
  XactComments comments;
  for (auto const& [name, r] : xactStatusDir_) {
    XactStatus const& s = r->notifier()->xactStatus(id);
    QUOR_TRACE(traceHandle, 9,
               "xact status from: " << name << " statusVersion: " << s.statusVersion() << " "
                                    << (s == XactStatus() ? Quor::String8("None") : Quor::valueToStrep(s)));
    if (standingOf(s, cv) == unanswered || s.comment().str().empty()) continue;
    QUOR_TRACE(traceHandle, 8, "Comment from: " << name << "  comment: " << s.comment());
    comments.commentIs(Quor::String8(name.str()), s.comment());
  }
  complete(it, outcome, comments);
}

// Comments, then the slot (pending ones may start here), then result, and statusVersion
// last: its reactors (blocked dependants) see the final result and comments.
void XactAggregatorSm::complete(std::map<U32, InProgress>::iterator it, XactResult outcome,
                                XactComments const& comments) {
  auto const keep = hold();
  U32 const id = it->first;
  Quor::Ptr<Xact> const x = it->second.xact;
  U32 const cv = x->configVersion();
  x->commentDelAll();
  for (auto const& [key, text] : comments.comment()) x->commentIs(key, text);
  inProgressDel(inProgress_.find(id));  // the comments' reactors may have changed the set
  x->resultIs(outcome);
  x->statusVersionIs(cv);
  if (inProgress_.empty() && clock_) clock_->timeMinIs(Quor::endOfTime);
}

void XactAggregatorSm::handleClock() {
  QUOR_TRACE(traceHandle, 8, "void Vell::XactAggregatorSm::handleClock()");
  auto const keep = hold();
  // Re-sought after each step: completing one removes it and may admit others.
  for (auto it = inProgress_.begin(); it != inProgress_.end();) {
    U32 const id = it->first;
    Quor::Ptr<Xact> const x = it->second.xact;
    if (timeout_ <= Quor::now() - x->startTime()) {
      QUOR_TRACE(traceHandle, 8, "Timeout for Xact: " << x->name() << " id: " << id);
      U32 const cv = x->configVersion();
      XactComments comments;
      for (auto const& [name, r] : xactStatusDir_)
        if (standingOf(r->notifier()->xactStatus(id), cv) == unanswered) comments.commentIs(name.str(), "Timeout");
      if (comments.comment().empty()) comments.commentIs("unknown", "Timeout");
      complete(it, xactFailure, comments);
    }
    it = inProgress_.upper_bound(id);
  }
  if (!inProgress_.empty() && clock_) clock_->timeMinIs(Quor::now() + pollingInterval_);
}

// ---- the executor -------------------------------------------------------------------------

class XactExecutorSm::QuorXactConfigDir : public XactConfigDir::NotifieeConst {
 public:
  explicit QuorXactConfigDir(XactExecutorSm* owner) : owner_(owner) {}
  void onXactConfig(U32 id) override {
    if (owner_) owner_->handleXactConfig(id);
  }
  XactExecutorSm* owner_;
};

class XactExecutorSm::QuorClock : public Quor::OwnerClockReactor<XactExecutorSm, &XactExecutorSm::handleClock> {
  using OwnerClockReactor::OwnerClockReactor;
};

XactExecutorSm::XactExecutorSm(Quor::String8 name, Quor::Ptr<XactStatusDir> const& statusDir,
                               Quor::Ptr<Quor::Clock const> const& clock, Quor::Seconds backlogQuantum)
    : Entity(Quor::Name(name.str())), name_(std::move(name)), xactStatusDir_(statusDir) {
  Quor::checkNotNull("Vell::XactExecutorSm", "xactStatusDir", statusDir);
  backlogQuantum_ = QUOR_CHECK_RANGE("XactExecutorSm", "backlogQuantum", backlogQuantum, 0, 3600);
  if (clock) {
    clock_ = new QuorClock(this);
    clock_->notifierIs(clock);
  }
  QUOR_TRACE(traceHandle, 9, "void Vell::XactExecutorSm::handleInit()" << " " << name_);
}

XactExecutorSm::~XactExecutorSm() {
  if (clock_) clock_->ownerIs(nullptr);
  if (configDirReactor_) configDirReactor_->owner_ = nullptr;
}

Quor::Ptr<XactExecutorSm> XactExecutorSm::hold() {
  return Quor::Ptr<XactExecutorSm>(references() ? this : nullptr);
}

ExecResult XactExecutorSm::doExecute(XactConfig const&) {
  throw Quor::NoImplementationException("doExecute must be implemented in the derived class");
}

void XactExecutorSm::backlogQuantumIs(Quor::Seconds q) {
  backlogQuantum_ = QUOR_CHECK_RANGE("XactExecutorSm", "backlogQuantum", q, 0, 3600);
}

Quor::Ptr<XactConfigDir const> XactExecutorSm::xactConfigDir() const {
  return configDirReactor_ ? configDirReactor_->notifier() : nullptr;
}

void XactExecutorSm::xactConfigDirIs(Quor::Ptr<XactConfigDir const> const& d) {
  if (!d) return xactConfigDirDel();
  if (configDirReactor_ && configDirReactor_->notifier() == d) return;
  if (configDirReactor_) configDirReactor_->owner_ = nullptr;
  configDirReactor_ = new QuorXactConfigDir(this);
  configDirReactor_->notifierIs(d);
  handleXactConfig();
}

void XactExecutorSm::xactConfigDirDel() {
  if (!configDirReactor_) return;
  configDirReactor_->owner_ = nullptr;
  configDirReactor_ = nullptr;
}

void XactExecutorSm::clockIs(Quor::Ptr<Quor::Clock const> const& clock) {
  if (!clock) return clockDel();
  if (clock_ && clock_->notifier() == clock) return;
  Quor::Seconds const armed = clock_ ? clock_->timeMin() : (backlog_.empty() ? Quor::endOfTime : 0.0);
  clockDel();
  clock_ = new QuorClock(this);
  clock_->notifierIs(clock);
  clock_->timeMinIs(armed);
}

void XactExecutorSm::clockDel() {
  if (!clock_) return;
  clock_->ownerIs(nullptr);
  clock_->timeMinIs(Quor::endOfTime);
  clock_ = nullptr;
}

void XactExecutorSm::handleDel() {
  QUOR_TRACE(traceHandle, 9, "void Vell::XactExecutorSm::handleDel()");
  xactConfigDirDel();
  xactStatusDir_->xactStatusDelAll();
  clockDel();
}

void XactExecutorSm::handleXactConfig() {
  QUOR_TRACE(traceHandle, 9, "void Vell::XactExecutorSm::handleXactConfig()");
  for (U32 id : xactConfigDir()->xactConfigIds()) handleXactConfig(id);
}

void XactExecutorSm::handleXactConfig(U32 id) {
  QUOR_TRACE(traceHandle, 9, "void Vell::XactExecutorSm::handleXactConfig(U32)" << " " << name_ << " id: " << id);
  updatesSeenInc(1);
  XactConfig const c = configDirReactor_->notifier()->xactConfig(id);
  if (!clock_ || c == XactConfig()) {  // without a clock, and withdrawals: at once
    auto const keep = hold();  // doExecute may drop the last outside reference
    if (clock_) backlogDel(id);
    doProcessXact(id);
    return;
  }
  backlogIs(id, true);
  if (clock_->timeMin() == Quor::endOfTime) clock_->timeMinIs(0.0);
}

void XactExecutorSm::doProcessXact(U32 id) {
  QUOR_TRACE(traceHandle, 9, "void Vell::XactExecutorSm::doProcessXact(U32)" << " " << name_ << " id " << id);
  XactConfig const c = configDirReactor_ ? configDirReactor_->notifier()->xactConfig(id) : XactConfig();
  if (c == XactConfig()) {
    QUOR_TRACE(traceHandle, 9, "Deleting xactStatus with id: " << id);
    xactStatusDir_->xactStatusDel(id);
    return;
  }
  QUOR_TRACE(traceHandle, 9, "configVersion: " << c.configVersion());
  ExecResult const r = doExecute(c);
  if (r.result() == xactInProgress) return;
  xactStatusDir_->xactStatusIs(XactStatus(c.id(), r.result(), r.comment(), c.configVersion()));
}

// One dispatch: entries in hash order from the bookmark, wrapping, until the backlog is
// empty or the quantum is spent (after at least one entry).
void XactExecutorSm::handleClock() {
  QUOR_TRACE(traceHandle, 9, "void Vell::XactExecutorSm::handleClock()" << " " << name_);
  auto const keep = hold();
  Quor::Seconds const start = Quor::now(), deadline = start + backlogQuantum_;
  Quor::Seconds last = start;
  U64 count = 0;
  auto it = backlog_.find(bookmark_);
  for (;;) {
    if (it == backlog_.end()) it = backlog_.begin();
    if (it == backlog_.end()) break;
    last = Quor::now();
    U32 const id = it->first;
    if (count > 0 && last >= deadline) {
      bookmarkIs(id);
      if (clock_) clock_->timeMinIs(0.0);
      yieldBeforeFinishingCountInc(1);
      break;
    }
    // doExecute may change the backlog (and rehash it): remember the next id, not the
    // iterator.
    auto next = std::next(it);
    bool const hasNext = next != backlog_.end();
    U32 const nextId = hasNext ? next->first : 0;
    // Cleared while it runs: a coordinator in this process may decide and restart the
    // transaction inside doProcessXact, queueing the id again, and that entry must stay.
    it->second = false;
    doProcessXact(id);
    if (auto again = backlog_.find(id); again != backlog_.end() && !again->second) backlogDel(id);
    ++count;
    it = hasNext ? backlog_.find(nextId) : backlog_.end();
  }
  updatesProcessedInc(count);
  timeUsedInc(last - start);
  dispatchCountInc(1);
}

}  // namespace Vell
