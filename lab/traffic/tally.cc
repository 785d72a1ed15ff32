// Keeps a time of arrival for each number, not sums: a stretch of a flow is judged when its ends are known, which is
// after the packets have come. What is rare, repetitions and late arrivals, stands in lists of its own.
#include "lab/traffic/tally.h"

#include <algorithm>

namespace traffic {
namespace {

constexpr size_t kMostRanges = 1000;  // of one answer: enough to see where a loss is, and an answer stays short

uint64_t count_between(const std::vector<uint64_t> &numbers, uint64_t first, uint64_t last) {
  return static_cast<uint64_t>(std::count_if(numbers.begin(), numbers.end(),
                                             [&](uint64_t number) { return number >= first && number <= last; }));
}

void add_missing(uint64_t number, Ranges *missing) {
  if (!missing->empty() && missing->back().second + 1 == number)
    missing->back().second = number;
  else if (missing->size() < kMostRanges)
    missing->emplace_back(number, number);
}

int64_t longest_gap(std::vector<int64_t> times) {
  std::sort(times.begin(), times.end());
  int64_t longest = 0;
  for (size_t i = 1; i < times.size(); ++i) longest = std::max(longest, times[i] - times[i - 1]);
  return longest;
}

}  // namespace

void Tally::arrived(const TestPacket &packet, int64_t at_ns) {
  const uint64_t number = packet.number;
  if (number == 0 || number > kMostPackets) {
    ++beyond_;
    return;
  }
  if (arrivals_.size() < number) arrivals_.resize(number, 0);
  if (first_ == 0) first_ = number;
  if (arrivals_[number - 1] != 0) {
    repeated_.push_back(number);
    return;
  }
  arrivals_[number - 1] = at_ns;
  ++series_[packet.sent_ns / kBucketNs];
  if (number < highest_) late_.push_back(number);
  highest_ = std::max(highest_, number);
}

Stretch Tally::stretch(uint64_t first, uint64_t last) const {
  Stretch result;
  std::vector<int64_t> times;
  last = std::min(last, kMostPackets);
  for (uint64_t number = std::max<uint64_t>(first, 1); number <= last; ++number) {
    const int64_t at = number <= arrivals_.size() ? arrivals_[number - 1] : 0;
    if (at != 0) {
      times.push_back(at);
    } else {
      ++result.lost;
      add_missing(number, &result.missing);
    }
  }
  result.received = times.size();
  result.duplicates = count_between(repeated_, first, last);
  result.reordered = count_between(late_, first, last);
  result.longest_gap_ns = longest_gap(std::move(times));
  return result;
}

}  // namespace traffic
