// Transactions: one coordinator (XactAggregatorSm) asks any number of executors
// (XactExecutorSm subclasses) to apply numbered changes, and decides each from their
// answers. The two sides share nothing but versioned directories.
//
// The life of one transaction:
//   1. The owner makes an Xact (xactFactory or XactDir::xactIs), names the transactions
//      it waits for (blockingXactIs) and calls doStartXact(). Its result is xactInProgress.
//   2. Blocked (a blocker unfinished or failed): it waits in blockedXact until the last
//      blocker's statusVersion changes. No slot (maxAllowedInProgressXacts): pendingXact.
//   3. Admitted: configVersion + 1, and an XactConfig{id, configVersion} in every config
//      directory. Each executor runs doExecute() and answers an XactStatus with
//      statusVersion = that configVersion in its own status directory.
//   4. Decided: failure as soon as one directory reports failure for this attempt,
//      success once every directory has; comments are filed under the directories'
//      names; result, then statusVersion = configVersion last, which releases dependants.
//   5. A transaction open longer than `timeout` fails with "Timeout" comments; one
//      stopped with doStopXact() loses its configs, and executors drop their statuses.
// A status counts only when its statusVersion equals the transaction's configVersion:
// answers to an earlier attempt are treated as missing.
//
// Workload assumed: thousands of transactions in flight, tens of executors, on one
// activity thread. Costs: the coordinator keeps, per status directory, the standing of
// each in-progress transaction there, so a status change costs O(1) to judge and a
// transaction costs O(executors) over its whole life (publishing, gathering comments),
// whatever the number in progress. The timeout poll walks the in-progress set once per
// pollingInterval. Executors queue changed ids and work them off in slices of
// backlogQuantum seconds, resuming at a bookmark.
//
// Traces go to channel "XactLib" (levels 1 to 9); their text is built only when enabled.
#pragma once
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

/// The outcome of one attempt. Any 32-bit number can be held; one that is no enumerator
/// prints as "XactResult(%d)".
enum XactResult : U32 { xactInProgress = 0, xactSuccess = 1, xactFailure = 2 };
QUOR_ENUM_TEXT(XactResult, "XactResult", {xactInProgress, "xactInProgress"}, {xactSuccess, "xactSuccess"},
               {xactFailure, "xactFailure"})

/// What the coordinator publishes for one attempt. The default value (both 0) stands
/// for "no configuration".
class QUOR_API XactConfig {
 public:
  XactConfig() = default;
  XactConfig(U32 id, U32 configVersion) : id_(id), configVersion_(configVersion) {}
  U32 id() const { return id_; }
  U32 configVersion() const { return configVersion_; }
  QUOR_VALUE_TYPE(XactConfig, "Vell::XactConfig", QUOR_FIELD(XactConfig, id), QUOR_FIELD(XactConfig, configVersion))

 private:
  U32 id_ = 0;
  U32 configVersion_ = 0;
};

/// An executor's answer. statusVersion echoes the configVersion it answers. The default
/// value stands for "no status".
class QUOR_API XactStatus {
 public:
  XactStatus() = default;
  XactStatus(U32 id, XactResult result, Quor::String8 comment, U32 statusVersion)
      : id_(id), result_(result), comment_(std::move(comment)), statusVersion_(statusVersion) {}
  U32 id() const { return id_; }
  XactResult result() const { return result_; }
  Quor::String8 const& comment() const { return comment_; }
  U32 statusVersion() const { return statusVersion_; }
  QUOR_VALUE_TYPE(XactStatus, "Vell::XactStatus", QUOR_FIELD(XactStatus, id), QUOR_FIELD(XactStatus, result),
                  QUOR_FIELD(XactStatus, comment), QUOR_FIELD(XactStatus, statusVersion))

 private:
  U32 id_ = 0;
  XactResult result_ = xactInProgress;
  Quor::String8 comment_;
  U32 statusVersion_ = 0;
};

