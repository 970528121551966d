// The value of a tag as the server knows it: a type code, one value, and the byte form in which it travels.
//
// Byte form, little-endian: an optional 2-byte type word, then the payload:
//
//   types                                member                                   payload bytes
//   VT_I2 VT_UI2                         iVal uiVal                               2
//   VT_I4 VT_R4 VT_UI4 VT_INT VT_UINT    lVal fltVal ulVal intVal uintVal         4
//   VT_R8 VT_DATE VT_I8                  dblVal date llVal                        8
//   VT_BOOL VT_I1 VT_UI1                 boolVal cVal bVal                        1
//   VT_STR                               pStrVal                                  text and a NUL
//   all others                           none                                     0
#pragma once

#include "VariantPub.h"
#include "cstring.h"
#include "win_time.h"

#include <cstddef>
#include <optional>
#include <span>

class XVariant
{
public:
    VARTYPE vt = VT_EMPTY;
    union {
        CString* pStrVal; // owned; may be null
        bool boolVal;
        char cVal;
        BYTE bVal;
        short iVal;
        USHORT uiVal;
        int intVal;
        int lVal;
        UINT uintVal;
        UINT ulVal;
        float fltVal;
        double dblVal;
        DATE date;
        long long llVal;
    };

    XVariant() noexcept : llVal(0) {}
    // NOLINTBEGIN(google-explicit-constructor): a variant is made of a plain value wherever one is given
    XVariant(LPCSTR value);
    XVariant(bool value) noexcept;
    XVariant(char value) noexcept;
    XVariant(BYTE value) noexcept;
    XVariant(short value) noexcept;
    XVariant(USHORT value) noexcept;
    XVariant(int value) noexcept;
    XVariant(long value) noexcept;
    XVariant(UINT value) noexcept;
    XVariant(ULONG value) noexcept;
    XVariant(float value) noexcept;
    XVariant(long long value) noexcept;
    // NOLINTEND(google-explicit-constructor)
    /// vtKind: VT_DATE; any other is VT_R8.
    XVariant(double value, VARTYPE vtKind) noexcept;
    /// Copies the 8 bytes of a type without payload too; assignment does not.
    XVariant(const XVariant& other);
    XVariant(XVariant&& other) noexcept;
    ~XVariant() { Clear(); }

    XVariant& operator=(const XVariant& other);
    XVariant& operator=(XVariant&& other) noexcept;
    // One for each type: with fewer, a number of another type would pick the double.
    XVariant& operator=(LPCSTR value) { return *this = XVariant(value); }
    XVariant& operator=(bool value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(char value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(BYTE value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(short value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(USHORT value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(int value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(long value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(UINT value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(ULONG value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(float value) noexcept { return *this = XVariant(value); }
    XVariant& operator=(double value) noexcept { return *this = XVariant(value, VT_R8); }
    XVariant& operator=(long long value) noexcept { return *this = XVariant(value); }
    void Clear() noexcept;

    size_t BufferSize(bool bIncludeVT) const noexcept;
    /// Writes BufferSize bytes, whatever nBufLen says. Returns their number.
    size_t ToBuffer(BYTE* pBuffer, size_t nBufLen, bool bIncludeVT) const noexcept;
    /// Reads as far as the type requires: the caller vouches for the buffer. Returns the bytes consumed.
    /// Without type word the current type is kept.
    size_t FromBuffer(const BYTE* pBuffer, bool bIncludeVT);
    /// FromBuffer for bytes that a peer sent: nothing, and the variant unchanged, when the value runs past
    /// them. An array is its type word: what follows it is neither counted nor looked at, here and there.
    std::optional<size_t> FromBytes(std::span<const BYTE> bytes, bool bIncludeVT);

    static BYTE GetVTSize(VARTYPE vtSize) noexcept;
    /// Bytes of nCount packed values; booleans are packed as bits, dates count 0.
    static UINT GetVTSize(VARTYPE vtSize, UINT nCount) noexcept;
    /// 16-bit words of one value; 1 for whatever is not 4 or 8 bytes wide, dates too.
    static BYTE GetVTSizeW(VARTYPE vtSize) noexcept;

    // Conversions. A floating value is truncated to 64 bits, signed or unsigned, of which narrower targets
    // keep the low bits; NaN and what 64 bits do not hold give 0. The decimal point of texts is that of the
    // process's LC_NUMERIC, which Python leaves at "C".

    float ToFloat() const noexcept;
    double ToDouble() const noexcept;
    DATE ToDate() const;
    UINT ToInt() const noexcept;
    uint64_t ToInt64() const noexcept;
    bool ToBool() const noexcept { return ToInt() != 0; }
    /// 0, or 1 with a zero value of vtNew when that is no type to convert to. pSrc: converted in place of the
    /// own value, unless the type is vtNew already.
    HRESULT ChangeType(VARTYPE vtNew, const XVariant* pSrc = nullptr);
    /// nPointBit: number of decimals, -1 for the shortest natural form. False for a type without text.
    bool ToStringA(CString& str, int nPointBit) const;
    bool ToString(CString& str, int nPointBit) const { return ToStringA(str, nPointBit); }

private:
    void CopyPayload(const XVariant& other);
    size_t PayloadSize() const noexcept;
    size_t ReadPayload(const BYTE* pPayload);
    template <class T> T ToFloating() const noexcept;
};

/// Types differ: never equal. Types without payload are equal only if VT_EMPTY or VT_NULL.
bool operator==(const XVariant& left, const XVariant& right) noexcept;
