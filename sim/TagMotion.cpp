// The steps of the motions. A written value becomes the point from which ramps and walks go on.
#include "TagMotion.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <numbers>

namespace {

template <class T> XVariant Whole(double dNumber, VARTYPE vt)
{
    // The largest long long has no exact double; the next one below it has.
    constexpr double LARGEST =
        sizeof(T) < 8 ? static_cast<double>(std::numeric_limits<T>::max()) : 9223372036854774784.0;
    constexpr auto SMALLEST = static_cast<double>(std::numeric_limits<T>::min());
    const double dFit = std::isnan(dNumber) ? 0.0 : std::clamp(std::round(dNumber), SMALLEST, LARGEST);
    XVariant value(static_cast<long long>(dFit));
    value.ChangeType(vt);
    return value;
}

struct SStep
{
    SMotionState& state;
    const XVariant& current;
    double dElapsed;
    const XVariant* pFollowed;
    RandomSource& random;

    XVariant operator()(const SEchoMotion&) const { return current; }
    XVariant operator()(const SConstantMotion&) const { return current; }

    XVariant operator()(const SFollowMotion&) const
    {
        XVariant value(pFollowed ? *pFollowed : current);
        value.ChangeType(current.vt);
        return value;
    }

    XVariant operator()(const SRampMotion& ramp) const
    {
        StartFromCurrent();
        double dNext = state.dExact + (state.bBackwards ? -ramp.dStep : ramp.dStep);
        const bool bOver = dNext > ramp.dHigh;
        if (bOver || dNext < ramp.dLow) {
            if (ramp.bBounce) {
                state.bBackwards = !state.bBackwards;
                dNext = bOver ? ramp.dHigh : ramp.dLow;
            } else {
                dNext = bOver ? ramp.dLow : ramp.dHigh;
            }
        }
        return Keep(dNext);
    }

    XVariant operator()(const SSineMotion& sine) const
    {
        const double dAngle = 2 * std::numbers::pi * (dElapsed / sine.dCycle + sine.dPhase);
        return NumberToValue((sine.dLow + sine.dHigh) / 2 + (sine.dHigh - sine.dLow) / 2 * std::sin(dAngle),
                             current.vt);
    }

    XVariant operator()(const SWalkMotion& walk) const
    {
        StartFromCurrent();
        const double dStep = std::uniform_real_distribution<double>(-walk.dStep, walk.dStep)(random);
        return Keep(std::clamp(state.dExact + dStep, walk.dLow, walk.dHigh));
    }

    XVariant operator()(const SCycleMotion& cycle) const
    {
        state.nNext %= cycle.values.size();
        return cycle.values[state.nNext++];
    }

    /// A value that is not what the last step made was written by a client.
    void StartFromCurrent() const
    {
        if (!(NumberToValue(state.dExact, current.vt) == current))
            state.dExact = current.ToDouble();
    }

    XVariant Keep(double dExact) const
    {
        state.dExact = dExact;
        return NumberToValue(dExact, current.vt);
    }
};

} // namespace

XVariant NumberToValue(double dNumber, VARTYPE vt)
{
    switch (vt) {
    case VT_I1:
        return Whole<int8_t>(dNumber, vt);
    case VT_UI1:
        return Whole<uint8_t>(dNumber, vt);
    case VT_I2:
        return Whole<int16_t>(dNumber, vt);
    case VT_UI2:
        return Whole<uint16_t>(dNumber, vt);
    case VT_I4:
    case VT_INT:
        return Whole<int32_t>(dNumber, vt);
    case VT_UI4:
    case VT_UINT:
        return Whole<uint32_t>(dNumber, vt);
    case VT_I8:
        return Whole<long long>(dNumber, vt);
    case VT_BOOL:
        return XVariant(dNumber >= 0.5);
    case VT_R4:
        return XVariant(static_cast<float>(dNumber));
    case VT_R8:
    case VT_DATE:
        return XVariant(dNumber, vt);
    default: {
        XVariant value(dNumber, VT_R8);
        value.ChangeType(vt);
        return value;
    }
    }
}

XVariant StepMotion(const TagMotion& motion, SMotionState& state, const XVariant& current, double dElapsed,
                    const XVariant* pFollowed, RandomSource& random)
{
    return std::visit(SStep{state, current, dElapsed, pFollowed, random}, motion);
}
