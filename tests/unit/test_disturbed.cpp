// Every exchange and the stream, disturbed at every byte: split, stalled for longer than the time-out, ended
// or reset there. Whatever happens, a call gives the right result and the connection goes on, or it fails and
// the connection has ended; no later call gets anything of it.
#include "core_fixture.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <numeric>

namespace {

constexpr long T_MS = 50;        // a stall lasts longer than all that a reply may take, which is 2 T
constexpr long BUSY_MS = 20'000; // what a busy machine delays comes in time

enum class EDisturb
{
    Split, // the rest comes at once, in a segment of its own
    Stall, // the rest comes after the time-out
    End,   // the peer ends its side
    Cut,   // the peer is gone
};
constexpr EDisturb ALL[] = {EDisturb::Split, EDisturb::Stall, EDisturb::End, EDisturb::Cut};

class CDisturbed : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        Learn(*m_pA, {{"a", 1, {}}, {"b", 2, {}}});
        Core().m_reqSock.SetTimeOut(T_MS);
    }

    /// The far end's part: what is asked, and the reply disturbed behind its first nAt bytes.
    void Answer(const Bytes& request, const Bytes& reply, size_t nAt, EDisturb eDisturb)
    {
        m_req.Want(request);
        m_req.Send(Bytes(reply.begin(), reply.begin() + static_cast<long>(nAt)));
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (eDisturb == EDisturb::End)
            m_req.EndSending();
        if (eDisturb == EDisturb::Cut)
            m_req.Close();
        if (eDisturb == EDisturb::Stall)
            std::this_thread::sleep_for(std::chrono::milliseconds(2 * T_MS));
        if (eDisturb == EDisturb::Split || eDisturb == EDisturb::Stall)
            m_req.Send(Bytes(reply.begin() + static_cast<long>(nAt), reply.end()));
    }

    /// Plays one exchange with each disturbance at each byte. fn gives the call's result; strFailed is what
    /// it gives when the reply did not come in time. fnMore: what the far end plays behind a whole reply.
    void AtEveryByte(
        const std::function<std::string()>& fn, const Bytes& request, const Bytes& reply,
        const std::string& strRight, const std::string& strFailed,
        const std::function<void()>& fnMore = [] {})
    {
        for (size_t nAt = 0; nAt < reply.size(); ++nAt) {
            for (const EDisturb eDisturb : ALL) {
                SCOPED_TRACE("disturbance " + std::to_string(static_cast<int>(eDisturb)) + " behind byte " +
                             std::to_string(nAt));
                const bool bSplit = eDisturb == EDisturb::Split;
                Core().m_reqSock.SetTimeOut(bSplit ? BUSY_MS : T_MS);
                std::string strGot;
                {
                    const CPlay play([&] {
                        Answer(request, reply, nAt, eDisturb);
                        if (bSplit)
                            fnMore();
                    });
                    strGot = fn();
                }
                EXPECT_EQ(strGot, bSplit ? strRight : strFailed);
                if (bSplit) {
                    EXPECT_TRUE(Core().IsConnected());
                } else {
                    ExpectEnded();
                    EXPECT_EQ(Read(*m_pA, "a name of its own"), "None");
                }
                Renew();
            }
        }
    }

    static Bytes Int(unsigned n) { return Typed(VT_I4, U32(n)); }
    static std::string Failed(bool bDone) { return bDone ? "done" : "failed"; }
};

TEST_F(CDisturbed, ALookUp)
{
    const auto ask = [&] {
        CDBDriver::TagSlots out;
        std::string strOut;
        if (!m_pA->CheckTagId("x,y", out))
            return std::string("failed");
        for (const auto* pTag : out)
            strOut += std::to_string(pTag ? pTag->id : -1) + ';';
        return strOut;
    };
    AtEveryByte(ask, U8('L') + (U16(0) + Text("x")) + U16(0) + Text("y"),
                U8('L') + U16(5) + U16(0) + U16(6) + U16(0), "5;6;", "failed");
}

TEST_F(CDisturbed, ARead)
{
    const Bytes reply =
        U8('H') + U8(1) + U16(6) + Int(7) + U8('H') + U8(0) + U16(8) + Typed(VT_STR, Text("seven"));
    AtEveryByte([&] { return Read(*m_pA, "a,b"); }, U8('H') + U16(2) + U16(0) + U16(1) + U16(0) + U16(2),
                reply, "[7, 'seven']", "None");
}

