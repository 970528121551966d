// Builds the bytes of a message that grows with its content. What has a fixed size is written with
// CWireWriter; replies with lists of values have none.
#pragma once

#include "wintypes.h"

#include <concepts>
#include <span>
#include <string_view>
#include <vector>

using Bytes = std::vector<BYTE>;

class CByteSink
{
public:
    /// Little-endian, as nearly everything on this wire.
    template <std::unsigned_integral T> CByteSink& Put(T n)
    {
        for (size_t i = 0; i < sizeof(T); ++i)
            m_bytes.push_back(static_cast<BYTE>(n >> (8 * i)));
        return *this;
    }

    /// Network byte order: the few fields that differ.
    template <std::unsigned_integral T> CByteSink& PutBig(T n)
    {
        for (size_t i = sizeof(T); i-- > 0;)
            m_bytes.push_back(static_cast<BYTE>(n >> (8 * i)));
        return *this;
    }

    CByteSink& PutBytes(std::span<const BYTE> bytes)
    {
        m_bytes.insert(m_bytes.end(), bytes.begin(), bytes.end());
        return *this;
    }

    /// The characters alone.
    CByteSink& PutChars(std::string_view text)
    {
        m_bytes.insert(m_bytes.end(), text.begin(), text.end());
        return *this;
    }

    /// The text and its NUL.
    CByteSink& PutText(std::string_view text) { return PutChars(text).Put(BYTE{0}); }

    CByteSink& PutZeros(size_t nCount)
    {
        m_bytes.insert(m_bytes.end(), nCount, BYTE{0});
        return *this;
    }

    size_t Size() const noexcept { return m_bytes.size(); }
    std::span<const BYTE> View() const noexcept { return m_bytes; }
    Bytes Take() noexcept { return std::move(m_bytes); }

private:
    Bytes m_bytes;
};
