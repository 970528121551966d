// Writes: for any list of names and any values, what goes out is what a second reading of names and values
// gives, byte for byte, and nothing when the write is refused.
#include "core_under_test.h"

#include <algorithm>
#include <map>
#include <set>

namespace {

constexpr WORD TAGS = 16;
constexpr int MAX_WRITES = 12;
constexpr size_t MAX_REQUEST = 2048;
constexpr size_t MAX_LOOKUP = 768;
constexpr size_t MAX_NAME = MAX_LOOKUP - 4;
constexpr size_t MAX_VALUES = 600;
constexpr size_t REPEATS = 200;

using Bytes = std::vector<BYTE>;

void Append(Bytes& bytes, std::span<const BYTE> more)
{
    bytes.insert(bytes.end(), more.begin(), more.end());
}

void AppendWord(Bytes& bytes, size_t n)
{
    bytes.insert(bytes.end(), {static_cast<BYTE>(n), static_cast<BYTE>(n >> 8)});
}

/// A script's value, and its encoded form; none for what cannot be sent.
struct SValue
{
    CPyRef object;
    std::optional<Bytes> encoded;
};

SValue Text(std::string_view text)
{
    const auto nLen = static_cast<Py_ssize_t>(text.size());
    SValue value{CPyRef(PyUnicode_DecodeUTF8(text.data(), nLen, "strict")), std::nullopt};
    if (!value.object) { // such texts exist: file names, what a protocol delivers
        PyErr_Clear();
        value.object.reset(PyUnicode_DecodeUTF8(text.data(), nLen, "surrogateescape"));
    } else if (text.find('\0') == text.npos) {
        value.encoded = Bytes{8, 0};
        value.encoded->insert(value.encoded->end(), text.begin(), text.end());
        value.encoded->push_back(0);
    }
    return value;
}

/// Of any size: Python's integers have no limit, and what goes out are the low 32 bits.
SValue Integer(std::span<const BYTE> bytes)
{
    const auto* pType = reinterpret_cast<PyObject*>(&PyLong_Type);
    const CPyRef method(PyObject_GetAttrString(const_cast<PyObject*>(pType), "from_bytes"));
    const CPyRef args(Py_BuildValue("(y#s)", reinterpret_cast<const char*>(bytes.data()),
                                    static_cast<Py_ssize_t>(bytes.size()), "little"));
    const CPyRef keywords(Py_BuildValue("{s:O}", "signed", Py_True));
    SValue value{CPyRef(PyObject_Call(method.get(), args.get(), keywords.get())), Bytes{3, 0}};
    const BYTE nSign = !bytes.empty() && bytes.back() & 0x80 ? 0xFF : 0;
    for (size_t i = 0; i < 4; ++i)
        value.encoded->push_back(i < bytes.size() ? bytes[i] : nSign);
    return value;
}

SValue Float(std::span<const BYTE> bytes)
{
    Bytes encoded(bytes.begin(), bytes.end());
    encoded.resize(8);
    const double d = std::bit_cast<double>(Number(encoded));
    encoded.insert(encoded.begin(), {5, 0});
    return {CPyRef(PyFloat_FromDouble(d)), encoded};
}

SValue TakeValue(CInput& input)
{
    const BYTE nKind = input.Byte();
    switch (nKind % 8) {
    case 0:
        return {NewPyRef(nKind & 8 ? Py_True : Py_False), Bytes{11, 0, static_cast<BYTE>(nKind >> 3 & 1)}};
    case 1:
        return Integer(input.Segment());
    case 2:
        return Float(input.Segment().first(0));
    case 3: {
        const auto bytes = input.Segment();
        return Float(bytes.first(std::min<size_t>(8, bytes.size())));
    }
    case 4:
    case 5: {
        const auto bytes = input.Segment();
        std::string strText;
        for (size_t i = 0; i < (nKind % 8 == 4 ? 1 : REPEATS); ++i)
            strText.append(bytes.begin(), bytes.end());
        return Text(strText);
    }
    case 6:
        return {CPyRef(PyBytes_FromStringAndSize("ab", 2)), std::nullopt};
    default:
        return {nKind & 8 ? CPyRef(PyList_New(0)) : NewPyRef(Py_None), std::nullopt};
    }
}

/// Where the server says that a name's tag is; some are nowhere.
WORD PositionOf(const std::string& strName)
{
    unsigned n = 0;
    for (const char ch : strName)
        n = n * 31 + static_cast<BYTE>(ch);
    return static_cast<WORD>(n % (TAGS + 4));
}

class CWrites
{
public:
    explicit CWrites(CInput& input)
        : m_input(input), m_wire(MakeWire(input.Byte() & 0x7F)), m_core(m_wire, TAGS)
    {
    }

    void One();

private:
    void ReadNames(const std::string& strList);
    void FlushLookup(Bytes& request, std::vector<std::string>& pending);
    EWrite Expect(const std::vector<SValue>& values, bool bList, bool bMayWrite);
    void ExpectRequests(const std::vector<Bytes>& items);

