// Held callables, the interpreter lock as a receive thread takes it, and the flat functions behind the types.
#include "core_fixture.h"

#include <array>

namespace {

class PyCallback : public ::testing::Test
{
protected:
    void TearDown() override { EXPECT_FALSE(PyErr_Occurred()); }
    static CPyRef Args(int n = 1) { return CPyRef(Py_BuildValue("(i)", n)); }
    static Py_ssize_t Refs(const CPyRef& p) { return Py_REFCNT(p.get()); }

    CUnraisable m_unraisable;
};

TEST_F(PyCallback, ALambdaIsKeptAliveByItsRegistration)
{
    CPyScope scope("got = []\nmake = lambda: (lambda n: got.append(n))");
    auto callback = std::make_unique<CPyCallback>(scope.Eval("make()").get());
    callback->Call(Args(7));
    EXPECT_EQ(scope.Show("got"), "[7]");
    EXPECT_EQ(m_unraisable.Count(), 0U);
}

TEST_F(PyCallback, HoldsOneReferenceAndGivesItBack)
{
    const CPyRef fn = MakeCallable([](PyObject*) { return None(); });
    {
        CPyCallback callback(fn.get());
        EXPECT_EQ(Refs(fn), 2);
        callback.Call(Args());
        EXPECT_EQ(Refs(fn), 2);
    }
    EXPECT_EQ(Refs(fn), 1);
}

TEST_F(PyCallback, BuiltinsPartialsClassesAndObjectsWithCallAreKeptToo)
{
    CPyScope scope(R"(
import functools, weakref
got = []
class Callable:
    def __call__(self, n): got.append(("call", n))
class Made:
    def __init__(self, n): got.append(("made", n))
def two(a, b): got.append((a, b))
)");
    for (const char* szMake : {"[].append", "functools.partial(two, 'partial')", "Callable()", "Made"}) {
        CPyCallback callback(scope.Eval(szMake).get());
        callback.Call(Args(3));
    }
    EXPECT_EQ(scope.Show("got"), "[('partial', 3), ('call', 3), ('made', 3)]");
    EXPECT_EQ(m_unraisable.Count(), 0U);
}

constexpr const char* CLIENT = R"(
import gc, warnings, weakref
caught = []
class Client:
    def __init__(self): self.got = []
    def on_change(self, n): self.got.append(n)
    @classmethod
    def on_class(cls, n): got.append(n)
got = []
client = Client()
alive = weakref.ref(client)
)";

TEST_F(PyCallback, ABoundMethodDoesNotKeepItsInstanceAlive)
{
    CPyScope scope(CLIENT);
    CPyCallback callback(scope.Eval("client.on_change").get());
    callback.Call(Args(1));
    callback.Call(Args(2));
    EXPECT_EQ(scope.Show("client.got"), "[1, 2]");
    scope.Run("client = None");
    EXPECT_EQ(scope.Show("alive()"), "None") << "without any collection of cycles";
}

TEST_F(PyCallback, ABoundMethodOfAClassIsCalledAsLongAsTheClassLives)
{
    CPyScope scope(CLIENT);
    CPyCallback callback(scope.Eval("Client.on_class").get());
    callback.Call(Args(4));
    EXPECT_EQ(scope.Show("got"), "[4]");
}

TEST_F(PyCallback, AGoneInstanceGivesOneRuntimeWarningAndNoCall)
{
    CPyScope scope(CLIENT);
    CPyCallback callback(scope.Eval("client.on_change").get());
    scope.Run(R"(
client = None
warnings.simplefilter("always")
before, warnings.showwarning = warnings.showwarning, lambda *a, **k: caught.append(a)
)");
    for (int i = 0; i < 3; ++i)
        callback.Call(Args());
    scope.Run("warnings.showwarning = before\nwarnings.resetwarnings()");
    EXPECT_EQ(scope.Show("[w[1].__name__ for w in caught]"), "['RuntimeWarning']");
    EXPECT_NE(scope.Show("str(caught[0][0])").find("on_change"), std::string::npos);
    EXPECT_NE(scope.Show("str(caught[0][0])").find("is gone"), std::string::npos);
    EXPECT_EQ(m_unraisable.Count(), 0U);
}

TEST_F(PyCallback, AWarningThatIsTurnedIntoAnErrorIsReportedOnce)
{
    CPyScope scope(CLIENT);
    CPyCallback callback(scope.Eval("client.on_change").get());
    scope.Run("client = None\nwarnings.simplefilter('error')");
    callback.Call(Args());
    callback.Call(Args());
    scope.Run("warnings.resetwarnings()");
    EXPECT_EQ(m_unraisable.Show("[s[0] for s in seen]"), "['RuntimeWarning']");
}

