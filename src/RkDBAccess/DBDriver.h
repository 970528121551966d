// One driver of the connected project: its tag table, the names that scripts use for its tags, and the
// values.
//
// Lifetime: counted references (CDriverRef). The core's directory holds one and detaches the driver when the
// connection ends; every Driver object of a script holds one. A detached driver answers from what it has
// stored and sends nothing.
//
// Threads: scripts call under the interpreter lock, one at a time. The receive thread only calls OnDBNotify.
// m_lock guards what both touch and is held for a copy alone. The number of tags is fixed before the receive
// thread can see the driver.
#pragma once

#include "ForkMark.h"
#include "PyGlue.h"

#include "ThreadLock.h"
#include "XVariant.h"
#include "cstring.h"

#include <atomic>
#include <list>
#include <map>
#include <memory>
#include <span>
#include <utility>
#include <vector>

class CDBCore;

/// A registration for changes, with the names that its calls get: making them anew each time would cost as
/// much as the call. Made, used and destroyed under the interpreter lock.
struct CTagCallback : CPyCallback
{
    CTagCallback(PyObject* pFn, size_t nTags) : CPyCallback(pFn), tags(nTags) {}

    CPyName driver;
    std::vector<CPyName> tags; // by position
};

constexpr WORD NO_TAG = 0xFFFF; // the position of a tag that does not exist

/// Results of SetTagValue.
enum class EWrite : int
{
    Sent = 0,
    NoRight = -1, // the user may not write
    Failed = -2,  // look-up or send failed
    Refused = -3, // unknown tag, or a value that cannot be sent
};

class CDBDriver
{
public:
    /// The script's value of a tag slot, and what belongs to it.
    struct STag
    {
        XVariant value;          // last value seen; VT_EMPTY until the tag was read once
        CString strTag;          // GB2312; empty until a look-up led here
        CString strTagUtf8;      // the same for callbacks, converted once
        WORD id = 0;             // position: the index in m_tags
        bool bSubscribe = false; // the server pushes its changes
        bool bAwaited = false;   // a subscription request is under way for it
    };
    using TagSlots = std::vector<STag*>; // null entries stand for names without a tag

    CDBDriver(CDBCore& core, WORD drvId, const CString& strDriver);
    CDBDriver(const CDBDriver&) = delete;
    CDBDriver& operator=(const CDBDriver&) = delete;

    void AddRef() noexcept { ++m_nRefs; }
    void Release() noexcept;
    /// True in a process that a fork has copied the driver into: it answers nothing there.
    bool IsForked() const noexcept { return m_fork.IsForked(); }
    /// The connection has ended: nothing is sent from now on. Any thread.
    void Detach() noexcept { m_pDBCore = nullptr; }

    // Names and positions.

    void SetTagCount(ULONG dwCount);
    ULONG GetTagCount() const noexcept { return m_tags.size(); }
    /// The position of one GB2312 name, or NO_TAG. The answer is remembered, also a failed one.
    WORD GetTagId(const char* tagName);
    /// Appends a slot or null for each of the comma-separated GB2312 names. Cached names and blanks come as
    /// they are met, new ones when their request is flushed. False when a look-up failed.
    bool CheckTagId(const char* tags, TagSlots& reqTags);
    bool ReqBatchGetPoss(const std::list<CString>& curTags, const char* szSend, ULONG nLen,
                         TagSlots& reqTags);

    // Values. All need the interpreter lock.

    /// Subscribes the tags that are not yet, at most 519 a call. True when nothing was left to do.
    bool _ConnectTag(const char* tags);
    /// Fetches the tags that are not subscribed, at most 1023 a call.
    bool _GetTagValue(const char* tags, TagSlots& reqTags);
    /// A new reference: the value of one tag, a list for several, None on failure. Null without an exception
    /// for a type that Python has no form for, with one for a text that is not UTF-8.
    PyObject* GetTagValue(const char* tags);
    EWrite SetTagValue(const char* tags, PyObject* tagValues);
    /// The first registration wins. False for a later one and without a connection.
    bool SetTagNotify(PyObject* pFn);
    /// Ends the registration: a callable that refers to a Driver object of this driver would otherwise keep
    /// itself alive.
    void ForgetNotify();
    static PyObject* ValueToObj(const XVariant* pValue);

