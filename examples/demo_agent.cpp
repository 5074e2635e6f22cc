// The demo agent: the library's blocks on one activity loop, looked into through the
// command socket.
//
//   demo_agent [NAME]        listens as NAME (default "vell-demo") until `quit`,
//                            SIGINT or SIGTERM
//
// Commands: `help` (the command words, one a line), `show` (the entities that can be
// shown), `show NAME [ATTR]` (their attributes, live), `set NAME ATTR VALUE`, `xact ...`
// (transactions), `watch` (the watched directory), `quit` (replies, then ends the agent).
//
// An entity joins `show` with one line in main(): intro->entityIs("name", entity). The
// demo's own figures are attributes of its DemoFigures entity. One executor, exec-d,
// runs in a process of its own (examples/executor_agent), connected through mirrors.
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <sstream>
#include <string>

#include <Quor/Quor.h>
#include <Vell/AgentExplorer.h>
#include <Vell/AgentSocketHandler.h>
#include <Vell/AttrMirror.h>
#include <Vell/BestFitAllocator.h>
#include <Vell/EventClock.h>
#include <Vell/HBitmap.h>
#include <Vell/HTimerWheel.h>
#include <Vell/InotifyMgr.h>
#include <Vell/ReviewTimer.h>
#include <Vell/ValueTypes.h>
#include <Vell/XactLib.h>

#include "KeyedBacklog.h"

namespace {

using Reply = std::function<std::string(std::string const& args)>;

// A command word served by a function that turns the argument text into the reply.
class DemoCommand : public Vell::AgentSocketCallback {
 public:
  DemoCommand(Quor::String8 const& word, Reply reply, unsigned* served)
      : AgentSocketCallback(Quor::Name("demo " + word.str()), word), reply_(std::move(reply)), served_(served) {}
  void handleCommand(unsigned int descriptor, Quor::String8 commandArgs) override {
    ++*served_;
    // Within the socket's stall budget, however slowly the operator's client reads.
    Vell::agentSocketReply(descriptor, reply_(commandArgs.str()));
  }

 private:
  Reply reply_;
  unsigned* served_;
};

// A clock reactor that ticks ten times a second and drives the demo's workload.
class Heartbeat : public Quor::Clock::NotifieeConst {
 public:
  std::function<void(unsigned long)> onBeat;
  void onTime() override {
    ++beats_;
    if (onBeat) onBeat(beats_);
    timeMinIs(Quor::now() + 0.1);
  }
  unsigned long beats() const { return beats_; }

 private:
  unsigned long beats_ = 0;
};

// A timer on the wheel that counts its firings and re-arms itself a little later.
class WheelTimer : public Vell::TimerWheel::NotifieeConst {
 public:
  explicit WheelTimer(unsigned long* fired) : fired_(fired) {}
  void onTime() override {
    ++*fired_;
    timeMinIs(Quor::now() + 0.5 + 0.01 * static_cast<double>(*fired_ % 150));
  }

 private:
  unsigned long* fired_;
};

// The reactor a review timer paces: each call is one review.
class Reviewer : public Quor::Clock::NotifieeConst {
 public:
  Vell::ReviewTimer* timer = nullptr;
  unsigned long reviews = 0;
  void onTime() override {
    ++reviews;
    timer->lastReviewIs(Quor::now());
  }
};

// Every block of the library at work on the loop, driven by the heartbeat, with the
// figures `show <block>` prints.
struct Blocks {
  Quor::Ptr<Vell::HBitmap> bitmap = Vell::hBitmapFactory(1, 4096, Vell::HBitmap::Clear);
  Quor::Ptr<Vell::BestFitAllocator> allocator = Vell::bestFitAllocatorFactory("demo ranges", 1024, 0, 64);
  std::vector<Quor::Ptr<Vell::BFA::Blk>> blocks;
  unsigned long allocFailures = 0;
  unsigned long defragMoves = 0;
  Quor::Ptr<Vell::TimerWheel> wheel;
  std::vector<Quor::Ptr<WheelTimer>> timers;
  unsigned long timersFired = 0;
  Quor::Ptr<Vell::EventClock> eventClock;
  Quor::Ptr<Reviewer> reviewer = new Reviewer;
  Quor::Ptr<Vell::ReviewTimer> review;
  Quor::Ptr<VellExample::KeyedBacklog<std::string, unsigned long>> backlog;
  unsigned long backlogHandled = 0;
  Vell::UniqueId agentId;
  Vell::ConditionStat bitmapMostlySet;
  Vell::Seqno16 lastBeat{0};

