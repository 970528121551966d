// See Replies.h.
#include "Replies.h"

#include "NetCmd.h"
#include "NotifyWalk.h"

#include <array>

namespace {

/// Splits encoded values into payloads of blocks.
std::vector<Bytes> Payloads(std::span<const XVariant* const> values, size_t nBlockSize)
{
    std::vector<Bytes> payloads;
    const XVariant none;
    for (const XVariant* pValue : values) {
        const XVariant& value = pValue ? *pValue : none;
        const size_t nSize = value.BufferSize(true);
        if (payloads.empty() || (!payloads.back().empty() && payloads.back().size() + nSize > nBlockSize)) {
            payloads.emplace_back();
            payloads.back().reserve(nBlockSize);
        }
        Bytes& payload = payloads.back();
        payload.resize(payload.size() + nSize);
        value.ToBuffer(payload.data() + payload.size() - nSize, nSize, true);
    }
    return payloads;
}

CByteSink SysNotifyHead(BYTE nSubType)
{
    CByteSink sink;
    sink.Put(SYSTEM_NOTIFY).Put(nSubType);
    return sink;
}

// Content bytes behind the sub-type, or behind the tag's address where there is one.
enum class EContent : BYTE
{
    None, // no such sub-type
    Plain,
    OfTag,
    TextOfTag,
};

struct SSysContent
{
    EContent eContent = EContent::None;
    BYTE nLen = 0;
};

constexpr auto SYS_CONTENT = [] {
    std::array<SSysContent, 256> table{};
    table[2] = table[5] = table[7] = {EContent::Plain, 4};
    table[4] = {EContent::Plain, 40};
    table[6] = {EContent::Plain, 17};
    table[8] = {EContent::Plain, 2};
    table[255] = {EContent::Plain, 0};
    table[9] = table[14] = table[15] = table[22] = {EContent::OfTag, 1};
    for (size_t i = 10; i <= 13; ++i)
        table[i] = {EContent::OfTag, 8};
    for (size_t i = 16; i <= 21; ++i)
        table[i] = {EContent::TextOfTag, 0};
    return table;
}();

} // namespace

Bytes EncodeLogin(DWORD nRights)
{
    return CByteSink().Put(CMD_LOGIN).PutZeros(4).Put(nRights).Take();
}

Bytes EncodePaths(const SPrjPaths& paths)
{
    CByteSink sink;
    sink.Put(CMD_PRJ_PATH);
    return sink.PutText(paths.strProject)
        .PutText(paths.strEvent)
        .PutText(paths.strAlarm)
        .PutText(paths.strHist)
        .Take();
}

Bytes EncodePositions(std::span<const WORD> positions, bool bContinued)
{
    CByteSink sink;
    if (!bContinued)
        sink.Put(CMD_GET_POS);
    for (const WORD nPosition : positions)
        sink.Put(nPosition).PutZeros(2);
    return sink.Take();
}

Bytes EncodeReleased()
{
    return {CMD_UNADVISE};
}

std::vector<Bytes> EncodeRead(std::span<const XVariant* const> values, size_t nBlockSize)
{
    std::vector<Bytes> payloads = Payloads(values, nBlockSize);
    if (payloads.empty())
        payloads.emplace_back();
    std::vector<Bytes> blocks;
    blocks.reserve(payloads.size());
    for (const Bytes& payload : payloads) {
        const bool bMore = blocks.size() + 1 < payloads.size();
        blocks.push_back(CByteSink()
                             .Put(CMD_READ_TAGS)
                             .Put(static_cast<BYTE>(bMore))
                             .Put(static_cast<WORD>(payload.size()))
                             .PutBytes(payload)
                             .Take());
    }
    return blocks;
}

std::vector<Bytes> EncodeAdvised(std::span<const XVariant* const> values, size_t nBlockSize)
{
    const std::vector<Bytes> payloads = Payloads(values, nBlockSize);
    std::vector<Bytes> blocks;
    blocks.reserve(payloads.size());
    for (const Bytes& payload : payloads)
        blocks.push_back(
            CByteSink().Put(CMD_ADVISE).Put(static_cast<WORD>(payload.size())).PutBytes(payload).Take());
    return blocks;
}

Bytes EncodeAlarms(std::span<const S2RtAlarm2> alarms)
{
    Bytes bytes(ALARMS_HEAD + alarms.size() * S2RtAlarm2::WIRE_SIZE);
    CWireWriter writer(bytes);
    writer.Put(CMD_RT_ALARM);
    writer.Put(static_cast<WORD>(alarms.size()));
    for (const S2RtAlarm2& alarm : alarms)
        WriteRtAlarm(writer, alarm);
    return bytes;
}

Bytes EncodeChange(STagRef tag, const XVariant& value)
{
    const size_t nSize = value.BufferSize(false);
    if (nSize == 0)
        return {};
    Bytes bytes(4 + nSize);
    CWireWriter writer(bytes);
    writer.Put(tag.nDriver);
    writer.Put(tag.nTag);
    value.ToBuffer(bytes.data() + 4, nSize, false);
    return bytes;
}

Bytes EncodeAlarmNews(const SAlarmNews& news)
{
    constexpr size_t HEAD = sizeof SYSTEM_NOTIFY + sizeof SYS_ALARM;
    Bytes bytes(HEAD + S2RtAlarm2::WIRE_SIZE);
    CWireWriter writer(bytes);
    writer.Put(SYSTEM_NOTIFY);
    writer.Put(news.bEnded ? SYS_ALARM_EVENT : SYS_ALARM);
    WriteRtAlarm(writer, news.record);
    return bytes;
}

Bytes EncodeSysNotify(BYTE nSubType, STagRef tag)
{
    const SSysContent& content = SYS_CONTENT[nSubType];
    CByteSink sink = SysNotifyHead(nSubType);
    if (SysNotifyNamesTag(nSubType))
        sink.Put(tag.nDriver).Put(tag.nTag);
    if (content.eContent == EContent::TextOfTag)
        sink.PutText("simulated");
    return sink.PutZeros(content.nLen).Take();
}

bool SysNotifyNamesTag(BYTE nSubType) noexcept
{
    return SYS_CONTENT[nSubType].eContent > EContent::Plain;
}

bool IsSysNotify(BYTE nSubType) noexcept
{
    return SYS_CONTENT[nSubType].eContent != EContent::None;
}