/// What doExecute() returns: xactInProgress means "no answer yet" (nothing is written).
class QUOR_API ExecResult {
 public:
  ExecResult() = default;
  ExecResult(XactResult result, Quor::String8 comment) : result_(result), comment_(std::move(comment)) {}
  XactResult result() const { return result_; }
  Quor::String8 const& comment() const { return comment_; }
  QUOR_VALUE_TYPE(ExecResult, "Vell::ExecResult", QUOR_FIELD(ExecResult, result), QUOR_FIELD(ExecResult, comment))

 private:
  XactResult result_ = xactInProgress;
  Quor::String8 comment_;
};

/// One transaction. Every mutator compares first: an unchanged value notifies nobody.
class QUOR_API Xact : public Quor::Entity {
 public:
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<Xact, NotifieeConst> {
   public:
    virtual void onConfigVersion() {}
    virtual void onStartTime() {}
    virtual void onStatusVersion() {}
    virtual void onResult() {}
    virtual void onComment(Quor::String8 const&) {}
    virtual void onBlockingXact(U32) {}
  };
  using Comments = std::unordered_map<Quor::String8, Quor::String8>;
  using BlockingXacts = std::unordered_map<U32, Quor::Ptr<Xact const>>;

  Xact(Quor::Name const& name, U32 id) : Entity(name), id_(id) {}

  U32 id() const { return id_; }
  /// Attempt number; raised by 1 (wrapping) at each admission.
  U32 configVersion() const { return configVersion_; }
  void configVersionIs(U32 v);
  void configVersionInc(U32 d) { configVersionIs(configVersion_ + d); }
  /// When the current attempt was admitted.
  Quor::Seconds startTime() const { return startTime_; }
  void startTimeIs(Quor::Seconds t);
  /// Equal to configVersion once the current attempt is decided.
  U32 statusVersion() const { return statusVersion_; }
  void statusVersionIs(U32 v);
  /// Outcome of the attempt numbered statusVersion.
  XactResult result() const { return result_; }
  void resultIs(XactResult r);
  /// Comments by status directory name ("unknown" for a timeout nobody is blamed for).
  Comments const& comment() const { return comment_; }
  Quor::String8 comment(Quor::String8 const& key) const;
  void commentIs(Quor::String8 const& key, Quor::String8 const& text);
  void commentDel(Quor::String8 const& key);
  void commentDelAll();
  /// Transactions that must have succeeded before this one starts, by id. Throws
  /// "null _blockingXact parameter to mutator for Vell::Xact::blockingXact not allowed\"".
  BlockingXacts const& blockingXact() const { return blockingXact_; }
  void blockingXactIs(Quor::Ptr<Xact const> const& x);
  void blockingXactDel(U32 id);
  void blockingXactDelAll();

  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }

  QUOR_ENTITY_TYPE(Xact, "Vell::Xact",
                   Quor::attr("id", &Xact::id),
                   Quor::attr("configVersion", &Xact::configVersion, &Xact::configVersionIs),
                   Quor::attr("startTime", &Xact::startTime, &Xact::startTimeIs),
                   Quor::attr("statusVersion", &Xact::statusVersion, &Xact::statusVersionIs),
                   Quor::attr("result", &Xact::result, &Xact::resultIs),
                   Quor::collection("comment", static_cast<Comments const& (Xact::*)() const>(&Xact::comment),
                                    static_cast<Quor::String8 (Xact::*)(Quor::String8 const&) const>(&Xact::comment)))

 private:
  Quor::Ptr<Xact> hold();
  U32 const id_;
  U32 configVersion_ = 0;
  Quor::Seconds startTime_ = 0.0;
  U32 statusVersion_ = 0;
  XactResult result_ = xactInProgress;
  Comments comment_;
  BlockingXacts blockingXact_;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
};

QUOR_API Quor::Ptr<Xact> xactFactory(Quor::Name const& name, U32 id);

/// Owned transactions by ascending id.
class QUOR_API XactDir : public Quor::Entity {
 public:
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<XactDir, NotifieeConst> {
   public:
    virtual void onXact(U32) {}
  };
  explicit XactDir(Quor::Name const& name) : Entity(name) {}
  /// The transaction under id, or null.
  Quor::Ptr<Xact> xact(U32 id) const;
  /// The transaction under id, made (named by the decimal id) when absent.
  Quor::Ptr<Xact> xactIs(U32 id);
  void xactDel(U32 id);
  std::map<U32, Quor::Ptr<Xact>> const& xacts() const { return xact_; }
  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }

  QUOR_ENTITY_TYPE(XactDir, "Vell::XactDir",
                   Quor::collection("xact", &XactDir::xacts, &XactDir::xact))

 private:
  std::map<U32, Quor::Ptr<Xact>> xact_;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
};

