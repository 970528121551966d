// Brings one project file of the server up to date over the request connection: a small line-oriented
// exchange that uses neither the scrambling nor the request framing.
//
//   client -> server  code; relay prefix if any; file name; "\r\n";
//                     "LastTime:%X\r\nSize:%X\r\n" when there is a local copy;
//                     "gzTime:%X\r\ngzSize:%X\r\n" when there is a local ".gz" copy; "Hello:Yes\r\n\r\n"
//   server -> client  "name:value\r\n" lines, an empty line, then Size body bytes
//   client -> server  "%cHello%X" and a NUL for each window, if the server said Hello
#pragma once

#include "SyncSocket.h"
#include "XFile.h"
#include "cstring.h"

#include <ctime>
#include <string>

/// The parsed response header.
struct SCFileInfo
{
    bool bUseLast = false; // the client's copy is current; nothing follows
    bool bExist = true;    // the file exists on the server
    bool bGZ = false;      // the body is the compressed form, kept under the name with ".gz" added
    bool bAppend = false;  // the body continues the client's copy
    bool bHello = false;   // the server awaits an acknowledgement for each window
    time_t tt = 0;         // the file's time, seconds since 1970-01-01 UTC
    uint64_t dwSize = 0;   // body bytes; the largest number when the header's is none or does not fit
    std::string strName;   // as the server calls it; not used here
};

/// Told of progress: after each chunk, and once at the end with true.
class IGetFileCB
{
public:
    virtual ~IGetFileCB() = default;
    virtual void OnProgress(int nBytes, bool bFinished) = 0;
};

/// How an exchange ended.
enum class EDownload
{
    Failed,   // it broke off, its reply is no header, or more came than was announced: what comes next on the
              // connection is not known, and the caller ends it
    Complete, // the local copy is as the server wants it, and every byte of the reply has been read
    NotStored,  // the connection is as clean, but there is no such copy: it could not be written, or what is
                // in its place is not to be trusted (then nothing was asked)
    Compressed, // as Complete, but the server's file is here as ".gz" only, which nobody unpacks
};

/// What is fetched is a directory or a list; more than this is refused where it is announced.
constexpr uint64_t MAX_DOWNLOAD_SIZE = 32 << 20;
/// A download that brings fewer bytes than this, and not its end either, in the socket's receive time-out has
/// failed.
constexpr size_t MIN_PROGRESS = 4096;

/// The exchange itself; GetFile with a result that also tells whether the connection is clean behind it. When
/// it is complete and there is a file, pCopy is left open on exactly the copy that the server's answer is
/// about, whatever other processes put in its place meanwhile.
EDownload DownloadFile(LPCSTR szFileName, CSyncSocket& sock, char nCode, LPCSTR szPath, unsigned long mtime,
                       unsigned long size, IGetFileCB* pGetFileCB, LPCSTR szAddP2p, XFile* pCopy = nullptr);

/// Returns 1 when the local copy is as the server wants it or nothing could be done about it here, 0 when the
/// exchange failed. szFileName and szPath (ends in '/') are GB2312; mtime and size are what the caller
/// believes of the server's copy. What a failed transfer has brought is kept with the server's time, marked
/// as a part, so that the next request can name it.
int GetFile(LPCSTR szFileName, CSyncSocket& sock, char nCode, LPCSTR szPath, unsigned long mtime,
            unsigned long size, IGetFileCB* pGetFileCB, LPCSTR szAddP2p);

/// Parses the response header; returns the offset of the first byte behind it.
int GetFileInfoByBuf(const char* buf, int nLen, SCFileInfo& fi);

/// Reads one header line from nPos on; returns 1 when it has a name. var holds varMax + 1 bytes, prop propMax
/// + 1.
int ReadHttpCont(const char* szHttpCont, int& nPos, int nLen, char* var, int varMax, char* prop, int propMax);
