// See MirrorDir.h.
#include "MirrorDir.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/file.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace {

constexpr mode_t FOLDER_MODE = 0700;
constexpr mode_t FILE_MODE = 0600;
constexpr mode_t OTHERS_WRITE = S_IWGRP | S_IWOTH;
constexpr int OPEN_FOLDER = O_PATH | O_DIRECTORY | O_CLOEXEC;
constexpr int NAME_ATTEMPTS = 16;
constexpr char TEMP_MARK = '~';

bool IsOwn(const struct stat& st) noexcept
{
    return st.st_uid == ::geteuid() && !(st.st_mode & OTHERS_WRITE);
}

/// Where the sticky bit is set, others can add names, but cannot take away or replace ours. The folder's
/// owner still can, so it must be one who could do anything anyway.
bool IsFitForRoot(const struct stat& st) noexcept
{
    const bool bOwner = st.st_uid == ::geteuid() || st.st_uid == 0;
    return bOwner && (!(st.st_mode & OTHERS_WRITE) || st.st_mode & S_ISVTX);
}

bool IsName(std::string_view name) noexcept
{
    return !name.empty() && name != "." && name != ".." && name.find('/') == std::string_view::npos;
}

template <class Fn> int Retried(Fn fnOpen)
{
    int nResult = 0;
    do
        nResult = fnOpen();
    while (nResult == -1 && errno == EINTR);
    return nResult;
}

std::string TempPrefix(const std::string& strName)
{
    return '.' + strName + TEMP_MARK;
}

/// No two files of one machine bear it at a time; who meets it nevertheless takes the next.
std::string TempName(const std::string& strName)
{
    static std::atomic<unsigned> nLast{0};
    std::array<char, 48> text{};
    std::snprintf(text.data(), text.size(), "%x-%x-%x", static_cast<unsigned>(::getpid()),
                  static_cast<unsigned>(::gettid()), ++nLast);
    return TempPrefix(strName) + text.data();
}

/// Locks a new file, which tells others that its writer is alive. False when one of them was here first and
/// took it for left over. Where the system knows no locks, nothing is ever swept up.
bool IsClaimed(const XFile& file) noexcept
{
    struct stat st = {};
    if (::flock(file.Handle(), LOCK_EX | LOCK_NB) != 0)
        return errno != EWOULDBLOCK;
    return ::fstat(file.Handle(), &st) == 0 && st.st_nlink > 0;
}

} // namespace

CMirrorDir::CMirrorDir(int hDir, bool bRoot) noexcept : m_hDir(hDir)
{
    struct stat st = {};
    if (m_hDir == -1)
        m_eState = errno == ENOENT ? EMirror::Missing : EMirror::Refused;
    else if (::fstat(m_hDir, &st) == 0 && (bRoot ? IsFitForRoot(st) : IsOwn(st)))
        m_eState = EMirror::Found;
    else
        m_eState = EMirror::Refused;
}

CMirrorDir::~CMirrorDir()
{
    if (m_hDir != -1)
        ::close(m_hDir);
}

CMirrorDir::CMirrorDir(CMirrorDir&& other) noexcept
    : m_hDir(std::exchange(other.m_hDir, -1)), m_eState(std::exchange(other.m_eState, EMirror::Missing))
{
}

CMirrorDir& CMirrorDir::operator=(CMirrorDir&& other) noexcept
{
    std::swap(m_hDir, other.m_hDir);
    std::swap(m_eState, other.m_eState);
    return *this;
}

CMirrorDir CMirrorDir::Root(const std::string& strPath, bool bMake)
{
    // With its '/' a link would be followed whatever the flags say.
    const std::string strName = strPath.substr(0, strPath.find_last_not_of('/') + 1);
    if (bMake && ::mkdir(strName.c_str(), FOLDER_MODE) == 0)
        static_cast<void>(::chmod(strName.c_str(), FOLDER_MODE));
    return {Retried([&] { return ::open(strName.c_str(), OPEN_FOLDER | O_NOFOLLOW); }), true};
}

CMirrorDir CMirrorDir::Of(std::string_view path, const std::string& strRoot)
{
    const size_t nName = path.rfind('/') + 1;
    if (!path.starts_with(strRoot)) {
        const std::string strFolder = nName == 0 ? "." : std::string(path.substr(0, nName));
        return {Retried([&] { return ::open(strFolder.c_str(), OPEN_FOLDER); }), false};
    }
    CMirrorDir dir = Root(strRoot, false);
    for (size_t nPos = strRoot.size(); nPos < nName && dir.IsOpen();) {
        const size_t nEnd = path.find('/', nPos);
        dir = dir.Sub(std::string(path.substr(nPos, nEnd - nPos)), EMake::No);
        nPos = nEnd + 1;
    }
    return dir;
}