  Blocks(Quor::Ptr<Quor::ActivityConfig> const& activity, Quor::Ptr<Quor::Clock> const& clock) {
    wheel = Vell::timerWheelFactory(activity, clock, 10, 1 << 16, true, 256);
    for (int i = 0; i < 200; ++i) {
      timers.push_back(new WheelTimer(&timersFired));
      timers.back()->notifierIs(wheel);
      timers.back()->timeMinIs(Quor::now() + 0.05 * (i + 1));
    }
    eventClock = Vell::eventClockFactory(activity, clock, 0.5, 3600);
    eventClock->start();
    reviewer->notifierIs(clock);
    review = Vell::reviewTimerFactory(reviewer.ptr(), 1.0f, 3, 0.2f, 5.0f);
    reviewer->timer = review.ptr();
    backlog = VellExample::keyedBacklogFactory<std::string, unsigned long>(
        clock, 0.002, [this](std::string const&, unsigned long const&) { ++backlogHandled; });
    agentId.doInit();
  }

  ~Blocks() {
    for (auto& t : timers) t->notifierIs(nullptr);
    reviewer->notifierIs(nullptr);
    eventClock->stop();
  }

  void beat(unsigned long n) {
    lastBeat = Vell::Seqno16(static_cast<Vell::U16>(n));
    Vell::U32 const bit = static_cast<Vell::U32>((n * 37) % bitmap->size());
    bitmap->updateBit(bit, bitmap->isBitSet(bit) ? Vell::HBitmap::Clear : Vell::HBitmap::Set);
    bitmapMostlySet.doUpdate(bitmap->numBitsInSetState() * 2 > bitmap->size(), Quor::now());

    // Ranges: allocate small blocks until the space is busy, then free some at random.
    if (blocks.size() < 60) {
      auto b = allocator->alloc(static_cast<Vell::U32>(1 + (n * 7) % 23));
      if (b) blocks.push_back(b);
      else ++allocFailures;
    } else {
      for (int i = 0; i < 20; ++i) blocks.erase(blocks.begin() + static_cast<long>((n * 13 + i) % blocks.size()));
    }
    if (n % 50 == 0) {
      auto cmds = allocator->defragment();
      if (cmds) defragMoves += cmds->pendingCmdLogs();
    }

    for (int i = 0; i < 5; ++i) backlog->updateIs("key" + std::to_string((n + i) % 3), n);  // 5 updates, 3 keys: 2 coalesce
    review->doUpdateNextReview();
  }
};

// ---- transactions: a coordinator and three in-process executors ----------------------------

// An executor whose answer an operator chooses: "ok", "fail TEXT", "silent" (never
// answers: the coordinator times it out), or "slow SECONDS" (answers success later).
class DemoExecutor : public Vell::XactExecutorSm {
 public:
  DemoExecutor(Quor::String8 name, Quor::Ptr<Vell::XactStatusDir> const& statuses, Quor::Ptr<Quor::Clock> const& clock)
      : XactExecutorSm(std::move(name), statuses, clock, 0.005), clock_(clock) {}
  std::string mode = "ok";

  Vell::ExecResult doExecute(Vell::XactConfig const& c) override {
    if (mode == "silent") return {Vell::xactInProgress, ""};
    if (mode.rfind("fail ", 0) == 0) return {Vell::xactFailure, mode.substr(5)};
    if (mode.rfind("slow ", 0) == 0) {  // answer later, from a clock reactor
      Quor::Ptr<Later> later = new Later;
      later->answer = Vell::XactStatus(c.id(), Vell::xactSuccess, "slow but done", c.configVersion());
      later->dir = xactStatusDir();
      later->self = later;  // kept alive until it fires
      later->notifierIs(clock_);
      later->timeMinIs(clock_->time() + std::atof(mode.c_str() + 5));
      return {Vell::xactInProgress, ""};
    }
    return {Vell::xactSuccess, ""};
  }