TEST_F(CDisturbed, ASubscription)
{
    const Bytes reply = U8('b') + U16(6) + Int(7) + U8('b') + U16(8) + Typed(VT_STR, Text("seven"));
    AtEveryByte([&] { return Failed(m_pA->_ConnectTag("a,b")); },
                U8('b') + U16(2) + U16(0) + U16(1) + U8(0) + U16(0) + U16(2) + U8(0), reply, "done",
                "failed");
}

TEST_F(CDisturbed, ASingleLookUp)
{
    const auto ask = [&] {
        WORD nTag = 77;
        return Core().GetTagId(0, "x", &nTag) ? std::to_string(nTag) : "failed";
    };
    AtEveryByte(ask, U8('L') + U16(0) + Text("x"), U8('L') + U16(0x1234), "4660", "failed");
}

TEST_F(CDisturbed, ALogin)
{
    const auto login = [&] {
        DWORD nRights = 0;
        const EConnect eResult = Login("user", "secret", nRights);
        return eResult == EConnect::Connected ? std::to_string(nRights)
                                              : "failed " + std::to_string(static_cast<int>(eResult));
    };
    AtEveryByte(login, U8('9') + Text("user") + Text("secret"), U8('9') + U32(0xDDCCBBAA) + U32(0x01020308),
                "16909064", "failed -2");
}

/// A call that begins while the rest of an earlier, refused one is still to come.
TEST_F(CDisturbed, AReplyThatHasFailedIsReadToItsEndOrTheConnectionEnds)
{
    const Bytes tooLong = U8('H') + U8(0) + U16(4200) + U8('L') * 4200;
    for (const size_t nAt : {size_t{1}, size_t{4}, size_t{5}, size_t{4100}, tooLong.size() - 1}) {
        for (const EDisturb eDisturb : ALL) {
            if (eDisturb == EDisturb::Split)
                Core().m_reqSock.SetTimeOut(BUSY_MS);
            {
                const CPlay play([&] {
                    Answer(U8('H') + U16(1) + U16(0) + U16(1), tooLong, nAt, eDisturb);
                    if (eDisturb != EDisturb::Split)
                        return;
                    m_req.Want(U8('L') + U16(0) + Text("x"));
                    m_req.Send(U8('L') + U16(5) + U16(0));
                });
                EXPECT_EQ(Read(*m_pA, "a"), "None");
                CDBDriver::TagSlots out;
                const bool bDone = m_pA->CheckTagId("x", out);
                EXPECT_EQ(bDone, Core().IsConnected());
                if (bDone)
                    EXPECT_EQ(out.at(0)->id, 5);
                else
                    m_req.Close(); // the far end waits for what will not be asked
            }
            Renew();
        }
    }
}

/// A registration for alarms, of which two are active.
class CDisturbedAlarms : public CDisturbed
{
protected:
    void SetUp() override
    {
        ::setenv("TZ", "UTC0", 1);
        CDisturbed::SetUp();
        UseProjectDir({"RecData"});
        m_fn = MakeCallable([this](PyObject* pArgs) {
            m_told.push_back(Repr(pArgs));
            return None();
        });
    }
    void TearDown() override
    {
        m_fn.reset();
        m_told.clear();
        CDisturbed::TearDown();
        ::unsetenv("TZ");
    }

    static Bytes Record(unsigned nTime, unsigned nEventTime, unsigned nTag, unsigned nLevel, double limit)
    {
        return U32(nTime) + U32(nEventTime) + U16(nTag) + U16(1) + U16(0) + U8(nLevel) + U8(nLevel + 1) +
               F64(limit / 2) + F64(limit);
    }
    void SendList(const char* szName, std::string_view text)
    {
        EXPECT_EQ(m_req.TakeUntil("\r\n\r\n"), std::string("4RecData/") + szName + "\r\nHello:Yes\r\n\r\n");
        m_req.Send(Raw("Exist:Yes\r\nSize:C\r\nFileTime:65000000\r\n\r\n") + Raw(text));
    }
    /// What a registration has told, or "failed"; what it tells before it fails is no other than right.
    std::string Told(const std::vector<std::string>& right)
    {
        const int nResult = Core()._SetRtAlarmNotify(m_fn.get(), true);
        if (nResult == 0)
            return std::accumulate(m_told.begin(), m_told.end(), std::string());
        EXPECT_TRUE(m_told.size() <= right.size() && std::equal(m_told.begin(), m_told.end(), right.begin()))
            << m_told.front();
        EXPECT_FALSE(HasAlarmReceiver());
        return "failed " + std::to_string(nResult);
    }

