// Writing: what is sent, what is refused, and how values share requests.
#include "core_fixture.h"

namespace {

class DriverWrite : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        Learn(*m_pA, {{"a", 1, {}}, {"b", 2, {}}, {"c", 3, {}}, {"none", 0xFFFF, {}}});
    }
    EWrite Write(const char* szTags, const char* szValue)
    {
        CPyScope scope("class List(list): pass\nclass Bad(list):\n    def __len__(self): return 99");
        const CPyRef value = scope.Eval(szValue);
        const EWrite eResult = m_pA->SetTagValue(szTags, value.get());
        EXPECT_FALSE(PyErr_Occurred());
        return eResult;
    }
    static Bytes Item(unsigned nTag, const Bytes& typed) { return U16(0) + U16(nTag) + typed; }
    static Bytes Int(unsigned n) { return Typed(VT_I4, U32(n)); }
    /// A refused write sends nothing, not even later.
    void ExpectRefused(const char* szTags, const char* szValue)
    {
        EXPECT_EQ(Write(szTags, szValue), EWrite::Refused) << szTags << " = " << szValue;
        EXPECT_TRUE(m_req.IsSilent());
    }
};

TEST_F(DriverWrite, OneTagTakesTheObjectItself)
{
    const std::pair<const char*, Bytes> rows[] = {
        {"True", Typed(VT_BOOL, U8(1))}, {"5", Int(5)},
        {"5.0", Typed(VT_R8, F64(5.0))}, {"'\\u6c34'", Typed(VT_STR, Text("\xE6\xB0\xB4"))},
        {"2**40 - 1", Int(0xFFFFFFFF)},
    };
    for (const auto& [szValue, typed] : rows) {
        EXPECT_EQ(Write("a", szValue), EWrite::Sent);
        m_req.Want(U8('g') + U16(1) + Item(1, typed));
    }
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverWrite, OneTagRefusesAListAndWhatCannotBeSent)
{
    for (const char* szValue : {"None", "[5]", "[]", "(5,)", "b'5'", "'\\ud800'", "'a\\0'"})
        ExpectRefused("a", szValue);
}

TEST_F(DriverWrite, AnUnknownTagIsRefused)
{
    ExpectRefused("none", "5");
    ExpectRefused(" ", "5");
}

TEST_F(DriverWrite, SeveralTagsTakeAListInOneRequest)
{
    EXPECT_EQ(Write("a,b,c", "[1, 'two', 3.0]"), EWrite::Sent);
    m_req.Want(U8('g') + U16(3) + Item(1, Int(1)) + Item(2, Typed(VT_STR, Text("two"))) +
               Item(3, Typed(VT_R8, F64(3.0))));
    EXPECT_EQ(Write("a,b", "List([1, 2])"), EWrite::Sent);
    m_req.Want(U8('g') + U16(2) + Item(1, Int(1)) + Item(2, Int(2)));
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverWrite, SeveralTagsRefuseWhatIsNoListOrTooShort)
{
    for (const char* szValue : {"1", "(1, 2)", "'ab'", "None", "{}", "[]", "[1]", "Bad([1])"})
        ExpectRefused("a,b", szValue);
}

TEST_F(DriverWrite, TheSurplusOfALongerListIsNotLookedAt)
{
    EXPECT_EQ(Write("a,b", "[1, 2, None, object()]"), EWrite::Sent);
    m_req.Want(U8('g') + U16(2) + Item(1, Int(1)) + Item(2, Int(2)));
}

TEST_F(DriverWrite, OneRefusedItemSendsNothing)
{
    ExpectRefused("a,b,c", "[1, 2, None]");
    ExpectRefused("a,b,c", "[None, 2, 3]");
    ExpectRefused("a,b,c", "[1, '\\udc00', 3]");
}

TEST_F(DriverWrite, UnknownTagsSkipTheirItems)
{
    EXPECT_EQ(Write("a,none,c", "[1, None, 3]"), EWrite::Sent);
    m_req.Want(U8('g') + U16(2) + Item(1, Int(1)) + Item(3, Int(3)));
    ExpectRefused("a,none,c", "[1, 2]");
}

TEST_F(DriverWrite, WithoutAnyKnownTagAnEmptyRequestIsSent)
{
    EXPECT_EQ(Write("none, ", "[1, 2]"), EWrite::Sent);
    m_req.Want(U8('g') + U16(0));
}

