// What running programs are measured and stopped by: steps, the limit on them, and breaks.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <string>

#include "errors/failure.h"

namespace zel {

// A request to stop what runs. It reaches the run during which it is made and no other: what comes
// when nothing runs is lost. From any thread or signal handler.
class BreakRequest {
 public:
  enum Kind : std::uint32_t { none, soft, hard };

  // Answers whether anything runs. A soft one takes nothing from a hard one that waits already.
  bool make(Kind kind) {
    std::uint32_t seen = word_.load();
    while (seen >= firstRun && (seen & 3U) < kind &&
           !word_.compare_exchange_weak(seen, (seen & ~3U) | kind)) {
    }
    return seen >= firstRun;
  }
  void beginRun() {
    lastRun_ += firstRun;
    if (lastRun_ < firstRun) lastRun_ = firstRun;
    word_.store(lastRun_);
  }
  void endRun() { word_.store(none); }
  // The request that was made since the last call, which it is the answer to. One of a lesser kind
  // waits.
  Kind take(Kind least) {
    const bool isMade = (word_.load(std::memory_order_relaxed) & 3U) >= least;
    return isMade ? Kind(word_.fetch_and(~3U) & 3U) : none;
  }

 private:
  static constexpr std::uint32_t firstRun = 4;
  std::atomic<std::uint32_t> word_{none};  // number of the run, 0 when nothing runs, and the kind
  std::uint32_t lastRun_ = 0;
};

// Counts steps down to the next look at the break request and the limit. One step is a message or
// the turn of a loop; a primitive charges about as many as the messages that its time is worth.
class Meter {
 public:
  using Clock = std::chrono::steady_clock;

  explicit Meter(BreakRequest& request) : request_(request) {}

  std::int32_t countdown = 0;
  std::uint64_t limit = 0;  // steps of one run, 0 for none

  void begin();
  void end();
  // Counts steps inside a primitive or the compiler. Throws the break, or ErrStepLimit.
  void charge(std::size_t steps) {
    for (; steps > stride; steps -= stride) count(stride);
    count(static_cast<std::int32_t>(steps));
  }
  // The same for bytes that are copied or compared as a whole, and for those that are looked at one
  // by one.
  void chargeCopy(std::size_t bytes) { charge(bytes / 4096); }
  void chargeRead(std::size_t bytes) { charge(bytes / 128); }
  // To be called when the countdown has gone below 0: throws as above, or sets it anew.
  void check();
  // Makes the countdown end at the next step.
  void hurry();
  // Has soft breaks wait while so many steps are counted, or until they are heeded again. Until
  // then the countdown ends at every step but the first.
  void deferSoftBreaks(std::uint64_t steps);
  void heedSoftBreaks() { deferred_ = 0; }

 private:
  friend class Respite;

  void count(std::int32_t steps) {
    if ((countdown -= steps) < 0) check();
  }
  void grant();
  static constexpr std::int32_t stride = 10'000;
  BreakRequest& request_;
  std::uint64_t left_ = UINT64_MAX;  // of the limit, beyond the countdown
  std::uint64_t deferred_ = 0;       // steps for which soft breaks wait
  Clock::time_point deadline_ = Clock::time_point::max();
};

// What programs that are given up still do: it has so much time, which grows less meanwhile, after
// which check throws a failure of the kind timeUp, and steps of its own.
class Respite {
 public:
  Respite(Meter& meter, Meter::Clock::duration& time)
      : meter_(meter), time_(time), countdown_(meter.countdown), left_(meter.left_) {
    meter_.deadline_ = Meter::Clock::now() + time;
  }
  ~Respite() {
    time_ = std::max(meter_.deadline_ - Meter::Clock::now(), Meter::Clock::duration::zero());
    meter_.deadline_ = Meter::Clock::time_point::max();
    meter_.countdown = countdown_;
    meter_.left_ = left_;
  }
  Respite(const Respite&) = delete;
  Respite& operator=(const Respite&) = delete;

  // Begins the count of steps anew.
  void next() { meter_.grant(); }

 private:
  Meter& meter_;
  Meter::Clock::duration& time_;
  std::int32_t countdown_;
  std::uint64_t left_;
};

// Counts a run from its begin to its end.
class Run {
 public:
  explicit Run(Meter& meter) : meter_(meter) { meter_.begin(); }
  ~Run() { meter_.end(); }
  Run(const Run&) = delete;
  Run& operator=(const Run&) = delete;

 private:
  Meter& meter_;
};

}  // namespace zel
