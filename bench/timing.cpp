#include "timing.h"

#include <windows.h>

#include <algorithm>
#include <cmath>
#include <vector>

namespace bench {
namespace {

double Microseconds() {
  static const double perMicrosecond = [] {
    LARGE_INTEGER frequency;
    QueryPerformanceFrequency(&frequency);
    return static_cast<double>(frequency.QuadPart) / 1e6;
  }();
  LARGE_INTEGER now;
  QueryPerformanceCounter(&now);
  return static_cast<double>(now.QuadPart) / perMicrosecond;
}

// Microseconds of one call in a batch.
double Batch(const Call& call, std::size_t calls) {
  const double start = Microseconds();
  for (std::size_t i = 0; i < calls; ++i)
    call();
  return (Microseconds() - start) / static_cast<double>(calls);
}

std::size_t CallsPerBatch(const Call& call, const Plan& plan) {
  call();  // what only the first call does is not measured
  const double one = std::max(Batch(call, 1), 0.01);
  const std::size_t some = static_cast<std::size_t>(std::clamp(1000 / one, 1.0, 1000.0));
  const double mean = std::max(Batch(call, some), 0.01);
  if (plan.between) plan.between();
  return static_cast<std::size_t>(std::max(std::ceil(plan.batchMilliseconds * 1000 / mean), 1.0));
}

// Whether a measurement that began at start goes on with this batch.
bool GoesOn(const Plan& plan, std::size_t batch, double start) {
  constexpr std::size_t kFew = 5;
  return batch < plan.batches && (batch < kFew || Microseconds() - start < plan.seconds * 1e6);
}

Quartiles Of(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  const auto at = [&](double part) {
    const double place = part * static_cast<double>(values.size() - 1);
    const auto below = static_cast<std::size_t>(place);
    const std::size_t above = std::min(below + 1, values.size() - 1);
    return values[below] + (place - static_cast<double>(below)) * (values[above] - values[below]);
  };
  return {at(0.25), at(0.5), at(0.75)};
}

}  // namespace

Quartiles TimeOf(const Call& call, const Plan& plan) {
  const std::size_t calls = CallsPerBatch(call, plan);
  std::vector<double> times;
  const double start = Microseconds();
  for (std::size_t i = 0; GoesOn(plan, i, start); ++i) {
    times.push_back(Batch(call, calls));
    if (plan.between) plan.between();
  }
  return Of(std::move(times));
}

Comparison Compare(const Call& first, const Call& second, const Plan& plan) {
  const std::size_t calls = CallsPerBatch(first, plan);
  CallsPerBatch(second, plan);
  std::vector<double> ones;
  std::vector<double> others;
  std::vector<double> ratios;
  const double start = Microseconds();
  for (std::size_t i = 0; GoesOn(plan, i, start); ++i) {
    double one = 0;
    double other = 0;
    const auto runFirst = [&] {
      one = Batch(first, calls);
      if (plan.between) plan.between();
    };
    const auto runSecond = [&] {
      other = Batch(second, calls);
      if (plan.between) plan.between();
    };
    // Neither always comes first.
    if (i % 2 == 0) {
      runFirst();
      runSecond();
    } else {
      runSecond();
      runFirst();
    }
    ones.push_back(one);
    others.push_back(other);
    ratios.push_back(one / other);
  }
  return {Of(std::move(ones)), Of(std::move(others)), Of(std::move(ratios))};
}

}  // namespace bench
