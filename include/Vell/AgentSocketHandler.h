// The agent's command socket: a stream socket in the Linux abstract Unix namespace on
// which operators' tools connect, send one command, read the reply and are hung up on.
//
// An agent makes one AgentSocketHandlerSm under its own name and registers one
// AgentSocketCallback per command word. The address is a zero byte, the letter 's' and
// the name (nothing in the file system). A request is at most 1027 bytes from a single
// receive: the command word, optionally one blank and the argument text. The callback
// registered under the exact word writes its reply straight to the connection's
// descriptor; an unknown word is answered "Unknown Command \n". The connection is closed
// after that one request, so end of stream is end of reply.
//
// Workload assumed: a handful of short operator commands per second, each answered in
// well under a millisecond; replies up to about 1 MiB (the forced send buffer) are
// written without blocking. Everything runs on one activity loop; a slow callback stalls
// that loop for its duration.
//
// Hostile or broken clients. A connection must send its request within
// `requestTimeout` (5 s) and at most `maxClients` (64) connections are open; beyond
// either, connections are closed without a reply. A reply's writes may block the loop
// for `sendTimeout` (2 s) in all, however slowly the client reads (see handleCommand).
// When the process runs out of descriptors, accepting pauses (100 ms, or until a
// connection closes) instead of spinning, and the failure is reported once per episode.
// `peerPolicy` chooses who may send commands, by the peer's user id (an abstract socket
// has no file permissions: by default anyone in the network namespace may).
//
// Privilege: each command first forces the connection's send buffer to 1 MiB, which the
// kernel allows only with CAP_NET_ADMIN. Without it every command is refused: the
// connection is closed without a reply and AGENT_SOCKET_COMMAND_ERROR is logged.
// agentSocketSendBufferForceAllowed() tells in advance.
#pragma once
#include <sys/socket.h>
#include <sys/un.h>

#include <map>
#include <set>
#include <string_view>

#include <Quor/Quor.h>
#include <Vell/Types.h>

namespace Vell {

class AgentSocketHandlerSm;

/// The most a request may hold; longer requests are cut here (the rest is never read).
inline constexpr unsigned agentSocketRequestMax = 1027;
/// The reply to a command word nobody registered: 17 bytes, the last one a line feed.
inline constexpr char agentSocketUnknownCommand[] = "Unknown Command \n";
/// The send buffer forced on every connection before its command runs.
inline constexpr int agentSocketSendBufferBytes = 1048576;
/// How long accepting pauses when the process has no descriptor left.
inline constexpr Quor::Seconds agentSocketAcceptPause = 0.1;

/// Who may send commands, judged by the connecting process's user id (SO_PEERCRED).
enum AgentSocketPeerPolicy : U8 {
  peerAnyone = 0,          ///< anyone who can reach the socket (its network namespace)
  peerOwnUser = 1,         ///< the agent's own effective user
  peerRootAndOwnUser = 2,  ///< root and the agent's own effective user
  peerUserList = 3,        ///< the user ids in `peerUid` only
};
QUOR_ENUM_TEXT(AgentSocketPeerPolicy, "AgentSocketPeerPolicy", {peerAnyone, "peerAnyone"}, {peerOwnUser, "peerOwnUser"},
               {peerRootAndOwnUser, "peerRootAndOwnUser"}, {peerUserList, "peerUserList"})

/// Writes a reply to a command's connection: all of `text`, or as much as the
/// connection's stall budget (the handler's sendTimeout, shared by every write of one
/// reply) lets through. When the budget runs out the connection's sending side is shut
/// down, so no later write of the reply can block either. Returns the bytes written;
/// errno tells why when short (EAGAIN: the client read too slowly; EPIPE: it left).
QUOR_API std::size_t agentSocketReply(unsigned int descriptor, std::string_view text);

/// One command word of the socket. Agents derive from it and override handleCommand.
class QUOR_API AgentSocketCallback : public Quor::Entity {
 public:
  /// The command word; the key under which a handler keeps this callback.
  Quor::String8 const& commandType() const { return commandType_; }

