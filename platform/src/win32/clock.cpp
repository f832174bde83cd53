// The one clock behind Sleep, timed waits, timer queues and GetTickCount. System time advances
// `scale` times faster than the monotonic wall clock; changing the scale keeps system time
// continuous (the origin is re-based at the change).
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <mutex>

#include "adplatform.h"
#include "sysinfoapi.h"

namespace adp {
namespace {

using WallClock = std::chrono::steady_clock;

struct ClockState {
  std::mutex lock;
  double scale = 1.0;
  WallClock::time_point wallOrigin = WallClock::now();
  double systemOriginMs = 0;  // system milliseconds at wallOrigin
};

double ScaleFromEnvironment() {
  if (const char* v = std::getenv("ARCHIVEDEPOT_TIME_SCALE")) {
    double s = std::strtod(v, nullptr);
    if (s > 0) return s;
  }
  return 1.0;
}

ClockState& State() {
  static ClockState* state = [] {
    auto* s = new ClockState;  // never destroyed: timer threads may read it during exit
    s->scale = ScaleFromEnvironment();
    // Start from the machine's monotonic uptime, as GetTickCount does, so ticks of two
    // processes are comparable.
    s->systemOriginMs = std::chrono::duration<double, std::milli>(s->wallOrigin.time_since_epoch()).count();
    return s;
  }();
  return *state;
}

double SystemMsLocked(ClockState& s) {
  double wallMs = std::chrono::duration<double, std::milli>(WallClock::now() - s.wallOrigin).count();
  return s.systemOriginMs + wallMs * s.scale;
}

}  // namespace

double TimeScale() {
  ClockState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  return s.scale;
}

void SetTimeScale(double scale) {
  if (!(scale > 0)) return;
  ClockState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  s.systemOriginMs = SystemMsLocked(s);
  s.wallOrigin = WallClock::now();
  s.scale = scale;
}

uint64_t SystemMilliseconds() {
  ClockState& s = State();
  std::lock_guard<std::mutex> guard(s.lock);
  return static_cast<uint64_t>(SystemMsLocked(s));
}

uint64_t WallMicrosecondsFor(uint64_t systemMilliseconds) {
  return static_cast<uint64_t>(static_cast<double>(systemMilliseconds) * 1000.0 / TimeScale());
}

}  // namespace adp

extern "C" {

DWORD GetTickCount() { return static_cast<DWORD>(adp::SystemMilliseconds()); }
ULONGLONG GetTickCount64() { return adp::SystemMilliseconds(); }

}  // extern "C"
