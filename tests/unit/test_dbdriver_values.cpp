// Reading and subscribing: requests byte for byte, the reaction to every reply, and how values map onto
// Python objects both ways.
#include "core_fixture.h"

#include <cmath>

namespace {

std::string Show(const XVariant& value)
{
    const CPyRef obj(CDBDriver::ValueToObj(&value));
    EXPECT_TRUE(obj || !PyErr_Occurred());
    return Repr(obj);
}

/// What is sent for the value of an expression, or "refused".
std::string Encoded(const char* szExpression)
{
    CPyScope scope(R"(
class Int(int): pass
class Str(str): pass
class Float(float): pass
class IndexOnly:
    def __index__(self): return 5
    def __float__(self): return 5.0
    def __str__(self): return "5"
)");
    const CPyRef value = scope.Eval(szExpression);
    std::vector<BYTE> buf{0x99};
    if (ObjToBuf(value.get(), buf)) {
        EXPECT_EQ(buf.at(0), 0x99) << "what stood there before stays";
        return Hex(std::span(buf).subspan(1));
    }
    EXPECT_EQ(buf, Bytes{0x99}) << "nothing is written for a refused object";
    EXPECT_FALSE(PyErr_Occurred());
    return "refused";
}

class DriverInterp : public CDBCoreTest
{
};

TEST_F(DriverInterp, EveryTypeWithAPythonFormHasItsObject)
{
    EXPECT_EQ(Show(XVariant(static_cast<short>(-5))), "-5");
    EXPECT_EQ(Show(XVariant(static_cast<USHORT>(65535))), "65535");
    EXPECT_EQ(Show(XVariant(-2147483647 - 1)), "-2147483648");
    EXPECT_EQ(Show(XVariant(UINT{4294967295})), "4294967295");
    EXPECT_EQ(Show(XVariant(1.5F)), "1.5");
    EXPECT_EQ(Show(XVariant(0.1F)), "0.10000000149011612") << "widened from single precision";
    EXPECT_EQ(Show(XVariant(0.1, VT_R8)), "0.1");
    EXPECT_EQ(Show(XVariant("\xE6\xB0\xB4")), "'\xE6\xB0\xB4'");
    EXPECT_EQ(Show(XVariant("")), "''");
    EXPECT_EQ(Show(XVariant(true)), "True");
    EXPECT_EQ(Show(XVariant(false)), "False");
    EXPECT_EQ(Show(XVariant(static_cast<char>(-1))), "-1");
    EXPECT_EQ(Show(XVariant(BYTE{255})), "255");
    XVariant value(-7);
    value.vt = VT_INT;
    EXPECT_EQ(Show(value), "-7");
    value.vt = VT_UINT;
    EXPECT_EQ(Show(value), "4294967289");
}

TEST_F(DriverInterp, ATextWithoutAStringIsEmpty)
{
    XVariant value;
    value.vt = VT_STR;
    EXPECT_EQ(Show(value), "''");
}

TEST_F(DriverInterp, NumbersThatAreNoneAreFloatsAllTheSame)
{
    EXPECT_EQ(Show(XVariant(std::nan(""), VT_R8)), "nan");
    EXPECT_EQ(Show(XVariant(-HUGE_VAL, VT_R8)), "-inf");
    EXPECT_EQ(Show(XVariant(HUGE_VALF)), "inf");
}

TEST_F(DriverInterp, EveryOtherTypeCodeHasNoObjectAndNoException)
{
    const std::vector<unsigned> with{VT_I2, VT_I4,  VT_R4,  VT_R8,  VT_STR, VT_BOOL,
                                     VT_I1, VT_UI1, VT_UI2, VT_UI4, VT_INT, VT_UINT};
    for (unsigned vt = 0; vt <= 0xFFFF; ++vt) {
        XVariant value;
        value.vt = static_cast<VARTYPE>(vt);
        const bool bHas = CPyRef(CDBDriver::ValueToObj(&value)) != nullptr;
        EXPECT_EQ(bHas, std::ranges::count(with, vt) == 1) << vt;
        ASSERT_FALSE(PyErr_Occurred()) << vt;
    }
}

TEST_F(DriverInterp, ATextThatIsNotUtf8HasNoObjectButAnException)
{
    const XVariant value("\xCB");
    EXPECT_EQ(CDBDriver::ValueToObj(&value), nullptr);
    EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_UnicodeDecodeError));
    PyErr_Clear();
}

