// A stream of changes at full speed beside a script that reads: only values that were sent are ever seen, in
// their order, and none is lost.
#include "core_fixture.h"

namespace {

constexpr unsigned CHANGES = SANITIZED ? 200000 : 1000000;
constexpr unsigned TAGS = 5;
constexpr unsigned STEP = 509; // changes that are put together for one send

/// The n-th change and what Python must see of it. Texts are of very different lengths, each bears its number
/// three times, and some are longer than a short string's own memory.
Bytes ChangeOf(unsigned n)
{
    const auto nTag = static_cast<WORD>(n % TAGS);
    const std::string strNumber = std::to_string(n);
    switch (nTag) {
    case 0:
        return Change(0, nTag, U32(n));
    case 1:
        return Change(0, nTag, F64(n + 0.5));
    case 2:
        return Change(0, nTag, Text(strNumber + ":" + std::string(n % 97, 'x') + ":" + strNumber));
    case 3:
        return Change(0, nTag, Text(strNumber));
    default:
        return Change(0, nTag, U16(n & 0x7FFF));
    }
}

/// The number of a change by its tag and its value's text; what was never sent fails the test.
unsigned NumberOf(unsigned nTag, PyObject* pValue)
{
    if (nTag == 0)
        return static_cast<unsigned>(PyLong_AsUnsignedLong(pValue));
    if (nTag == 1)
        return static_cast<unsigned>(PyFloat_AsDouble(pValue) - 0.5);
    const char* szText = PyUnicode_AsUTF8(pValue);
    const auto n = static_cast<unsigned>(std::strtoul(szText, nullptr, 10));
    const Bytes sent = ChangeOf(n);
    EXPECT_EQ(std::string(reinterpret_cast<const char*>(sent.data()) + 4), szText) << "never sent";
    return n;
}

class Storm : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        Subscribe(*m_pA, {{"i", 0, Typed(VT_UI4, U32(0))},
                          {"d", 1, Typed(VT_R8, F64(1.5))},
                          {"long", 2, Typed(VT_STR, Text("2:xx:2"))},
                          {"short", 3, Typed(VT_STR, Text("3"))},
                          {"w", 4, Typed(VT_I2, U16(4))},
                          {"end", 5, Typed(VT_BOOL, U8(0))}});
    }
    void Play()
    {
        Bytes bytes;
        for (unsigned n = TAGS; n < CHANGES; ++n) {
            const Bytes one = ChangeOf(n);
            bytes.insert(bytes.end(), one.begin(), one.end());
            if (n % STEP == 0)
                m_rcv.Send(std::exchange(bytes, {}));
        }
        m_rcv.Send(bytes + Change(0, 5, U8(1)));
    }
    /// Reads the four tags that tell their change's number and checks that each has gone forward.
    void ReadOnce(std::array<unsigned, 4>& last)
    {
        const CPyRef list(m_pA->GetTagValue("i,d,long,short"));
        ASSERT_TRUE(list && PyList_CheckExact(list.get()));
        for (unsigned nTag = 0; nTag < last.size(); ++nTag) {
            const unsigned n = NumberOf(nTag, PyList_GET_ITEM(list.get(), nTag));
            ASSERT_EQ(n % TAGS, nTag) << "never sent";
            ASSERT_GE(n, last[nTag]) << "an older value came back";
            ASSERT_LT(n, CHANGES);
            last[nTag] = n;
        }
    }
    bool IsOver() { return Read(*m_pA, "end") == "True"; }
    void ExpectLastValues()
    {
        for (unsigned n = CHANGES - TAGS; n < CHANGES; ++n) {
            const char* const names[] = {"i", "d", "long", "short", "w"};
            const CPyRef value(m_pA->GetTagValue(names[n % TAGS]));
            if (n % TAGS < 4)
                EXPECT_EQ(NumberOf(n % TAGS, value.get()), n);
            else
                EXPECT_EQ(PyLong_AsLong(value.get()), static_cast<long>(n & 0x7FFF));
        }
    }
};

TEST_F(Storm, AScriptThatReadsOnlySeesWhatWasSentAndInOrder)
{
    StartReceiving();
    const CPlay play([this] { Play(); });
    std::array<unsigned, 4> last{0, 1, 2, 3};
    size_t nReads = 0;
    // The lock is never let go: the changes are stored all the same.
    for (; !IsOver() && !HasFatalFailure(); ++nReads)
        ReadOnce(last);
    EXPECT_GT(nReads, 10U);
    ExpectLastValues();
    EXPECT_TRUE(Core().IsConnected());
}

TEST_F(Storm, EveryChangeIsToldOnceAndInOrder)
{
    unsigned nNext = TAGS;
    unsigned nWrong = 0;
    const CPyRef fn = MakeCallable([&](PyObject* pArgs) {
        const char* szDriver = nullptr;
        const char* szTag = nullptr;
        PyObject* pValue = nullptr;
        EXPECT_TRUE(PyArg_ParseTuple(pArgs, "ssO", &szDriver, &szTag, &pValue));
        if (std::string_view(szTag) == "end")
            return None();
        const unsigned n = nNext++;
        const bool bRight = n % TAGS == 4 ? PyLong_AsLong(pValue) == static_cast<long>(n & 0x7FFF)
                                          : NumberOf(n % TAGS, pValue) == n;
        nWrong += bRight ? 0 : 1;
        return None();
    });
    ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    StartReceiving();
    const CPlay play([this] { Play(); });
    std::array<unsigned, 4> last{0, 1, 2, 3};
    while (!HasFatalFailure() && !IsOver()) {
        ReadOnce(last);
        const COthersRun others;
        std::this_thread::sleep_for(std::chrono::microseconds(100));
    }
    EXPECT_TRUE(WaitWhileOthersRun([&] { return nNext >= CHANGES; }));
    EXPECT_EQ(nNext, CHANGES);
    EXPECT_EQ(nWrong, 0U);
    ExpectLastValues();
}

TEST_F(Storm, ConnectionsThatComeAndGoInAStormLeaveNothingBehind)
{
    const CPyRef fn = MakeCallable([](PyObject*) { return None(); });
    for (int nRound = 0; nRound < (SANITIZED ? 15 : 60); ++nRound) {
        m_pA = Core()._GetDriver("A");
        ASSERT_TRUE(m_pA);
        if (nRound > 0)
            Subscribe(*m_pA, {{"i", 0, Typed(VT_UI4, U32(0))}});
        EXPECT_EQ(m_pA->SetTagNotify(fn.get()), true);
        StartReceiving();
        {
            std::atomic<bool> bRun{true};
            const Bytes changes = Change(0, 0, U32(1)) * 300;
            const CPlay play([&] {
                while (bRun)
                    m_rcv.Send(changes);
            });
            if (nRound % 3 != 0) {
                const COthersRun others;
                std::this_thread::sleep_for(std::chrono::milliseconds(nRound % 5));
            }
            EXPECT_TRUE(Core()._Disconnect());
            bRun = false;
        }
        Attach();
        AddDriver("A", 0, 8);
        SetConnected();
    }
    EXPECT_TRUE(WaitForThreads());
    EXPECT_LE(Py_REFCNT(fn.get()), 3) << "ended registrations are kept";
}

} // namespace