  /// Serves one request: writes the reply to `descriptor` (a connected stream socket,
  /// blocking) and returns. The connection is closed afterwards by the handler, so the
  /// callback must not close it. SIGPIPE is ignored meanwhile: a client that hung up
  /// makes writes fail with EPIPE. Each write blocks at most the handler's sendTimeout;
  /// write a large reply with agentSocketReply() (or in one send()), not in a loop of
  /// your own: such a loop against a client that reads a byte now and then would be
  /// bounded per write only. `commandArgs` is the text after the first blank,
  /// unchanged (empty without a blank); a zero byte in the request ends its text. An
  /// exception thrown here is logged (AGENT_SOCKET_COMMAND_ERROR) and the connection
  /// closed as usual. The base version writes nothing.
  virtual void handleCommand(unsigned int descriptor, Quor::String8 commandArgs);

  QUOR_ENTITY_TYPE(AgentSocketCallback, "Vell::AgentSocketCallback",
                   Quor::attr("commandType", &AgentSocketCallback::commandType))

 protected:
  AgentSocketCallback(Quor::Name const& name, Quor::String8 const& commandType);

 private:
  friend QUOR_API Quor::Ptr<AgentSocketCallback> agentSocketCallbackFactory(Quor::Name const&,
                                                                           Quor::String8 const&);
  Quor::String8 commandType_;
};

/// A callback that replies nothing (the base behaviour), under `commandType`.
QUOR_API Quor::Ptr<AgentSocketCallback> agentSocketCallbackFactory(Quor::Name const& name,
                                                                  Quor::String8 const& commandType);

/// One accepted connection: reads its single request, dispatches it, has it closed.
/// Made only by AgentSocketHandlerSm::clientIs; its name is "clientFd:<descriptor>".
class QUOR_API ClientSm : public Quor::Entity {
 public:
  ~ClientSm() override;

  /// The accepted socket.
  Quor::Ptr<Quor::FileDescriptor> const& clientFd() const { return clientFd_; }
  /// Serves from `fd` (its readable reactor then calls handleDataFromClient).
  /// Throws Quor::RangeException on null.
  void clientFdIs(Quor::Ptr<Quor::FileDescriptor> const& fd);
  /// Stops serving (the descriptor entity is released, not closed by this call).
  void clientFdDel();
  /// The owning handler, or null once it is gone. The connection does not keep its
  /// handler alive.
  Quor::Ptr<AgentSocketHandlerSm> agentSocketHandlerSm() const;

  /// Reads and serves one request, then has the connection closed. Run on each readable
  /// notification; only a receive that fails with EAGAIN leaves the connection open.
  void handleDataFromClient();

  QUOR_ENTITY_TYPE(ClientSm, "Vell::ClientSm",
                   Quor::attr("clientFd", &ClientSm::clientFd),
                   Quor::attr("agentSocketHandlerSm", &ClientSm::agentSocketHandlerSm))

 private:
  friend class AgentSocketHandlerSm;
  class QuorClientFd;
  ClientSm(Quor::Name const& name, Quor::Ptr<Quor::FileDescriptor> const& fd, AgentSocketHandlerSm* handler);
  void handleDel() override;
  void handlerGone();
  void serveCommand(AgentSocketHandlerSm& handler, int descriptor, char* request);
  void runCallback(AgentSocketHandlerSm& handler, unsigned descriptor, Quor::String8 const& word,
                   Quor::String8 const& args);

  Quor::Ptr<Quor::FileDescriptor> clientFd_;
  Quor::Ptr<QuorClientFd> clientFdReactor_;
  AgentSocketHandlerSm* handler_;  // back pointer: raw, cleared by the handler when it goes
  U64 serial_ = 0;                 // its place among the connections awaiting a request
};

/// The listening side of an agent's command socket.
class QUOR_API AgentSocketHandlerSm : public Quor::Entity {
 public:
  /// Reactor on the handler's collections; each reaction gets the member's key.
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<AgentSocketHandlerSm, NotifieeConst> {
   public:
    virtual void onAgentSocketCallback(Quor::String8 const&) {}
    virtual void onClient(Quor::Name const&) {}
    virtual void onFd(Quor::Name const&) {}
    virtual void onRequestTimeout() {}
    virtual void onMaxClients() {}
    virtual void onSendTimeout() {}
    virtual void onPeerPolicy() {}
    virtual void onPeerUid(U32) {}
  };
  using AgentSocketCallbackMap = std::map<Quor::String8, Quor::Ptr<AgentSocketCallback>>;
  using AgentSocketCallbackIteratorConst = AgentSocketCallbackMap::const_iterator;

