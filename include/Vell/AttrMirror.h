// Mirrors: entities of one process copied into another over a stream socket, first
// whole, then change by change, so that a coordinator and its executors (or any two
// agents) can share directories across processes.
//
//   source process                               mirror process
//   MirrorSourceSm "vell-x"  ── \0m vell-x ──▶   MirrorSinkSm("vell-x")
//     entityIs(configDir)                          mirror<XactConfigDir>("exec-a")
//
// Any entity whose type record has streamed collections or scalars can be served
// (XactConfigDir, XactStatusDir, ...). The source listens on the abstract Unix address
// "\0m<name>". A sink connects, receives a full copy of every served entity, then each
// change as it happens, and applies them to local entities of the same names and types,
// which it hands out read-only: their reactors are notified like any local reactor.
//
// Guarantees:
//   - A change is applied whole or not at all: a frame is decoded completely (every key
//     and value) before any mutator runs; a bad frame ends the connection.
//   - A copy is staged until its last frame, then applied as a difference (members set
//     or changed, members the copy lacks deleted): a link cut during a copy changes
//     nothing, and no member ever takes a value the source never held.
//   - A peer that goes away is seen at once (end of stream); the sink retries every
//     retryInterval and resynchronises from a full copy.
//   - A sink that falls more than maxBacklogBytes behind is dropped (logged, once per
//     peer) rather than let the source's memory grow; it resynchronises when it returns.
//
// Costs: a change costs one record (about 60 bytes for a directory member) per
// connected sink; the records of one loop turn leave together at the start of the next
// (one system call per sink and turn: a change waits at most one turn). A copy is
// O(members). The sink decodes into closures and runs each mutator once.
//
// Traces go to channel "AttrMirror".
#pragma once
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

class MirrorSourceSm;
class MirrorSinkSm;

/// Serves entities to sinks in other processes.
class QUOR_API MirrorSourceSm : public Quor::Entity {
 public:
  class QuorListenFd;
  class QuorPeer;
  class QuorFlush;
  class QuorResume;

  MirrorSourceSm(Quor::Name const& name, Quor::Ptr<Quor::ActivityConfig> const& activity);
  ~MirrorSourceSm() override;

  /// Serves e under its name (replacing one of that name): connected sinks get its
  /// whole state now. Throws RangeException for an entity without streamed attributes.
  void entityIs(Quor::Ptr<Quor::Entity const> const& e);
  void entityDel(Quor::Name const& name);
  std::size_t entities() const { return served_.size(); }
  /// Sinks connected now.
  std::size_t peers() const { return peers_.size(); }
  /// Records and bytes written to sinks since creation (all sinks together).
  U64 changesSent() const { return changesSent_; }
  U64 bytesSent() const { return bytesSent_; }
  /// How far (bytes queued) a sink may fall behind before it is dropped. Throws
  /// "MirrorSourceSm::maxBacklogBytes < 4096 or > 0x40000000 not allowed".
  U32 maxBacklogBytes() const { return maxBacklogBytes_; }
  void maxBacklogBytesIs(U32 n);

  QUOR_ENTITY_TYPE(MirrorSourceSm, "Vell::MirrorSourceSm", Quor::attr("entities", &MirrorSourceSm::entities),
                   Quor::attr("peers", &MirrorSourceSm::peers), Quor::attr("changesSent", &MirrorSourceSm::changesSent),
                   Quor::attr("bytesSent", &MirrorSourceSm::bytesSent),
                   Quor::attr("maxBacklogBytes", &MirrorSourceSm::maxBacklogBytes,
                              &MirrorSourceSm::maxBacklogBytesIs))

  void handleAccept(QuorListenFd*);
  void handlePeerReadable(QuorPeer* p);
  void handlePeerWritable(QuorPeer* p);
  void handleFlush();
  void handleResume();

 protected:
  void handleDel() override;

 private:
  struct Served;
  void broadcast(std::string&& records);
  void send(QuorPeer& p, std::string_view frame);
  void flush(QuorPeer& p);
  void dropPeer(QuorPeer* p, char const* why);
  std::string copyFrames() const;
  Quor::Ptr<Quor::ActivityConfig> activity_;
  Quor::Ptr<QuorListenFd> listener_;
  Quor::Ptr<QuorFlush> flush_;
  Quor::Ptr<QuorResume> resume_;
  bool acceptFailing_ = false;  // reported once per episode
  std::map<Quor::Name, std::unique_ptr<Served>> served_;
  std::vector<Quor::Ptr<QuorPeer>> peers_;
  U32 maxBacklogBytes_ = 64u << 20;
  U64 changesSent_ = 0;
  U64 bytesSent_ = 0;
  friend QUOR_API Quor::Ptr<MirrorSourceSm> mirrorSourceSmFactory(Quor::Name const&,
                                                                  Quor::Ptr<Quor::ActivityConfig> const&);
};