QUOR_API Quor::Ptr<XactDir> xactDirFactory(Quor::Name const& name);

/// Configurations by id: written by the coordinator, read by one executor. Held in a
/// hash map (lookups are the hot path); xactConfigIds() gives them in ascending id.
class QUOR_API XactConfigDir : public Quor::Entity {
 public:
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<XactConfigDir, NotifieeConst> {
   public:
    virtual void onXactConfig(U32) {}
  };
  explicit XactConfigDir(Quor::Name const& name) : Entity(name) {}
  /// The configuration under id, or the default value (absent).
  XactConfig xactConfig(U32 id) const;
  void xactConfigIs(XactConfig const& c);
  void xactConfigDel(U32 id);
  void xactConfigDelAll();
  std::size_t xactConfigs() const { return xactConfig_.size(); }
  /// The ids present, ascending.
  std::vector<U32> xactConfigIds() const;
  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }
  QUOR_ENTITY_TYPE(XactConfigDir, "Vell::XactConfigDir",
                   Quor::collection("xactConfig", &XactConfigDir::xactConfigIds, &XactConfigDir::xactConfig,
                                    &XactConfigDir::xactConfigIs, &XactConfigDir::xactConfigDel,
                                    &NotifieeConst::onXactConfig))

 private:
  std::unordered_map<U32, XactConfig> xactConfig_;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
};

QUOR_API Quor::Ptr<XactConfigDir> xactConfigDirFactory(Quor::Name const& name);

/// Statuses by id (no order): written by one executor, read by the coordinator, which
/// files that executor's comments under this directory's name.
class QUOR_API XactStatusDir : public Quor::Entity {
 public:
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<XactStatusDir, NotifieeConst> {
   public:
    virtual void onXactStatus(U32) {}
  };
  explicit XactStatusDir(Quor::Name const& name) : Entity(name) {}
  /// The status under id, or the default value (absent). The reference is valid until
  /// the directory next changes.
  XactStatus const& xactStatus(U32 id) const;
  void xactStatusIs(XactStatus const& s);
  void xactStatusDel(U32 id);
  void xactStatusDelAll();
  std::unordered_map<U32, XactStatus> const& xactStatuses() const { return xactStatus_; }
  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }
  QUOR_ENTITY_TYPE(XactStatusDir, "Vell::XactStatusDir",
                   Quor::collection("xactStatus", &XactStatusDir::xactStatuses, &XactStatusDir::xactStatus,
                                    &XactStatusDir::xactStatusIs, &XactStatusDir::xactStatusDel,
                                    &NotifieeConst::onXactStatus))

 private:
  std::unordered_map<U32, XactStatus> xactStatus_;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
};

QUOR_API Quor::Ptr<XactStatusDir> xactStatusDirFactory(Quor::Name const& name);

/// The coordinator. Every transaction it was handed is, after each call returns, in
/// exactly one holding place (blockedXact, pendingXact, inProgressXact) or in none
/// (decided, stopped, or never started).
class QUOR_API XactAggregatorSm : public Quor::Entity {
 public:
  /// Comments gathered while one attempt is judged, by directory name.
  class QUOR_API XactComments {
   public:
    Xact::Comments const& comment() const { return comment_; }
    void newComment(Quor::String8 const& key, Quor::String8 const& text) { comment_.emplace(key, text); }
    void commentIs(Quor::String8 const& key, Quor::String8 const& text) { comment_[key] = text; }
    void commentDelAll() { comment_.clear(); }

   private:
    Xact::Comments comment_;
  };
  class QuorXactStatusDir;
  class QuorBlockedXact;
  class QuorClock;