  ~AgentSocketHandlerSm() override;

  /// The activity whose loop serves the socket.
  Quor::Ptr<Quor::ActivityConfig> const& activity() const { return activity_; }

  /// The listening socket ("AgentSocketHandler server"), null before initialisation.
  Quor::Ptr<Quor::FileDescriptor> const& agentsockFd() const { return agentsockFd_; }
  /// Listens through `fd` (its readable reactor accepts); null detaches.
  void agentsockFdIs(Quor::Ptr<Quor::FileDescriptor> const& fd);
  void agentsockFdDel() { agentsockFdIs(nullptr); }

  /// The callback registered under `commandType`, or null.
  Quor::Ptr<AgentSocketCallback> agentSocketCallback(Quor::String8 const& commandType) const;
  /// Registers `cb` under its command word, replacing any other. Throws on null.
  void agentSocketCallbackIs(Quor::Ptr<AgentSocketCallback> const& cb);
  /// Registers `cb` unless its word is taken; returns what is registered under the word.
  Quor::Ptr<AgentSocketCallback> newAgentSocketCallback(Quor::Ptr<AgentSocketCallback> const& cb);
  void agentSocketCallbackDel(Quor::String8 const& commandType);
  void agentSocketCallbackDelAll();
  U32 agentSocketCallbacks() const { return static_cast<U32>(callbacks_.size()); }
  /// The registered callbacks in ascending command-word order.
  AgentSocketCallbackIteratorConst agentSocketCallbackBegin() const { return callbacks_.begin(); }
  AgentSocketCallbackIteratorConst agentSocketCallbackEnd() const { return callbacks_.end(); }

  /// The open connection of that name ("clientFd:<descriptor>"), or null.
  Quor::Ptr<ClientSm> client(Quor::Name const& name) const;
  /// Makes the connection that serves `fd` (keyed by fd's name), replacing any other of
  /// that name. Throws Quor::RangeException on a null argument.
  Quor::Ptr<ClientSm> clientIs(Quor::Ptr<Quor::FileDescriptor> const& fd,
                               Quor::Ptr<AgentSocketHandlerSm> const& handler);
  /// The same, but keeps an existing connection of that name.
  Quor::Ptr<ClientSm> newClient(Quor::Ptr<Quor::FileDescriptor> const& fd,
                                Quor::Ptr<AgentSocketHandlerSm> const& handler);
  void clientDel(Quor::Name const& name);
  void clientDelAll();
  U32 clients() const { return static_cast<U32>(clients_.size()); }

  /// The accepted descriptor of that name, or null.
  Quor::Ptr<Quor::FileDescriptor> fd(Quor::Name const& name) const;
  /// Keeps `fd` under its name, replacing any other. Throws on null.
  void fdIs(Quor::Ptr<Quor::FileDescriptor> const& fd);
  Quor::Ptr<Quor::FileDescriptor> newFd(Quor::Ptr<Quor::FileDescriptor> const& fd);
  void fdDel(Quor::Name const& name);
  void fdDelAll();
  U32 fds() const { return static_cast<U32>(fds_.size()); }

  /// Seconds a connection has to send its request before it is closed without a reply.
  /// Throws "AgentSocketHandlerSm::requestTimeout < 0.001 or > 86400 not allowed".
  Quor::Seconds requestTimeout() const { return requestTimeout_; }
  void requestTimeoutIs(Quor::Seconds s);
  /// Open connections allowed; one more is closed at once without a reply.
  /// Throws "AgentSocketHandlerSm::maxClients < 1 or > 65536 not allowed".
  U32 maxClients() const { return maxClients_; }
  void maxClientsIs(U32 n);
  /// The most all writes of one reply may block the loop, in seconds.
  /// Throws "AgentSocketHandlerSm::sendTimeout < 0.001 or > 3600 not allowed".
  Quor::Seconds sendTimeout() const { return sendTimeout_; }
  void sendTimeoutIs(Quor::Seconds s);
  /// Who may send commands; a refused peer is closed without a reply and logged
  /// (AGENT_SOCKET_PEER_REFUSED, with its pid and uid).
  AgentSocketPeerPolicy peerPolicy() const { return peerPolicy_; }
  void peerPolicyIs(AgentSocketPeerPolicy p);
  /// The user ids peerUserList admits.
  bool peerUid(U32 uid) const { return peerUids_.contains(uid); }
  void peerUidIs(U32 uid);
  void peerUidDel(U32 uid);
  void peerUidDelAll();
  /// True while accepting is paused for want of descriptors.
  bool acceptPaused() const { return acceptPaused_; }