TEST_F(DriverInterp, TextsAreSentAsUtf8WithTheirNul)
{
    EXPECT_EQ(Encoded("'ab'"), Hex(Bytes{8, 0, 'a', 'b', 0}));
    EXPECT_EQ(Encoded("''"), Hex(Bytes{8, 0, 0}));
    EXPECT_EQ(Encoded("'\\u6c34'"), Hex(Bytes{8, 0, 0xE6, 0xB0, 0xB4, 0}));
    EXPECT_EQ(Encoded("Str('ab')"), Hex(Bytes{8, 0, 'a', 'b', 0}));
}

TEST_F(DriverInterp, TextsThatCannotBeSentAreRefused)
{
    EXPECT_EQ(Encoded("'a\\ud800b'"), "refused") << "a lone surrogate has no UTF-8 form";
    EXPECT_EQ(Encoded("'\\udcff'"), "refused");
    EXPECT_EQ(Encoded("'a\\0b'"), "refused") << "its rest would be read as the next value's address";
    EXPECT_EQ(Encoded("'\\0'"), "refused");
    EXPECT_EQ(Encoded("'a\\0'"), "refused");
}

TEST_F(DriverInterp, TruthValuesAreOneByte)
{
    EXPECT_EQ(Encoded("True"), Hex(Bytes{11, 0, 1}));
    EXPECT_EQ(Encoded("False"), Hex(Bytes{11, 0, 0}));
}

TEST_F(DriverInterp, IntegersOfAnySizeAreTheirLow32Bits)
{
    EXPECT_EQ(Encoded("5"), Hex(Bytes{3, 0, 5, 0, 0, 0}));
    EXPECT_EQ(Encoded("-1"), Hex(Bytes{3, 0, 255, 255, 255, 255}));
    EXPECT_EQ(Encoded("-2**31"), Hex(Bytes{3, 0, 0, 0, 0, 0x80}));
    EXPECT_EQ(Encoded("2**32 + 7"), Hex(Bytes{3, 0, 7, 0, 0, 0}));
    EXPECT_EQ(Encoded("2**64 + 0x01020304"), Hex(Bytes{3, 0, 4, 3, 2, 1}));
    EXPECT_EQ(Encoded("-(2**100) + 9"), Hex(Bytes{3, 0, 9, 0, 0, 0}));
    EXPECT_EQ(Encoded("10**1000"), Hex(Bytes{3, 0, 0, 0, 0, 0}));
    EXPECT_EQ(Encoded("Int(5)"), Hex(Bytes{3, 0, 5, 0, 0, 0}));
    EXPECT_EQ(Encoded("Int(2**70 + 1)"), Hex(Bytes{3, 0, 1, 0, 0, 0}));
}

TEST_F(DriverInterp, FloatsAreDoubles)
{
    EXPECT_EQ(Encoded("5.0"), Hex(U16(5) + F64(5.0)));
    EXPECT_EQ(Encoded("-0.0"), Hex(U16(5) + F64(-0.0)));
    EXPECT_EQ(Encoded("float('inf')"), Hex(U16(5) + F64(HUGE_VAL)));
    EXPECT_EQ(Encoded("Float(0.1)"), Hex(U16(5) + F64(0.1)));
}

TEST_F(DriverInterp, AllOtherObjectsAreRefused)
{
    for (const char* sz : {"None", "b'ab'", "bytearray(b'5')", "[1]", "(1,)", "{}", "1j", "object()",
                           "IndexOnly()", "int", "Ellipsis"})
        EXPECT_EQ(Encoded(sz), "refused") << sz;
    std::vector<BYTE> buf;
    EXPECT_FALSE(ObjToBuf(nullptr, buf));
}

