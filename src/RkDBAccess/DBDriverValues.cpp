// Reading, subscribing and writing values.
//
// Requests; all start with the command byte and n, the number of addresses or values (2 bytes):
//
//   'H'  n times: driver id (2), position (2)                                      at most 4096 bytes
//   'b'  n times: driver id (2), position (2), item 0 (1)                          at most 2600 bytes
//   'g'  n times: driver id (2), position (2), type word (2), payload              at most 2048 bytes
//
// Replies, blocks of typed values (type word and payload) in request order; a write has none:
//
//   'H'  offset 0: 'H', 1: 1 when more blocks follow, 2: length (2), 4: values
//   'b'  offset 0: 'b', 1: length (2), 3: values
#include "DBCore.h"
#include "DBDriver.h"

#include <array>
#include <bit>
#include <limits>
#include <optional>

namespace {

constexpr size_t READ_SIZE = 4096;
constexpr size_t MAX_READ = 1023; // addresses of 4 bytes behind the 3-byte head
constexpr size_t ADVISE_SIZE = 2600;
constexpr size_t MAX_ADVISE = 519; // addresses of 5 bytes
constexpr size_t WRITE_SIZE = 2048;
constexpr size_t WRITE_HEAD = 3;
constexpr size_t BLOCK_SIZE = 4096;
constexpr BYTE MORE_BLOCKS = 1;

using Block = std::array<BYTE, BLOCK_SIZE>;

/// Reads a block's payload. What does not fit the buffer is thrown away: a longer block has failed, but its
/// end is known.
bool ReadPayload(CSyncSocket& sock, Block& block, WORD nLen)
{
    for (size_t nLeft = nLen; nLeft > 0;) {
        const size_t nPart = std::min(nLeft, block.size());
        if (!sock.RecvAll(block.data(), static_cast<int>(nPart), 0))
            return false;
        nLeft -= nPart;
    }
    return true;
}

/// Reads the head of a block. One that begins with another byte is not awaited whole: how long it is is not
/// known.
template <size_t N> bool ReadBlockHead(CSyncSocket& sock, BYTE nCmd, std::array<BYTE, N>& head)
{
    const int nGot = sock._Recv(head.data(), N, 0);
    if (nGot < 1 || head[0] != nCmd)
        return false;
    return sock.RecvAll(head.data() + nGot, static_cast<int>(N) - nGot, 0);
}

void PutText(std::vector<BYTE>& buf, const char* szText, size_t nLen)
{
    const auto* pText = reinterpret_cast<const BYTE*>(szText);
    buf.insert(buf.end(), pText, pText + nLen + 1);
}

template <std::unsigned_integral T> void PutLittle(std::vector<BYTE>& buf, T n)
{
    for (size_t i = 0; i < sizeof(T); ++i)
        buf.push_back(static_cast<BYTE>(n >> (8 * i)));
}

bool TextToBuf(PyObject* objValue, std::vector<BYTE>& buf)
{
    Py_ssize_t nLen = 0;
    const char* szText = PyUnicode_AsUTF8AndSize(objValue, &nLen);
    if (!szText) {
        PyErr_Clear();
        return false;
    }
    // A NUL inside would end the value there and turn the rest into the next one's address.
    if (std::memchr(szText, 0, static_cast<size_t>(nLen)))
        return false;
    PutLittle(buf, WORD{VT_STR});
    PutText(buf, szText, static_cast<size_t>(nLen));
    return true;
}

} // namespace

bool ObjToBuf(PyObject* objValue, std::vector<BYTE>& buf)
{
    if (!objValue)
        return false;
    if (PyUnicode_Check(objValue))
        return TextToBuf(objValue, buf);
    if (PyBool_Check(objValue)) {
        PutLittle(buf, WORD{VT_BOOL});
        PutLittle(buf, static_cast<BYTE>(objValue == Py_True));
        return true;
    }
    if (PyLong_Check(objValue)) {
        PutLittle(buf, WORD{VT_I4});
        PutLittle(buf, static_cast<DWORD>(PyLong_AsUnsignedLongMask(objValue)));
        return true;
    }
    if (PyFloat_Check(objValue)) {
        PutLittle(buf, WORD{VT_R8});
        PutLittle(buf, std::bit_cast<uint64_t>(PyFloat_AS_DOUBLE(objValue)));
        return true;
    }
    return false;
}