    /// Stores the change of one tag and tells the script. data holds what has come in behind the tag
    /// position. Returns the bytes consumed, or one of the NOTIFY_ values of NotifyWalk.h; NOTIFY_STOP for a
    /// payload that cannot be decoded, NOTIFY_AWAIT as long as AwaitsFirstValue. Receive thread; pPython is
    /// null where no interpreter runs.
    int OnDBNotify(ULONG tagId, std::span<const BYTE> data, CPyThread* pPython);
    /// True while a subscription request is under way for a slot: a change of it carries no type, and the
    /// reply may bring another one than the slot has.
    bool AwaitsFirstValue(ULONG tagId);

    const WORD m_drvId;
    const CString m_strDriver;

private:
    ~CDBDriver() = default;

    STag* SlotAt(WORD nPos) noexcept { return nPos < m_tags.size() ? &m_tags[nPos] : nullptr; }
    void Resolve(const CString& strTag, WORD nPos);
    bool LookUp(const CString& strTags, TagSlots& slots, bool& bAsked);
    bool FlushNames(std::list<CString>& pending, std::vector<char>& request, TagSlots& reqTags);
    class CAwaiting;
    static TagSlots NotSubscribed(const TagSlots& reqTags, size_t nMax);
    XVariant CopyValue(const STag& tag);
    /// How the blocks of a read ended.
    enum class EBlocks
    {
        Broken, // not read to their end
        Bad,    // read to their end, but not every value could be had
        Good,
    };
    EBlocks ReadBlocks(CDBCore& core, const TagSlots& wanted);
    EBlocks StoreBlock(std::span<const BYTE> bytes, const TagSlots& wanted, size_t& nStored);
    bool ReadAdvised(CDBCore& core, const TagSlots& wanted);
    void StoreRead(STag& tag, XVariant&& value);
    void StoreAdvised(STag& tag, XVariant&& value);
    bool AppendItem(const STag& tag, PyObject* pValue, std::vector<std::vector<BYTE>>& items);
    EWrite SendItems(CDBCore& core, const std::vector<std::vector<BYTE>>& items);
    void CallNotify(const STag& tag, const XVariant& value, CTagCallback& fn);

    const CForkMark m_fork;
    std::atomic<int> m_nRefs{0};
    std::atomic<CDBCore*> m_pDBCore;
    std::map<CString, WORD> m_mapTagToId; // NO_TAG and positions beyond the table: asked, and no such tag
    // The last list of which every name was in the map, and what it stands for: the map only grows and slots
    // stay where they are, so that holds on. Scripts that poll ask for the same list again and again.
    CString m_strKnownTags;
    TagSlots m_knownSlots;
    CString m_strDriverUtf8;

    CThreadLock m_lock;
    // value and bAwaited are guarded by m_lock, the names by the interpreter lock
    std::vector<STag> m_tags;
    std::shared_ptr<CTagCallback> m_tagNotifyFn RK_GUARDED_BY(m_lock);
};

/// One counted reference to a driver.
class CDriverRef
{
public:
    CDriverRef(std::nullptr_t = nullptr) noexcept {
    } // NOLINT(google-explicit-constructor): null is a value of it
    explicit CDriverRef(CDBDriver* p) noexcept : m_p(p)
    {
        if (m_p)
            m_p->AddRef();
    }
    CDriverRef(const CDriverRef& other) noexcept : CDriverRef(other.m_p) {}
    CDriverRef(CDriverRef&& other) noexcept : m_p(std::exchange(other.m_p, nullptr)) {}
    CDriverRef& operator=(CDriverRef other) noexcept
    {
        std::swap(m_p, other.m_p);
        return *this;
    }
    ~CDriverRef()
    {
        if (m_p)
            m_p->Release();
    }

    CDBDriver* Get() const noexcept { return m_p; }
    CDBDriver* operator->() const noexcept { return m_p; }
    explicit operator bool() const noexcept { return m_p != nullptr; }

private:
    CDBDriver* m_p = nullptr;
};

/// Appends a Python value as it goes to the server: type word and payload. False, with nothing appended and
/// no exception pending, for an object that cannot be sent.
bool ObjToBuf(PyObject* objValue, std::vector<BYTE>& buf);