class DriverRead : public CDriverTest
{
protected:
    void SetUp() override
    {
        CDriverTest::SetUp();
        Learn(*m_pA, {{"a", 1, {}}, {"b", 2, {}}, {"c", 3, {}}, {"none", 0xFFFF, {}}});
    }
    static Bytes Request(std::initializer_list<unsigned> tags)
    {
        Bytes bytes = U8('H') + U16(static_cast<unsigned>(tags.size()));
        for (const unsigned nTag : tags)
            bytes = bytes + U16(0) + U16(nTag);
        return bytes;
    }
    static Bytes Block(const Bytes& values, unsigned nMore = 0)
    {
        return U8('H') + U8(nMore) + U16(static_cast<unsigned>(values.size())) + values;
    }
    static Bytes Int(unsigned n) { return Typed(VT_I4, U32(n)); }
    /// What a script gets while the far end answers.
    std::string Ask(const char* szTags, const Bytes& request, const Bytes& reply)
    {
        const CPlay play([&] {
            m_req.Want(request);
            m_req.Send(reply);
        });
        return Read(*m_pA, szTags);
    }
    /// The next request is answered rightly, whatever came before.
    void ExpectClean()
    {
        EXPECT_EQ(Ask("c", Request({3}), Block(Int(33))), "33");
        EXPECT_TRUE(m_req.IsSilent());
    }
};

TEST_F(DriverRead, OneNameGivesItsValueAndSeveralAList)
{
    EXPECT_EQ(Ask("a", Request({1}), Block(Int(5))), "5");
    EXPECT_EQ(Ask("b,a", Request({2, 1}), Block(Typed(VT_STR, Text("x")) + Int(6))), "['x', 6]");
}

TEST_F(DriverRead, UnknownNamesGiveNoneOrAnUnsetItemAndAreNotAskedFor)
{
    EXPECT_EQ(Read(*m_pA, "none"), "None");
    EXPECT_EQ(Read(*m_pA, ""), "None");
    EXPECT_EQ(Read(*m_pA, " "), "None");
    EXPECT_TRUE(m_req.IsSilent());
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_req.Send(Block(Int(7)));
    });
    const CPyRef list(m_pA->GetTagValue("none,a, "));
    ASSERT_TRUE(list && PyList_CheckExact(list.get()));
    ASSERT_EQ(PyList_GET_SIZE(list.get()), 3);
    EXPECT_EQ(PyList_GET_ITEM(list.get(), 0), nullptr);
    EXPECT_EQ(Repr(PyList_GET_ITEM(list.get(), 1)), "7");
    EXPECT_EQ(PyList_GET_ITEM(list.get(), 2), nullptr);
}

TEST_F(DriverRead, AListOfUnknownNamesIsAListOfUnsetItems)
{
    const CPyRef list(m_pA->GetTagValue("none,none"));
    ASSERT_TRUE(list && PyList_CheckExact(list.get()));
    EXPECT_EQ(PyList_GET_SIZE(list.get()), 2);
    EXPECT_EQ(PyList_GET_ITEM(list.get(), 0), nullptr);
    EXPECT_TRUE(m_req.IsSilent());
}

TEST_F(DriverRead, ATypeWithoutAPythonFormIsNullOrAnUnsetItem)
{
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_req.Send(Block(Typed(VT_DATE, F64(1.0))));
        m_req.Want(Request({1, 2}));
        m_req.Send(Block(Typed(VT_UI8, {}) + Int(4)));
    });
    EXPECT_EQ(m_pA->GetTagValue("a"), nullptr);
    EXPECT_FALSE(PyErr_Occurred());
    const CPyRef list(m_pA->GetTagValue("a,b"));
    ASSERT_TRUE(list);
    EXPECT_EQ(PyList_GET_ITEM(list.get(), 0), nullptr);
    EXPECT_EQ(Repr(PyList_GET_ITEM(list.get(), 1)), "4");
}

TEST_F(DriverRead, ATextThatIsNotUtf8RaisesForOneNameAndForSeveral)
{
    for (const char* szTags : {"a", "a,a"}) {
        const bool bOne = szTags[1] == 0;
        const CPlay play([&] {
            m_req.Want(bOne ? Request({1}) : Request({1, 1}));
            m_req.Send(Block(Typed(VT_STR, Text("\xCB")) * (bOne ? 1 : 2)));
        });
        EXPECT_EQ(m_pA->GetTagValue(szTags), nullptr);
        EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_UnicodeDecodeError));
        PyErr_Clear();
    }
}

