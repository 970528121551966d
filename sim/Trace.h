// Prints each message in hex with its meaning, for whoever wants to see the wire.
#pragma once

#include "AlarmBook.h"
#include "Plant.h"
#include "Requests.h"
#include "Transfer.h"

#include <functional>

class CTrace
{
public:
    using FnMeaning = std::function<std::string()>;

    /// nMaxBytes: of a message, 0 for all.
    CTrace(bool bOn, size_t nMaxBytes) noexcept : m_bOn(bOn), m_nMaxBytes(nMaxBytes) {}

    bool IsOn() const noexcept { return m_bOn; }
    /// The meaning is only asked for while tracing is on.
    void Received(const std::string& strWho, std::span<const BYTE> bytes, const FnMeaning& fnMeaning) const
    {
        if (m_bOn)
            Print("<-", strWho, bytes, fnMeaning());
    }
    void Sent(const std::string& strWho, std::span<const BYTE> bytes, const FnMeaning& fnMeaning) const
    {
        if (m_bOn)
            Print("->", strWho, bytes, fnMeaning());
    }

private:
    void Print(const char* szArrow, const std::string& strWho, std::span<const BYTE> bytes,
               const std::string& strMeaning) const;

    bool m_bOn;
    size_t m_nMaxBytes;
};

/// GB2312 text for the log: in UTF-8, what is none escaped.
std::string Show(std::string_view text);
/// UTF-8 text for the log, in quotes, control characters escaped.
std::string ShowUtf8(std::string_view text);
std::string Show(const XVariant& value);
std::string ShowTag(const CPlant& plant, STagRef tag);

std::string Describe(const CPlant& plant, const Request& request);
/// The values, with type words, of a block's payload.
std::string DescribeValues(std::span<const BYTE> payload);
std::string DescribeChange(const CPlant& plant, STagRef tag);
std::string DescribeAlarm(const SProject& project, const SAlarmNews& news);
std::string Describe(const SFileHeader& header);