  /// Opens, binds and listens. A failure prints the system error and aborts the
  /// process (a name that another socket holds included). Precondition: not initialised.
  void handleInitialized() override;
  /// Accepts one pending connection; does nothing before initialisation or after
  /// handleDeletion. Accept failures are reported and survived.
  void handleClientConnection();
  /// Closes one connection and forgets it.
  void doCloseClientConnection(Quor::Ptr<ClientSm> const& client);
  /// Closes the listening socket (open connections stay until they are served or the
  /// handler goes). Runs when the last reference goes; calling it earlier is allowed.
  void handleDeletion();

  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }
  AgentSocketCallbackMap const& agentSocketCallbackMap() const { return callbacks_; }

  QUOR_ENTITY_TYPE(AgentSocketHandlerSm, "Vell::AgentSocketHandlerSm",
                   Quor::attr("requestTimeout", &AgentSocketHandlerSm::requestTimeout,
                              &AgentSocketHandlerSm::requestTimeoutIs),
                   Quor::attr("maxClients", &AgentSocketHandlerSm::maxClients, &AgentSocketHandlerSm::maxClientsIs),
                   Quor::attr("sendTimeout", &AgentSocketHandlerSm::sendTimeout, &AgentSocketHandlerSm::sendTimeoutIs),
                   Quor::attr("peerPolicy", &AgentSocketHandlerSm::peerPolicy, &AgentSocketHandlerSm::peerPolicyIs),
                   Quor::attr("acceptPaused", &AgentSocketHandlerSm::acceptPaused),
                   Quor::attr("clients", &AgentSocketHandlerSm::clients),
                   Quor::collection("agentSocketCallback", &AgentSocketHandlerSm::agentSocketCallbackMap,
                                    &AgentSocketHandlerSm::agentSocketCallback))

 protected:
  AgentSocketHandlerSm(Quor::String8 const& name, Quor::Ptr<Quor::ActivityConfig> const& activity);
  void handleDel() override;

 private:
  friend QUOR_API Quor::Ptr<AgentSocketHandlerSm> agentSocketHandlerSmFactory(
      Quor::String8 const&, Quor::Ptr<Quor::ActivityConfig> const&);
  friend class ClientSm;
  class QuorAgentsockFd;
  class QuorClock;
  bool admit(int descriptor);
  void acceptFailed(int err);
  void resumeAccepting();
  void handleClock();
  void armClock();
  void requestArrived(ClientSm const& client);

  Quor::Ptr<Quor::ActivityConfig> activity_;
  Quor::Ptr<Quor::FileDescriptor> agentsockFd_;
  Quor::Ptr<QuorAgentsockFd> agentsockFdReactor_;
  AgentSocketCallbackMap callbacks_;
  std::map<Quor::Name, Quor::Ptr<ClientSm>> clients_;
  std::map<Quor::Name, Quor::Ptr<Quor::FileDescriptor>> fds_;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;

  Quor::Seconds requestTimeout_ = 5;
  U32 maxClients_ = 64;
  Quor::Seconds sendTimeout_ = 2;
  AgentSocketPeerPolicy peerPolicy_ = peerAnyone;
  std::set<U32> peerUids_;
  // Connections still waiting for their request, by accept serial (accepted earlier,
  // due earlier: the deadline is the accept time plus requestTimeout).
  std::map<U64, std::pair<Quor::Seconds, Quor::Name>> awaitingRequest_;
  U64 acceptSerial_ = 0;
  bool acceptPaused_ = false;   // listener's readable notification off for now
  bool acceptFailing_ = false;  // in an episode of failed accepts (reported once)
  Quor::Seconds acceptResume_ = Quor::endOfTime;
  Quor::Ptr<QuorClock> clock_;
};

