// The activity loop: clock reactors ordered by (timeMin, arming order), descriptors
// through one epoll instance per activity.
#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <cmath>
#include <cstring>
#include <map>

#include <Quor/Quor.h>

namespace Quor {

namespace {
TraceHandle& trace() {
  static TraceHandle* t = new TraceHandle("Quor");
  return *t;
}

// Activities live as long as the process: reactors hold raw pointers to their loop.
std::map<Name, Ptr<ActivityConfig>>& activities() {
  static auto* m = new std::map<Name, Ptr<ActivityConfig>>;
  return *m;
}

constexpr int maxEvents = 64;

// Failures of the loop's own system calls. Rate-limited to one a minute: a failure that
// repeats every turn must not flood the log.
LogHandle& loopError() {
  static auto* h = new LogHandle(
      "ACTIVITY_LOOP_ERROR", LogSeverity::error, "%s failed on activity %s (descriptor %d): %s",
      "The event loop could not wait for descriptors or change what it watches; the reactors of "
      "that descriptor may not be called.",
      "Check the process's descriptor and memory limits; restart the agent if this repeats.", 60.0, 1.0);
  return *h;
}
}  // namespace

// ---- activities ----

ActivityConfig::~ActivityConfig() = default;

Ptr<ActivitySm> ActivityConfig::activitySm() const {
  if (!sm_) sm_ = new ActivitySm(name());
  return sm_;
}

Ptr<ActivityConfig> activityConfigFactory(Name const& name) {
  auto& m = activities();
  auto it = m.find(name);
  if (it != m.end()) return it->second;
  Ptr<ActivityConfig> c = makeEntity<ActivityConfig>(name);
  m.emplace(name, c);
  return c;
}

Ptr<ActivityConfig> defaultActivityConfig() {
  static Ptr<ActivityConfig> c = activityConfigFactory("default");
  return c;
}

Ptr<ActivitySm> quorActivitySmFor(Ptr<ActivityConfig> const& config) {
  return (config ? config : defaultActivityConfig())->activitySm();
}

ActivitySm::ActivitySm(Name const& name) : Entity(name) {
  epoll_ = ::epoll_create1(EPOLL_CLOEXEC);
  if (epoll_ < 0) throwInternalException(format("epoll_create1: %s", std::strerror(errno)));
}

ActivitySm::~ActivitySm() {
  if (epoll_ >= 0) ::close(epoll_);
}

Seconds ActivitySm::nextTimeMin() const { return heap_.empty() ? endOfTime : heap_.front().time; }

// ---- the heap of armed clock reactors ----
// Every move of an entry writes the reactor's slot, so disarming finds it in O(1).

void ActivitySm::heapPlace(U32 slot, Armed const& a) {
  heap_[slot] = a;
  a.reactor->slot_ = slot;
}

void ActivitySm::siftUp(U32 slot, Armed const& a) {
  while (slot > 0) {
    U32 const parent = (slot - 1) / 2;
    if (!a.before(heap_[parent])) break;
    heapPlace(slot, heap_[parent]);
    slot = parent;
  }
  heapPlace(slot, a);
}

void ActivitySm::siftDown(U32 slot, Armed const& a) {
  U32 const n = static_cast<U32>(heap_.size());
  for (;;) {
    U32 child = 2 * slot + 1;
    if (child >= n) break;
    if (child + 1 < n && heap_[child + 1].before(heap_[child])) ++child;
    if (!heap_[child].before(a)) break;
    heapPlace(slot, heap_[child]);
    slot = child;
  }
  heapPlace(slot, a);
}

void ActivitySm::heapPush(Armed const& a) {
  heap_.push_back(a);
  siftUp(static_cast<U32>(heap_.size() - 1), a);
}

void ActivitySm::heapRemove(U32 slot) {
  Armed const last = heap_.back();
  heap_.pop_back();
  if (slot == heap_.size()) return;
  // The last entry takes the hole; it may belong above or below it.
  if (slot > 0 && last.before(heap_[(slot - 1) / 2])) {
    siftUp(slot, last);
  } else {
    siftDown(slot, last);
  }
}

void ActivitySm::arm(Clock::NotifieeConst* n, Seconds t) {
  n->armedIn_ = this;
  n->setAside_ = false;
  heapPush(Armed{t, nextSeq_++, n});
}

void ActivitySm::disarm(Clock::NotifieeConst* n) {
  if (!n->setAside_) {
    heapRemove(n->slot_);
    return;
  }
  // Set aside during a turn: order there does not matter, so swap with the last.
  U32 const slot = n->slot_;
  setAside_[slot] = setAside_.back();
  setAside_[slot].reactor->slot_ = slot;
  setAside_.pop_back();
  n->setAside_ = false;
}

// Runs the reactors due at the start of the call, in (timeMin, arming) order. A reactor
// armed in the past during this pass (typically re-arming itself from onTime) is not due
// in it: it is set aside and runs next turn, so a reactor that always re-arms cannot
// starve descriptors, and each one costs O(log n) instead of a rescan of the due set.
bool ActivitySm::runDueClocks() {
  Seconds const t = now();
  turnTime_ = t;
  U64 const passSeq = nextSeq_;
  bool ran = false;
  // Put the set-aside reactors back however the pass ends, an escaping exception included.
  struct Restore {
    ActivitySm* sm;
    ~Restore() {
      for (Armed const& a : sm->setAside_) {
        a.reactor->setAside_ = false;
        sm->heapPush(a);
      }
      sm->setAside_.clear();
    }
  } const restore{this};
  while (!heap_.empty() && heap_.front().time <= t) {
    Armed const top = heap_.front();
    heapRemove(0);
    Clock::NotifieeConst* n = top.reactor;
    if (top.seq >= passSeq) {
      n->slot_ = static_cast<U32>(setAside_.size());
      n->setAside_ = true;
      setAside_.push_back(top);
      continue;
    }
    n->armedIn_ = nullptr;
    n->timeMin_ = endOfTime;  // one-shot: reset before the call, so onTime may re-arm
    if (n->isDestroying()) continue;
    Ptr<Clock::NotifieeConst const> hold(n);  // the reactor may drop itself in onTime
    n->onTime();
    ran = true;
  }
  return ran;
}

bool ActivitySm::pollDescriptors(int timeoutMs) {
  bool ran = false;
  // Regular files cannot be polled: they are always ready.
  for (U64 id : std::vector<U64>(alwaysReady_)) {
    auto it = fds_.find(id);
    if (it == fds_.end()) continue;
    Ptr<FileDescriptor> hold(it->second);
    it->second->handleReady(it->second->notifyOnReadable_, it->second->notifyOnWritable_);
    ran = true;
  }
  if (ran) timeoutMs = 0;
  // Nothing registered and no wait wanted: skip the system call (virtual-time tests and
  // clock-only loops turn often).
  if (registered_ == 0 && timeoutMs == 0) return ran;
  epoll_event events[maxEvents];
  int n;
  do {
    n = ::epoll_wait(epoll_, events, maxEvents, timeoutMs);
  } while (n < 0 && errno == EINTR);
  turnTime_ = now();  // the wait may have been long: reactors of this turn see the present
  if (n < 0) {
    int const err = errno;
    QUOR_TRACE(trace(), 0, "epoll_wait failed: " << std::strerror(err));
    loopError().log("epoll_wait", name().charPtr(), epoll_, std::strerror(err));
    errno = err;
    return ran;
  }
  for (int i = 0; i < n; ++i) {
    auto it = fds_.find(events[i].data.u64);
    if (it == fds_.end()) continue;  // removed by an earlier reactor of this turn
    FileDescriptor* fd = it->second;
    U32 const ev = events[i].events;
    bool const trouble = ev & (EPOLLERR | EPOLLHUP);
    if (trouble) QUOR_TRACE(trace(), 3, "descriptor " << fd->fd_ << " error/hangup events " << ev);
    Ptr<FileDescriptor> hold(fd);
    fd->handleReady((ev & EPOLLIN) || trouble, (ev & EPOLLOUT) || trouble);
    ran = true;
  }
  return ran;
}

bool ActivitySm::runOnce(Seconds maxWait) {
  if (!(maxWait >= 0)) maxWait = 0;
  // A nested runOnce (a reactor running the loop) keeps the outer turn's flag.
  struct TurnFlag {
    bool& flag;
    bool const was;
    explicit TurnFlag(bool& f) : flag(f), was(f) { flag = true; }
    ~TurnFlag() { flag = was; }
  } const turn(inTurn_);
  bool ran = runDueClocks();
  Seconds const next = nextTimeMin();
  Seconds const wakeAt = std::min(now() + maxWait, next);
  bool const virt = virtualTimeActive();
  int const timeoutMs = (ran || virt) ? 0 : millisecondsUntil(wakeAt, 1 << 30);
  ran |= pollDescriptors(timeoutMs);
  if (!ran) {
    // Nothing ran: under virtual time, jump to what comes first, the next timeMin or
    // the end of the wait. Infinite and NaN times never become a jump.
    if (virt && wakeAt > now() && std::isfinite(wakeAt)) VirtualTime::jumpTo(wakeAt);
    ran = runDueClocks();
  }
  return ran;
}

void ActivitySm::runUntil(Seconds deadline) {
  stopped_ = false;
  while (!stopped_) {
    Seconds const t = now();
    if (!(t < deadline)) break;
    runOnce(deadline - t);
  }
  // What is due at the deadline itself runs too, so runUntil(now()) runs what is due now.
  if (!stopped_) runDueClocks();
}

bool ActivitySm::runUntil(std::function<bool()> const& done, Seconds timeout) {
  Seconds const deadline = now() + timeout;
  stopped_ = false;
  while (!done() && !stopped_) {
    Seconds const t = now();
    if (!(t < deadline)) break;
    runOnce(deadline - t);
  }
  return done();
}

void ActivitySm::run() {
  stopped_ = false;
  while (!stopped_) runOnce(3600);
}

// ---- clocks ----

Clock::Clock(Name const& name, Ptr<ActivityConfig> const& activity)
    : Entity(name), activity_(activity), loop_(activity_->activitySm().ptr()) {}

Ptr<Clock> clockFactory(Name const& name, Ptr<ActivityConfig> const& activity) {
  return makeEntity<Clock>(name, activity ? activity : defaultActivityConfig());
}

Clock::NotifieeConst::~NotifieeConst() { disarm(); }

void Clock::NotifieeConst::arm() {
  if (!clock_ || timeMin_ == endOfTime) return;
  clock_->loop()->arm(this, timeMin_);
}

void Clock::NotifieeConst::disarm() {
  if (armedIn_) armedIn_->disarm(this);
  armedIn_ = nullptr;
}

void Clock::NotifieeConst::notifierIs(Ptr<Clock const> const& clock) {
  if (clock == clock_) return;
  disarm();
  clock_ = clock;
  arm();
}

void Clock::NotifieeConst::timeMinIs(Seconds t) {
  QUOR_ASSERT(!std::isnan(t));
  if (t == timeMin_) return;
  disarm();
  timeMin_ = t;
  arm();
}

// ---- descriptors ----

FileDescriptor::FileDescriptor(Name const& name, Ptr<ActivityConfig> const& activity)
    : Entity(name), activity_(activity ? activity : defaultActivityConfig()) {
  id_ = activity_->activitySm()->addDescriptor(this);
}

FileDescriptor::~FileDescriptor() {
  auto sm = activity_->activitySm();
  if (interest_) sm->setInterest(this, 0);
  sm->removeDescriptor(this);
  if (fd_ >= 0) ::close(fd_);
}

Ptr<FileDescriptor> fileDescriptorFactory(Name const& name) {
  return makeEntity<FileDescriptor>(name, defaultActivityConfig());
}

Ptr<FileDescriptor> fileDescriptorFactory(Name const& name, Ptr<ActivityConfig> const& activity) {
  return makeEntity<FileDescriptor>(name, activity);
}

void FileDescriptor::descriptorIs(int fd) {
  if (fd == fd_) return;
  if (interest_ || alwaysReady_) activity_->activitySm()->setInterest(this, 0);
  if (fd_ >= 0 && fd >= 0) ::close(fd_);  // replacing: the old one is ours to close
  fd_ = fd;
  updateInterest();
}

void FileDescriptor::notifyOnReadableIs(bool b) {
  if (b == notifyOnReadable_) return;
  notifyOnReadable_ = b;
  updateInterest();
}

void FileDescriptor::notifyOnWritableIs(bool b) {
  if (b == notifyOnWritable_) return;
  notifyOnWritable_ = b;
  updateInterest();
}

void FileDescriptor::updateInterest() {
  U32 const want = fd_ < 0 ? 0 : (notifyOnReadable_ ? U32(EPOLLIN) : 0) | (notifyOnWritable_ ? U32(EPOLLOUT) : 0);
  activity_->activitySm()->setInterest(this, want);
}

void FileDescriptor::handleReady(bool readable, bool writable) {
  if (notifiees_.empty()) {
    // Nobody would consume the readiness: a level-triggered descriptor would spin.
    QUOR_TRACE(trace(), 0, "descriptor " << fd_ << " ready with no reactor; notification off");
    notifyOnReadable_ = notifyOnWritable_ = false;
    updateInterest();
    return;
  }
  if (readable && notifyOnReadable_) {
    ++readableCount_;
    notifiees_.notify(&NotifieeConst::onReadableCount);
  }
  if (writable && notifyOnWritable_ && fd_ >= 0) {
    ++writableCount_;
    notifiees_.notify(&NotifieeConst::onWritableCount);
  }
}

U64 ActivitySm::addDescriptor(FileDescriptor* fd) {
  U64 const id = nextFdId_++;
  fds_.emplace(id, fd);
  return id;
}

void ActivitySm::removeDescriptor(FileDescriptor* fd) {
  fds_.erase(fd->id_);
  std::erase(alwaysReady_, fd->id_);
}

// Brings the epoll registration of fd to `events`. Failures are traced and survived:
// the descriptor then simply reports nothing (or, for regular files, always ready).
bool ActivitySm::setInterest(FileDescriptor* fd, U32 events) {
  if (fd->alwaysReady_ && events == 0) {
    std::erase(alwaysReady_, fd->id_);
    fd->alwaysReady_ = false;
    return true;
  }
  if (fd->alwaysReady_) return true;
  if (events == fd->interest_) return true;
  epoll_event ev{};
  ev.events = events;
  ev.data.u64 = fd->id_;
  int const op = events == 0 ? EPOLL_CTL_DEL : fd->interest_ == 0 ? EPOLL_CTL_ADD : EPOLL_CTL_MOD;
  if (::epoll_ctl(epoll_, op, fd->fd_, &ev) != 0) {
    int const err = errno;
    if (op == EPOLL_CTL_ADD && err == EPERM) {
      fd->alwaysReady_ = true;
      alwaysReady_.push_back(fd->id_);
      return true;
    }
    // A descriptor closed behind our back is already out of the epoll set.
    if (op == EPOLL_CTL_DEL && (err == EBADF || err == ENOENT)) {
      fd->interest_ = 0;
      --registered_;
      return true;
    }
    QUOR_TRACE(trace(), 0, "epoll_ctl(" << op << ", " << fd->fd_ << ") failed: " << std::strerror(err));
    loopError().log(op == EPOLL_CTL_ADD ? "epoll_ctl(ADD)" : op == EPOLL_CTL_MOD ? "epoll_ctl(MOD)" : "epoll_ctl(DEL)",
                    name().charPtr(), fd->fd_, std::strerror(err));
    if (op == EPOLL_CTL_DEL) {
      fd->interest_ = 0;
      --registered_;
    }
    errno = err;
    return false;
  }
  if (fd->interest_ == 0) ++registered_;
  if (events == 0) --registered_;
  fd->interest_ = events;
  return true;
}

}  // namespace Quor
