// Folders and files of the local mirror, opened so that nothing planted there is followed, believed or
// changed.
//
// The mirror's root may lie where every user may write. So each folder below it is opened from the one above,
// never through a link, and must be this user's own and no one else's to write; the same holds for a file,
// which must be a regular one. The root itself is this user's or the system's, and sticky if others may write
// there.
//
// A file is written beside its place under a name of its own and renamed when it ends: a reader has one
// version of it or another, never a mixture, in this process and in every other.
#pragma once

#include "XFile.h"

#include <ctime>
#include <string>
#include <string_view>
#include <sys/stat.h>

/// What is found in the mirror.
enum class EMirror
{
    Found,   // opened
    Missing, // there is nothing of that name
    Refused, // something is there that is not to be trusted, or that cannot be opened
};

/// Makes a folder that is missing, open to its owner alone whatever the umask.
enum class EMake
{
    No,
    Yes,
    AndClose, // one that is there already is closed to others, too
};

/// One folder. Owns its descriptor.
class CMirrorDir
{
public:
    CMirrorDir() = default;
    ~CMirrorDir();
    CMirrorDir(CMirrorDir&& other) noexcept;
    CMirrorDir& operator=(CMirrorDir&& other) noexcept;

    /// The folder that all mirrors lie in; strPath ends in '/'.
    static CMirrorDir Root(const std::string& strPath, bool bMake);
    /// The folder of a file. Below strRoot every step of the way is checked; elsewhere the folder alone is.
    static CMirrorDir Of(std::string_view path, const std::string& strRoot);
    /// A folder in this one.
    CMirrorDir Sub(const std::string& strName, EMake eMake) const;

    EMirror State() const noexcept { return m_eState; }
    bool IsOpen() const noexcept { return m_eState == EMirror::Found; }

    /// Opens a file of this folder for reading.
    EMirror OpenFile(const std::string& strName, XFile& file, struct stat& st) const;
    /// False when a file of that name is still there.
    bool Remove(const std::string& strName) const;

private:
    friend class CNewFile;
    explicit CMirrorDir(EMirror eState) noexcept : m_eState(eState) {}
    CMirrorDir(int hDir, bool bRoot) noexcept;

    int m_hDir = -1; // good for names in it only: opened without the right to read it
    EMirror m_eState = EMirror::Missing;
};

/// A new version of a file while it is written. Gone without a trace unless it is put in its place.
class CNewFile
{
public:
    CNewFile(const CMirrorDir& dir, std::string strName) : m_dir(dir), m_strName(std::move(strName)) {}
    ~CNewFile();
    CNewFile(const CNewFile&) = delete;
    CNewFile& operator=(const CNewFile&) = delete;

    /// Begins the file. What processes that were killed have left of the same file is swept up first.
    bool Begin();
    /// Continues with all of another file.
    bool Append(XFile& source);
    /// False from the first write on that fails.
    bool Write(const void* pBuf, size_t nLen);
    /// Names the file and gives it this time. One that is not whole is marked, so that it is never believed.
    bool Place(time_t t, bool bWhole);
    bool IsGood() const noexcept { return m_bGood; }
    /// The file, open for reading and writing.
    XFile& File() noexcept { return m_file; }

private:
    void Sweep() const;

    const CMirrorDir& m_dir;
    std::string m_strName;
    std::string m_strTemp; // empty: nothing to remove
    XFile m_file;
    bool m_bGood = false;
};

/// True for a file that a transfer has left in the middle. Its mark is a mode bit that has no other use for
/// files.
inline bool IsPartOnly(const struct stat& st) noexcept
{
    return st.st_mode & S_ISVTX;
}

/// What is behind the last '/' of a path.
std::string FileNameOf(std::string_view path);

/// A file of the mirror, by its whole path in UTF-8, for one who will believe it: a part of one is refused.
EMirror OpenMirrorFile(const std::string& strPath, XFile& file);
/// Removes a file of the mirror. What is not to be trusted stays.
void RemoveMirrorFile(const std::string& strPath);
