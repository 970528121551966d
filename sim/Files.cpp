// See Files.h.
#include "Files.h"

#include "cstring.h"

#include <algorithm>
#include <array>

namespace {

constexpr size_t STORED_BLOCK = 65535;

DWORD Crc32(std::span<const BYTE> bytes)
{
    static constexpr auto TABLE = [] {
        std::array<DWORD, 256> table{};
        for (DWORD i = 0; i < 256; ++i) {
            DWORD n = i;
            for (int k = 0; k < 8; ++k)
                n = (n & 1) ? 0xEDB88320u ^ (n >> 1) : n >> 1;
            table[i] = n;
        }
        return table;
    }();
    DWORD nCrc = 0xFFFFFFFF;
    for (const BYTE b : bytes)
        nCrc = TABLE[(nCrc ^ b) & 0xFF] ^ (nCrc >> 8);
    return ~nCrc;
}

std::string Lower(std::string_view name)
{
    CString lower{std::string(name)};
    lower.MakeLower();
    return lower;
}

Bytes DriverDirectory(const SProject& project)
{
    CByteSink sink;
    WORD nId = 0;
    for (const SDriverDef& driver : project.drivers)
        sink.PutText(driver.strName).Put(nId++).Put(static_cast<WORD>(driver.tags.size()));
    return sink.Take();
}

Bytes ListFile(const std::vector<std::string>& lines)
{
    CByteSink sink;
    for (const std::string& line : lines)
        sink.PutChars(line).PutChars("\r\n");
    return sink.Take();
}

} // namespace

Bytes WrapGzip(std::span<const BYTE> content)
{
    constexpr std::array<BYTE, 10> HEAD = {0x1F, 0x8B, 8, 0, 0, 0, 0, 0, 0, 255};
    CByteSink sink;
    sink.PutBytes(HEAD);
    auto rest = content;
    do {
        const auto block = rest.first(std::min(rest.size(), STORED_BLOCK));
        rest = rest.subspan(block.size());
        const auto nLen = static_cast<WORD>(block.size());
        sink.Put(static_cast<BYTE>(rest.empty())).Put(nLen).Put(static_cast<WORD>(~nLen)).PutBytes(block);
    } while (!rest.empty());
    sink.Put(Crc32(content)).Put(static_cast<DWORD>(content.size()));
    return sink.Take();
}

CFileStore::CFileStore(const SProject& project)
{
    const auto addOwn = [&](std::string_view name, Bytes content) {
        SServedFile file;
        file.strName = name;
        file.content = std::move(content);
        file.tTime = project.tTime;
        Add(std::move(file));
    };
    addOwn(DIRECTORY, DriverDirectory(project));
    addOwn("RecData/textlist", ListFile(project.textList));
    addOwn("RecData/taglist", ListFile(project.tagList));
    for (const SFileDef& def : project.files) {
        SServedFile file;
        file.strName = def.strName;
        file.content = def.content;
        file.tTime = def.tTime.value_or(project.tTime);
        file.bAbsent = def.bAbsent;
        file.bGZ = def.bGZ;
        file.bAppend = def.bAppend;
        file.bUseLast = def.bUseLast;
        file.bWindows = def.bWindows;
        Add(std::move(file));
    }
}

void CFileStore::Add(SServedFile file)
{
    constexpr std::array<BYTE, 2> GZIP = {0x1F, 0x8B};
    if (file.bGZ) {
        const bool bPacked =
            std::equal(GZIP.begin(), GZIP.end(), file.content.begin(),
                       file.content.begin() + std::min<std::ptrdiff_t>(2, std::ssize(file.content)));
        file.packed = bPacked ? std::move(file.content) : WrapGzip(file.content);
        file.content.clear();
    }
    m_files.insert_or_assign(Lower(file.strName), std::move(file));
}

const SServedFile* CFileStore::Find(std::string_view name) const
{
    const auto found = m_files.find(Lower(name));
    return found == m_files.end() ? nullptr : &found->second;
}

const SServedFile& CFileStore::Directory() const
{
    return *Find(DIRECTORY);
}
