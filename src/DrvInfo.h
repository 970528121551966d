// The server's description of its files and drivers, and the reader of the driver directory file.
//
// "RecData/drvinfo.dat", one record after the other from the first byte to the last:
//
//   offset  size   field
//   0       n + 1  driver name (GB2312), NUL-terminated
//   n + 1   2      id, little-endian
//   n + 3   2      tagNum, little-endian
#pragma once

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

/// Reads the local driver directory into the map: entries are added or overwritten and their pDriver is
/// emptied. A file that is missing, unreadable or too short for a record leaves the map as it is.
template <class TInfo> void LoadPrjDrvInfo(const CString& strPrjPath, std::map<CString, TInfo>& mapDrvInfos)
{
    XFile file;
    if (!file.OpenT((strPrjPath + "RecData/drvinfo.dat").c_str(), 0, false))
        return;
    const auto nSize = file.GetFileSize64();
    if (nSize <= 4 || nSize > MAX_DRVINFO_SIZE)
        return;
    std::vector<BYTE> bytes(static_cast<size_t>(nSize));
    const int nRead = file.Read(bytes.data(), static_cast<UINT>(nSize));
    if (nRead <= 0)
        return;
    CWireReader reader(std::span<const BYTE>(bytes).first(static_cast<size_t>(nRead)));
    while (auto record = ReadDrvInfo(reader)) {
        TInfo& info = mapDrvInfos[std::move(record->first)];
        static_cast<SNDrvInfo&>(info) = record->second;
        info.pDriver = nullptr;
    }
}
