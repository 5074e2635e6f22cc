// A minimal agent loop: a clock reactor that ticks three times and a descriptor
// reactor that reads what the ticks write into a pipe, under real time.
#include <unistd.h>

#include <cstdio>

#include <Quor/Quor.h>

namespace {

class Ticker : public Quor::Clock::NotifieeConst {
 public:
  explicit Ticker(int writeFd) : fd_(writeFd) {}
  void onTime() override {
    char const msg[] = "tick";
    if (::write(fd_, msg, sizeof msg - 1) < 0) std::perror("write");
    std::printf("clock reactor: tick %d at %+.3f s\n", ++ticks_, Quor::now() - start_);
    if (ticks_ < 3) timeMinIs(Quor::now() + 0.1);
  }
  int ticks() const { return ticks_; }

 private:
  int fd_;
  int ticks_ = 0;
  Quor::Seconds start_ = Quor::now();
};

class Reader : public Quor::FileDescriptor::NotifieeConst {
 public:
  void onReadableCount() override {
    char buf[64];
    ssize_t n = ::read(notifier()->descriptor(), buf, sizeof buf);
    if (n > 0) std::printf("descriptor reactor: read '%.*s' (readable count %llu)\n", int(n), buf,
                           static_cast<unsigned long long>(notifier()->readableCount()));
    ++reads_;
  }
  int reads() const { return reads_; }

 private:
  int reads_ = 0;
};

}  // namespace

int main() {
  int p[2];
  if (::pipe(p) != 0) return 1;
  auto clock = Quor::clockFactory("demoClock");
  auto rd = Quor::fileDescriptorFactory("demoPipe");
  rd->descriptorIs(p[0]);
  Quor::Ptr<Reader> reader = new Reader;
  reader->notifierIs(rd);
  rd->notifyOnReadableIs(true);
  Quor::Ptr<Ticker> ticker = new Ticker(p[1]);
  ticker->notifierIs(clock);
  ticker->timeMinIs(Quor::now() + 0.1);
  auto loop = Quor::quorActivitySmFor(Quor::defaultActivityConfig());
  bool done = loop->runUntil([&] { return reader->reads() >= 3; }, 5.0);
  ::close(p[1]);
  std::printf("%s\n", done ? "demo finished" : "demo timed out");
  return done ? 0 : 1;
}
