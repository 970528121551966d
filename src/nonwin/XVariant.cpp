// See XVariant.h; the payload table there is TraitsOf here.
#include "XVariant.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

// Values are copied between the union and the wire as they are.
static_assert(std::endian::native == std::endian::little, "the wire is little-endian");
static_assert(sizeof(double) == 8 && sizeof(float) == 4 && sizeof(bool) == 1);
static_assert(sizeof(XVariant) == 16);

namespace {

/// A floating value as an integer: truncated toward zero, negative ones in two's complement. 0 for NaN and
/// for what neither a signed nor an unsigned 64-bit integer holds, for which the language has no result.
uint64_t Truncate(double value) noexcept
{
    constexpr double TWO_TO_63 = 9223372036854775808.0;
    if (value >= TWO_TO_63 && value < 2 * TWO_TO_63)
        return static_cast<uint64_t>(value);
    return value >= -TWO_TO_63 && value < TWO_TO_63 ? static_cast<uint64_t>(static_cast<int64_t>(value)) : 0;
}

const char* TextOf(const XVariant& value) noexcept
{
    return value.pStrVal ? value.pStrVal->c_str() : "";
}

/// "#RRGGBB" as a colour with red in the lowest byte.
UINT ColourOf(const char* szHex) noexcept
{
    const auto n = static_cast<UINT>(std::strtoul(szHex, nullptr, 16));
    return (n & 0xFF00FF00) | (n & 0xFF) << 16 | (n >> 16 & 0xFF);
}

template <class... TArgs> CString Print(const char* szFormat, TArgs... args)
{
    const int nLen = std::snprintf(nullptr, 0, szFormat, args...);
    std::string strText(static_cast<size_t>(nLen), '\0');
    std::snprintf(strText.data(), strText.size() + 1, szFormat, args...);
    return CString(std::move(strText));
}

bool IsDecimals(int nPointBit) noexcept
{
    return nPointBit >= 1 && nPointBit <= 10;
}

CString PrintWhole(CString strDigits, int nPointBit)
{
    if (IsDecimals(nPointBit))
        strDigits.append(".").append(static_cast<size_t>(nPointBit), '0');
    return strDigits;
}

CString PrintFloating(double value, int nPointBit)
{
    if (IsDecimals(nPointBit))
        return Print("%.*f", nPointBit, value);
    if (nPointBit == 0)
        return Print("%d", static_cast<int>(Truncate(std::round(value)))); // rounds halves away from zero
    return Print("%g", value);
}

} // namespace

CString::CString(const XVariant& value)
{
    if (value.vt == VT_STR)
        assign(TextOf(value), value.pStrVal ? value.pStrVal->size() : 0);
    else
        value.ToStringA(*this, -1);
}

XVariant::XVariant(LPCSTR value) : vt(VT_STR), llVal(0)
{
    pStrVal = new CString(value);
}
XVariant::XVariant(bool value) noexcept : vt(VT_BOOL), llVal(0)
{
    boolVal = value;
}
XVariant::XVariant(char value) noexcept : vt(VT_I1), llVal(0)
{
    cVal = value;
}
XVariant::XVariant(BYTE value) noexcept : vt(VT_UI1), llVal(0)
{
    bVal = value;
}
XVariant::XVariant(short value) noexcept : vt(VT_I2), llVal(0)
{
    iVal = value;
}
XVariant::XVariant(USHORT value) noexcept : vt(VT_UI2), llVal(0)
{
    uiVal = value;
}
XVariant::XVariant(int value) noexcept : vt(VT_I4), llVal(0)
{
    lVal = value;
}
XVariant::XVariant(long value) noexcept : XVariant(static_cast<int>(value)) {}
XVariant::XVariant(UINT value) noexcept : vt(VT_UI4), llVal(0)
{
    ulVal = value;
}
XVariant::XVariant(ULONG value) noexcept : XVariant(static_cast<UINT>(value)) {}
XVariant::XVariant(float value) noexcept : vt(VT_R4), llVal(0)
{
    fltVal = value;
}
XVariant::XVariant(long long value) noexcept : vt(VT_I8), llVal(value) {}
XVariant::XVariant(double value, VARTYPE vtKind) noexcept : vt(vtKind == VT_DATE ? VT_DATE : VT_R8), llVal(0)
{
    dblVal = value;
}

XVariant::XVariant(const XVariant& other) : vt(other.vt), llVal(0)
{
    if (vt == VT_STR || GetVTSize(vt) != 0)
        CopyPayload(other);
    else
        llVal = other.llVal;
}

XVariant::XVariant(XVariant&& other) noexcept : vt(std::exchange(other.vt, VARTYPE{VT_EMPTY})), llVal(0)
{
    std::memcpy(&llVal, &other.llVal, sizeof llVal);
    other.llVal = 0;
}

XVariant& XVariant::operator=(const XVariant& other)
{
    if (this == &other)
        return *this;
    XVariant copy; // without memory for a text the old value stays
    copy.vt = other.vt;
    copy.CopyPayload(other);
    return *this = std::move(copy);
}

