// File-system watching against the real kernel, in directories under a temporary
// folder. The loop runs on the real clock until what is awaited arrived (bounded).
#include <Vell/InotifyMgr.h>
#include <Vell/ProcSysUtils.h>

#include <fcntl.h>
#include <sys/inotify.h>

#include <cstdlib>
#include <fstream>

#include "TestSupport.h"

namespace {

namespace fs = std::filesystem;
using Quor::Ptr;
using Vell::WatchDescriptor;

class InotifyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string tmpl = (fs::temp_directory_path() / "vell-inotify-XXXXXX").string();
    ASSERT_NE(::mkdtemp(tmpl.data()), nullptr);
    root = tmpl;
    fdsBefore = VellTest::openDescriptors();
    mgr = Vell::inotifyMgrFactory("test watching");
  }
  void TearDown() override {
    wds.clear();
    mgr = nullptr;
    fs::remove_all(root);
    EXPECT_EQ(VellTest::openDescriptors(), fdsBefore);  // nothing leaked
  }
  std::string dir(std::string const& name) {
    fs::create_directories(root / name);
    return (root / name).string();
  }
  Ptr<WatchDescriptor> watch(std::string const& path) {
    wds.push_back(Vell::watchDescriptorFactory("wd" + std::to_string(wds.size()), mgr));
    wds.back()->pathIs(path);
    return wds.back();
  }
  static void writeFile(std::string const& path, std::string const& text = "x") { std::ofstream(path) << text; }
  bool waitFor(std::function<bool()> const& done) { return loop->runUntil(done, 5.0); }
  // The kernel's own count of watches on the instance.
  int kernelWatches() const {
    std::ifstream in("/proc/self/fdinfo/" + std::to_string(mgr->mgrSm()->inotifyFd()->descriptor()));
    int n = 0;
    for (std::string line; std::getline(in, line);) n += line.rfind("inotify wd:", 0) == 0;
    return n;
  }

  fs::path root;
  std::size_t fdsBefore = 0;
  Ptr<Quor::ActivitySm> loop = Quor::quorActivitySmFor(nullptr);
  Ptr<Vell::InotifyMgr> mgr;
  std::vector<Ptr<WatchDescriptor>> wds;
};

TEST_F(InotifyTest, EntryEventsReachEveryDescriptorOfTheDirectoryOnce) {
  std::string const d = dir("a");
  auto w1 = watch(d), w2 = watch(d);
  ASSERT_TRUE(w1->watcher());
  EXPECT_EQ(w1->watcher(), w2->watcher());  // one watcher, one kernel watch
  EXPECT_EQ(kernelWatches(), 1);
  writeFile(d + "/f");
  ASSERT_TRUE(waitFor([&] { return w1->watchCount() == 1 && w2->watchCount() == 1; }));
  EXPECT_EQ(w1->event().name(), "f");
  EXPECT_EQ(w1->event().mask() & IN_CLOSE_WRITE, IN_CLOSE_WRITE);
  fs::remove(d + "/f");
  ASSERT_TRUE(waitFor([&] { return w2->watchCount() == 2; }));
  EXPECT_EQ(w2->event().mask() & IN_DELETE, IN_DELETE);
  std::string const longName(255, 'n');  // the longest name a directory entry may have
  writeFile(d + "/" + longName);
  ASSERT_TRUE(waitFor([&] { return w1->watchCount() == 3; }));
  EXPECT_EQ(w1->event().name(), longName);
  EXPECT_EQ(w1->watchCount(), 3u);
  EXPECT_EQ(Quor::valueToStrep(Vell::InotifyEvent(-1, 8, 0, "f")),
            "Value('Vell::InotifyEvent', ** {'wd': -1, 'mask': 8, 'cookie': 0, 'name': 'f'})");
}

TEST_F(InotifyTest, SharedWatchIsDroppedWithItsLastDescriptorAndMovesWithThePath) {
  std::string const a = dir("a"), b = dir("b");
  auto w1 = watch(a), w2 = watch(a);
  wds.clear();
  w1 = nullptr;  // the last reference releases its share, no cycle keeps it
  EXPECT_EQ(kernelWatches(), 1);
  EXPECT_EQ(mgr->mgrSm()->watchers(), 1u);
  w2->pathIs(b);  // moves: a's watch goes with its last user
  EXPECT_EQ(kernelWatches(), 1);
  writeFile(a + "/ignored");
  writeFile(b + "/seen");
  ASSERT_TRUE(waitFor([&] { return w2->watchCount() == 1; }));
  EXPECT_EQ(w2->event().name(), "seen");
  w2 = nullptr;
  EXPECT_EQ(kernelWatches(), 0);
  EXPECT_EQ(mgr->mgrSm()->watchers(), 0u);
}