TEST_F(PyCallback, AMethodOfAnInstanceThatKnowsNoWeakReferencesIsKeptAsItIs)
{
    CPyScope scope(R"(
class Slots:
    __slots__ = ("got",)
    def on_change(self, n): self.got.append(n)
got = []
def make():
    s = Slots()
    s.got = got
    return s.on_change
)");
    CPyCallback callback(scope.Eval("make()").get());
    EXPECT_FALSE(PyErr_Occurred());
    callback.Call(Args(5));
    EXPECT_EQ(scope.Show("got"), "[5]");
}

TEST_F(PyCallback, AnExceptionIsReportedWithTheCallableAndCleared)
{
    CPyScope scope("def fails(n): raise ValueError(n)\ngot = []\nworks = got.append");
    CPyCallback fails(scope.Eval("fails").get());
    fails.Call(Args(1));
    EXPECT_FALSE(PyErr_Occurred());
    CPyCallback works(scope.Eval("works").get());
    works.Call(Args(2));
    EXPECT_EQ(scope.Show("got"), "[2]");
    EXPECT_EQ(m_unraisable.Show("seen"), "[('ValueError', '1')]");
    EXPECT_TRUE(m_unraisable.IsObject(0, scope.Eval("fails").get()));
}

TEST_F(PyCallback, AnExceptionOfAMethodIsReportedWithTheMethod)
{
    CPyScope scope("class C:\n    def on(self, n): raise KeyError(n)\nc = C()");
    CPyCallback callback(scope.Eval("c.on").get());
    callback.Call(Args(1));
    EXPECT_EQ(m_unraisable.Count(), 1U);
    EXPECT_TRUE(m_unraisable.IsObject(0, scope.Eval("c.on").get()));
}

TEST_F(PyCallback, ASystemExitOfACallbackEndsNoProcess)
{
    CPyScope scope("import sys\ndef leave(n): sys.exit(3)");
    CPyCallback callback(scope.Eval("leave").get());
    callback.Call(Args());
    EXPECT_EQ(m_unraisable.Show("seen"), "[('SystemExit', '3')]");
}

TEST_F(PyCallback, ArgumentsThatCouldNotBeBuiltAreReportedAndNothingIsCalled)
{
    CPyScope scope("got = []\nfn = lambda *a: got.append(a)");
    CPyCallback callback(scope.Eval("fn").get());
    callback.Call(CPyRef(Py_BuildValue("(s)", "\xCB")));
    EXPECT_EQ(scope.Show("got"), "[]");
    EXPECT_EQ(m_unraisable.Show("[s[0] for s in seen]"), "['UnicodeDecodeError']");
    EXPECT_TRUE(m_unraisable.IsObject(0, scope.Eval("fn").get()));
}

TEST_F(PyCallback, ReportingWithoutAnErrorReportsNothing)
{
    CPyScope scope("fn = lambda: None");
    CPyCallback callback(scope.Eval("fn").get());
    callback.ReportError();
    EXPECT_EQ(m_unraisable.Count(), 0U);
}

TEST_F(PyCallback, AMissingArgumentIsReportedAndNothingIsCalled)
{
    CPyScope scope("got = []\nfn = lambda *a: got.append(a)");
    CPyCallback callback(scope.Eval("fn").get());
    const CPyRef first(PyLong_FromLong(1));
    PyErr_SetString(PyExc_MemoryError, "none");
    callback.Call(std::array<PyObject*, 2>{first.get(), nullptr});
    EXPECT_FALSE(PyErr_Occurred());
    EXPECT_EQ(scope.Show("got"), "[]");
    EXPECT_EQ(m_unraisable.Show("seen"), "[('MemoryError', 'none')]");
}

TEST_F(PyCallback, AFunctionAMethodAndABuiltinGetAllArgumentsInOrder)
{
    CPyScope scope(R"(
got = []
class Client:
    def on(self, *a): got.append(("method", *a))
client = Client()
def function(*a): got.append(("function", *a))
class Callable:
    def __call__(self, *a): got.append(("object", *a))
import functools, types
partial = functools.partial(function, "first")
strange = types.MethodType(Callable(), client)
)");
    const CPyRef args(Py_BuildValue("(iiiiiiiiii)", 0, 1, 2, 3, 4, 5, 6, 7, 8, 9));
    const CPyRef strange = scope.Eval("strange");
    for (const char* szFn : {"function", "client.on", "Callable()", "partial"})
        CPyCallback(scope.Eval(szFn).get()).Call(args);
    scope.Run("all = tuple(range(10))");
    EXPECT_EQ(scope.Show("got == [('function', *all), ('method', *all), ('object', *all), "
                         "('function', 'first', *all)]"),
              "True")
        << scope.Show("got");
    CPyCallback(strange.get()).Call(args);
    EXPECT_EQ(scope.Show("got[-1] == ('object', client, *all)"), "True") << scope.Show("got[-1]");
}