 private:
  struct Later : Quor::Clock::NotifieeConst {
    Vell::XactStatus answer;
    Quor::Ptr<Vell::XactStatusDir> dir;
    Quor::Ptr<Later> self;
    void onTime() override {
      dir->xactStatusIs(answer);
      self = nullptr;
    }
  };
  Quor::Ptr<Quor::Clock> clock_;
};

struct Transactions {
  Quor::Ptr<Vell::XactAggregatorSm> agg;
  Quor::Ptr<Vell::XactDir> xacts = Vell::xactDirFactory("demo xacts");
  std::vector<Quor::Ptr<DemoExecutor>> executors;
  std::vector<std::string> decided;  // "id:result", in the order decisions were made

  struct OnDecided : Vell::Xact::NotifieeConst {
    std::vector<std::string>* log;
    void onStatusVersion() override {
      log->push_back(std::to_string(notifier()->id()) + ":" + Quor::valueToStrep(notifier()->result()).str());
    }
  };
  std::vector<Quor::Ptr<OnDecided>> watchers;

  // exec-d runs in another process: its config directory is served to it, its status
  // directory mirrored from it.
  Quor::Ptr<Vell::MirrorSourceSm> configSource;
  Quor::Ptr<Vell::MirrorSinkSm> statusSink;

  Transactions(std::string const& agent, Quor::Ptr<Quor::Clock> const& clock) {
    agg = Vell::xactAggregatorSmFactory("demo coordinator", clock);
    configSource = Vell::mirrorSourceSmFactory(agent + "-config");
    auto remoteConfigs = Vell::xactConfigDirFactory("exec-d");
    configSource->entityIs(remoteConfigs);
    agg->xactConfigDirIs(remoteConfigs);
    statusSink = Vell::mirrorSinkSmFactory(agent + "-exec-d", clock);
    agg->xactStatusDirIs(statusSink->mirror<Vell::XactStatusDir>("exec-d"));
    agg->timeoutIs(3.0);  // short, so that the demo shows a timeout
    agg->pollingIntervalIs(0.5);
    for (char const* name : {"exec-a", "exec-b", "exec-c"}) {
      auto configs = Vell::xactConfigDirFactory(name);
      auto statuses = Vell::xactStatusDirFactory(name);
      executors.push_back(Quor::makeEntity<DemoExecutor>(name, statuses, clock));
      executors.back()->xactConfigDirIs(configs);
      agg->xactConfigDirIs(configs);
      agg->xactStatusDirIs(statuses);
    }
  }
  ~Transactions() {
    for (auto& e : executors) e->xactConfigDirDel();
  }

  // "start ID [after ID...]", "stop ID", "mode EXECUTOR MODE...", "list"
  std::string command(std::string const& args) {
    std::istringstream in(args);
    std::string verb;
    in >> verb;
    if (verb == "list") return show();
    if (verb == "start" || verb == "stop") {
      unsigned long id = 0;
      if (!(in >> id) || id == 0 || id > 0xffffffffUL) return "usage: xact " + verb + " ID (1 to 4294967295)\n";
      if (verb == "stop") {
        agg->doStopXact(static_cast<Vell::U32>(id));
        return "stopped " + std::to_string(id) + "\n";
      }
      auto x = xact(static_cast<Vell::U32>(id));
      std::string after;
      while (in >> after) {
        if (after == "after") continue;
        unsigned long b = std::strtoul(after.c_str(), nullptr, 10);
        if (b == 0 || b == id || b > 0xffffffffUL) return "bad blocking id '" + after + "'\n";
        x->blockingXactIs(xact(static_cast<Vell::U32>(b)));
      }
      agg->doStartXact(x);
      return "started " + std::to_string(id) + " (" + place(x->id()) + ")\n";
    }
    if (verb == "mode") {
      std::string exec, mode;
      in >> exec;
      std::getline(in >> std::ws, mode);
      for (auto& e : executors) {
        if (e->executorName() != exec) continue;
        if (mode != "ok" && mode != "silent" && mode.rfind("fail ", 0) != 0 && mode.rfind("slow ", 0) != 0)
          return "modes: ok, fail TEXT, silent, slow SECONDS\n";
        e->mode = mode;
        return exec + ": " + mode + "\n";
      }
      return "no executor '" + exec + "' (exec-a, exec-b, exec-c)\n";
    }
    return "usage: xact list | xact start ID [after ID...] | xact stop ID | xact mode EXECUTOR ok|fail TEXT|silent|slow "
           "SECONDS\n";
  }