PyObject* CDBDriver::ValueToObj(const XVariant* pValue)
{
    switch (pValue->vt) {
    case VT_I2:
        return PyLong_FromLong(pValue->iVal);
    case VT_I4:
    case VT_INT:
        return PyLong_FromLong(pValue->lVal);
    case VT_R4:
        return PyFloat_FromDouble(double{pValue->fltVal});
    case VT_R8:
        return PyFloat_FromDouble(pValue->dblVal);
    case VT_STR:
        return PyUnicode_FromString(pValue->pStrVal ? pValue->pStrVal->c_str() : "");
    case VT_BOOL:
        return PyBool_FromLong(pValue->boolVal);
    case VT_I1:
        return PyLong_FromLong(static_cast<signed char>(pValue->cVal));
    case VT_UI1:
        return PyLong_FromLong(pValue->bVal);
    case VT_UI2:
        return PyLong_FromLong(pValue->uiVal);
    case VT_UI4:
    case VT_UINT:
        return PyLong_FromUnsignedLong(pValue->ulVal);
    default:
        return nullptr;
    }
}

/// The slots whose values only the server knows, in order, and no more than fit a request.
CDBDriver::TagSlots CDBDriver::NotSubscribed(const TagSlots& reqTags, size_t nMax)
{
    TagSlots wanted;
    for (STag* pTag : reqTags) {
        if (pTag && !pTag->bSubscribe && wanted.size() < nMax)
            wanted.push_back(pTag);
    }
    return wanted;
}

XVariant CDBDriver::CopyValue(const STag& tag)
{
    const CThreadGuard guard(m_lock);
    return tag.value;
}

void CDBDriver::StoreRead(STag& tag, XVariant&& value)
{
    const CThreadGuard guard(m_lock);
    // A thread that had to wait for its turn may ask for what has been subscribed meanwhile: changes are
    // newer.
    if (!tag.bSubscribe)
        tag.value = std::move(value);
}

void CDBDriver::StoreAdvised(STag& tag, XVariant&& value)
{
    const CThreadGuard guard(m_lock);
    tag.value = std::move(value); // changes that have come in since the request are stored behind it
    tag.bSubscribe = true;
}

bool CDBDriver::_GetTagValue(const char* tags, TagSlots& reqTags)
{
    if (!CheckTagId(tags, reqTags))
        return false;
    const TagSlots wanted = NotSubscribed(reqTags, MAX_READ);
    if (wanted.empty())
        return true;
    const CCoreRef core(m_pDBCore);
    if (!core)
        return false;
    std::array<BYTE, READ_SIZE> request{};
    CWireWriter writer(request);
    writer.Put(CMD_READ_TAGS);
    writer.Put(static_cast<WORD>(wanted.size()));
    for (const STag* pTag : wanted) {
        writer.Put(m_drvId);
        writer.Put(pTag->id);
    }
    CExchange exchange(*core);
    if (!exchange.IsOpen() || !core->m_reqSock.SendAll(request.data(), static_cast<int>(writer.Length()), 0))
        return false;
    const auto eRead = ReadBlocks(*core, wanted);
    if (eRead != EBlocks::Broken)
        exchange.Succeed();
    return eRead == EBlocks::Good;
}

/// Reads block after block as long as more are announced, also behind a bad one and behind the last value:
/// nothing of the reply may be left for the next request.
CDBDriver::EBlocks CDBDriver::ReadBlocks(CDBCore& core, const TagSlots& wanted)
{
    Block block;
    size_t nStored = 0;
    auto eAll = EBlocks::Good;
    for (;;) {
        std::array<BYTE, 4> head{};
        if (!ReadBlockHead(core.m_reqSock, CMD_READ_TAGS, head))
            return EBlocks::Broken;
        const auto nLen = static_cast<WORD>(head[2] | head[3] << 8);
        if (!ReadPayload(core.m_reqSock, block, nLen))
            return EBlocks::Broken;
        if (nLen > block.size())
            eAll = EBlocks::Bad;
        else if (eAll == EBlocks::Good)
            eAll = StoreBlock(std::span<const BYTE>(block).first(nLen), wanted, nStored);
        if (head[1] != MORE_BLOCKS)
            return eAll;
    }
}

