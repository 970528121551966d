// Changes that the server pushes: storing them and telling the script. Runs on the receive thread.
#include "DBDriver.h"
#include "NotifyWalk.h"

#include <array>

int CDBDriver::OnDBNotify(ULONG tagId, std::span<const BYTE> data, CPyThread* pPython)
{
    if (tagId >= m_tags.size())
        return NOTIFY_STOP;
    STag& tag = m_tags[tagId];
    XVariant value;
    std::shared_ptr<CTagCallback> pFn;
    int nUsed = 0;
    {
        const CThreadGuard guard(m_lock);
        if (tag.bAwaited)
            return NOTIFY_AWAIT;
        // The payload carries no type word: a tag that was never read has no length either.
        if (tag.value.vt == VT_EMPTY || tag.value.vt == VT_NULL)
            return NOTIFY_STOP;
        value.vt = tag.value.vt;
        const auto nDecoded = value.FromBytes(data, false);
        if (!nDecoded)
            return NOTIFY_CUT;
        nUsed = *nDecoded > 0 ? static_cast<int>(*nDecoded) : NOTIFY_STOP;
        pFn = *nDecoded > 0 && pPython ? m_tagNotifyFn : nullptr;
        if (!pFn) {
            std::swap(tag.value, value);
            return nUsed;
        }
        tag.value = value;
    }
    const bool bStay = pPython->Call([&] { CallNotify(tag, value, *pFn); });
    return bStay ? nUsed : NOTIFY_LEAVE;
}

void CDBDriver::CallNotify(const STag& tag, const XVariant& value, CTagCallback& fn)
{
    const CPyRef pValue(ValueToObj(&value));
    if (!pValue) {
        fn.ReportError(); // a type without a Python form has none: that change is passed over
        return;
    }
    PyObject* pDriver = fn.driver.Of(m_strDriverUtf8);
    PyObject* pTag = pDriver ? fn.tags.at(tag.id).Of(tag.strTagUtf8) : nullptr;
    fn.Call(std::array{pDriver, pTag, pValue.get()});
}

bool CDBDriver::AwaitsFirstValue(ULONG tagId)
{
    if (tagId >= m_tags.size())
        return false;
    const CThreadGuard guard(m_lock);
    return m_tags[tagId].bAwaited;
}
