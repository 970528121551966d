// The project files that clients may fetch: those that follow from the project (driver directory, alarm text
// and tag lists) and those that the project file adds.
#pragma once

#include "Project.h"

#include <map>
#include <string_view>

struct SServedFile
{
    std::string strName; // as the server calls it
    Bytes content;
    Bytes packed; // compressed form, where it is what is sent
    DWORD tTime = 0;
    bool bAbsent = false;
    bool bGZ = false;
    bool bAppend = false;
    bool bUseLast = true;
    std::optional<bool> bWindows;

    const Bytes& Body() const noexcept { return bGZ ? packed : content; }
};

class CFileStore
{
public:
    static constexpr std::string_view DIRECTORY = "RecData/drvinfo.dat";

    explicit CFileStore(const SProject& project);

    /// Null where there is no such file. ASCII letters match in either case.
    const SServedFile* Find(std::string_view name) const;
    /// The driver directory file.
    const SServedFile& Directory() const;

private:
    void Add(SServedFile file);

    std::map<std::string, SServedFile> m_files; // by name in lower case
};

/// A gzip file that holds the content as it is, uncompressed.
Bytes WrapGzip(std::span<const BYTE> content);