TEST(PyName, IsMadeOnceUntilItIsAnother)
{
    CPyName name;
    const CPyRef first = NewPyRef(name.Of("\xE7\x82\x89 1"));
    EXPECT_EQ(Repr(first), "'\xE7\x82\x89 1'");
    EXPECT_EQ(name.Of("\xE7\x82\x89 1"), first.get());
    EXPECT_EQ(Repr(NewPyRef(name.Of("a"))), "'a'");
    EXPECT_EQ(Repr(NewPyRef(name.Of("ab"))), "'ab'");
    EXPECT_EQ(Repr(NewPyRef(name.Of(""))), "''");
    EXPECT_EQ(Repr(first), "'\xE7\x82\x89 1'") << "who has kept it keeps it";
}

TEST(PyName, WhatIsNoUtf8HasNone)
{
    CPyName name;
    ASSERT_NE(name.Of("a"), nullptr);
    EXPECT_EQ(name.Of("\xCB"), nullptr);
    EXPECT_TRUE(PyErr_ExceptionMatches(PyExc_UnicodeDecodeError));
    PyErr_Clear();
    EXPECT_EQ(Repr(NewPyRef(name.Of("a"))), "'a'");
}

TEST_F(PyCallback, CallsLeaveReferenceCountsAsTheyWere)
{
    CPyScope scope(CLIENT);
    scope.Run("def quiet(n): return None\nclass Mute:\n    def on(self, n): return None\nmute = Mute()");
    const CPyRef function = scope.Eval("quiet");
    const CPyRef instance = scope.Eval("mute");
    CPyCallback plain(function.get());
    CPyCallback method(scope.Eval("mute.on").get());
    const CPyRef args = Args();
    const auto counts = [&] {
        return std::vector{Refs(function), Refs(instance), Refs(args), Py_REFCNT(Py_None)};
    };
    const auto run = [&] {
        for (int i = 0; i < 1000; ++i) {
            plain.Call(args);
            method.Call(args);
        }
    };
    run();
    const auto before = counts();
    run();
    EXPECT_EQ(counts(), before);
}

size_t CountThreadStates()
{
    size_t n = 0;
    for (auto* p = PyInterpreterState_ThreadHead(PyInterpreterState_Get()); p; p = PyThreadState_Next(p))
        ++n;
    return n;
}

/// What a receive thread does, on a thread of its own.
class PyThread : public ::testing::Test
{
protected:
    void TearDown() override { EXPECT_EQ(CountThreadStates(), m_nStates); }
    void OnThread(const std::function<void()>& fn)
    {
        const COthersRun others;
        std::thread(fn).join();
    }

    CRecvLink m_link;
    const size_t m_nStates = CountThreadStates();
};

TEST_F(PyThread, WithoutACallNoThreadStateIsMade)
{
    std::thread([this] { // the lock is held by the test: whoever wanted it would wait for ever
        CPyThread python(m_link);
        python.EndTurn();
    })
        .join();
}

TEST_F(PyThread, TheLockIsTakenAtTheFirstCallAndKeptToTheEndOfTheReceive)
{
    OnThread([this] {
        CPyThread python(m_link);
        EXPECT_FALSE(PyGILState_Check());
        for (int nReceive = 0; nReceive < 3; ++nReceive) {
            for (int nCall = 0; nCall < 3; ++nCall) {
                EXPECT_TRUE(python.Call([] { EXPECT_TRUE(PyGILState_Check()); }));
                EXPECT_TRUE(PyGILState_Check());
            }
            python.EndTurn();
            EXPECT_FALSE(PyGILState_Check());
        }
    });
}

TEST_F(PyThread, OneThreadStateLastsForTheThreadsLife)
{
    OnThread([this] {
        CPyThread python(m_link);
        PyThreadState* pFirst = nullptr;
        EXPECT_TRUE(python.Call([&] { pFirst = PyThreadState_Get(); }));
        python.EndTurn();
        for (int i = 0; i < 3; ++i) {
            EXPECT_TRUE(python.Call([&] {
                EXPECT_EQ(PyThreadState_Get(), pFirst);
                EXPECT_EQ(CountThreadStates(), m_nStates + 1);
            }));
            python.EndTurn();
        }
    });
}

TEST_F(PyThread, GivesItsStateBackWhetherTheLockIsHeldOrNot)
{
    for (const bool bHeld : {true, false}) {
        OnThread([this, bHeld] {
            CPyThread python(m_link);
            EXPECT_TRUE(python.Call([] {}));
            if (!bHeld)
                python.EndTurn();
        });
        EXPECT_EQ(CountThreadStates(), m_nStates);
    }
}