  Quor::Ptr<Vell::Xact> xact(Vell::U32 id) {
    auto x = xacts->xact(id);
    if (x) return x;
    x = xacts->xactIs(id);
    watchers.push_back(new OnDecided);
    watchers.back()->log = &decided;
    watchers.back()->notifierIs(x);
    return x;
  }

  std::string place(Vell::U32 id) const {
    if (agg->inProgressXact(id)) return "inProgress";
    if (agg->pendingXact(id)) return "pending";
    if (agg->blockedXact(id)) return "blocked";
    return "-";
  }

  std::string show() const {
    std::string text = "id  result          configVersion  statusVersion  place       comments\n";
    for (auto const& [id, x] : xacts->xacts()) {
      char line[160];
      std::snprintf(line, sizeof line, "%-3u %-15s %-14u %-14u %-11s", id, Quor::valueToStrep(x->result()).charPtr(),
                    x->configVersion(), x->statusVersion(), place(id).c_str());
      text += line;
      std::map<std::string, std::string> sorted;
      for (auto const& [k, v] : x->comment()) sorted[k.str()] = v.str();
      for (auto const& [k, v] : sorted) text += " " + k + "='" + v + "'";
      text += "\n";
    }
    text += "decided, in order:";
    for (auto const& d : decided) text += " " + d;
    return text + "\n";
  }
};

// ---- watching: two descriptors on a directory of the demo's own ---------------------------

struct Watching {
  std::string dir;
  Quor::Ptr<Vell::InotifyMgr> mgr = Vell::inotifyMgrFactory("demo watching");
  std::vector<Quor::Ptr<Vell::WatchDescriptor>> wds;

  Watching() {
    char const* tmp = std::getenv("TMPDIR");
    std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/vell-demo-watch-XXXXXX";
    if (::mkdtemp(tmpl.data())) dir = tmpl;
    for (char const* name : {"watch-1", "watch-2"}) {
      wds.push_back(Vell::watchDescriptorFactory(name, mgr));
      wds.back()->pathIs(dir);
    }
  }
  ~Watching() {
    wds.clear();
    if (!dir.empty()) ::rmdir(dir.c_str());  // gone already when the demo removed it
  }

  static std::string reason(Vell::InotifyEvent const& e) {
    if (e.wd() < 0) return e.mask() & 0x4000 ? "error (queue overflow)" : "path does not exist";
    if (e.mask() & 0xC00) return "deleted inode";
    if (e.mask() & 0x8) return "closed after writing: " + e.name().str();
    if (e.mask() & 0x200) return "deleted: " + e.name().str();
    return "other";
  }

  std::string show() const {
    std::string text = "path " + dir + "\n";
    for (auto const& w : wds) {
      char line[512];
      std::snprintf(line, sizeof line, "%-8s watchCount %-4u watcher %-3s last: %s\n", w->name().charPtr(),
                    w->watchCount(), w->watcher() ? std::to_string(w->watcher()->wd()).c_str() : "-",
                    w->watchCount() ? reason(w->event()).c_str() : "-");
      text += line;
    }
    return text;
  }
};

// SIGINT and SIGTERM arrive as a readable descriptor and stop the loop.
class StopOnSignal : public Quor::FileDescriptor::NotifieeConst {
 public:
  explicit StopOnSignal(Quor::Ptr<Quor::ActivitySm> loop) : loop_(std::move(loop)) {}
  void onReadableCount() override {
    signalfd_siginfo info;
    if (::read(notifier()->descriptor(), &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
      std::printf("demo agent: %s, stopping\n", strsignal(static_cast<int>(info.ssi_signo)));
      std::fflush(stdout);
    }
    loop_->stop();
  }

 private:
  Quor::Ptr<Quor::ActivitySm> loop_;
};

class DemoAgent {
 public:
  DemoAgent(Quor::String8 const& name, Quor::Ptr<Quor::ActivitySm> loop)
      : loop_(std::move(loop)), socket_(Vell::agentSocketHandlerSmFactory(name)) {
    commandIs("help", [this](std::string const&) { return helpText(); });
    commandIs("quit", [this](std::string const&) {
      loop_->stop();  // the loop ends once this command's connection is closed
      return std::string("bye\n");
    });
  }