  /// A null clock is allowed until a transaction must be admitted (then it is an
  /// assertion: timeouts need a clock).
  XactAggregatorSm(Quor::String8 const& name, Quor::Ptr<Quor::Clock const> const& clock);
  ~XactAggregatorSm() override;

  Quor::String8 const& aggregatorName() const { return name_; }

  // ---- owner's operations ----
  /// Starts (or restarts) an attempt of x. Postcondition: x is blocked, pending, in
  /// progress, or decided at once (no config or no status directory: success).
  /// Throws "null _inProgressXact parameter to mutator for
  /// Vell::XactAggregatorSm::inProgressXact not allowed\"" for a null x.
  void doStartXact(Quor::Ptr<Xact> const& x);
  /// Withdraws transaction id from every holding place (admitting pending ones) and its
  /// configuration from every config directory; the Xact itself is left as it is. An
  /// unknown id still withdraws configurations.
  void doStopXact(U32 id);

  // ---- directories ----
  /// Registers a config directory under its name (replacing one of that name). Adding
  /// one publishes nothing for transactions already in progress.
  void xactConfigDirIs(Quor::Ptr<XactConfigDir> const& d);
  void xactConfigDirDel(Quor::Name const& name);
  /// Registers a status directory; its present statuses are judged at once.
  void xactStatusDirIs(Quor::Ptr<XactStatusDir const> const& d);
  /// Forgets a status directory and judges every in-progress transaction again, in
  /// ascending id order: one fewer directory must answer.
  void xactStatusDirDel(Quor::Name const& name);
  std::size_t xactConfigDirs() const { return xactConfigDir_.size(); }
  std::size_t xactStatusDirs() const { return xactStatusDir_.size(); }

  // ---- holding places, for inspection ----
  bool inProgressXact(U32 id) const { return inProgress_.count(id) != 0; }
  bool pendingXact(U32 id) const { return pending_.count(id) != 0; }
  bool blockedXact(U32 id) const { return blocked_.count(id) != 0; }
  std::size_t inProgressXacts() const { return inProgress_.size(); }
  std::size_t pendingXacts() const { return pending_.size(); }
  std::size_t blockedXacts() const { return blocked_.size(); }
  /// Ids in progress, ascending.
  std::vector<U32> inProgressIds() const;

  // ---- attributes ----
  bool purgingPendingXact() const { return purgingPendingXact_; }
  void purgingPendingXactIs(bool b) { purgingPendingXact_ = b; }
  /// Admission limit; a change takes effect when an in-progress transaction leaves.
  U32 maxAllowedInProgressXacts() const { return maxAllowedInProgressXacts_; }
  void maxAllowedInProgressXactsIs(U32 n) { maxAllowedInProgressXacts_ = n; }
  Quor::Seconds pollingInterval() const { return pollingInterval_; }
  void pollingIntervalIs(Quor::Seconds s) { pollingInterval_ = s; }
  Quor::Seconds timeout() const { return timeout_; }
  void timeoutIs(Quor::Seconds s) { timeout_ = s; }
  /// The timeout poll's reactor, or null without a clock.
  Quor::Ptr<QuorClock> const& clock() const { return clock_; }
  void clockIs(Quor::Ptr<Quor::Clock const> const& clock);
  /// When the next timeout poll runs (Quor::endOfTime: none is due, or no clock).
  Quor::Seconds clockTimeMin() const;

  QUOR_ENTITY_TYPE(XactAggregatorSm, "Vell::XactAggregatorSm",
                   Quor::attr("inProgressXacts", &XactAggregatorSm::inProgressXacts),
                   Quor::attr("pendingXacts", &XactAggregatorSm::pendingXacts),
                   Quor::attr("blockedXacts", &XactAggregatorSm::blockedXacts),
                   Quor::attr("maxAllowedInProgressXacts", &XactAggregatorSm::maxAllowedInProgressXacts, &XactAggregatorSm::maxAllowedInProgressXactsIs),
                   Quor::attr("pollingInterval", &XactAggregatorSm::pollingInterval, &XactAggregatorSm::pollingIntervalIs),
                   Quor::attr("timeout", &XactAggregatorSm::timeout, &XactAggregatorSm::timeoutIs),
                   Quor::attr("purgingPendingXact", &XactAggregatorSm::purgingPendingXact, &XactAggregatorSm::purgingPendingXactIs),
                   Quor::attr("xactConfigDirs", &XactAggregatorSm::xactConfigDirs),
                   Quor::attr("xactStatusDirs", &XactAggregatorSm::xactStatusDirs))