/// A source listening on "\0m<name>". Set-up failures (socket, bind, listen) throw
/// Quor::InternalException with the system's error text.
QUOR_API Quor::Ptr<MirrorSourceSm> mirrorSourceSmFactory(
    Quor::Name const& name, Quor::Ptr<Quor::ActivityConfig> const& activity = Quor::defaultActivityConfig());

/// Receives a source's entities into local, read-only copies.
class QUOR_API MirrorSinkSm : public Quor::Entity {
 public:
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<MirrorSinkSm, NotifieeConst> {
   public:
    virtual void onConnected() {}
    /// A full copy was applied (after each connection).
    virtual void onSyncs() {}
  };
  class QuorConnFd;
  class QuorClock;

  MirrorSinkSm(Quor::Name const& source, Quor::Ptr<Quor::Clock const> const& clock);
  ~MirrorSinkSm() override;

  /// The local copy of the source's entity `name`, made empty now when absent; it
  /// fills on the next copy. Throws NameInUseException when `name` is mirrored with
  /// another type, RangeException when T cannot be made from a name.
  template <class T>
  Quor::Ptr<T const> mirror(Quor::Name const& name) {
    return Quor::ptr_cast<T const>(Quor::Ptr<Quor::Entity const>(mirrorIs(name, Quor::entityTypeRecord<T>())));
  }
  Quor::Ptr<Quor::Entity> mirrorIs(Quor::Name const& name, Quor::TypeRecord const& type);
  Quor::Ptr<Quor::Entity const> mirror(Quor::Name const& name) const;
  std::size_t mirrors() const { return mirrors_.size(); }

  bool connected() const { return connected_; }
  U64 syncs() const { return syncs_; }
  U64 changesApplied() const { return changesApplied_; }
  /// Change records for entities this sink does not mirror (skipped).
  U64 changesSkipped() const { return changesSkipped_; }
  U64 bytesReceived() const { return bytesReceived_; }
  /// Wait between connection attempts. Throws
  /// "MirrorSinkSm::retryInterval < 0.001 or > 3600 not allowed".
  Quor::Seconds retryInterval() const { return retryInterval_; }
  void retryIntervalIs(Quor::Seconds s);
  /// Tries to connect now (does nothing while connected).
  void doConnect();
  /// Ends the connection now, as if the source went away (a retry follows).
  void doDisconnect();

  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }
  QUOR_ENTITY_TYPE(MirrorSinkSm, "Vell::MirrorSinkSm", Quor::attr("connected", &MirrorSinkSm::connected),
                   Quor::attr("syncs", &MirrorSinkSm::syncs), Quor::attr("changesApplied", &MirrorSinkSm::changesApplied),
                   Quor::attr("changesSkipped", &MirrorSinkSm::changesSkipped),
                   Quor::attr("bytesReceived", &MirrorSinkSm::bytesReceived),
                   Quor::attr("retryInterval", &MirrorSinkSm::retryInterval, &MirrorSinkSm::retryIntervalIs))

  void handleReadable(QuorConnFd*);
  void handleClock();

 protected:
  void handleDel() override;

 private:
  void connectedIs(bool b);
  void lost(char const* why);
  bool handleFrame(std::string_view frame);
  void retryLater();
  void applyCopy();
  void apply(Quor::AttrChange const& c);
  Quor::Name const source_;
  Quor::Ptr<Quor::Clock const> clockSource_;
  Quor::Ptr<QuorClock> clock_;
  Quor::Ptr<QuorConnFd> conn_;
  std::map<Quor::Name, Quor::Ptr<Quor::Entity>> mirrors_;
  std::string in_;
  bool inCopy_ = false;
  bool copied_ = false;  // a copy was applied on this connection
  std::vector<Quor::AttrChange> copy_;
  bool connected_ = false;
  bool unreachableReported_ = false;
  U64 syncs_ = 0;
  U64 changesApplied_ = 0;
  U64 changesSkipped_ = 0;
  U64 bytesReceived_ = 0;
  Quor::Seconds retryInterval_ = 0.5;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
  friend QUOR_API Quor::Ptr<MirrorSinkSm> mirrorSinkSmFactory(Quor::Name const&, Quor::Ptr<Quor::Clock const> const&);
};

/// A sink of the source named `source`; it connects at once and, while the source is
/// absent, every retryInterval on `clock`.
QUOR_API Quor::Ptr<MirrorSinkSm> mirrorSinkSmFactory(Quor::Name const& source,
                                                     Quor::Ptr<Quor::Clock const> const& clock);

}  // namespace Vell