/// The thread may hold the last reference to a callable when it finds out, so it must have the lock then.
TEST_F(PyThread, ALinkThatWasLetGoBeforeMakesNoCallButLeavesWithTheLock)
{
    m_link.LetGo(0);
    OnThread([this] {
        CPyThread python(m_link);
        EXPECT_FALSE(python.Call([] { ADD_FAILURE() << "called"; }));
        EXPECT_TRUE(PyGILState_Check());
    });
}

TEST_F(PyThread, ALinkThatIsLetGoWhileTheLockIsAwaitedMakesNoCallButLeavesWithTheLock)
{
    std::thread thread([this] {
        CPyThread python(m_link);
        EXPECT_FALSE(python.Call([] { ADD_FAILURE() << "called"; }));
        EXPECT_TRUE(PyGILState_Check());
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50)); // by now it awaits the lock
    EXPECT_TRUE(m_link.LetGo(30000));
    const COthersRun others;
    thread.join();
}

TEST_F(PyThread, ALinkThatIsLetGoDuringACallSaysSoAfterwards)
{
    OnThread([this] {
        CPyThread python(m_link);
        bool bCalled = false;
        EXPECT_FALSE(python.Call([&] {
            EXPECT_TRUE(m_link.LetGo(0));
            bCalled = true;
        }));
        EXPECT_TRUE(bCalled);
    });
}

/// It may hold the last reference to a callable, which it could not release any more.
TEST_F(PyThread, OnceForbiddenAThreadThatAsksForTheLockStaysWhereItIs)
{
    // For a whole process, so in one of its own.
    EXPECT_EXIT(
        {
            CPyThread::ForbidAll();
            std::thread([this] {
                CPyThread python(m_link);
                python.Call([] { std::_Exit(1); });
                std::_Exit(2);
            }).detach();
            const COthersRun others;
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            std::_Exit(7);
        },
        ::testing::ExitedWithCode(7), "");
}

using FlatFunctions = CDriverTest;

TEST_F(FlatFunctions, NullIsAnsweredLikeAConnectionThatHasEnded)
{
    const CPyRef fn = MakeCallable([](PyObject*) { return None(); });
    EXPECT_EQ(_DBConnect(nullptr, "host", "user", "password"), -2);
    EXPECT_EQ(_DBGetDriver(nullptr, "A"), nullptr);
    _DBSetRtAlarmNotify(nullptr, fn.get(), 1);
    EXPECT_EQ(Repr(CPyRef(_DrvGetTagValue(nullptr, "t"))), "None");
    EXPECT_EQ(_DrvSetTagValue(nullptr, "t", Py_None), -2);
    _DrvSetTagNotify(nullptr, fn.get());
    EXPECT_EQ(_DrvConnectTag(nullptr, "t"), 0);
    _DBCoreDelete(nullptr);
    DrvRelease(nullptr);
    EXPECT_EQ(Py_REFCNT(fn.get()), 1);
}

TEST_F(FlatFunctions, NamesAreConvertedFromUtf8)
{
    const Bytes name = Text("\xCB\xAE");
    const CPyRef five(PyLong_FromLong(5));
    const CPlay play([&] {
        m_req.Want(U8('L') + U16(0) + name);
        m_req.Send(U8('L') + U16(1) + U16(0));
        m_req.Want(U8('H') + U16(1) + U16(0) + U16(1));
        m_req.Send(U8('H') + U8(0) + U16(3) + Typed(VT_UI1, U8(9)));
        m_req.Want(U8('b') + U16(1) + U16(0) + U16(1) + U8(0));
        m_req.Send(U8('b') + U16(3) + Typed(VT_UI1, U8(8)));
        m_req.Want(U8('g') + U16(1) + U16(0) + U16(1) + Typed(VT_I4, U32(5)));
    });
    EXPECT_EQ(Repr(CPyRef(_DrvGetTagValue(m_pA, "\xE6\xB0\xB4"))), "9");
    EXPECT_EQ(_DrvConnectTag(m_pA, "\xE6\xB0\xB4"), 1);
    EXPECT_EQ(_DrvSetTagValue(m_pA, "\xE6\xB0\xB4", five.get()), 0);
    Core().m_nRights = 0;
    EXPECT_EQ(_DrvSetTagValue(m_pA, "\xE6\xB0\xB4", five.get()), -1);
}

TEST_F(FlatFunctions, ADriverThatIsHeldOutlivesItsCore)
{
    DrvAddRef(m_pA);
    DeleteCore();
    EXPECT_EQ(Repr(CPyRef(_DrvGetTagValue(m_pA, "t"))), "None");
    EXPECT_EQ(_DrvConnectTag(m_pA, "t"), 0);
    DrvRelease(m_pA);
}

} // namespace