  /// Adds a command word.
  void commandIs(Quor::String8 const& word, Reply reply) {
    socket_->agentSocketCallbackIs(new DemoCommand(word, std::move(reply), &served_));
  }
  Quor::Ptr<Vell::AgentSocketHandlerSm> const& socket() const { return socket_; }
  unsigned served() const { return served_; }
  Quor::Seconds uptime() const { return Quor::now() - started_; }

 private:
  std::string helpText() const {
    std::string text;
    for (auto it = socket_->agentSocketCallbackBegin(); it != socket_->agentSocketCallbackEnd(); ++it)
      text += it->first.str() + "\n";
    return text;
  }

  Quor::Ptr<Quor::ActivitySm> loop_;
  Quor::Ptr<Vell::AgentSocketHandlerSm> socket_;
  unsigned served_ = 0;
  Quor::Seconds started_ = Quor::now();
};

// The demo's own figures, as attributes of an entity: `show demo` prints them.
class DemoFigures : public Quor::Entity {
  using U64 = Vell::U64;

 public:
  DemoFigures(DemoAgent const& demo, Vell::AgentExplorer const& explorer, Quor::Ptr<Quor::ActivitySm> loop,
              Heartbeat const& beat, Blocks const& blocks)
      : Quor::Entity("demo"), demo_(demo), explorer_(explorer), loop_(std::move(loop)), beat_(beat), blocks_(blocks) {}
  U64 commandsServed() const { return demo_.served() + explorer_.requests(); }
  Quor::Seconds uptimeSeconds() const { return demo_.uptime(); }
  U64 clockTicks() const { return beat_.beats(); }
  U64 armedClockReactors() const { return loop_->armedClockReactors(); }
  U64 descriptors() const { return loop_->descriptors(); }
  U64 liveBlocks() const { return blocks_.blocks.size(); }
  U64 allocFailures() const { return blocks_.allocFailures; }
  U64 defragmentMoves() const { return blocks_.defragMoves; }
  U64 timersFired() const { return blocks_.timersFired; }
  U64 reviews() const { return blocks_.reviewer->reviews; }
  U64 reviewCredits() const { return blocks_.review->credits(); }
  U64 backlogUpdatesProcessed() const { return blocks_.backlog->updatesProcessed(); }
  U64 backlogUpdatesCoalesced() const { return blocks_.backlog->updatesCoalesced(); }
  Vell::ConditionStat bitmapMostlySet() const { return blocks_.bitmapMostlySet; }
  Vell::UniqueId agentId() const { return blocks_.agentId; }
  Vell::Seqno16 lastBeat() const { return blocks_.lastBeat; }
  QUOR_ENTITY_TYPE(DemoFigures, "VellDemo::DemoFigures", Quor::attr("commandsServed", &DemoFigures::commandsServed),
                   Quor::attr("uptimeSeconds", &DemoFigures::uptimeSeconds),
                   Quor::attr("clockTicks", &DemoFigures::clockTicks),
                   Quor::attr("armedClockReactors", &DemoFigures::armedClockReactors),
                   Quor::attr("descriptors", &DemoFigures::descriptors),
                   Quor::attr("liveBlocks", &DemoFigures::liveBlocks),
                   Quor::attr("allocFailures", &DemoFigures::allocFailures),
                   Quor::attr("defragmentMoves", &DemoFigures::defragmentMoves),
                   Quor::attr("timersFired", &DemoFigures::timersFired), Quor::attr("reviews", &DemoFigures::reviews),
                   Quor::attr("reviewCredits", &DemoFigures::reviewCredits),
                   Quor::attr("backlogUpdatesProcessed", &DemoFigures::backlogUpdatesProcessed),
                   Quor::attr("backlogUpdatesCoalesced", &DemoFigures::backlogUpdatesCoalesced),
                   Quor::attr("bitmapMostlySet", &DemoFigures::bitmapMostlySet),
                   Quor::attr("agentId", &DemoFigures::agentId), Quor::attr("lastBeat", &DemoFigures::lastBeat))

