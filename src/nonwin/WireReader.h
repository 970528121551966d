// Bounds-checked little-endian reading and writing of bytes that a peer sent or gets.
//
// Every record that leaves or enters a socket or a project file goes through these two, so that no byte
// outside a buffer is ever touched, whatever the peer says about lengths.
#pragma once

#include "wintypes.h"

#include <concepts>
#include <cstring>
#include <span>
#include <string_view>

/// Reads little-endian fields. The first read past the end latches IsBad() and every later read gives 0 (or
/// an empty text), so a caller reads a whole record and asks once. The bytes must outlive the reader.
class CWireReader
{
public:
    explicit CWireReader(std::span<const BYTE> bytes) noexcept : m_bytes(bytes) {}

    template <std::unsigned_integral T> T Get() noexcept
    {
        if (m_bBad || m_bytes.size() < sizeof(T)) {
            m_bBad = true;
            return 0;
        }
        T n = 0;
        for (size_t i = 0; i < sizeof(T); ++i)
            n = static_cast<T>(n | static_cast<T>(static_cast<T>(m_bytes[i]) << (8 * i)));
        m_bytes = m_bytes.subspan(sizeof(T));
        return n;
    }

    /// The bytes up to the next NUL, which is consumed too. No NUL before the end is bad.
    std::string_view Text() noexcept
    {
        const void* pNul =
            m_bBad || m_bytes.empty() ? nullptr : std::memchr(m_bytes.data(), 0, m_bytes.size());
        if (!pNul) {
            m_bBad = true;
            return {};
        }
        const auto nLen = static_cast<size_t>(static_cast<const BYTE*>(pNul) - m_bytes.data());
        const std::string_view text(reinterpret_cast<const char*>(m_bytes.data()), nLen);
        m_bytes = m_bytes.subspan(nLen + 1);
        return text;
    }

    std::span<const BYTE> Bytes(size_t nLen) noexcept
    {
        if (m_bBad || m_bytes.size() < nLen) {
            m_bBad = true;
            return {};
        }
        const auto part = m_bytes.first(nLen);
        m_bytes = m_bytes.subspan(nLen);
        return part;
    }

    void Skip(size_t nLen) noexcept { static_cast<void>(Bytes(nLen)); }
    bool IsBad() const noexcept { return m_bBad; }
    size_t Left() const noexcept { return m_bytes.size(); }
    std::span<const BYTE> Rest() const noexcept { return m_bytes; }

private:
    std::span<const BYTE> m_bytes;
    bool m_bBad = false;
};

/// Writes little-endian fields into a fixed buffer. The first write that does not fit latches IsBad(), writes
/// nothing and lets every later write do nothing; Length() is then what was whole before it.
class CWireWriter
{
public:
    explicit CWireWriter(std::span<BYTE> room) noexcept : m_room(room) {}

    template <std::unsigned_integral T> void Put(T n) noexcept
    {
        if (!Fits(sizeof(T)))
            return;
        for (size_t i = 0; i < sizeof(T); ++i)
            m_room[m_nLen + i] = static_cast<BYTE>(n >> (8 * i));
        m_nLen += sizeof(T);
    }

    void PutBytes(const void* pBytes, size_t nLen) noexcept
    {
        if (!Fits(nLen) || nLen == 0)
            return;
        std::memcpy(m_room.data() + m_nLen, pBytes, nLen);
        m_nLen += nLen;
    }

    /// The text and its NUL.
    void PutText(std::string_view text) noexcept
    {
        if (!Fits(text.size() + 1))
            return;
        PutBytes(text.data(), text.size());
        Put(BYTE{0});
    }

    bool IsBad() const noexcept { return m_bBad; }
    size_t Length() const noexcept { return m_nLen; }
    size_t Room() const noexcept { return m_room.size() - m_nLen; }

private:
    bool Fits(size_t nLen) noexcept
    {
        m_bBad = m_bBad || m_room.size() - m_nLen < nLen;
        return !m_bBad;
    }

    std::span<BYTE> m_room;
    size_t m_nLen = 0;
    bool m_bBad = false;
};