CMirrorDir CMirrorDir::Sub(const std::string& strName, EMake eMake) const
{
    if (!IsOpen() || !IsName(strName))
        return CMirrorDir(IsOpen() ? EMirror::Refused : m_eState);
    const bool bMade = eMake != EMake::No && ::mkdirat(m_hDir, strName.c_str(), FOLDER_MODE) == 0;
    CMirrorDir dir(Retried([&] { return ::openat(m_hDir, strName.c_str(), OPEN_FOLDER | O_NOFOLLOW); }),
                   false);
    // By its name: the folder may be closed to its owner, too. Nobody else can have put another in its place.
    if (dir.IsOpen() && (bMade || eMake == EMake::AndClose) &&
        ::fchmodat(m_hDir, strName.c_str(), FOLDER_MODE, 0) != 0)
        dir.m_eState = EMirror::Refused;
    return dir;
}

EMirror CMirrorDir::OpenFile(const std::string& strName, XFile& file, struct stat& st) const
{
    if (!IsOpen())
        return m_eState;
    if (!IsName(strName))
        return EMirror::Refused;
    // Without O_NONBLOCK a pipe that nobody writes to would hold this call for ever.
    if (!file.OpenAt(m_hDir, strName.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK))
        return errno == ENOENT ? EMirror::Missing : EMirror::Refused;
    if (::fstat(file.Handle(), &st) == 0 && S_ISREG(st.st_mode) && IsOwn(st))
        return EMirror::Found;
    file.Close();
    return EMirror::Refused;
}

bool CMirrorDir::Remove(const std::string& strName) const
{
    if (!IsOpen())
        return m_eState == EMirror::Missing;
    return ::unlinkat(m_hDir, strName.c_str(), 0) == 0 || errno == ENOENT;
}

CNewFile::~CNewFile()
{
    if (!m_strTemp.empty())
        ::unlinkat(m_dir.m_hDir, m_strTemp.c_str(), 0);
}

bool CNewFile::Begin()
{
    if (!m_dir.IsOpen())
        return false;
    Sweep();
    for (int i = 0; i < NAME_ATTEMPTS && !m_file.IsOpen(); ++i) {
        const std::string strTemp = TempName(m_strName);
        if (!m_file.OpenAt(m_dir.m_hDir, strTemp.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW)) {
            if (errno != EEXIST)
                break;
        } else if (IsClaimed(m_file)) {
            m_strTemp = strTemp;
        } else {
            m_file.Close();
        }
    }
    m_bGood = m_file.IsOpen() && ::fchmod(m_file.Handle(), FILE_MODE) == 0;
    return m_bGood;
}

bool CNewFile::Append(XFile& source)
{
    std::vector<char> chunk(65536);
    m_bGood = m_bGood && source.Seek(0, SEEK_SET);
    while (m_bGood) {
        const int nRead = source.Read(chunk.data(), static_cast<UINT>(chunk.size()));
        if (nRead == 0)
            break;
        m_bGood = nRead > 0;
        Write(chunk.data(), static_cast<size_t>(std::max(nRead, 0)));
    }
    return m_bGood;
}

bool CNewFile::Write(const void* pBuf, size_t nLen)
{
    m_bGood = m_bGood && m_file.WriteAll(pBuf, nLen);
    return m_bGood;
}

bool CNewFile::Place(time_t t, bool bWhole)
{
    const timespec time{t, 0};
    const std::array times{time, time};
    if (!m_bGood)
        return false;
    static_cast<void>(::futimens(m_file.Handle(), times.data()));
    if (!bWhole && ::fchmod(m_file.Handle(), FILE_MODE | S_ISVTX) != 0)
        return false;
    if (::renameat(m_dir.m_hDir, m_strTemp.c_str(), m_dir.m_hDir, m_strName.c_str()) != 0)
        return false;
    m_strTemp.clear();
    return true;
}

void CNewFile::Sweep() const
{
    const int hList = ::openat(m_dir.m_hDir, ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const std::unique_ptr<DIR, int (*)(DIR*)> pList(hList == -1 ? nullptr : ::fdopendir(hList), &::closedir);
    if (!pList) {
        if (hList != -1)
            ::close(hList);
        return;
    }
    const std::string strPrefix = TempPrefix(m_strName);
    while (const dirent* pEntry = ::readdir(pList.get())) {
        XFile file;
        struct stat st = {};
        if (std::string_view(pEntry->d_name).starts_with(strPrefix) &&
            m_dir.OpenFile(pEntry->d_name, file, st) == EMirror::Found &&
            ::flock(file.Handle(), LOCK_EX | LOCK_NB) == 0)
            ::unlinkat(m_dir.m_hDir, pEntry->d_name, 0);
    }
}

std::string FileNameOf(std::string_view path)
{
    return std::string(path.substr(path.rfind('/') + 1));
}

EMirror OpenMirrorFile(const std::string& strPath, XFile& file)
{
    struct stat st = {};
    const EMirror eFound = CMirrorDir::Of(strPath, RKDB_MIRROR_ROOT).OpenFile(FileNameOf(strPath), file, st);
    if (eFound != EMirror::Found || !IsPartOnly(st))
        return eFound;
    file.Close();
    return EMirror::Refused;
}

void RemoveMirrorFile(const std::string& strPath)
{
    const CMirrorDir dir = CMirrorDir::Of(strPath, RKDB_MIRROR_ROOT);
    const std::string strName = FileNameOf(strPath);
    XFile file;
    struct stat st = {};
    if (dir.OpenFile(strName, file, st) == EMirror::Found)
        static_cast<void>(dir.Remove(strName));
}
