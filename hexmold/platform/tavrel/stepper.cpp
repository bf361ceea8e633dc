/// @file  platform/tavrel/stepper.cpp
/// @brief Step count and increment of `Tavrel::Math::Stepper`, and its log line.
#include <hexmold/platform/tavrel/stepper.h>

#include <algorithm>
#include <cmath>
#include <hexmold/platform/quillon/debug_settings.h>
#include <sstream>

namespace Tavrel::Math {

Stepper::Stepper(float total, float maximumIncrement)
    : mTotal(total), mMaximumIncrement(maximumIncrement)
{
    double const t = total;
    double const m = maximumIncrement;
    // The negated comparisons also reject NaN.
    if (!(t > 0.0) || !std::isfinite(t) || !(m > 0.0))
        return;
    // An infinite maximum gives a quotient of 0: still one step.
    double const count = std::max(1.0, std::ceil(t / m));
    if (!(count <= static_cast<double>(kMaxStepCount)))
        return;
    // t / count <= m in exact arithmetic, and rounding is monotonic, so the min only guards
    // against a count that the double quotient got one too small (counts of 2^29 and more).
    float const increment = std::min(static_cast<float>(t / count), maximumIncrement);
    if (!(increment > 0.0f))
        return;
    mIncrement = increment;
    mCount = static_cast<std::uint64_t>(count);
}

bool Stepper::advance()
{
    if (mTaken >= mCount)
        return false;
    ++mTaken;
    return true;
}

bool Stepper::isStepLogged()
{
    return Quillon::DebugSettings::verboseLevel.load(std::memory_order_relaxed) > 2;
}

Quillon::String Stepper::describeLastStep() const
{
    std::ostringstream line;
    line << "Stepper: step " << mTaken << " of " << mCount << ", increment " << mIncrement
         << ", covered " << covered() << " of " << mTotal;
    return line.str();
}

} // namespace Tavrel::Math