XVariant& XVariant::operator=(XVariant&& other) noexcept
{
    if (this == &other)
        return *this;
    Clear();
    vt = std::exchange(other.vt, VARTYPE{VT_EMPTY});
    std::memcpy(&llVal, &other.llVal, sizeof llVal);
    other.llVal = 0;
    return *this;
}

/// REQUIRES: vt is that of other, the union is zero.
void XVariant::CopyPayload(const XVariant& other)
{
    if (vt == VT_STR)
        pStrVal = other.pStrVal ? new CString(*other.pStrVal) : nullptr;
    else
        std::memcpy(&llVal, &other.llVal, GetVTSize(vt));
}

void XVariant::Clear() noexcept
{
    if (vt == VT_STR)
        delete pStrVal;
    vt = VT_EMPTY;
    llVal = 0;
}

BYTE XVariant::GetVTSize(VARTYPE vtSize) noexcept
{
    switch (vtSize) {
    case VT_I2:
    case VT_UI2:
        return 2;
    case VT_I4:
    case VT_R4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
        return 4;
    case VT_R8:
    case VT_DATE:
    case VT_I8:
        return 8;
    case VT_BOOL:
    case VT_I1:
    case VT_UI1:
        return 1;
    default:
        return 0;
    }
}

UINT XVariant::GetVTSize(VARTYPE vtSize, UINT nCount) noexcept
{
    if (vtSize == VT_BOOL)
        return static_cast<UINT>((uint64_t{nCount} + 7) / 8);
    return vtSize == VT_DATE ? 0 : GetVTSize(vtSize) * nCount;
}

BYTE XVariant::GetVTSizeW(VARTYPE vtSize) noexcept
{
    const BYTE nSize = vtSize == VT_DATE ? BYTE{0} : GetVTSize(vtSize);
    return nSize >= 4 ? static_cast<BYTE>(nSize / 2) : BYTE{1};
}

size_t XVariant::PayloadSize() const noexcept
{
    if (vt == VT_STR)
        return std::strlen(TextOf(*this)) + 1;
    return GetVTSize(vt);
}

size_t XVariant::BufferSize(bool bIncludeVT) const noexcept
{
    return (bIncludeVT ? sizeof vt : 0) + PayloadSize();
}

size_t XVariant::ToBuffer(BYTE* pBuffer, size_t, bool bIncludeVT) const noexcept
{
    BYTE* pTo = pBuffer;
    if (bIncludeVT) {
        *pTo++ = static_cast<BYTE>(vt);
        *pTo++ = static_cast<BYTE>(vt >> 8);
    }
    const size_t nPayload = PayloadSize();
    if (vt == VT_STR)
        std::memcpy(pTo, TextOf(*this), nPayload);
    else
        std::memcpy(pTo, &llVal, nPayload);
    return static_cast<size_t>(pTo - pBuffer) + nPayload;
}

/// REQUIRES: the union is zero and the whole payload is there. Returns its size.
size_t XVariant::ReadPayload(const BYTE* pPayload)
{
    if (vt == VT_STR) {
        pStrVal = new CString(reinterpret_cast<const char*>(pPayload));
        return pStrVal->size() + 1;
    }
    // Elements of an array are neither kept nor counted, so none is looked at.
    if (vt == VT_ARRAY)
        vt = VT_ARRAY | VT_VARIANT;
    const size_t nPayload = GetVTSize(vt);
    if (vt == VT_BOOL)
        boolVal = *pPayload != 0;
    else
        std::memcpy(&llVal, pPayload, nPayload);
    return nPayload;
}

size_t XVariant::FromBuffer(const BYTE* pBuffer, bool bIncludeVT)
{
    const VARTYPE vtNew = bIncludeVT ? static_cast<VARTYPE>(pBuffer[0] | pBuffer[1] << 8) : vt;
    const size_t nHead = bIncludeVT ? sizeof vt : 0;
    Clear();
    vt = vtNew;
    return nHead + ReadPayload(pBuffer + nHead);
}

std::optional<size_t> XVariant::FromBytes(std::span<const BYTE> bytes, bool bIncludeVT)
{
    const size_t nHead = bIncludeVT ? sizeof vt : 0;
    if (bytes.size() < nHead)
        return std::nullopt;
    const VARTYPE vtNew = bIncludeVT ? static_cast<VARTYPE>(bytes[0] | bytes[1] << 8) : vt;
    const auto payload = bytes.subspan(nHead);
    const bool bWhole = vtNew == VT_STR ? !payload.empty() && std::memchr(payload.data(), 0, payload.size())
                                        : payload.size() >= GetVTSize(vtNew);
    if (!bWhole)
        return std::nullopt;
    // Without a type word and a payload there is not a byte to point at.
    static constexpr BYTE NOTHING[sizeof vt] = {};
    return FromBuffer(bytes.empty() ? NOTHING : bytes.data(), bIncludeVT);
}

