// Mirrors over abstract Unix stream sockets.
//
// The stream is a sequence of frames: a 32-bit length (network order) and that many
// bytes, the first of which says what the frame is:
//   'S'  a full copy begins       'R'  change records       'E'  the copy is complete
// A sink holds the records of a copy until 'E'; after that, each 'R' frame is applied as
// soon as it has been decoded whole.
#include <Vell/AttrMirror.h>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <set>

namespace Vell {

namespace {
Quor::TraceHandle traceHandle("AttrMirror");

// Larger than any copy a directory of a million members makes; a longer length is a
// corrupt stream, not a reason to allocate.
constexpr U32 maxFrameBytes = 1u << 28;
enum FrameTag : char { copyBegin = 'S', changeRecords = 'R', copyEnd = 'E' };

void appendFrame(std::string& out, char tag, std::string_view body) {
  U32 const n = static_cast<U32>(body.size() + 1);
  char const len[4] = {static_cast<char>(n >> 24), static_cast<char>(n >> 16), static_cast<char>(n >> 8),
                       static_cast<char>(n)};
  out.append(len, 4);
  out += tag;
  out.append(body);
}

U32 frameLength(std::string_view in) {
  auto b = [&](std::size_t i) { return static_cast<U32>(static_cast<unsigned char>(in[i])); };
  return b(0) << 24 | b(1) << 16 | b(2) << 8 | b(3);
}

socklen_t mirrorAddress(Quor::Name const& name, sockaddr_un* addr) {
  std::memset(addr, 0, sizeof *addr);
  addr->sun_family = AF_UNIX;
  std::size_t const room = sizeof addr->sun_path - 2;
  if (name.size() > room || name.size() == 0)
    Quor::throwRangeException(Quor::format("mirror name of %zu bytes: 1 to %zu allowed", name.size(), room));
  addr->sun_path[0] = '\0';
  addr->sun_path[1] = 'm';
  std::memcpy(addr->sun_path + 2, name.charPtr(), name.size());
  return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 2 + name.size());
}
}  // namespace

Quor::LogHandle mirrorSinkDropped("MIRROR_SINK_DROPPED", Quor::LogSeverity::warning,
                                  "Mirror %s dropped a sink %u bytes behind (%s)",
                                  "A sink read too slowly or its connection failed; it resynchronises on reconnect.",
                                  "Look for a stalled mirror process, or raise maxBacklogBytes.", 1.0, 10.0);
Quor::LogHandle mirrorAcceptError("MIRROR_ACCEPT_ERROR", Quor::LogSeverity::error,
                                  "Mirror %s cannot accept sinks (%s); accepting pauses",
                                  "The process or the system has no descriptor or memory left for a connection.",
                                  "Raise the descriptor limit, or look for what holds descriptors.", 10.0, 3.0);
Quor::LogHandle mirrorSourceUnreachable("MIRROR_SOURCE_UNREACHABLE", Quor::LogSeverity::warning,
                                        "Mirror of %s cannot connect (%s); retrying every %g s",
                                        "The source process is not running or not listening yet.",
                                        Quor::NoActionRequired, 1.0, 10.0);

// ---- the source ----------------------------------------------------------------------------------

struct MirrorSourceSm::Served {
  Quor::Ptr<Quor::Entity const> entity;
  std::vector<std::unique_ptr<Quor::AttrTap>> taps;
};

class MirrorSourceSm::QuorListenFd
    : public Quor::OwnerDescriptorReactor<MirrorSourceSm, QuorListenFd, &MirrorSourceSm::handleAccept> {
 public:
  using OwnerDescriptorReactor::OwnerDescriptorReactor;
  Quor::Ptr<Quor::FileDescriptor> fd;  // the notifier, writable
};

class MirrorSourceSm::QuorResume : public Quor::OwnerClockReactor<MirrorSourceSm, &MirrorSourceSm::handleResume> {
  using OwnerClockReactor::OwnerClockReactor;
};

void MirrorSourceSm::handleResume() {
  if (listener_) listener_->fd->notifyOnReadableIs(true);
}

class MirrorSourceSm::QuorFlush : public Quor::OwnerClockReactor<MirrorSourceSm, &MirrorSourceSm::handleFlush> {
  using OwnerClockReactor::OwnerClockReactor;
};