TEST_F(DriverWrite, WithoutNamesNothingIsSent)
{
    EXPECT_EQ(Write("", "5"), EWrite::Sent);
    EXPECT_EQ(Write(",,", "5"), EWrite::Sent);
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverWrite, WithoutTheRightNothingIsLookedUpOrSent)
{
    for (const DWORD nRights : {0U, 0x07U, 0xFFFFFFF7U}) {
        Core().m_nRights = nRights;
        EXPECT_EQ(Write("a", "5"), EWrite::NoRight);
        EXPECT_EQ(Write("never asked", "5"), EWrite::NoRight);
        EXPECT_EQ(Write("none", "None"), EWrite::NoRight);
    }
    EXPECT_TRUE(m_req.IsSilent());
    Core().m_nRights = 0x08;
    EXPECT_EQ(Write("a", "5"), EWrite::Sent);
}

TEST_F(DriverWrite, AFailedLookUpOrSendIsAFailure)
{
    AwaitRestsBriefly();
    {
        const CPlay play([&] {
            m_req.Want(U8('L') + U16(0) + Text("new"));
            m_req.Send(U8('0'));
        });
        EXPECT_EQ(Write("new", "5"), EWrite::Failed);
    }
    Core().m_reqSock.Close();
    EXPECT_EQ(Write("a", "5"), EWrite::Failed);
    const CDriverRef held(m_pA);
    DeleteCore();
    EXPECT_EQ(Write("a", "5"), EWrite::Failed);
    EXPECT_EQ(Write("a,b", "[1, 2]"), EWrite::Failed);
}

TEST_F(DriverWrite, AWriteDoesNotTouchTheStoredValue)
{
    Subscribe(*m_pA, {{"own", 4, Int(1)}});
    EXPECT_EQ(Write("own", "2"), EWrite::Sent);
    EXPECT_EQ(Read(*m_pA, "own"), "1");
}

/// 3 bytes of head, 4 of address, 2 of type, the text and its NUL: a text of 2038 bytes fills a request.
TEST_F(DriverWrite, TheLongestTextFillsItsRequestAndOneByteMoreIsRefused)
{
    EXPECT_EQ(Write("a", "'x' * 2038"), EWrite::Sent);
    m_req.Want(U8('g') + U16(1) + Item(1, Typed(VT_STR, Text(std::string(2038, 'x')))));
    ExpectRefused("a", "'x' * 2039");
    ExpectRefused("a", "'x' * 5000000");
    ExpectRefused("a,b", "[1, 'x' * 2039]");
}

TEST_F(DriverWrite, ValuesThatPass2048BytesGoInSeveralCompleteRequests)
{
    const Bytes half = Typed(VT_STR, Text(std::string(1015, 'x')));
    ASSERT_EQ(3 + Item(1, half).size() * 2, 2047U);
    EXPECT_EQ(Write("a,b,c", "['x' * 1015] * 3"), EWrite::Sent);
    m_req.Want(U8('g') + U16(2) + Item(1, half) + Item(2, half));
    m_req.Want(U8('g') + U16(1) + Item(3, half));
    EXPECT_EQ(Write("a,b", "['x' * 1015, 'x' * 1016]"), EWrite::Sent) << "2048 bytes: one request";
    m_req.Want(U8('g') + U16(2) + Item(1, half) + Item(2, Typed(VT_STR, Text(std::string(1016, 'x')))));
    EXPECT_EQ(Write("a,b", "['x' * 1016] * 2"), EWrite::Sent) << "2049 bytes: two";
    for (const unsigned nTag : {1U, 2U})
        m_req.Want(U8('g') + U16(1) + Item(nTag, Typed(VT_STR, Text(std::string(1016, 'x')))));
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverWrite, AnItemRefusedBehindAFullRequestSendsNothing)
{
    ExpectRefused("a,b,c", "['x' * 2000, 'x' * 2000, None]");
}

TEST_F(DriverWrite, ThousandsOfValuesAllArriveInOrder)
{
    std::string strNames;
    Bytes want;
    constexpr unsigned PER_REQUEST = (2048 - 3) / 10;
    constexpr unsigned COUNT = 2000;
    for (unsigned i = 0; i < COUNT; ++i) {
        strNames += i % 2 ? "b," : "a,";
        if (i % PER_REQUEST == 0)
            want = want + U8('g') + U16(std::min(PER_REQUEST, COUNT - i));
        want = want + Item(i % 2 ? 2 : 1, Int(i));
    }
    const CPlay play([&] { m_req.Want(want); });
    EXPECT_EQ(Write(strNames.c_str(), "list(range(2000))"), EWrite::Sent);
}

} // namespace