TEST_F(DriverRead, SeveralBlocksAreOneReply)
{
    EXPECT_EQ(Ask("a,b,c", Request({1, 2, 3}), Block(Int(1), 1) + Block(Int(2), 1) + Block(Int(3))),
              "[1, 2, 3]");
    EXPECT_EQ(Ask("a,b,c", Request({1, 2, 3}), Block(Int(4) + Int(5), 1) + Block(Int(6))), "[4, 5, 6]");
    ExpectClean();
}

TEST_F(DriverRead, AnEmptyBlockBetweenOthersIsNoValue)
{
    EXPECT_EQ(Ask("a,b", Request({1, 2}), Block(Int(1), 1) + Block({}, 1) + Block(Int(2))), "[1, 2]");
    ExpectClean();
}

TEST_F(DriverRead, OnlyAContinuationFlagOfOneAnnouncesABlock)
{
    EXPECT_EQ(Ask("a,b", Request({1, 2}), Block(Int(1) + Int(2), 2)), "[1, 2]");
    ExpectClean();
}

TEST_F(DriverRead, AReplyWithoutEnoughValuesLeavesTheLaterSlotsAsTheyAre)
{
    EXPECT_EQ(Ask("a,b", Request({1, 2}), Block(Int(1) + Int(2))), "[1, 2]");
    EXPECT_EQ(Ask("a,b", Request({1, 2}), Block(Int(8))), "[8, 2]");
    EXPECT_EQ(Ask("b", Request({2}), Block({})), "2");
    ExpectClean();
}

TEST_F(DriverRead, EmptyBlocksAreWalkedPastUntilAValueComes)
{
    EXPECT_EQ(Ask("a", Request({1}), Block({}, 1) * 1000 + Block(Int(4))), "4");
    ExpectClean();
}

TEST_F(DriverRead, EmptyBlocksWithoutEndFailByTheTimeOutAndEndTheConnection)
{
    ASSERT_TRUE(Core().m_reqSock.SetTimeOut(200));
    CPlay play([&] {
        m_req.Want(Request({1}));
        while (m_req.Send(Block({}, 1) * 1000))
            continue;
    });
    EXPECT_EQ(Read(*m_pA, "a"), "None");
    play.Join();
    EXPECT_EQ(Read(*m_pA, "c"), "None") << "later requests fail as after any time-out";
}

TEST_F(DriverRead, SurplusValuesAndBlocksAreNotTakenForTheNextReply)
{
    EXPECT_EQ(Ask("a", Request({1}), Block(Int(5) + Int(6) + Int(7))), "5");
    ExpectClean();
    EXPECT_EQ(Ask("a", Request({1}), Block(Int(5), 1) + Block(Int(99), 1) * 50 + Block(Int(99))), "5");
    ExpectClean();
    EXPECT_EQ(Ask("a", Request({1}), Block(Int(5)) + Block(Int(99)) * 500), "5");
    EXPECT_EQ(Read(*m_pA, "c"), "None") << "blocks that nobody has announced";
    ExpectEnded();
}

TEST_F(DriverRead, TheLongestBlockIs4096Bytes)
{
    const std::string strText(4096 - 3, 'x');
    EXPECT_EQ(Ask("a", Request({1}), Block(Typed(VT_STR, Text(strText)))), "'" + strText + "'");
    EXPECT_EQ(Ask("a", Request({1}), Block(Typed(VT_STR, Text(strText + "x")))), "None");
    ExpectClean();
    EXPECT_EQ(Ask("a", Request({1}), Block(Int(1) * 8000)), "None");
    ExpectClean();
    EXPECT_EQ(Ask("a", Request({1}), Block(Bytes(0xFFFF))), "None");
    ExpectClean();
}

TEST_F(DriverRead, AValueThatRunsPastItsBlockIsAFailedRead)
{
    for (const Bytes& values : {U8(3), U16(3), Typed(VT_I4, U8(0) * 3), Typed(VT_R8, U8(0) * 7),
                                Typed(VT_STR, {}), Typed(VT_STR, Raw("no end"))}) {
        EXPECT_EQ(Ask("a", Request({1}), Block(values)), "None") << Hex(values);
        EXPECT_EQ(Ask("a,b", Request({1, 2}), Block(Int(1) + values)), "None") << Hex(values);
        ExpectClean();
    }
}

