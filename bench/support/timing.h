// Timing helpers of the peer benchmarks: elapsed milliseconds and the median of repeats.
#pragma once
#include <algorithm>
#include <chrono>
#include <vector>

namespace benchtiming {

/// Milliseconds since @p t0.
inline double msSince(std::chrono::steady_clock::time_point t0)
{
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
}

/// The median of @p v (the upper middle value for an even count; @p v must not be empty).
inline double median(std::vector<double> v)
{
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

} // namespace benchtiming
