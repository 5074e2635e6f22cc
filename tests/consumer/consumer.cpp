// Builds against the library through its CMake target alone and runs one loop turn.
#include <Quor/Quor.h>
#include <Vell/ValueTypes.h>

int main() {
  Quor::VirtualTime vt(100);
  struct Once : Quor::Clock::NotifieeConst {
    int runs = 0;
    void onTime() override { ++runs; }
  };
  Quor::Ptr<Once> once(new Once);
  once->notifierIs(Quor::clockFactory("consumerClock"));
  once->timeMinIs(101);
  Quor::quorActivitySmFor(Quor::defaultActivityConfig())->runUntil(102);
  return once->runs == 1 && Vell::valueToStrep(42u) == "42" ? 0 : 1;
}