    CInput& m_input;
    CScriptedWire m_wire;
    CDBCoreTest m_core;
    std::set<std::string> m_known;
    std::vector<WORD> m_positions; // of the list's names, TAGS or more: no such tag
    Bytes m_sent;                  // what should go out
};

void CWrites::FlushLookup(Bytes& request, std::vector<std::string>& pending)
{
    if (pending.empty())
        return;
    Append(m_sent, request);
    Bytes reply{'L'};
    for (const std::string& strName : pending) {
        AppendWord(reply, PositionOf(strName));
        AppendWord(reply, strName.size());
        m_known.insert(strName);
    }
    m_wire.Reply(reply);
    request.assign(1, 'L');
    pending.clear();
}

/// The names of a list: what must be asked, in requests as large as they may be, and where they are.
void CWrites::ReadNames(const std::string& strList)
{
    Bytes request{'L'};
    std::vector<std::string> pending;
    std::vector<WORD> later; // positions come with the reply, behind those of known names
    const auto flush = [&] {
        FlushLookup(request, pending);
        m_positions.insert(m_positions.end(), later.begin(), later.end());
        later.clear();
    };
    for (std::string strName : Split(strList, ",")) {
        if (strName.empty())
            continue;
        strName.erase(0, strName.find_first_not_of(' '));
        strName.erase(strName.find_last_not_of(' ') + 1);
        const bool bKnown = m_known.contains(strName);
        if (strName.empty() || (!bKnown && strName.size() > MAX_NAME)) {
            m_positions.push_back(TAGS);
        } else if (bKnown) {
            m_positions.push_back(PositionOf(strName));
        } else {
            if (request.size() + strName.size() + 3 > MAX_LOOKUP)
                flush();
            AppendWord(request, 0);
            request.insert(request.end(), strName.begin(), strName.end());
            request.push_back(0);
            pending.push_back(strName);
            later.push_back(PositionOf(strName));
        }
    }
    flush();
}

void CWrites::ExpectRequests(const std::vector<Bytes>& items)
{
    size_t nNext = 0;
    do {
        Bytes body;
        size_t nCount = 0;
        for (; nNext < items.size() && 3 + body.size() + items[nNext].size() <= MAX_REQUEST; ++nCount)
            Append(body, items[nNext++]);
        m_sent.push_back('g');
        AppendWord(m_sent, nCount);
        Append(m_sent, body);
    } while (nNext < items.size());
}

/// The result, and in m_sent what goes out for it. The names have been read.
EWrite CWrites::Expect(const std::vector<SValue>& values, bool bList, bool bMayWrite)
{
    if (!bMayWrite)
        return EWrite::NoRight;
    if (m_positions.empty())
        return EWrite::Sent;
    if (m_positions.size() > 1 && (!bList || values.size() < m_positions.size()))
        return EWrite::Refused;
    if (m_positions.size() == 1 && (bList || m_positions[0] >= TAGS))
        return EWrite::Refused;
    std::vector<Bytes> items;
    for (size_t i = 0; i < m_positions.size(); ++i) {
        if (m_positions[i] >= TAGS)
            continue;
        if (!values[i].encoded || 3 + 4 + values[i].encoded->size() > MAX_REQUEST)
            return EWrite::Refused;
        Bytes item;
        AppendWord(item, 0);
        AppendWord(item, m_positions[i]);
        Append(item, *values[i].encoded);
        items.push_back(std::move(item));
    }
    ExpectRequests(items);
    return EWrite::Sent;
}

void CWrites::One()
{
    const BYTE nFlags = m_input.Byte();
    const bool bMayWrite = !(nFlags & 1);
    const bool bList = nFlags & 2;
    const auto bytes = m_input.Segment();
    const std::string strList = std::string(bytes.begin(), bytes.end()).c_str();
    m_positions.clear();
    m_sent.clear();
    if (bMayWrite)
        ReadNames(strList);
    std::vector<SValue> values;
    const size_t nValues = bList ? std::min(MAX_VALUES, m_positions.size() + (nFlags >> 2 & 3)) : 1;
    while (values.size() < nValues)
        values.push_back(TakeValue(m_input));
    if (bList && nFlags & 16 && !values.empty())
        values.pop_back();
    CPyRef list(bList ? PyList_New(0) : nullptr);
    for (const SValue& value : values) {
        FUZZ_CHECK(value.object);
        FUZZ_CHECK(!list || PyList_Append(list.get(), value.object.get()) == 0);
    }
    const EWrite eWanted = Expect(values, bList, bMayWrite);

    m_core.Core().m_nRights = bMayWrite ? CDBCore::WRITE_RIGHT : ~CDBCore::WRITE_RIGHT;
    auto* pChannel = m_wire.Find(m_core.Core().m_reqSock.GetHandle());
    pChannel->sent.clear();
    PyObject* pValues = list ? list.get() : values[0].object.get();
    FUZZ_CHECK(m_core.Driver().SetTagValue(strList.c_str(), pValues) == eWanted);
    FUZZ_CHECK(!PyErr_Occurred());
    FUZZ_CHECK(pChannel->sent == m_sent && pChannel->incoming.empty());
    FUZZ_CHECK(m_core.Core().m_reqSock.IsSocket());
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    StartPython();
    CInput input({pData, nSize});
    CWrites writes(input);
    for (int i = 0; i < MAX_WRITES && !input.IsEmpty(); ++i)
        writes.One();
    return 0;
}
