// Real-time alarms: registration, the text lists, and the call of the script.
//
// Request: 'n'. Reply: 'n', the number of active alarms (2 bytes), then that many records of RtAlarm.h.
#include "DBCore.h"

#include "DownFile.h"
#include "MirrorDir.h"

#include <algorithm>
#include <array>
#include <ctime>
#include <datetime.h>

namespace {

constexpr size_t LINE_SIZE = 256; // of a list file, terminator included
constexpr size_t MAX_ENTRIES = 65536;
constexpr size_t HEAD_SIZE = 3; // of an alarm notification
constexpr const char* UNKNOWN_TEXT = "???";

/// A naive datetime of local time. Null with an exception set when there is none.
CPyRef LocalDateTime(DWORD nSeconds)
{
    const time_t t = nSeconds;
    tm local{};
    ::tzset(); // a change of TZ counts, as in localtime()
    if (!::localtime_r(&t, &local))
        return CPyRef(PyErr_SetFromErrno(PyExc_OSError));
    return CPyRef(PyDateTimeAPI->DateTime_FromDateAndTime(
        local.tm_year + 1900, local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec, 0,
        Py_None, PyDateTimeAPI->DateTimeType));
}

const char* TextAt(const CStringList& list, size_t nIndex)
{
    return nIndex < list.size() ? list[nIndex].c_str() : UNKNOWN_TEXT;
}

/// Appends a finished line without its line end; an empty one is no entry.
void AppendLine(std::string& strLine, CStringList& strList)
{
    if (!strLine.empty() && strLine.back() == '\r')
        strLine.pop_back();
    const std::string strText(strLine.c_str()); // up to the first NUL
    strLine.clear();
    if (strText.empty())
        return;
    CString strUtf8;
    CString(strText).ToUtf8(strUtf8);
    strList.push_back(strUtf8);
}

void WarnOfSkipped(CPyCallback& fn, size_t nSkipped)
{
    WhilePythonLives([nSkipped] {
        PyErr_WarnFormat(PyExc_RuntimeWarning, 1,
                         "RkDBAccess: %zu alarms that came in during their registration are skipped",
                         nSkipped);
    });
    fn.ReportError(); // a warning may be an error
}

} // namespace

void ReadStringList(XFile& file, CStringList& strList)
{
    std::array<char, 4096> chunk;
    std::string strLine;
    for (int nRead = 0; (nRead = file.Read(chunk.data(), chunk.size())) > 0;) {
        for (const char ch : std::span(chunk).first(static_cast<size_t>(nRead))) {
            if (ch != '\n') {
                if (strLine.size() < LINE_SIZE - 1)
                    strLine.push_back(ch);
                continue;
            }
            AppendLine(strLine, strList);
            if (strList.size() >= MAX_ENTRIES)
                return;
        }
    }
    AppendLine(strLine, strList);
}

void InitStringList(const CString& strStrListPath, CStringList& strList)
{
    if (!strList.empty())
        return;
    CString strUtf8;
    strStrListPath.ToUtf8(strUtf8);
    XFile file;
    if (OpenMirrorFile(strUtf8, file) == EMirror::Found)
        ReadStringList(file, strList);
}

void FireRtAlarm(CPyCallback& rtAlarmNotifyFn, const S2RtAlarm2& alarm, const CStringList& textList,
                 const CStringList& tagList)
{
    if (!PyDateTimeAPI)
        PyDateTime_IMPORT;
    if (!PyDateTimeAPI) {
        rtAlarmNotifyFn.ReportError();
        return;
    }
    const CPyRef alarmTime = LocalDateTime(alarm.almtm);
    const CPyRef eventTime = alarmTime ? LocalDateTime(alarm.evttm ? alarm.evttm : alarm.almtm) : nullptr;
    if (!eventTime) {
        rtAlarmNotifyFn.ReportError();
        return;
    }
    rtAlarmNotifyFn.Call(
        CPyRef(Py_BuildValue("(OOsissiddi)", alarmTime.get(), eventTime.get(), TextAt(tagList, alarm.tid),
                             alarm.evttm ? 1 : 0, TextAt(textList, alarm.type), TextAt(textList, alarm.grp),
                             alarm.level, alarm.value, alarm.limit, alarm.status)));
}

int CDBCore::OnAlarm(std::span<const BYTE> bytes, CPyThread* pPython)
{
    CWireReader reader(bytes.subspan(HEAD_SIZE));
    const S2RtAlarm2 alarm = ReadRtAlarm(reader);
    std::shared_ptr<const SAlarmReceiver> pReceiver;
    {
        const CThreadGuard guard(m_lock);
        pReceiver = m_rtAlarmNotifyFn;
        if (!pReceiver)
            m_held.Add(alarm);
    }
    const int nLen = static_cast<int>(bytes.size());
    if (!pReceiver || !pPython)
        return nLen;
    const bool bStay = pPython->Call(
        [&] { FireRtAlarm(*pReceiver->pFn, alarm, *pReceiver->textList, *pReceiver->tagList); });
    return bStay ? nLen : NOTIFY_LEAVE;
}