 private:
  DemoAgent const& demo_;
  Vell::AgentExplorer const& explorer_;
  Quor::Ptr<Quor::ActivitySm> loop_;
  Heartbeat const& beat_;
  Blocks const& blocks_;
};

}  // namespace

int main(int argc, char** argv) {
  if (argc > 2 || (argc == 2 && (!std::strcmp(argv[1], "--help") || !std::strcmp(argv[1], "-h")))) {
    std::fprintf(stderr, "Usage: demo_agent [NAME]   (default name: vell-demo)\n");
    return argc == 2 ? 0 : 1;
  }
  std::string const name = argc == 2 ? argv[1] : "vell-demo";

  if (!Vell::agentSocketSendBufferForceAllowed()) {
    std::fprintf(stderr,
                 "demo agent: this process lacks CAP_NET_ADMIN.\n"
                 "  The command socket forces each connection's send buffer to 1 MiB\n"
                 "  (SO_SNDBUFFORCE), which the kernel allows only with CAP_NET_ADMIN; without\n"
                 "  it the agent would refuse every command, closing each connection without a\n"
                 "  reply. Run as root, or grant the capability:\n"
                 "    sudo setcap cap_net_admin+ep %s\n",
                 argv[0]);
    return 3;
  }

  // Signals become loop events: block them, then read them from a descriptor.
  sigset_t stopSignals;
  sigemptyset(&stopSignals);
  sigaddset(&stopSignals, SIGINT);
  sigaddset(&stopSignals, SIGTERM);
  ::sigprocmask(SIG_BLOCK, &stopSignals, nullptr);

  Quor::Ptr<Quor::ActivityConfig> const activity = Quor::defaultActivityConfig();
  Quor::Ptr<Quor::ActivitySm> const loop = Quor::quorActivitySmFor(activity);

  Quor::Ptr<Quor::FileDescriptor> signals = Quor::fileDescriptorFactory("demo signals", activity);
  signals->descriptorIs(::signalfd(-1, &stopSignals, SFD_CLOEXEC));
  Quor::Ptr<StopOnSignal> stopper = new StopOnSignal(loop);
  stopper->notifierIs(signals);
  signals->notifyOnReadableIs(true);

  Quor::Ptr<Heartbeat> heartbeat = new Heartbeat;
  heartbeat->notifierIs(Quor::clockFactory("demo heartbeat", activity));
  heartbeat->timeMinIs(Quor::now() + 0.1);

  DemoAgent demo(name, loop);
  Blocks blocks(activity, Quor::clockFactory("demo blocks", activity));
  heartbeat->onBeat = [&](unsigned long n) { blocks.beat(n); };

  // One line per entity that `show` serves.
  auto intro = Vell::agentExplorerFactory(demo.socket());
  auto figures = Quor::makeEntity<DemoFigures>(demo, *intro, loop, *heartbeat, blocks);
  intro->entityIs("demo", figures);
  intro->entityIs("socket", demo.socket());
  intro->entityIs("bitmap", blocks.bitmap);
  intro->entityIs("allocator", blocks.allocator);
  intro->entityIs("wheel", blocks.wheel);
  intro->entityIs("eventClock", blocks.eventClock);
  intro->entityIs("review", blocks.review);
  intro->entityIs("backlog", blocks.backlog);
  Transactions xacts(name, Quor::clockFactory("demo xacts", activity));
  demo.commandIs("xact", [&](std::string const& args) { return xacts.command(args); });
  intro->entityIs("coordinator", xacts.agg);
  intro->entityIs("execStatusMirror", xacts.statusSink);
  intro->entityIs("execConfigSource", xacts.configSource);
  Watching watching;
  demo.commandIs("watch", [&](std::string const&) { return watching.show(); });

  std::printf("demo agent: listening as '%s' (abstract socket @s%s), pid %d\n", name.c_str(), name.c_str(),
              static_cast<int>(::getpid()));
  std::fflush(stdout);
  loop->run();
  std::printf("demo agent: stopped after %u commands\n", demo.served());
  demo.socket()->agentSocketCallbackDelAll();  // the explorer's callbacks hold it
  return 0;
}
