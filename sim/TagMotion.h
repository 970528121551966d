// How a tag's value moves by itself: one record a kind, and the step from one value to the next.
//
// A motion is a description; what it must remember from step to step is in SMotionState, so that the
// description can stay in the project and be shared.
#pragma once

#include "XVariant.h"

#include <random>
#include <variant>
#include <vector>

/// Keeps what was written last. A tag without a motion does this.
struct SEchoMotion
{
};

/// Never changes; writes to it are ignored.
struct SConstantMotion
{
};

/// Takes the value of another tag of its driver at each step: the plant's answer to a set-point.
struct SFollowMotion
{
    WORD nTag = 0;
};

/// Goes on by dStep; behind an end it starts over at the other one, or turns round.
struct SRampMotion
{
    double dLow = 0;
    double dHigh = 0;
    double dStep = 0;
    bool bBounce = false;
};

struct SSineMotion
{
    double dLow = 0;
    double dHigh = 0;
    double dCycle = 1; // seconds of one wave
    double dPhase = 0; // part of a wave by which it is ahead
};

/// A random walk: each step differs by at most dStep and stays between the ends.
struct SWalkMotion
{
    double dLow = 0;
    double dHigh = 0;
    double dStep = 0;
};

/// One value after the other, then from the first again: for texts.
struct SCycleMotion
{
    std::vector<XVariant> values; // of the tag's type, never empty
};

using TagMotion = std::variant<SEchoMotion, SConstantMotion, SFollowMotion, SRampMotion, SSineMotion,
                               SWalkMotion, SCycleMotion>;

/// Whether this kind changes without being written to.
inline bool MovesByItself(const TagMotion& motion) noexcept
{
    return motion.index() > 1;
}

struct SMotionState
{
    double dExact = 0; // the value before rounding to the tag's type, so that small steps add up
    bool bBackwards = false;
    size_t nNext = 0;
};

using RandomSource = std::mt19937_64;

/// The number as a value of this type; integers are rounded and booleans are true from 0.5 on. Out of the
/// type's range: its nearest end.
XVariant NumberToValue(double dNumber, VARTYPE vt);

/// The next value. dElapsed: seconds since the start. followed: the value of the followed tag, where there
/// is one.
XVariant StepMotion(const TagMotion& motion, SMotionState& state, const XVariant& current, double dElapsed,
                    const XVariant* pFollowed, RandomSource& random);