  // ---- reactions (run by the nested reactors) ----
  void handleStatusChange(U32 id);
  void handleXactStatusDir(Quor::String8 const& name);
  void handleClock();

 protected:
  void handleDel() override;

 private:
  struct InProgress {
    Quor::Ptr<Xact> xact;
    U32 answered = 0;  // status directories with a current answer
    U32 failed = 0;    // of which failures
  };
  Quor::Ptr<XactAggregatorSm> hold();
  bool xactIsBlocked(Xact const& x) const;
  void handleInProgressXact(U32 id);
  void admit(Quor::Ptr<Xact> const& x);
  void judge(U32 id, std::map<U32, InProgress>::iterator it);
  void complete(std::map<U32, InProgress>::iterator it, XactResult outcome, XactComments const& comments);
  void inProgressDel(std::map<U32, InProgress>::iterator it);

  Quor::String8 const name_;
  std::map<U32, InProgress> inProgress_;
  std::unordered_map<Quor::Name, Quor::Ptr<XactConfigDir>> xactConfigDir_;
  // The config directories as a list, remade when they change: publishing walks it
  // while executors' code may register or drop directories.
  std::shared_ptr<std::vector<Quor::Ptr<XactConfigDir>> const> configDirList_;
  void configDirsChanged();
  std::map<Quor::Name, Quor::Ptr<QuorXactStatusDir>> xactStatusDir_;
  std::unordered_map<U32, Quor::Ptr<QuorBlockedXact>> blocked_;
  std::unordered_map<U32, Quor::Ptr<Xact>> pending_;
  bool purgingPendingXact_ = false;
  U32 maxAllowedInProgressXacts_ = 100;
  Quor::Ptr<QuorClock> clock_;
  Quor::Seconds pollingInterval_ = 1.0;
  Quor::Seconds timeout_ = 600.0;
  friend QUOR_API Quor::Ptr<XactAggregatorSm> xactAggregatorSmFactory(Quor::String8 const&,
                                                                      Quor::Ptr<Quor::Clock const> const&);
  friend class QuorXactStatusDir;
  friend class QuorBlockedXact;
};

/// A coordinator named `name`; `clock` drives the timeout poll.
QUOR_API Quor::Ptr<XactAggregatorSm> xactAggregatorSmFactory(Quor::String8 const& name,
                                                             Quor::Ptr<Quor::Clock const> const& clock);

/// The base of every executor: runs doExecute() for each configuration added or changed
/// in its config directory and writes the answer into its status directory. With a
/// clock, changed ids wait in a backlog (repeated changes of one id collapse into one
/// entry) worked off in dispatches of about backlogQuantum seconds, at least one entry
/// each, resuming at a bookmark; withdrawals (a configuration deleted) are handled at
/// once. Without a clock every change is executed inside its notification.
///
/// An exception escaping doExecute() is not caught here: it leaves the dispatch (or the
/// notification) and the id stays in the backlog.
class QUOR_API XactExecutorSm : public Quor::Entity {
 public:
  class QuorXactConfigDir;
  class QuorClock;

  ~XactExecutorSm() override;

  Quor::String8 const& executorName() const { return name_; }

  /// What the derived class does with one configuration. xactInProgress means "no
  /// answer now": nothing is written. The base version throws
  /// Quor::NoImplementationException "doExecute must be implemented in the derived class".
  virtual ExecResult doExecute(XactConfig const& config);

