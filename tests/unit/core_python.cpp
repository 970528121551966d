// Python code of a test's own, and what goes to sys.unraisablehook; declared in core_fixture.h.
#include "core_fixture.h"

CPyScope::CPyScope() : m_globals(PyDict_New())
{
    PyDict_SetItemString(m_globals.get(), "__builtins__", PyEval_GetBuiltins());
    const CPyRef name(PyUnicode_FromString("unit_core"));
    PyDict_SetItemString(m_globals.get(), "__name__", name.get());
}

void CPyScope::Run(const char* szCode)
{
    const CPyRef done(PyRun_String(szCode, Py_file_input, m_globals.get(), m_globals.get()));
    if (!done)
        PyErr_Print();
    EXPECT_TRUE(done) << szCode;
}

CPyRef CPyScope::Eval(const char* szExpression)
{
    CPyRef value(PyRun_String(szExpression, Py_eval_input, m_globals.get(), m_globals.get()));
    if (!value)
        PyErr_Print();
    EXPECT_TRUE(value) << szExpression;
    return value;
}

CUnraisable::CUnraisable()
    : m_scope(R"(
import sys
seen, objects = [], []
def hook(unraisable):
    seen.append((unraisable.exc_type.__name__, str(unraisable.exc_value)))
    objects.append(unraisable.object)
before, sys.unraisablehook = sys.unraisablehook, hook
)")
{
}

CUnraisable::~CUnraisable()
{
    m_scope.Run("sys.unraisablehook = before");
}

size_t CUnraisable::Count()
{
    return PyLong_AsSize_t(m_scope.Eval("len(seen)").get());
}

bool CUnraisable::IsObject(size_t nIndex, PyObject* p)
{
    const CPyRef list = m_scope.Eval("objects");
    PyObject* pItem = PyList_GetItem(list.get(), static_cast<Py_ssize_t>(nIndex));
    return pItem && PyObject_RichCompareBool(pItem, p, Py_EQ) == 1;
}
