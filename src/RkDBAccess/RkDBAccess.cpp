// The module: its two types, their method tables, the parsing of arguments. Every action is one call of a
// flat function (rkdb.h). The methods keep the interpreter lock, also while they wait for the network.
#define PY_SSIZE_T_CLEAN
#include <Python.h>

#include "rkdb.h"

namespace {

struct DBCoreObj
{
    PyObject ob_base;
    CDBCore* pDB; // owned
};

struct DriverObj
{
    PyObject ob_base;
    CDBDriver* pDrv; // one counted reference; null when a script made the object itself
};

CDBCore* CoreOf(PyObject* pSelf)
{
    return reinterpret_cast<DBCoreObj*>(pSelf)->pDB;
}

CDBDriver*& DriverOf(PyObject* pSelf)
{
    return reinterpret_cast<DriverObj*>(pSelf)->pDrv;
}

/// A static type; the slots not named here stay empty.
PyTypeObject MakeType(const char* szName, const char* szDoc, Py_ssize_t nSize, newfunc fnNew,
                      destructor fnDealloc, PyMethodDef* pMethods)
{
    PyTypeObject type{};
    type.ob_base = PyVarObject{PyObject_HEAD_INIT(nullptr) 0};
    type.tp_name = szName;
    type.tp_doc = szDoc;
    type.tp_basicsize = nSize;
    type.tp_flags = Py_TPFLAGS_DEFAULT;
    type.tp_new = fnNew;
    type.tp_dealloc = fnDealloc;
    type.tp_methods = pMethods;
    return type;
}

/// Callables are checked before anything is called with them.
bool IsCallback(PyObject* pFn)
{
    if (PyCallable_Check(pFn))
        return true;
    PyErr_SetString(PyExc_TypeError, "parameter must be callable");
    return false;
}

PyObject* NewNone()
{
    Py_INCREF(Py_None);
    return Py_None;
}

/// A signal handler that raised in the middle of a call has ended it: the exception is the result.
PyObject* Result(PyObject* pResult)
{
    if (!PyErr_Occurred())
        return pResult;
    Py_XDECREF(pResult);
    return nullptr;
}

PyObject* DrvSetTagNotify(PyObject* pSelf, PyObject* pArgs)
{
    PyObject* pFn = nullptr;
    if (!PyArg_ParseTuple(pArgs, "O:set_callback", &pFn) || !IsCallback(pFn))
        return nullptr;
    _DrvSetTagNotify(DriverOf(pSelf), pFn);
    return Result(NewNone());
}

PyObject* DrvConnectTag(PyObject* pSelf, PyObject* pArgs)
{
    const char* szTags = nullptr;
    if (!PyArg_ParseTuple(pArgs, "s", &szTags))
        return nullptr;
    const int nResult = _DrvConnectTag(DriverOf(pSelf), szTags);
    return Result(PyLong_FromLong(nResult));
}

PyObject* DrvGetTagValue(PyObject* pSelf, PyObject* pArgs)
{
    const char* szTags = nullptr;
    if (!PyArg_ParseTuple(pArgs, "s", &szTags))
        return nullptr;
    return Result(_DrvGetTagValue(DriverOf(pSelf), szTags));
}

PyObject* DrvSetTagValue(PyObject* pSelf, PyObject* pArgs)
{
    const char* szTags = nullptr;
    PyObject* pValue = nullptr;
    if (!PyArg_ParseTuple(pArgs, "sO", &szTags, &pValue))
        return nullptr;
    const int nResult = _DrvSetTagValue(DriverOf(pSelf), szTags, pValue);
    return Result(PyLong_FromLong(nResult));
}

PyMethodDef g_driverMethods[] = {
    {"SetTagNotify", DrvSetTagNotify, METH_VARARGS, "Tag Value Change Notify Function"},
    {"ConnectTag", DrvConnectTag, METH_VARARGS, "Connect Tag"},
    {"GetTagValue", DrvGetTagValue, METH_VARARGS, "Get Tag Value"},
    {"SetTagValue", DrvSetTagValue, METH_VARARGS, "Set Tag Value"},
    {nullptr, nullptr, 0, nullptr},
};

PyObject* Driver_new(PyTypeObject* pType, PyObject*, PyObject*)
{
    return pType->tp_alloc(pType, 0);
}

void Driver_dealloc(PyObject* pSelf)
{
    DrvRelease(DriverOf(pSelf));
    Py_TYPE(pSelf)->tp_free(pSelf);
}

PyTypeObject g_driverType = MakeType("RkDBAccess.Driver", "Driver objects", sizeof(DriverObj), Driver_new,
                                     Driver_dealloc, g_driverMethods);

PyObject* DBConnect(PyObject* pSelf, PyObject* pArgs)
{
    const char* szHost = nullptr;
    const char* szUser = nullptr;
    const char* szPassword = nullptr;
    if (!PyArg_ParseTuple(pArgs, "sss", &szHost, &szUser, &szPassword))
        return nullptr;
    const int nResult = _DBConnect(CoreOf(pSelf), szHost, szUser, szPassword);
    return Result(PyLong_FromLong(nResult));
}

PyObject* DBGetDriver(PyObject* pSelf, PyObject* pArgs)
{
    const char* szName = nullptr;
    if (!PyArg_ParseTuple(pArgs, "s", &szName))
        return nullptr;
    CDBDriver* pDrv = _DBGetDriver(CoreOf(pSelf), szName);
    if (!pDrv)
        return nullptr; // without an exception: the interpreter's complaint about that is the answer
    auto* pDriver = PyObject_New(DriverObj, &g_driverType);
    if (!pDriver)
        return nullptr;
    DrvAddRef(pDrv);
    pDriver->pDrv = pDrv;
    return reinterpret_cast<PyObject*>(pDriver);
}

PyObject* DBSetRtAlarmNotify(PyObject* pSelf, PyObject* pArgs)
{
    PyObject* pFn = nullptr;
    int nNotifyExisting = 0;
    if (!PyArg_ParseTuple(pArgs, "Oi:set_callback", &pFn, &nNotifyExisting) || !IsCallback(pFn))
        return nullptr;
    _DBSetRtAlarmNotify(CoreOf(pSelf), pFn, nNotifyExisting);
    return Result(NewNone());
}

PyMethodDef g_coreMethods[] = {
    {"Connect", DBConnect, METH_VARARGS, "Connect DB server"},
    {"GetDriver", DBGetDriver, METH_VARARGS, "Get DB Driver"},
    {"SetRtAlarmNotify", DBSetRtAlarmNotify, METH_VARARGS, "Set Realtime Alarm Notify"},
    {nullptr, nullptr, 0, nullptr},
};

PyObject* DBCore_new(PyTypeObject* pType, PyObject*, PyObject*)
{
    PyObject* pSelf = pType->tp_alloc(pType, 0);
    if (!pSelf || (reinterpret_cast<DBCoreObj*>(pSelf)->pDB = _DBCoreNew()))
        return pSelf;
    Py_DECREF(pSelf);
    return PyErr_NoMemory();
}

void DBCore_dealloc(PyObject* pSelf)
{
    _DBCoreDelete(CoreOf(pSelf));
    Py_TYPE(pSelf)->tp_free(pSelf);
}

PyTypeObject g_coreType = MakeType("RkDBAccess.DBCore", "DBCore objects", sizeof(DBCoreObj), DBCore_new,
                                   DBCore_dealloc, g_coreMethods);

PyObject* EndConnections(PyObject*, PyObject*)
{
    DBEndAll();
    return Result(NewNone());
}

PyMethodDef g_endConnections = {"end_connections", EndConnections, METH_NOARGS, nullptr};

/// Receive threads must be gone before the interpreter ends, so the exit functions end all connections.
bool EndConnectionsAtExit()
{
    PyObject* pAtExit = PyImport_ImportModule("atexit");
    PyObject* pFn = pAtExit ? PyCFunction_New(&g_endConnections, nullptr) : nullptr;
    PyObject* pResult = pFn ? PyObject_CallMethod(pAtExit, "register", "O", pFn) : nullptr;
    const bool bDone = pResult != nullptr;
    Py_XDECREF(pResult);
    Py_XDECREF(pFn);
    Py_XDECREF(pAtExit);
    return bDone;
}

bool AddType(PyObject* pModule, const char* szName, PyTypeObject& type)
{
    if (PyType_Ready(&type) < 0)
        return false;
    auto* pType = reinterpret_cast<PyObject*>(&type);
    Py_INCREF(pType);
    if (PyModule_AddObject(pModule, szName, pType) == 0)
        return true;
    Py_DECREF(pType);
    return false;
}

/// Types, connections and the list of them belong to the process, and the interpreter that ends takes all of
/// them along: so there is one interpreter that may have them. Copies of an initialised module would go round
/// a check that only initialising makes, hence the two steps: these are taken anew in each interpreter.
PyObject* CreateModule(PyObject*, PyModuleDef* pDef)
{
    if (PyInterpreterState_Get() == PyInterpreterState_Main())
        return PyModule_New(pDef->m_name); // its own name, not that of its file
    PyErr_SetString(PyExc_ImportError,
                    "RkDBAccess works in the main interpreter only, not in sub-interpreters");
    return nullptr;
}

int FillModule(PyObject* pModule)
{
    // A module that is imported again keeps its place among the exit functions.
    static bool bEndsAtExit = false;
    if (!AddType(pModule, "DBCore", g_coreType) || !AddType(pModule, "Driver", g_driverType))
        return -1;
    bEndsAtExit = bEndsAtExit || EndConnectionsAtExit();
    return bEndsAtExit ? 0 : -1;
}

PyModuleDef_Slot g_moduleSlots[] = {
    {Py_mod_create, reinterpret_cast<void*>(CreateModule)},
    {Py_mod_exec, reinterpret_cast<void*>(FillModule)},
#ifdef Py_mod_multiple_interpreters
    {Py_mod_multiple_interpreters, Py_MOD_MULTIPLE_INTERPRETERS_NOT_SUPPORTED},
#endif
    {0, nullptr},
};

PyModuleDef g_module = {PyModuleDef_HEAD_INIT, "rkdb",  "rkdb access.", 0,      nullptr,
                        g_moduleSlots,         nullptr, nullptr,        nullptr};

} // namespace

PyMODINIT_FUNC PyInit_RkDBAccess()
{
    return PyModuleDef_Init(&g_module);
}