bool CDBCore::ReadActiveAlarms(std::vector<S2RtAlarm2>& alarms)
{
    CExchange exchange(*this);
    const BYTE nCmd = CMD_RT_ALARM;
    std::array<BYTE, HEAD_SIZE> head{};
    if (!exchange.IsOpen() || ReqSend(&nCmd, 1) < 1 || !m_reqSock.RecvAll(head.data(), 1, 0) ||
        head[0] != CMD_RT_ALARM || !m_reqSock.RecvAll(head.data() + 1, 2, 0))
        return false;
    for (int nLeft = head[1] | head[2] << 8; nLeft > 0; --nLeft) {
        std::array<BYTE, S2RtAlarm2::WIRE_SIZE> record{};
        if (!m_reqSock.RecvAll(record.data(), static_cast<int>(record.size()), 0))
            return false;
        CWireReader reader(record);
        alarms.push_back(ReadRtAlarm(reader));
    }
    exchange.Succeed();
    return true;
}

/// Null when the connection has ended meanwhile. Without the server's list there is an empty one: texts of an
/// older copy would be other texts.
StringListPtr CDBCore::LoadStringList(const char* szFile)
{
    XFile copy; // open when the exchange was complete and there is a file
    {
        CExchange exchange(*this);
        if (!exchange.IsOpen())
            return nullptr;
        exchange.LiftLimit();
        const auto eResult = DownloadFile(szFile, m_reqSock, static_cast<char>(CMD_DOWNLOAD),
                                          m_strPrjPath.c_str(), 0, 0, nullptr, nullptr, &copy);
        if (eResult == EDownload::Failed)
            return nullptr;
        exchange.Succeed();
    }
    auto pList = std::make_shared<CStringList>();
    if (copy.IsOpen())
        ReadStringList(copy, *pList);
    return pList;
}

/// False in a process that one of the calls has forked off: its copy of the core must be left as it is.
bool CDBCore::Deliver(const std::shared_ptr<const SAlarmReceiver>& pReceiver,
                      const std::vector<S2RtAlarm2>& alarms)
{
    for (const S2RtAlarm2& alarm : alarms) {
        FireRtAlarm(*pReceiver->pFn, alarm, *pReceiver->textList, *pReceiver->tagList);
        if (IsForked())
            return false;
    }
    return true;
}

/// Delivers what has come in since the registration began, and from then on the receive thread does. The
/// number of calls is bounded by what is held of a registration, however fast alarms come in. False as in
/// Deliver.
bool CDBCore::AttachReceiver(const std::shared_ptr<const SAlarmReceiver>& pReceiver, size_t& nSkipped)
{
    for (;;) {
        std::vector<S2RtAlarm2> alarms;
        {
            // In one step, or an alarm could come in between and be told of before those that are held.
            const CThreadGuard guard(m_lock);
            alarms = m_held.Take();
            if (alarms.empty() && !m_rtAlarmNotifyFn) {
                m_rtAlarmNotifyFn = pReceiver;
                nSkipped = m_held.TakeSkipped();
            }
        }
        if (alarms.empty())
            return true;
        if (!Deliver(pReceiver, alarms))
            return false;
    }
}

int CDBCore::_SetRtAlarmNotify(PyObject* rtAlarmNotifyFn, bool notifyExisting)
{
    {
        const CThreadGuard guard(m_lock);
        if (m_rtAlarmNotifyFn)
            return -1;
        m_held.Begin();
    }
    struct SHolding
    {
        CDBCore& core;
        ~SHolding()
        {
            if (core.IsForked())
                return;
            const CThreadGuard guard(core.m_lock);
            core.m_held.End();
        }
    };
    size_t nSkipped = 0;
    std::shared_ptr<CPyCallback> pFn;
    {
        const SHolding holding{*this};
        pFn = Register(rtAlarmNotifyFn, notifyExisting, nSkipped);
    }
    if (!pFn)
        return -2;
    // Last, as it may run code of the script: the registration stands whatever that does.
    if (nSkipped > 0)
        WarnOfSkipped(*pFn, nSkipped);
    return 0;
}

/// The registered callable; null when the registration failed.
std::shared_ptr<CPyCallback> CDBCore::Register(PyObject* rtAlarmNotifyFn, bool notifyExisting,
                                               size_t& nSkipped)
{
    std::vector<S2RtAlarm2> alarms;
    if (!ReadActiveAlarms(alarms))
        return nullptr;
    if (!m_textList || m_textList->empty())
        m_textList = LoadStringList("RecData/textlist");
    if (!m_tagList || m_tagList->empty())
        m_tagList = LoadStringList("RecData/taglist");
    if (!m_textList || !m_tagList)
        return nullptr;
    auto pFn = std::make_shared<CPyCallback>(rtAlarmNotifyFn);
    KeepCallback(pFn);
    const auto pReceiver = std::make_shared<const SAlarmReceiver>(pFn, m_textList, m_tagList);
    if (!notifyExisting)
        alarms.clear();
    std::ranges::reverse(alarms); // the one reported last comes first
    return Deliver(pReceiver, alarms) && AttachReceiver(pReceiver, nSkipped) ? pFn : nullptr;
}
