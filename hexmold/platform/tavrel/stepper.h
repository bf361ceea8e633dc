/// @file  platform/tavrel/stepper.h
/// @brief `Tavrel::Math::Stepper`: cuts a total distance into equal increments of bounded size.
#pragma once
#include <cstdint>
#include <hexmold/export.h>
#include <hexmold/platform/quillon/string.h>

namespace Tavrel::Math {

/// @brief Cuts @p total into n = ceil(total / maximumIncrement) equal increments total / n.
/// @details Equal increments rather than full increments and a remainder: no step is ever much
///          shorter than the others, so an explicit front propagation driven by the stepper moves
///          the same distance in every iteration. Typical use:
///          @code
///          for (Stepper s(total, cfl); s; ) { float h = s.increment(); s.step(logger); ... }
///          @endcode
///          Invalid input gives a stepper without steps and a zero increment, never an endless
///          loop: a total that is zero, negative, infinite or NaN; a maximum increment that is
///          zero, negative or NaN; a step count above 2^53; an increment that rounds to zero in
///          single precision. A maximum increment of +infinity gives one step of the whole total.
///          The step count is the exact ceiling of the quotient of the two floats for counts
///          below 2^29 (the quotient is formed in double precision), and the increment never
///          exceeds maximumIncrement. The increments add up to total up to single-precision
///          rounding.
///          Not thread-safe: one stepper belongs to one driver loop.
class HEXMOLD_API Stepper {
public:
    /// Largest step count accepted; above it the stepper has no steps.
    static constexpr std::uint64_t kMaxStepCount = std::uint64_t(1) << 53;

    /// @param total             distance to cover, in any unit (world units for an offset); > 0
    /// @param maximumIncrement  largest distance of one step, same unit; > 0
    Stepper(float total, float maximumIncrement);

    /// Distance of every step; 0 when the stepper has no steps at all.
    float increment() const { return mIncrement; }

    /// @brief Takes one step; does nothing when no step remains.
    /// @param logger  receives one info line per step at verbose level above 2 ("Stepper: step
    ///                i of n, increment h, covered c of total"); any of the logger classes.
    template <typename Logger> void step(Logger const& logger)
    {
        if (!advance())
            return;
        if (isStepLogged())
            logger.info(describeLastStep());
    }

    /// True while steps remain.
    explicit operator bool() const { return mTaken < mCount; }

    /// Number of steps in all.
    std::uint64_t stepCount() const { return mCount; }
    /// Steps taken so far.
    std::uint64_t stepsTaken() const { return mTaken; }
    /// Steps still to take.
    std::uint64_t stepsRemaining() const { return mCount - mTaken; }
    /// Distance covered by the steps taken, in double precision.
    double covered() const { return static_cast<double>(mIncrement) * static_cast<double>(mTaken); }
    /// The total as given.
    float total() const { return mTotal; }
    /// The maximum increment as given.
    float maximumIncrement() const { return mMaximumIncrement; }

private:
    /// Counts one step; false when none remained.
    bool advance();
    /// Whether steps are logged (verbose level above 2), read at every step.
    static bool isStepLogged();
    /// The line logged for the step just taken.
    Quillon::String describeLastStep() const;

    float mTotal;
    float mMaximumIncrement;
    float mIncrement = 0.0f;
    std::uint64_t mCount = 0;
    std::uint64_t mTaken = 0;
};

} // namespace Tavrel::Math
