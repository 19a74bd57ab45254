// Times of calls in batches.
#pragma once

#include <cstddef>
#include <functional>

namespace bench {

struct Quartiles {
  double low = 0;
  double median = 0;
  double high = 0;
};

using Call = std::function<void()>;

// How a measurement is made.
struct Plan {
  std::size_t batches = 31;
  double batchMilliseconds = 10;  // at least
  double seconds = 20;            // after so long five batches are enough
  Call between;                   // runs between batches, untimed
};

// Microseconds of one call.
Quartiles TimeOf(const Call& call, const Plan& plan);

struct Comparison {
  Quartiles first;  // microseconds of one call
  Quartiles second;
  Quartiles ratio;  // of batches that ran one after the other
};

// Batches of both in turn, so that what disturbs the machine disturbs both.
Comparison Compare(const Call& first, const Call& second, const Plan& plan);

}  // namespace bench