TEST_F(InotifyTest, DeletedDirectoryEndsTheWatchAndSettingThePathAgainResumes) {
  std::string const d = dir("gone");
  auto w1 = watch(d), w2 = watch(d);
  std::vector<std::string> seen;
  fs::remove_all(d);
  ASSERT_TRUE(waitFor([&] { return w1->watcher() == nullptr && w2->watcher() == nullptr; }));
  EXPECT_EQ(w1->event().mask() & IN_DELETE_SELF, IN_DELETE_SELF);
  EXPECT_EQ(w1->watchCount(), 1u);
  EXPECT_EQ(mgr->mgrSm()->watchers(), 0u);
  loop->runOnce(0.05);  // the kernel's IN_IGNORED that follows is skipped
  EXPECT_EQ(kernelWatches(), 0);
  dir("gone");
  w1->pathIs(d);  // the same path again: resumes
  writeFile(d + "/back");
  ASSERT_TRUE(waitFor([&] { return w1->watchCount() == 2; }));
  EXPECT_EQ(w2->watchCount(), 1u);  // w2 was not set again
}

TEST_F(InotifyTest, MissingPathAndBadPaths) {
  auto w = watch((root / "absent").string());
  EXPECT_EQ(w->event(), Vell::InotifyEvent(-1, 0, 0, ""));
  EXPECT_EQ(w->watchCount(), 1u);
  EXPECT_FALSE(w->watcher());
  auto e = watch("");  // empty: absent too
  EXPECT_EQ(e->watchCount(), 1u);
  std::string const file = (root / "plain").string();
  writeFile(file);
  auto f = Vell::watchDescriptorFactory("file", mgr);
  EXPECT_THROW(f->pathIs(file), Quor::InternalException);  // not a directory
  EXPECT_THROW(f->pathIs(std::string(5000, 'x')), Quor::InternalException);  // too long
  EXPECT_FALSE(f->watcher());
  EXPECT_EQ(VellTest::rangeText([] { Vell::watchDescriptorFactory("x", nullptr); }),
            "null _mgr parameter to mutator for Vell::WatchDescriptor::mgr not allowed\"");
  EXPECT_EQ(VellTest::rangeText([&] { mgr->mgrSm()->watcherIs(nullptr); }),
            "null _watcher parameter to mutator for Vell::InotifyMgrSm::watcher not allowed\"");
  auto ok = watch(dir("ok"));  // the manager is still usable
  EXPECT_TRUE(ok->watcher());
}

// More events than the kernel queue holds, before the loop turns: every watcher hears
// "error" (wd -1) and watching goes on afterwards.
TEST_F(InotifyTest, QueueOverflowReachesEveryWatcherAndWatchingGoesOn) {
  // The queue limit is taken when an instance is made: lower it for a manager of our
  // own, then restore it at once. Without the right to, produce enough events instead.
  std::string const limitFile = "/proc/sys/fs/inotify/max_queued_events";
  std::string old;
  std::ifstream(limitFile) >> old;
  bool const lowered = Vell::writeProcSys(limitFile.c_str(), "64") == 0;
  mgr = Vell::inotifyMgrFactory("small queue");
  if (lowered) Vell::writeProcSys(limitFile.c_str(), old.c_str());
  int const events = lowered ? 200 : 20000;
  std::string const a = dir("a"), b = dir("b");
  auto wa = watch(a), wb = watch(b);
  for (int i = 0; i < events; ++i) writeFile(a + "/f" + std::to_string(i % 50));
  ASSERT_TRUE(waitFor([&] { return wb->event().wd() == -1; }));
  EXPECT_EQ(wa->event().wd() == -1 || wa->watchCount() > 0, true);
  EXPECT_GE(wb->watchCount(), 1u);
  Vell::U32 const before = wa->watchCount();
  loop->runOnce(0.05);
  writeFile(a + "/after");
  ASSERT_TRUE(waitFor([&] { return wa->event().name() == "after"; }));
  EXPECT_GT(wa->watchCount(), before);
}

// Under virtual time every drain follows the last one within no time: the storm rule
// pauses reading after the second, and the pause must end. Nothing is lost meanwhile,
// and an event after the storm arrives like any other.
TEST_F(InotifyTest, StormIsReadInPausesAndReadingResumes) {
  Quor::VirtualTime vt(1000.0);
  std::string const d = dir("storm");
  auto w = watch(d);
  auto const& fd = mgr->mgrSm()->inotifyFd();
  for (int i = 0; i < 3; ++i) {
    writeFile(d + "/f" + std::to_string(i));
    loop->runOnce(0);
  }
  EXPECT_FALSE(fd->notifyOnReadable());  // paused
  for (int i = 3; i < 300; ++i) writeFile(d + "/f" + std::to_string(i % 7));
  ASSERT_TRUE(waitFor([&] { return w->watchCount() == 300; }));
  loop->runUntil([] { return false; }, 0.01);  // quiet: the pause ends
  EXPECT_TRUE(fd->notifyOnReadable());
  writeFile(d + "/after");
  ASSERT_TRUE(waitFor([&] { return w->event().name() == "after"; }));
  EXPECT_EQ(w->watchCount(), 301u);
}

}  // namespace
