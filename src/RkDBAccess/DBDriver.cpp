// The tag table and the names; values are in DBDriverValues.cpp, notifications in DBDriverNotify.cpp.
//
// Look-up request, at most 768 bytes, and its reply:
//
//   offset  size   field                 offset  size  field
//   0       1      'L'                   0       1     'L'
//   1       2      driver id             1 + 4i  2     position of the i-th name
//   3       k + 1  name (GB2312), NUL    3 + 4i  2     not used
//   ...            and so on
#include "DBDriver.h"

#include "DBCore.h"

#include <array>

namespace {

constexpr size_t LOOKUP_SIZE = 768;
constexpr size_t LOOKUP_PER_NAME = 3; // driver id and NUL beside the name
constexpr size_t LOOKUP_MAX_NAME = LOOKUP_SIZE - 1 - LOOKUP_PER_NAME;
constexpr size_t REPLY_PER_NAME = 4;

} // namespace

CDBDriver::CDBDriver(CDBCore& core, WORD drvId, const CString& strDriver)
    : m_drvId(drvId), m_strDriver(strDriver), m_pDBCore(&core)
{
    m_strDriver.ToUtf8(m_strDriverUtf8);
}

void CDBDriver::Release() noexcept
{
    if (--m_nRefs == 0)
        delete this;
}

void CDBDriver::SetTagCount(ULONG dwCount)
{
    const CThreadGuard guard(m_lock);
    m_tags.resize(dwCount);
    for (size_t i = 0; i < m_tags.size(); ++i)
        m_tags[i].id = static_cast<WORD>(i);
    m_strKnownTags.clear();
    m_knownSlots.clear();
}

void CDBDriver::Resolve(const CString& strTag, WORD nPos)
{
    const auto [it, bNew] = m_mapTagToId.try_emplace(strTag, nPos);
    if (!bNew && it->second != nPos) {
        it->second = nPos;
        m_strKnownTags.clear(); // it may be the place before
        m_knownSlots.clear();
    }
    STag* pTag = SlotAt(nPos);
    if (!pTag || pTag->strTag == strTag)
        return;
    CString strName(strTag);
    CString strUtf8;
    strTag.ToUtf8(strUtf8);
    pTag->strTag.swap(strName); // both or, without memory, none
    pTag->strTagUtf8.swap(strUtf8);
}

WORD CDBDriver::GetTagId(const char* tagName)
{
    if (!tagName || !*tagName || m_tags.empty())
        return NO_TAG;
    const CString strTag(tagName);
    if (const auto it = m_mapTagToId.find(strTag); it != m_mapTagToId.end())
        return it->second;
    WORD nPos = NO_TAG;
    if (const CCoreRef core(m_pDBCore); core)
        core->GetTagId(m_drvId, tagName, &nPos);
    Resolve(strTag, nPos);
    return nPos;
}

bool CDBDriver::FlushNames(std::list<CString>& pending, std::vector<char>& request, TagSlots& reqTags)
{
    const bool bDone = ReqBatchGetPoss(pending, request.data(), request.size(), reqTags);
    pending.clear();
    request.assign(1, static_cast<char>(CMD_GET_POS));
    return bDone;
}

bool CDBDriver::CheckTagId(const char* tags, TagSlots& reqTags)
{
    const CString strTags(tags);
    if (strTags != m_strKnownTags) {
        TagSlots slots;
        bool bAsked = false;
        const bool bDone = LookUp(strTags, slots, bAsked);
        if (!bDone || bAsked || slots.size() < 2) {
            reqTags.insert(reqTags.end(), slots.begin(), slots.end());
            return bDone;
        }
        m_strKnownTags = strTags; // changes nothing if there is no memory for it
        m_knownSlots.swap(slots);
    }
    reqTags.insert(reqTags.end(), m_knownSlots.begin(), m_knownSlots.end());
    return true;
}

/// What CheckTagId does for a list that is not known as a whole; bAsked: names were new.
bool CDBDriver::LookUp(const CString& strTags, TagSlots& slots, bool& bAsked)
{
    std::list<CString> pending;
    std::vector<char> request(1, static_cast<char>(CMD_GET_POS));
    int iStart = 0;
    for (CString strTag = strTags.Tokenize(",", iStart); !strTag.empty();
         strTag = strTags.Tokenize(",", iStart)) {
        strTag.Trim(' ');
        const auto it = m_mapTagToId.find(strTag);
        if (strTag.empty() || (it == m_mapTagToId.end() && strTag.size() > LOOKUP_MAX_NAME)) {
            slots.push_back(nullptr);
            continue;
        }
        if (it != m_mapTagToId.end()) {
            slots.push_back(SlotAt(it->second));
            continue;
        }
        bAsked = true;
        if (request.size() + strTag.size() + LOOKUP_PER_NAME > LOOKUP_SIZE &&
            !FlushNames(pending, request, slots))
            return false;
        request.push_back(static_cast<char>(m_drvId & 0xFF));
        request.push_back(static_cast<char>(m_drvId >> 8));
        request.insert(request.end(), strTag.c_str(), strTag.c_str() + strTag.size() + 1);
        pending.push_back(std::move(strTag));
    }
    return pending.empty() || FlushNames(pending, request, slots);
}

bool CDBDriver::ReqBatchGetPoss(const std::list<CString>& curTags, const char* szSend, ULONG nLen,
                                TagSlots& reqTags)
{
    const CCoreRef core(m_pDBCore);
    std::array<BYTE, LOOKUP_SIZE> reply{};
    const size_t nReply = 1 + REPLY_PER_NAME * curTags.size();
    if (!core || nReply > reply.size() ||
        !core->RequestAll(szSend, static_cast<int>(nLen), static_cast<int>(nReply), reply.data()))
        return false;
    CWireReader reader(std::span<const BYTE>(reply).first(nReply));
    if (reader.Get<BYTE>() != CMD_GET_POS)
        return false;
    for (const CString& strTag : curTags) {
        const WORD nPos = reader.Get<WORD>();
        reader.Skip(REPLY_PER_NAME - sizeof nPos);
        Resolve(strTag, nPos);
        reqTags.push_back(SlotAt(nPos));
    }
    return true;
}
