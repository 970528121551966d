// The server's description of its files and drivers, and the reader of the driver directory file.
//
// "RecData/drvinfo.dat", one record after the other from the first byte to the last:
//
//   offset  size   field
//   0       n + 1  driver name (GB2312), NUL-terminated
//   n + 1   2      id, little-endian
//   n + 3   2      tagNum, little-endian
#pragma once

#include "MirrorDir.h"
#include "WireReader.h"
#include "XFile.h"
#include "cstring.h"

#include <map>
#include <optional>
#include <vector>

/// What the server says about one of its files.
struct SNFileInfo
{
    UINT time = 0; // modification time, seconds since 1970-01-01 UTC
    UINT size = 0; // bytes
};

/// One driver as the server describes it.
struct SNDrvInfo
{
    WORD id = 0;     // index into the core's slot table
    WORD tagNum = 0; // number of its tags
};

/// The next record of a driver directory, or nothing when the bytes left hold no whole one.
inline std::optional<std::pair<CString, SNDrvInfo>> ReadDrvInfo(CWireReader& reader)
{
    const std::string_view name = reader.Text();
    SNDrvInfo info;
    info.id = reader.Get<WORD>();
    info.tagNum = reader.Get<WORD>();
    if (reader.IsBad())
        return std::nullopt;
    return std::pair{CString(std::string(name)), info};
}

/// Ids are 16-bit, so no honest directory comes near this; a larger file is not read at all.
constexpr int64_t MAX_DRVINFO_SIZE = 32 << 20;
constexpr size_t MAX_DRVINFO_ENTRIES = 65536;

/// Reads a driver directory into the map: entries are added or overwritten and their pDriver is emptied;
/// names beyond the bound are left out. False when the file cannot be read. One too short for a record holds
/// none.
template <class TInfo> bool ReadDrvInfos(XFile& file, std::map<CString, TInfo>& mapDrvInfos)
{
    const auto nSize = file.GetFileSize64();
    if (nSize <= 4 || nSize > MAX_DRVINFO_SIZE)
        return nSize <= 4;
    std::vector<BYTE> bytes(static_cast<size_t>(nSize));
    size_t nDone = 0;
    for (int nRead = 0; nDone < bytes.size(); nDone += static_cast<size_t>(nRead)) {
        nRead = file.Read(bytes.data() + nDone, static_cast<UINT>(bytes.size() - nDone));
        if (nRead < 0)
            return false;
        if (nRead == 0)
            break;
    }
    CWireReader reader(std::span<const BYTE>(bytes).first(nDone));
    while (auto record = ReadDrvInfo(reader)) {
        auto it = mapDrvInfos.find(record->first);
        if (it == mapDrvInfos.end() && mapDrvInfos.size() >= MAX_DRVINFO_ENTRIES)
            continue;
        if (it == mapDrvInfos.end())
            it = mapDrvInfos.try_emplace(std::move(record->first)).first;
        static_cast<SNDrvInfo&>(it->second) = record->second;
        it->second.pDriver = nullptr;
    }
    return true;
}

/// The same for the directory file of a project's local folder. A file that is missing holds no records; one
/// that is there but cannot be read, or is not to be trusted, gives false and leaves the map as it is.
template <class TInfo> bool LoadPrjDrvInfo(const CString& strPrjPath, std::map<CString, TInfo>& mapDrvInfos)
{
    CString strUtf8;
    CString(strPrjPath + "RecData/drvinfo.dat").ToUtf8(strUtf8);
    XFile file;
    const EMirror eFound = OpenMirrorFile(strUtf8, file);
    return eFound == EMirror::Found ? ReadDrvInfos(file, mapDrvInfos) : eFound == EMirror::Missing;
}