TEST_F(DriverRead, AReplyOfAnotherCommandIsAFailedRead)
{
    for (const Bytes& reply : {U8('0'), U8('b') + U16(6) + Int(5), Block(Int(1), 1) + U8('X')}) {
        EXPECT_EQ(Ask("a,b", Request({1, 2}), reply), "None") << Hex(reply);
        ExpectEnded();
        Renew();
    }
}

TEST_F(DriverRead, AReplyInPiecesIsReadWhole)
{
    const CPlay play([&] {
        m_req.Want(Request({1, 2}));
        for (const BYTE n : Block(Int(1), 1) + Block(Typed(VT_STR, Text("two")))) {
            m_req.Send({n});
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    EXPECT_EQ(Read(*m_pA, "a,b"), "[1, 'two']");
}

TEST_F(DriverRead, AReplyThatIsCutShortIsAFailedRead)
{
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_req.Send(U8('H') + U8(0) + U16(6) + U16(VT_I4) + U8(1));
        m_req.Close();
    });
    EXPECT_EQ(Read(*m_pA, "a"), "None");
    EXPECT_EQ(Read(*m_pA, "a"), "None");
}

TEST_F(DriverRead, ALateReplyIsNeverTakenForTheAnswerToAnotherRequest)
{
    Core().m_reqSock.SetTimeOut(100);
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_req.WantEnd();
        m_req.Send(Block(Int(11)));
    });
    EXPECT_EQ(Read(*m_pA, "a"), "None");
    EXPECT_EQ(Read(*m_pA, "b"), "None");
    EXPECT_EQ(Core().m_reqSock.GetHandle(), -1);
}

TEST_F(DriverRead, AtMost1023TagsAreFetchedByOneCall)
{
    constexpr unsigned COUNT = 1100;
    Bytes request = U8('H') + U16(1023);
    std::string strNames;
    for (unsigned i = 0; i < COUNT; ++i) {
        strNames += "t" + std::to_string(i) + ",";
        if (i < 1023)
            request = request + U16(1) + U16(i);
    }
    ASSERT_EQ(request.size(), 4095U);
    const CPlay play([&] {
        for (unsigned nAsked = 0; nAsked < COUNT;) {
            Bytes names = m_req.Take(1);
            Bytes reply = names;
            // Each look-up request holds whole names; how many is seen from its length.
            size_t nLen = 1;
            while (nAsked < COUNT && nLen + std::to_string(nAsked).size() + 4 <= 768) {
                const Bytes name = U16(1) + Text("t" + std::to_string(nAsked));
                m_req.Want(name);
                nLen += name.size();
                reply = reply + U16(nAsked++) + U16(0);
            }
            m_req.Send(reply);
        }
        m_req.Want(request);
        for (unsigned i = 0; i < 1023; i += 341) {
            Bytes values;
            for (unsigned k = 0; k < 341; ++k)
                values = values + Int(i + k);
            m_req.Send(Block(values, i < 682 ? 1 : 0));
        }
    });
    const CPyRef list(m_pB->GetTagValue(strNames.c_str()));
    ASSERT_TRUE(list && PyList_CheckExact(list.get()));
    ASSERT_EQ(PyList_GET_SIZE(list.get()), COUNT);
    EXPECT_EQ(Repr(PyList_GET_ITEM(list.get(), 0)), "0");
    EXPECT_EQ(Repr(PyList_GET_ITEM(list.get(), 1022)), "1022");
    EXPECT_EQ(PyList_GET_ITEM(list.get(), 1023), nullptr) << "not fetched: no value, no object";
}

TEST_F(DriverRead, ResultsAreNewReferences)
{
    const CPlay play([&] {
        m_req.Want(Request({1}));
        m_req.Send(Block(Typed(VT_STR, Text("own text"))));
    });
    const CPyRef value(m_pA->GetTagValue("a"));
    EXPECT_EQ(Py_REFCNT(value.get()), 1);
}

} // namespace