template <class T> T XVariant::ToFloating() const noexcept
{
    switch (vt) {
    case VT_I2:
        return static_cast<T>(iVal);
    case VT_I4:
    case VT_INT:
        return static_cast<T>(lVal);
    case VT_I1:
        return static_cast<T>(static_cast<signed char>(cVal));
    case VT_I8:
        return static_cast<T>(llVal);
    case VT_UI1:
        return static_cast<T>(bVal);
    case VT_UI2:
        return static_cast<T>(uiVal);
    case VT_UI4:
    case VT_UINT:
        return static_cast<T>(ulVal);
    case VT_R4:
        return static_cast<T>(fltVal);
    case VT_R8:
    case VT_DATE:
        return static_cast<T>(dblVal);
    case VT_BOOL:
        return boolVal ? T{1} : T{0};
    case VT_STR:
        return static_cast<T>(std::strtod(TextOf(*this), nullptr));
    default:
        return T{0};
    }
}

float XVariant::ToFloat() const noexcept
{
    return ToFloating<float>();
}

double XVariant::ToDouble() const noexcept
{
    return ToFloating<double>();
}

DATE XVariant::ToDate() const
{
    return vt == VT_STR ? StrToDate(TextOf(*this)) : ToDouble();
}

UINT XVariant::ToInt() const noexcept
{
    if (vt == VT_STR && *TextOf(*this) != '#')
        return static_cast<UINT>(std::strtoul(TextOf(*this), nullptr, 10));
    return static_cast<UINT>(ToInt64());
}

uint64_t XVariant::ToInt64() const noexcept
{
    switch (vt) {
    case VT_I2:
        return static_cast<uint64_t>(int64_t{iVal});
    case VT_I1:
        return static_cast<uint64_t>(int64_t{static_cast<signed char>(cVal)});
    case VT_UI1:
        return bVal;
    case VT_BOOL:
        return boolVal ? 1 : 0;
    case VT_UI2:
        return uiVal;
    case VT_I4:
    case VT_INT:
        return static_cast<uint64_t>(int64_t{lVal});
    case VT_UI4:
    case VT_UINT:
        return ulVal;
    case VT_I8:
        return static_cast<uint64_t>(llVal);
    case VT_R4:
        return Truncate(double{fltVal});
    case VT_R8:
    case VT_DATE:
        return Truncate(dblVal);
    case VT_STR:
        return *TextOf(*this) == '#' ? ColourOf(TextOf(*this) + 1)
                                     : std::strtoull(TextOf(*this), nullptr, 10);
    default:
        return 0;
    }
}

HRESULT XVariant::ChangeType(VARTYPE vtNew, const XVariant* pSrc)
{
    if (vt == vtNew)
        return 0;
    const XVariant own(*this);
    const XVariant& source = pSrc && pSrc != this ? *pSrc : own;
    Clear();
    vt = vtNew;
    switch (vtNew) {
    case VT_I2:
    case VT_UI2:
        uiVal = static_cast<USHORT>(source.ToInt());
        return 0;
    case VT_I4:
    case VT_UI4:
    case VT_INT:
    case VT_UINT:
        ulVal = source.ToInt();
        return 0;
    case VT_R4:
        fltVal = source.ToFloat();
        return 0;
    case VT_R8:
        dblVal = source.ToDouble();
        return 0;
    case VT_DATE:
        date = source.ToDate();
        return 0;
    case VT_STR:
        pStrVal = new CString;
        source.ToStringA(*pStrVal, -1);
        return 0;
    case VT_BOOL:
        boolVal = source.ToBool();
        return 0;
    case VT_I1:
    case VT_UI1:
        bVal = static_cast<BYTE>(source.ToInt());
        return 0;
    case VT_I8:
        llVal = static_cast<long long>(source.ToInt64());
        return 0;
    default:
        return 1;
    }
}

bool XVariant::ToStringA(CString& str, int nPointBit) const
{
    switch (vt) {
    case VT_STR:
        str = pStrVal ? *pStrVal : CString();
        return true;
    case VT_I2:
    case VT_I4:
    case VT_INT:
    case VT_I1:
    case VT_UI1:
    case VT_UI2:
        str = PrintWhole(Print("%d", static_cast<int>(ToInt())), nPointBit);
        return true;
    case VT_UI4:
    case VT_UINT:
        str = PrintWhole(Print("%u", ulVal), nPointBit);
        return true;
    case VT_I8:
        str = Print("%d", static_cast<int>(ToInt()));
        return true;
    case VT_R4:
    case VT_R8:
        str = PrintFloating(ToDouble(), nPointBit);
        return true;
    case VT_BOOL:
        str = boolVal ? "1" : "0";
        return true;
    case VT_DATE:
        DateToText(date, str);
        return true;
    default:
        str.clear();
        return false;
    }
}

bool operator==(const XVariant& left, const XVariant& right) noexcept
{
    if (left.vt != right.vt)
        return false;
    switch (left.vt) {
    case VT_EMPTY:
    case VT_NULL:
        return true;
    case VT_R4:
        return left.fltVal == right.fltVal;
    case VT_R8:
    case VT_DATE:
        return left.dblVal == right.dblVal;
    case VT_STR:
        return std::strcmp(TextOf(left), TextOf(right)) == 0;
    default:
        const BYTE nSize = XVariant::GetVTSize(left.vt);
        return nSize != 0 && std::memcmp(&left.llVal, &right.llVal, nSize) == 0;
    }
}