    CPyRef m_fn;
    std::vector<std::string> m_told;
};

TEST_F(CDisturbedAlarms, ARegistration)
{
    const std::vector<std::string> right = {
        "(datetime.datetime(2021, 3, 4, 5, 6, 8), datetime.datetime(2021, 3, 4, 5, 6, 9), 'tag 1', 1, "
        "'text1', 'text0', 3, -2.5, -5.0, 4)",
        "(datetime.datetime(2021, 3, 4, 5, 6, 7), datetime.datetime(2021, 3, 4, 5, 6, 7), 'tag 0', 0, "
        "'text1', 'text0', 200, 0.75, 1.5, 201)"};
    AtEveryByte([&] { return Told(right); }, U8('n'),
                U8('n') + U16(2) + Record(1614834367, 0, 0, 200, 1.5) +
                    Record(1614834368, 1614834369, 1, 3, -5.0),
                right[0] + right[1], "failed -2",
                [&] {
                    SendList("textlist", "text0\ntext1\n");
                    SendList("taglist", "tag 0\ntag 1\n");
                });
}

class CDisturbedStream : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        Subscribe(*m_pA, {{"n", 1, Typed(VT_I4, U32(0))}, {"s", 2, Typed(VT_STR, Text("first"))}});
        const CPyRef fn = MakeCallable([this](PyObject* pArgs) {
            m_told.push_back(Repr(pArgs));
            return None();
        });
        ASSERT_TRUE(m_pA->SetTagNotify(fn.get()));
    }
    std::vector<std::string> m_told;
};

TEST_F(CDisturbedStream, AStallOrAnEndAtAnyByteLeavesAPrefix)
{
    struct
    {
        Bytes sent;
        const char* szTold;
    } const notes[] = {
        {Change(0, 1, U32(0x01020304)), "('A', 'n', 16909060)"},
        {U16(0xFFFF) + U8(6) + U8(0) * 17, nullptr},
        {Change(0, 2, Text("a text")), "('A', 's', 'a text')"},
        {U16(0xFFFF) + U8(16) + U16(0) + U16(1) + Text("passed over"), nullptr},
        {Change(0, 1, U32(7)), "('A', 'n', 7)"},
    };
    Bytes stream;
    for (const auto& note : notes)
        stream = stream + note.sent;
    for (size_t nAt = 0; nAt <= stream.size(); ++nAt) {
        for (const bool bEnd : {false, true}) {
            if (bEnd && nAt % 6 != 0)
                continue; // an end differs from a stall in how soon it is seen only
            m_told.clear();
            Core().m_reqSock.SetTimeOut(20);
            StartReceiving();
            if (nAt > 0)
                m_rcv.Send(Bytes(stream.begin(), stream.begin() + static_cast<long>(nAt)));
            if (bEnd)
                m_rcv.EndSending();
            std::vector<std::string> wanted;
            size_t nEnd = 0;
            for (const auto& note : notes) {
                nEnd += note.sent.size();
                if (nEnd <= nAt && note.szTold)
                    wanted.emplace_back(note.szTold);
            }
            size_t nWhole = 0;
            for (const auto& note : notes)
                nWhole += nWhole + note.sent.size() <= nAt ? note.sent.size() : 0;
            const bool bLost = bEnd || nWhole < nAt;
            EXPECT_TRUE(WaitWhileOthersRun([&] {
                return m_told.size() == wanted.size() && Core().IsConnected() != bLost;
            })) << nAt
                << bEnd;
            EXPECT_EQ(m_told, wanted) << nAt << bEnd;
            Renew();
        }
    }
}

} // namespace