class MirrorSourceSm::QuorPeer
    : public Quor::OwnerDescriptorReactor<MirrorSourceSm, QuorPeer, &MirrorSourceSm::handlePeerReadable,
                                          &MirrorSourceSm::handlePeerWritable> {
 public:
  using OwnerDescriptorReactor::OwnerDescriptorReactor;
  Quor::Ptr<Quor::FileDescriptor> fd;  // the notifier, writable
  std::string out;       // queued bytes not yet taken by the socket
  std::size_t sent = 0;  // of out
  std::size_t queued() const { return out.size() - sent; }
};

MirrorSourceSm::MirrorSourceSm(Quor::Name const& name, Quor::Ptr<Quor::ActivityConfig> const& activity)
    : Quor::Entity(name), activity_(activity ? activity : Quor::defaultActivityConfig()) {}

MirrorSourceSm::~MirrorSourceSm() = default;

Quor::Ptr<MirrorSourceSm> mirrorSourceSmFactory(Quor::Name const& name,
                                                Quor::Ptr<Quor::ActivityConfig> const& activity) {
  Quor::Ptr<MirrorSourceSm> s = Quor::makeEntity<MirrorSourceSm>(name, activity);
  sockaddr_un addr;
  socklen_t const len = mirrorAddress(name, &addr);
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd < 0) Quor::throwInternalException(Quor::format("mirror socket: %s", std::strerror(errno)));
  if (::bind(fd, reinterpret_cast<sockaddr const*>(&addr), len) != 0 || ::listen(fd, 16) != 0) {
    int const err = errno;
    ::close(fd);
    Quor::throwInternalException(Quor::format("mirror %s: %s", name.charPtr(), std::strerror(err)));
  }
  auto fdEntity = Quor::fileDescriptorFactory(Quor::Name("mirror " + name.str()), s->activity_);
  fdEntity->descriptorIs(fd);
  fdEntity->notifyOnReadableIs(true);
  s->listener_ = new MirrorSourceSm::QuorListenFd(s.ptr());
  s->listener_->fd = fdEntity;
  s->listener_->notifierIs(fdEntity);
  auto clock = Quor::clockFactory(Quor::Name("mirror " + name.str()), s->activity_);
  s->flush_ = new MirrorSourceSm::QuorFlush(s.ptr());
  s->flush_->notifierIs(clock);
  s->resume_ = new MirrorSourceSm::QuorResume(s.ptr());
  s->resume_->notifierIs(clock);
  s->initializedIs(true);
  return s;
}

void MirrorSourceSm::maxBacklogBytesIs(U32 n) {
  maxBacklogBytes_ = QUOR_CHECK_RANGE("MirrorSourceSm", "maxBacklogBytes", n, 4096, 0x40000000);
}

void MirrorSourceSm::entityIs(Quor::Ptr<Quor::Entity const> const& e) {
  Quor::checkNotNull("Vell::MirrorSourceSm", "entity", e);
  Quor::TypeRecord const* t = e->fwkType();
  auto served = std::make_unique<Served>();
  served->entity = e;
  bool streamed = false;
  for (auto const& a : t ? t->attrs : std::vector<Quor::AttrRecord>{}) {
    if (!a.writeAll) continue;
    streamed = true;
    if (a.tap) served->taps.push_back(a.tap(*e, e->name(), [this](std::string&& r) { broadcast(std::move(r)); }));
  }
  if (!streamed) Quor::throwRangeException(Quor::String8(e->name().str() + " has no streamed attributes"));
  QUOR_TRACE(traceHandle, 1, name() << " entityIs " << e->name());
  served_[e->name()] = std::move(served);
  // Sinks take the change as a new copy: what the entity replaced must go too.
  std::string const frames = copyFrames();
  for (auto const& p : std::vector<Quor::Ptr<QuorPeer>>(peers_)) send(*p, frames);
}

void MirrorSourceSm::entityDel(Quor::Name const& n) {
  if (served_.erase(n) == 0) return;
  std::string const frames = copyFrames();
  for (auto const& p : std::vector<Quor::Ptr<QuorPeer>>(peers_)) send(*p, frames);
}

std::string MirrorSourceSm::copyFrames() const {
  std::string frames;
  appendFrame(frames, copyBegin, {});
  for (auto const& [n, s] : served_) {
    Quor::NboAttrLog::Out out;
    for (auto const& a : s->entity->fwkType()->attrs)
      if (a.writeAll) a.writeAll(*s->entity, n, out);
    if (!out.bytes().empty()) appendFrame(frames, changeRecords, out.bytes());
  }
  appendFrame(frames, copyEnd, {});
  return frames;
}

