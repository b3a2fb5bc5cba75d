#include "meter.h"

#include <algorithm>

namespace zel {

void Meter::begin() {
  request_.beginRun();
  grant();
}

void Meter::grant() {
  left_ = limit != 0 ? limit : UINT64_MAX;
  countdown = 0;
}

void Meter::end() {
  request_.endRun();
  left_ = UINT64_MAX;
}

void Meter::check() {
  const BreakRequest::Kind request = request_.take();
  if (request != BreakRequest::none) {
    countdown = 0;
    if (request == BreakRequest::soft) {
      throw Failure(ErrSoftBreak, "the program was interrupted", {}, FailureKind::softBreak);
    }
    throw Failure(ErrHardBreak, "the program was stopped", {}, FailureKind::stop);
  }
  if (deadline_ != Clock::time_point::max() && Clock::now() >= deadline_) {
    throw Failure(ErrHardBreak, "the program had its time", {}, FailureKind::timeUp);
  }
  if (left_ == 0) {
    throw Failure(ErrStepLimit,
                  "the program was stopped at the limit of " + std::to_string(limit) +
                      " steps (POVZEL_STEPS)",
                  {}, FailureKind::stop);
  }
  const std::uint64_t granted = std::min<std::uint64_t>(left_, stride);
  left_ -= granted;
  countdown = static_cast<std::int32_t>(granted);
}

void Meter::hurry() {
  if (countdown <= 0) return;
  left_ += static_cast<std::uint64_t>(countdown);
  countdown = 0;
}

}  // namespace zel
