// Every exchange and the stream, disturbed at every byte: split, stalled for longer than the time-out, ended
// or reset there. Whatever happens, a call gives the right result and the connection goes on, or it fails and
// the connection has ended; no later call gets anything of it.
#include "core_fixture.h"

#include <sys/socket.h>

namespace {

constexpr long T_MS = 150;

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
    /// it gives when the reply did not come.
    void AtEveryByte(const std::function<std::string()>& fn, const Bytes& request, const Bytes& reply,
                     const std::string& strRight, const std::string& strFailed)
    {
        for (size_t nAt = 0; nAt < reply.size(); ++nAt) {
            for (const EDisturb eDisturb : ALL) {
                SCOPED_TRACE("disturbance " + std::to_string(static_cast<int>(eDisturb)) + " behind byte " +
                             std::to_string(nAt));
                std::string strGot;
                {
                    const CPlay play([&] { Answer(request, reply, nAt, eDisturb); });
                    strGot = fn();
                }
                // A machine that stands still for longer than the time-out turns a split into a stall.
                if (strGot == strRight && eDisturb == EDisturb::Split) {
                    EXPECT_TRUE(Core().IsConnected());
                    ++m_nRight;
                } else {
                    EXPECT_EQ(strGot, strFailed);
                    ExpectEnded();
                    EXPECT_EQ(Read(*m_pA, "a name of its own"), "None");
                }
                Renew();
            }
        }
        EXPECT_GT(m_nRight, reply.size() / 2) << "most splits are none of anybody's business";
    }

    static Bytes Int(unsigned n) { return Typed(VT_I4, U32(n)); }
    static std::string Failed(bool bDone) { return bDone ? "done" : "failed"; }

    size_t m_nRight = 0;
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

/// A call that begins while the rest of an earlier, refused one is still to come.
TEST_F(CDisturbed, AReplyThatHasFailedIsReadToItsEndOrTheConnectionEnds)
{
    const Bytes tooLong = U8('H') + U8(0) + U16(4200) + U8('L') * 4200;
    for (const size_t nAt : {size_t{1}, size_t{4}, size_t{5}, size_t{4100}, tooLong.size() - 1}) {
        for (const EDisturb eDisturb : ALL) {
            if (eDisturb == EDisturb::Split)
                Core().m_reqSock.SetTimeOut(20'000); // a busy machine is no stall
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