void MirrorSourceSm::broadcast(std::string&& records) {
  if (peers_.empty()) return;
  std::string frame;
  appendFrame(frame, changeRecords, records);
  for (auto const& p : std::vector<Quor::Ptr<QuorPeer>>(peers_)) {
    ++changesSent_;
    send(*p, frame);
  }
}

void MirrorSourceSm::send(QuorPeer& p, std::string_view frame) {
  if (!p.notifier()) return;  // dropped during this walk
  bytesSent_ += frame.size();
  p.out.append(frame);
  // Written when the loop turns: the changes of one turn leave in one system call.
  if (flush_->timeMin() == Quor::endOfTime) flush_->timeMinIs(0.0);
  if (p.queued() > maxBacklogBytes_) dropPeer(&p, "too far behind");  // it resyncs on return
}

void MirrorSourceSm::handleFlush() {
  for (auto const& p : std::vector<Quor::Ptr<QuorPeer>>(peers_))
    if (p->notifier() && p->queued() > 0) flush(*p);
}

// Writes what the socket takes now; the rest waits for writability.
void MirrorSourceSm::flush(QuorPeer& p) {
  auto const& fd = p.notifier();
  while (p.queued() > 0) {
    ssize_t const n = ::send(fd->descriptor(), p.out.data() + p.sent, p.queued(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (n > 0) {
      p.sent += static_cast<std::size_t>(n);
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    dropPeer(&p, std::strerror(errno));
    return;
  }
  if (p.queued() == 0) {
    p.out.clear();
    p.sent = 0;
  } else if (p.sent > (1u << 20)) {  // keep the buffer from holding what is long sent
    p.out.erase(0, p.sent);
    p.sent = 0;
  }
  p.fd->notifyOnWritableIs(p.queued() > 0);
}

void MirrorSourceSm::handleAccept(QuorListenFd* l) {
  for (;;) {
    int const fd = ::accept4(l->notifier()->descriptor(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == ECONNABORTED) return;
      // No descriptor or memory left: the listener stays readable, so retrying at
      // every turn would spin. Accepting pauses; sinks retry their connects meanwhile.
      if (!acceptFailing_) mirrorAcceptError.log(name().charPtr(), std::strerror(errno));
      acceptFailing_ = true;
      l->fd->notifyOnReadableIs(false);
      resume_->timeMinIs(Quor::now() + 0.1);
      return;
    }
    acceptFailing_ = false;
    auto fdEntity = Quor::fileDescriptorFactory(Quor::Name("mirror peer " + std::to_string(fd)), activity_);
    fdEntity->descriptorIs(fd);
    fdEntity->notifyOnReadableIs(true);
    Quor::Ptr<QuorPeer> p = new QuorPeer(this);
    p->fd = fdEntity;
    p->notifierIs(fdEntity);
    peers_.push_back(p);
    QUOR_TRACE(traceHandle, 1, name() << " sink connected, fd " << fd);
    send(*p, copyFrames());
  }
}

void MirrorSourceSm::handlePeerReadable(QuorPeer* p) {
  char buf[512];
  for (;;) {
    ssize_t const n = ::recv(p->notifier()->descriptor(), buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0) continue;  // sinks send nothing; whatever comes is ignored
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) return;
    dropPeer(p, n == 0 ? "closed" : std::strerror(errno));
    return;
  }
}

void MirrorSourceSm::handlePeerWritable(QuorPeer* p) { flush(*p); }

void MirrorSourceSm::dropPeer(QuorPeer* p, char const* why) {
  QUOR_TRACE(traceHandle, 1, name() << " sink dropped: " << why);
  if (p->queued() > maxBacklogBytes_)  // a sink that went away on its own is no news
    mirrorSinkDropped.log(name().charPtr(), static_cast<unsigned>(p->queued()), why);
  Quor::Ptr<QuorPeer> const keep(p);
  p->ownerIs(nullptr);
  p->notifierIs(nullptr);
  p->fd = nullptr;  // the descriptor entity goes, and closes the socket
  std::erase(peers_, keep);
}

void MirrorSourceSm::handleDel() {
  served_.clear();
  for (auto const& p : peers_) {
    p->ownerIs(nullptr);
    p->notifierIs(nullptr);
    p->fd = nullptr;
  }
  peers_.clear();
  Quor::releaseOwnerReactor(flush_);
  Quor::releaseOwnerReactor(resume_);
  if (listener_) {
    listener_->ownerIs(nullptr);
    listener_->notifierIs(nullptr);
    listener_->fd = nullptr;
    listener_ = nullptr;
  }
}

// ---- the sink --------------------------------------------------------------------------------------

class MirrorSinkSm::QuorConnFd
    : public Quor::OwnerDescriptorReactor<MirrorSinkSm, QuorConnFd, &MirrorSinkSm::handleReadable> {
  using OwnerDescriptorReactor::OwnerDescriptorReactor;
};

class MirrorSinkSm::QuorClock : public Quor::OwnerClockReactor<MirrorSinkSm, &MirrorSinkSm::handleClock> {
  using OwnerClockReactor::OwnerClockReactor;
};

MirrorSinkSm::MirrorSinkSm(Quor::Name const& source, Quor::Ptr<Quor::Clock const> const& clock)
    : Quor::Entity(Quor::Name("mirror of " + source.str())), source_(source), clockSource_(clock) {
  Quor::checkNotNull("Vell::MirrorSinkSm", "clock", clock);
  sockaddr_un addr;
  (void)mirrorAddress(source, &addr);  // a bad name fails here, not at every retry
}

MirrorSinkSm::~MirrorSinkSm() = default;

Quor::Ptr<MirrorSinkSm> mirrorSinkSmFactory(Quor::Name const& source, Quor::Ptr<Quor::Clock const> const& clock) {
  Quor::Ptr<MirrorSinkSm> s = Quor::makeEntity<MirrorSinkSm>(source, clock);
  s->clock_ = new MirrorSinkSm::QuorClock(s.ptr());
  s->clock_->notifierIs(clock);
  s->initializedIs(true);
  s->doConnect();
  return s;
}

void MirrorSinkSm::retryIntervalIs(Quor::Seconds s) {
  retryInterval_ = QUOR_CHECK_RANGE("MirrorSinkSm", "retryInterval", s, 0.001, 3600);
}

Quor::Ptr<Quor::Entity> MirrorSinkSm::mirrorIs(Quor::Name const& n, Quor::TypeRecord const& type) {
  auto it = mirrors_.find(n);
  if (it != mirrors_.end()) {
    if (it->second->fwkType()->name != type.name)  // records may be per shared object: compare names
      Quor::throwNameInUseException(Quor::String8(n.str() + " is mirrored as " + it->second->fwkType()->name));
    return it->second;
  }
  if (!type.make) Quor::throwRangeException(Quor::String8(type.name + " cannot be made from a name"));
  Quor::Ptr<Quor::Entity> e(static_cast<Quor::Entity*>(type.make(n).ptr()));
  mirrors_.emplace(n, e);
  if (conn_ && copied_) {  // fetch a copy that includes it (one still to come will)
    lost("a mirror was added");
    doConnect();
  }
  return e;
}

Quor::Ptr<Quor::Entity const> MirrorSinkSm::mirror(Quor::Name const& n) const {
  auto it = mirrors_.find(n);
  return it == mirrors_.end() ? nullptr : Quor::Ptr<Quor::Entity const>(it->second);
}

void MirrorSinkSm::connectedIs(bool b) { Quor::attrIs(connected_, b, notifiees_, &NotifieeConst::onConnected); }

void MirrorSinkSm::doConnect() {
  if (conn_ || !initialized()) return;
  sockaddr_un addr;
  socklen_t const len = mirrorAddress(source_, &addr);
  int const fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  int err = fd < 0 ? errno : 0;
  if (fd >= 0) {
    int r;
    do r = ::connect(fd, reinterpret_cast<sockaddr const*>(&addr), len);
    while (r != 0 && errno == EINTR);
    err = r == 0 ? 0 : errno;
  }
  if (err != 0) {
    if (fd >= 0) ::close(fd);
    QUOR_TRACE(traceHandle, 3, name() << " connect: " << std::strerror(err));
    if (!unreachableReported_) {  // once per episode
      unreachableReported_ = true;
      mirrorSourceUnreachable.log(source_.charPtr(), std::strerror(err), retryInterval_);
    }
    retryLater();
    return;
  }
  unreachableReported_ = false;
  auto fdEntity = Quor::fileDescriptorFactory(Quor::Name("mirror of " + source_.str()), clockSource_->activity());
  fdEntity->descriptorIs(fd);
  fdEntity->notifyOnReadableIs(true);
  conn_ = new QuorConnFd(this);
  conn_->notifierIs(fdEntity);
  in_.clear();
  inCopy_ = false;
  copied_ = false;
  copy_.clear();
  QUOR_TRACE(traceHandle, 1, name() << " connected");
  connectedIs(true);
}

void MirrorSinkSm::doDisconnect() {
  if (conn_) lost("asked to");
}

void MirrorSinkSm::retryLater() {
  if (clock_) clock_->timeMinIs(Quor::now() + retryInterval_);
}

void MirrorSinkSm::handleClock() { doConnect(); }

void MirrorSinkSm::lost(char const* why) {
  QUOR_TRACE(traceHandle, 1, name() << " link lost: " << why);
  Quor::releaseOwnerReactor(conn_);
  in_.clear();
  inCopy_ = false;
  copy_.clear();
  retryLater();
  connectedIs(false);
}

void MirrorSinkSm::handleReadable(QuorConnFd* c) {
  char buf[65536];
  for (;;) {
    ssize_t const n = ::recv(c->notifier()->descriptor(), buf, sizeof buf, MSG_DONTWAIT);
    if (n > 0) {
      bytesReceived_ += static_cast<U64>(n);
      in_.append(buf, static_cast<std::size_t>(n));
      if (static_cast<std::size_t>(n) < sizeof buf) break;
      continue;
    }
    if (n < 0 && errno == EINTR) continue;
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) break;
    lost(n == 0 ? "end of stream" : std::strerror(errno));
    return;
  }
  // Frames are applied one at a time; a reactor may end the link (or this sink) meanwhile.
  std::size_t at = 0;
  while (conn_.ptr() == c && in_.size() - at >= 4) {
    U32 const len = frameLength(std::string_view(in_).substr(at));
    if (len == 0 || len > maxFrameBytes) {
      lost("bad frame length");
      return;
    }
    if (in_.size() - at - 4 < len) break;
    std::string const frame = in_.substr(at + 4, len);
    at += 4 + len;
    if (!handleFrame(frame)) {
      lost("bad frame");
      return;
    }
  }
  if (conn_.ptr() == c) in_.erase(0, at);
}

bool MirrorSinkSm::handleFrame(std::string_view frame) {
  switch (frame[0]) {
    case copyBegin:
      inCopy_ = true;
      copy_.clear();
      return true;
    case changeRecords: {
      std::vector<Quor::AttrChange> changes;
      try {
        Quor::NboAttrLog::In in(frame.substr(1));
        while (!in.atEnd()) changes.push_back(Quor::nboReadChange(in));
      } catch (Quor::RangeException const& e) {
        QUOR_TRACE(traceHandle, 1, name() << " " << e.what());
        return false;
      }
      if (inCopy_) {
        for (auto& ch : changes) copy_.push_back(std::move(ch));
      } else {
        for (auto const& ch : changes) apply(ch);
      }
      return true;
    }
    case copyEnd:
      if (!inCopy_) return false;
      applyCopy();
      return true;
    default:
      return false;
  }
}

void MirrorSinkSm::apply(Quor::AttrChange const& c) {
  auto it = mirrors_.find(c.entity);
  if (it == mirrors_.end() || it->second->fwkType()->name != c.type.str()) {
    ++changesSkipped_;
    return;
  }
  Quor::Ptr<Quor::Entity> const e = it->second;  // a reactor may drop the mirror
  c.apply(*e);
  ++changesApplied_;
}

// The copy as a difference: members the copy lacks go first, then every member of the
// copy is set (an unchanged one notifies nobody). Each member so passes only through
// values the source held.
void MirrorSinkSm::applyCopy() {
  std::vector<Quor::AttrChange> copy;
  copy.swap(copy_);
  inCopy_ = false;
  std::set<std::pair<std::string, std::string>> present;  // (entity, attr '\0' key)
  for (auto const& c : copy)
    if (c.op == Quor::NboAttrLog::memberSet) present.emplace(c.entity.str(), c.attr.str() + '\0' + c.key.str());
  for (auto const& [n, e] : std::map<Quor::Name, Quor::Ptr<Quor::Entity>>(mirrors_)) {
    for (auto const& a : e->fwkType()->attrs) {
      if (!a.keyDel) continue;
      for (auto const& k : a.keys(*e))
        if (!present.count({n.str(), a.name + '\0' + k.str()})) a.keyDel(*e, k);
    }
  }
  for (auto const& c : copy) apply(c);
  copied_ = true;
  ++syncs_;
  notifiees_.notify(&NotifieeConst::onSyncs);
}

void MirrorSinkSm::handleDel() {
  Quor::releaseOwnerReactor(conn_);
  Quor::releaseOwnerReactor(clock_);
}

}  // namespace Vell