CDBDriver::EBlocks CDBDriver::StoreBlock(std::span<const BYTE> bytes, const TagSlots& wanted, size_t& nStored)
{
    while (!bytes.empty() && nStored < wanted.size()) {
        XVariant value;
        const auto nUsed = value.FromBytes(bytes, true);
        if (!nUsed)
            return EBlocks::Bad;
        StoreRead(*wanted[nStored++], std::move(value));
        bytes = bytes.subspan(*nUsed);
    }
    return EBlocks::Good;
}

PyObject* CDBDriver::GetTagValue(const char* tags)
{
    TagSlots reqTags;
    if (!_GetTagValue(tags, reqTags) || reqTags.empty() || (reqTags.size() == 1 && !reqTags[0]))
        return NewPyRef(Py_None).release();
    if (reqTags.size() == 1) {
        const XVariant value = CopyValue(*reqTags[0]);
        return ValueToObj(&value);
    }
    CPyRef list(PyList_New(static_cast<Py_ssize_t>(reqTags.size()))); // may run finalisers, which may fork
    if (IsForked())
        return NewPyRef(Py_None).release();
    for (size_t i = 0; list && i < reqTags.size(); ++i) {
        if (!reqTags[i])
            continue;
        const XVariant value = CopyValue(*reqTags[i]);
        PyObject* pItem = ValueToObj(&value);
        if (!pItem && PyErr_Occurred())
            return nullptr;
        PyList_SET_ITEM(list.get(), static_cast<Py_ssize_t>(i), pItem);
    }
    return list.release();
}

/// Marks slots as awaiting their first value for one scope.
class CDBDriver::CAwaiting
{
public:
    CAwaiting(CDBDriver& driver, const TagSlots& slots) : m_driver(driver), m_slots(slots) { Mark(true); }
    ~CAwaiting()
    {
        // The copy that a fork made may find the lock held by a thread that it does not have.
        if (!m_driver.IsForked())
            Mark(false);
    }
    CAwaiting(const CAwaiting&) = delete;
    CAwaiting& operator=(const CAwaiting&) = delete;

private:
    void Mark(bool bAwaited)
    {
        const CThreadGuard guard(m_driver.m_lock);
        for (STag* pTag : m_slots)
            pTag->bAwaited = bAwaited;
    }

    CDBDriver& m_driver;
    const TagSlots& m_slots;
};

bool CDBDriver::_ConnectTag(const char* tags)
{
    TagSlots reqTags;
    if (!CheckTagId(tags, reqTags))
        return false;
    const TagSlots wanted = NotSubscribed(reqTags, MAX_ADVISE);
    if (wanted.empty())
        return true;
    const CCoreRef core(m_pDBCore);
    if (!core)
        return false;
    std::array<BYTE, ADVISE_SIZE> request{};
    CWireWriter writer(request);
    writer.Put(CMD_ADVISE);
    writer.Put(static_cast<WORD>(wanted.size()));
    for (const STag* pTag : wanted) {
        writer.Put(m_drvId);
        writer.Put(pTag->id);
        writer.Put(BYTE{0});
    }
    std::optional<CAwaiting> awaiting; // to the end of the exchange, which may end the connection
    CExchange exchange(*core);
    if (!exchange.IsOpen())
        return false; // another call is under way, which may be the subscription of these very tags
    awaiting.emplace(*this, wanted);
    if (!core->m_reqSock.SendAll(request.data(), static_cast<int>(writer.Length()), 0) ||
        !ReadAdvised(*core, wanted))
        return false;
    exchange.Succeed();
    return true;
}

