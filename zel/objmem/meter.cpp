#include "meter.h"

#include <algorithm>

namespace zel {

void Meter::begin() {
  request_.beginRun();
  grant();
}

void Meter::grant() {
  left_ = limit != 0 ? limit : UINT64_MAX;
  deferred_ = 0;
  countdown = 0;
}

void Meter::end() {
  request_.endRun();
  left_ = UINT64_MAX;
}

void Meter::check() {
  const auto beyond = static_cast<std::uint64_t>(-std::int64_t{countdown});
  const bool atLimit = left_ < beyond;
  left_ -= std::min(left_, beyond);
  deferred_ -= std::min(deferred_, beyond);
  countdown = 0;
  const auto least = deferred_ != 0 ? BreakRequest::hard : BreakRequest::soft;
  const BreakRequest::Kind request = request_.take(least);
  if (request != BreakRequest::none) {
    if (request == BreakRequest::soft) {
      throw Failure(ErrSoftBreak, "the program was interrupted", {}, FailureKind::softBreak);
    }
    throw Failure(ErrHardBreak, "the program was stopped", {}, FailureKind::stop);
  }
  if (deadline_ != Clock::time_point::max() && Clock::now() >= deadline_) {
    throw Failure(ErrHardBreak, "the program had its time", {}, FailureKind::timeUp);
  }
  if (atLimit) {
    throw Failure(ErrStepLimit,
                  "the program was stopped at the limit of " + std::to_string(limit) +
                      " steps (POVZEL_STEPS)",
                  {}, FailureKind::stop);
  }
  if (deferred_ != 0) return;
  const std::uint64_t granted = std::min<std::uint64_t>(left_, stride);
  left_ -= granted;
  countdown = static_cast<std::int32_t>(granted);
}

void Meter::deferSoftBreaks(std::uint64_t steps) {
  hurry();
  deferred_ = steps;
  left_ -= std::min<std::uint64_t>(left_, 1);
  countdown = 1;
}

void Meter::hurry() {
  if (countdown <= 0) return;
  left_ += static_cast<std::uint64_t>(countdown);
  countdown = 0;
}

}  // namespace zel