/// Makes a handler and has it listen on the abstract address "\0s<name>" (names of 106
/// characters or more are cut to 105). Aborts the process if the socket cannot be set
/// up, e.g. when the name is taken.
QUOR_API Quor::Ptr<AgentSocketHandlerSm> agentSocketHandlerSmFactory(
    Quor::String8 const& name,
    Quor::Ptr<Quor::ActivityConfig> const& activity = Quor::defaultActivityConfig());

/// A handler's command words as data (word -> the callback's name), kept equal to the
/// handler's agentSocketCallback collection. Callbacks are code and stay in their
/// process; this is what of them travels: serve it with a MirrorSourceSm and another
/// process mirrors it (MirrorSinkSm::mirror<AgentSocketCommands>) to see, and follow,
/// which words an agent serves.
class QUOR_API AgentSocketCommands : public Quor::Entity {
 public:
  class QUOR_API NotifieeConst : public Quor::BaseNotifiee<AgentSocketCommands, NotifieeConst> {
   public:
    virtual void onAgentSocketCallback(Quor::String8 const&) {}
  };
  class QuorHandler;

  /// Empty and following nothing (a mirror's copy).
  explicit AgentSocketCommands(Quor::Name const& name);
  ~AgentSocketCommands() override;

  /// The callback's name under `word`, or "" (absent).
  Quor::String8 agentSocketCallback(Quor::String8 const& word) const;
  void agentSocketCallbackIs(Quor::String8 const& word, Quor::String8 const& callbackName);
  void agentSocketCallbackDel(Quor::String8 const& word);
  std::map<Quor::String8, Quor::String8> const& agentSocketCallbackMap() const { return words_; }

  Quor::NotifieeList<NotifieeConst>& notifiees() const { return notifiees_; }
  QUOR_ENTITY_TYPE(AgentSocketCommands, "Vell::AgentSocketCommands",
                   Quor::collection("agentSocketCallback", &AgentSocketCommands::agentSocketCallbackMap,
                                    &AgentSocketCommands::agentSocketCallback,
                                    &AgentSocketCommands::agentSocketCallbackIs,
                                    &AgentSocketCommands::agentSocketCallbackDel,
                                    &NotifieeConst::onAgentSocketCallback))

 protected:
  void handleDel() override;

 private:
  friend QUOR_API Quor::Ptr<AgentSocketCommands> agentSocketCommandsFactory(
      Quor::Ptr<AgentSocketHandlerSm const> const&);
  std::map<Quor::String8, Quor::String8> words_;
  Quor::Ptr<QuorHandler> handler_;
  mutable Quor::NotifieeList<NotifieeConst> notifiees_;
};

/// The command words of `handler`, named after it, following its changes.
QUOR_API Quor::Ptr<AgentSocketCommands> agentSocketCommandsFactory(Quor::Ptr<AgentSocketHandlerSm const> const& handler);

/// True when this process may force a socket's send buffer (CAP_NET_ADMIN), without
/// which every command on the socket is refused. Probes the kernel with a socket pair.
QUOR_API bool agentSocketSendBufferForceAllowed();

/// Fills `addr` with the abstract address of the agent `name`, cut as the handler cuts
/// it, and returns the address length to give to bind or connect (for tools).
QUOR_API socklen_t agentSocketAddress(Quor::String8 const& name, sockaddr_un* addr);

/// The operator log messages of the command socket.
QUOR_API extern Quor::LogHandle agentSocketCommandError;       ///< "Error (%s) on command execution"
QUOR_API extern Quor::LogHandle agentSocketInvalidDescriptor;  ///< "Invalid socket request call"
/// "Cannot accept command connections on %s (%s); accepting pauses": once per episode.
QUOR_API extern Quor::LogHandle agentSocketAcceptError;
/// "Command connection %s closed: no request within %g seconds"
QUOR_API extern Quor::LogHandle agentSocketRequestTimeout;
/// "Command connection refused: %u connections open (maxClients)"
QUOR_API extern Quor::LogHandle agentSocketTooManyClients;
/// "Command connection refused for pid %d uid %u (peer policy %s)"
QUOR_API extern Quor::LogHandle agentSocketPeerRefused;

}  // namespace Vell