bool CDBDriver::ReadAdvised(CDBCore& core, const TagSlots& wanted)
{
    Block block;
    std::span<const BYTE> left;
    for (STag* pTag : wanted) {
        if (left.empty()) {
            std::array<BYTE, 3> head{};
            if (!ReadBlockHead(core.m_reqSock, CMD_ADVISE, head))
                return false;
            const auto nLen = static_cast<WORD>(head[1] | head[2] << 8);
            // A longer block hides how many values it has, and with them how many blocks follow.
            if (nLen > block.size() || !ReadPayload(core.m_reqSock, block, nLen))
                return false;
            left = std::span<const BYTE>(block).first(nLen);
        }
        XVariant value;
        const auto nUsed = value.FromBytes(left, true);
        if (!nUsed)
            return false;
        StoreAdvised(*pTag, std::move(value));
        left = left.subspan(*nUsed);
    }
    return true;
}

bool CDBDriver::AppendItem(const STag& tag, PyObject* pValue, std::vector<std::vector<BYTE>>& items)
{
    std::vector<BYTE> item;
    PutLittle(item, m_drvId);
    PutLittle(item, tag.id);
    if (!ObjToBuf(pValue, item) || WRITE_HEAD + item.size() > WRITE_SIZE)
        return false;
    items.push_back(std::move(item));
    return true;
}

EWrite CDBDriver::SetTagValue(const char* tags, PyObject* tagValues)
{
    const CCoreRef core(m_pDBCore);
    if (core && !(core->m_nRights & CDBCore::WRITE_RIGHT))
        return EWrite::NoRight;
    TagSlots reqTags;
    if (!CheckTagId(tags, reqTags))
        return EWrite::Failed;
    if (reqTags.empty())
        return core && core->IsConnected() ? EWrite::Sent : EWrite::Failed;
    std::vector<std::vector<BYTE>> items;
    if (reqTags.size() == 1) {
        if (!reqTags[0] || !AppendItem(*reqTags[0], tagValues, items))
            return EWrite::Refused;
    } else {
        if (!PyList_Check(tagValues))
            return EWrite::Refused;
        const auto nValues = static_cast<size_t>(PyList_GET_SIZE(tagValues));
        if (nValues < reqTags.size())
            return EWrite::Refused;
        for (size_t i = 0; i < reqTags.size(); ++i) {
            PyObject* pValue = PyList_GET_ITEM(tagValues, static_cast<Py_ssize_t>(i));
            if (reqTags[i] && !AppendItem(*reqTags[i], pValue, items))
                return EWrite::Refused;
        }
    }
    return core ? SendItems(*core, items) : EWrite::Failed;
}

/// Sends the values in as many requests as they need, each complete in itself. Without values one empty
/// request is sent all the same.
EWrite CDBDriver::SendItems(CDBCore& core, const std::vector<std::vector<BYTE>>& items)
{
    size_t nNext = 0;
    do {
        std::vector<BYTE> request{CMD_WRITE_TAGS, 0, 0};
        size_t nCount = 0;
        for (; nNext < items.size() && request.size() + items[nNext].size() <= WRITE_SIZE; ++nNext, ++nCount)
            request.insert(request.end(), items[nNext].begin(), items[nNext].end());
        request[1] = static_cast<BYTE>(nCount);
        request[2] = static_cast<BYTE>(nCount >> 8);
        CExchange exchange(core);
        const int nLen = static_cast<int>(request.size());
        if (!exchange.IsOpen() || core.m_reqSock._Send(request.data(), nLen, 0) != nLen)
            return EWrite::Failed;
        exchange.Succeed();
    } while (nNext < items.size());
    return EWrite::Sent;
}

bool CDBDriver::SetTagNotify(PyObject* pFn)
{
    const CCoreRef core(m_pDBCore);
    {
        const CThreadGuard guard(m_lock);
        if (!core || m_tagNotifyFn)
            return false;
    }
    // Both calls may run code of the script, which may fork, and which may end or drop the connection.
    auto pKept = std::make_shared<CTagCallback>(pFn, m_tags.size());
    core->KeepCallback(pKept);
    if (IsForked())
        return false;
    const CThreadGuard guard(m_lock);
    if (!m_pDBCore || m_tagNotifyFn)
        return false;
    m_tagNotifyFn = std::move(pKept);
    return true;
}

void CDBDriver::ForgetNotify()
{
    std::shared_ptr<CTagCallback> pFn; // outlives the lock
    const CThreadGuard guard(m_lock);
    pFn.swap(m_tagNotifyFn);
}