  // ---- statistics ----
  U64 updatesSeen() const { return updatesSeen_; }
  U64 updatesProcessed() const { return updatesProcessed_; }
  Quor::Seconds timeUsed() const { return timeUsed_; }
  U64 dispatchCount() const { return dispatchCount_; }
  U64 yieldBeforeFinishingCount() const { return yieldBeforeFinishingCount_; }
  virtual void updatesSeenInc(U64 const& n) { updatesSeen_ += n; }
  virtual void updatesProcessedInc(U64 const& n) { updatesProcessed_ += n; }
  virtual void timeUsedInc(Quor::Seconds const& d) { timeUsed_ += d; }
  virtual void dispatchCountInc(U64 const& n) { dispatchCount_ += n; }
  virtual void yieldBeforeFinishingCountInc(U64 const& n) { yieldBeforeFinishingCount_ += n; }

  // ---- backlog ----
  /// Ids waiting for a dispatch. An entry's flag is true when queued and false while a
  /// dispatch executes it; an id queued again meanwhile (true again) stays queued.
  std::size_t backlogs() const { return backlog_.size(); }
  bool backlog(U32 id) const { return backlog_.count(id) != 0; }
  virtual void backlogDel(U32 id) { backlog_.erase(id); }
  virtual void backlogIs(U32 id, bool flag) { backlog_[id] = flag; }
  U32 bookmark() const { return bookmark_; }
  virtual void bookmarkIs(U32 id) { bookmark_ = id; }
  Quor::Seconds backlogQuantum() const { return backlogQuantum_; }
  /// Throws "XactExecutorSm::backlogQuantum < 0 or > 3600 not allowed".
  virtual void backlogQuantumIs(Quor::Seconds q);

  // ---- directories and clock ----
  Quor::Ptr<XactConfigDir const> xactConfigDir() const;
  /// Watches `d` (null: xactConfigDirDel) and handles every configuration present.
  virtual void xactConfigDirIs(Quor::Ptr<XactConfigDir const> const& d);
  virtual void xactConfigDirDel();
  Quor::Ptr<XactStatusDir> const& xactStatusDir() const { return xactStatusDir_; }
  Quor::Ptr<QuorClock> const& clock() const { return clock_; }
  /// A null clock is clockDel(): every later change is executed at once.
  virtual void clockIs(Quor::Ptr<Quor::Clock const> const& clock);
  virtual void clockDel();

  QUOR_ENTITY_TYPE(XactExecutorSm, "Vell::XactExecutorSm",
                   Quor::attr("updatesSeen", &XactExecutorSm::updatesSeen),
                   Quor::attr("updatesProcessed", &XactExecutorSm::updatesProcessed),
                   Quor::attr("timeUsed", &XactExecutorSm::timeUsed),
                   Quor::attr("dispatchCount", &XactExecutorSm::dispatchCount),
                   Quor::attr("yieldBeforeFinishingCount", &XactExecutorSm::yieldBeforeFinishingCount),
                   Quor::attr("backlogs", &XactExecutorSm::backlogs),
                   Quor::attr("bookmark", &XactExecutorSm::bookmark),
                   Quor::attr("backlogQuantum", &XactExecutorSm::backlogQuantum, &XactExecutorSm::backlogQuantumIs))

  // ---- reactions ----
  void handleXactConfig(U32 id);
  void handleXactConfig();
  void doProcessXact(U32 id);
  void handleClock();

 protected:
  /// For derived classes. Throws the null-parameter text for a null statusDir and the
  /// backlogQuantum range text.
  XactExecutorSm(Quor::String8 name, Quor::Ptr<XactStatusDir> const& statusDir,
                 Quor::Ptr<Quor::Clock const> const& clock, Quor::Seconds backlogQuantum);
  /// Drops this executor's statuses and stops its clock; run when it is deleted.
  void handleDel() override;

 private:
  Quor::Ptr<XactExecutorSm> hold();
  Quor::String8 const name_;
  Quor::Ptr<QuorXactConfigDir> configDirReactor_;
  Quor::Ptr<XactStatusDir> xactStatusDir_;
  Quor::Ptr<QuorClock> clock_;
  std::unordered_map<U32, bool> backlog_;
  U32 bookmark_ = 0;
  Quor::Seconds backlogQuantum_ = 0;
  U64 updatesSeen_ = 0;
  U64 updatesProcessed_ = 0;
  Quor::Seconds timeUsed_ = 0;
  U64 dispatchCount_ = 0;
  U64 yieldBeforeFinishingCount_ = 0;
};

}  // namespace Vell
