// See ProjectLoader.h.
#include "ProjectLoader.h"

#include "Replies.h"
#include "TagLoader.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <sstream>

extern const std::string_view DEMO_PROJECT; // sim/demo.toml, compiled in

namespace {

constexpr size_t MAX_LINE = 255; // of the alarm lists, as clients read them
constexpr size_t MAX_FILE_NAME = 255;
constexpr size_t MAX_PATH_TEXT = 500; // four of them fit a client's buffer

WORD IndexOf(std::vector<std::string>& list, const std::string& strText, const CTomlTable& table)
{
    const auto found = std::find(list.begin(), list.end(), strText);
    if (found != list.end())
        return static_cast<WORD>(found - list.begin());
    if (list.size() > 0xFFFF)
        table.Fail("too many different alarm texts");
    list.push_back(strText);
    return static_cast<WORD>(list.size() - 1);
}

void CheckLine(const CTomlTable& table, std::string_view key, const std::string& strLine)
{
    if (strLine.empty() || strLine.find_first_of("\r\n") != strLine.npos)
        table.FailAt(key, "must be one line, and not empty");
}

std::optional<DWORD> LoadTime(CTomlTable& table, std::string_view key)
{
    const toml::node* pNode = table.Node(key);
    if (!pNode)
        return std::nullopt;
    const auto time = pNode->value_exact<toml::date_time>();
    if (!time || !time->offset)
        table.FailAt(key, "must be a moment like 2024-05-06T07:08:09Z");
    std::tm fields{};
    fields.tm_year = time->date.year - 1900;
    fields.tm_mon = time->date.month - 1;
    fields.tm_mday = time->date.day;
    fields.tm_hour = time->time.hour;
    fields.tm_min = time->time.minute - time->offset->minutes;
    fields.tm_sec = time->time.second;
    const time_t t = timegm(&fields);
    if (t < 0 || t > 0xFFFFFFFFLL)
        table.FailAt(key, "must be from 1970 to 2106");
    return static_cast<DWORD>(t);
}

/// Nothing for what is no file or cannot be read.
std::optional<std::string> ReadFile(const std::filesystem::path& path)
{
    std::error_code missing;
    if (!std::filesystem::is_regular_file(path, missing))
        return std::nullopt;
    std::ifstream stream(path, std::ios::binary);
    std::ostringstream text;
    text << stream.rdbuf();
    // An empty file leaves nothing to copy, which the stream takes for a failure.
    const bool bRead = stream.is_open() && !stream.bad();
    return bRead ? std::optional(std::move(text).str()) : std::nullopt;
}

class CLoader
{
public:
    CLoader(const toml::table& root, const std::string& strFile, DWORD tFile) : m_root(root, strFile, "")
    {
        m_project.tTime = tFile;
    }

    SProject Load()
    {
        LoadHead();
        LoadServer();
        LoadUsers();
        LoadDrivers();
        LoadAlarms();
        LoadFiles();
        LoadRelays();
        m_root.Finish();
        return std::move(m_project);
    }

private:
    void LoadHead();
    void LoadPaths(CTomlTable& table);
    void LoadServer();
    void LoadSysNotify(CTomlTable& table);
    void LoadUsers();
    void CheckTagCount();
    void LoadDrivers();
    void LoadAlarms();
    void LoadAlarm(CTomlTable& table);
    void LoadFiles();
    Bytes LoadContent(CTomlTable& table) const;
    void LoadRelays();
    STagRef FindTag(CTomlTable& table) const;

    CTomlTable m_root;
    SProject m_project;
    std::vector<std::unordered_map<std::string, WORD>> m_positions; // by driver
};

void CLoader::LoadHead()
{
    auto table = m_root.Table("project", "project");
    m_project.strName = table ? table->Gb("name", 200).value_or("demo") : "demo";
    if (!table)
        return;
    m_project.strTitle = table->Gb("title", 100).value_or("");
    m_project.tTime = LoadTime(*table, "time").value_or(m_project.tTime);
    LoadPaths(*table);
    table->Finish();
}

void CLoader::LoadPaths(CTomlTable& table)
{
    SPrjPaths& paths = m_project.paths;
    const std::string strRoot = "/srv/" + m_project.strName + "/";
    paths = {strRoot, strRoot + "RecData/Event/", strRoot + "RecData/Alarm2/", strRoot + "RecData/Hist/"};
    paths.strProject = table.Gb("project_path", MAX_PATH_TEXT).value_or(paths.strProject);
    paths.strEvent = table.Gb("event_path", MAX_PATH_TEXT).value_or(paths.strEvent);
    paths.strAlarm = table.Gb("alarm_path", MAX_PATH_TEXT).value_or(paths.strAlarm);
    paths.strHist = table.Gb("history_path", MAX_PATH_TEXT).value_or(paths.strHist);
}

void CLoader::LoadServer()
{
    auto table = m_root.Table("server", "server");
    if (!table)
        return;
    SServerDef& server = m_project.server;
    const auto take = [&](std::string_view key, auto& place, int64_t nMin, int64_t nMax) {
        place = static_cast<std::remove_reference_t<decltype(place)>>(
            table->Int(key, static_cast<int64_t>(place), nMin, nMax));
    };
    take("block_size", server.nBlockSize, 1, 4096);
    take("pieces", server.nPieces, 0, 65536);
    take("piece_gap_ms", server.nPieceGapMs, 0, 10000);
    take("reply_delay_ms", server.nReplyDelayMs, 0, 3600000);
    take("subscribe_hold_ms", server.nSubscribeHoldMs, 0, 60000);
    size_t nLimitKb = server.nSendLimit >> 10;
    take("send_limit_kb", nLimitKb, 64, 4 << 20);
    server.nSendLimit = nLimitKb << 10;
    take("max_connections", server.nMaxConnections, 0, 1 << 20);
    take("register_flag", server.bRegisterFlag, 0, 255);
    server.eRefuse = static_cast<ERefuse>(table->Choice("refuse", {"nothing", "open", "register"}));
    LoadSysNotify(*table);
    take("system_notification_ms", server.nSysNotifyMs, 1, 3600000);
    table->Finish();
}

void CLoader::LoadSysNotify(CTomlTable& table)
{
    const toml::node* pNode = table.Node("system_notifications");
    if (!pNode)
        return;
    const char* szWrong = "must be a list of sub-types: 2, 4 to 22 or 255";
    const toml::array* pArray = pNode->as_array();
    if (!pArray)
        table.FailAt("system_notifications", szWrong);
    for (const toml::node& node : *pArray) {
        const int64_t n = node.value_exact<int64_t>().value_or(0);
        if (n < 0 || n > 255 || !IsSysNotify(static_cast<BYTE>(n)))
            table.FailAt("system_notifications", szWrong);
        m_project.server.sysNotify.push_back(static_cast<BYTE>(n));
    }
}

void CLoader::LoadUsers()
{
    for (CTomlTable& table : m_root.Tables("user", "user")) {
        SUser user;
        user.strName = table.NeedText("name");
        user.strPassword = table.Text("password").value_or("");
        user.nRights = static_cast<DWORD>(table.Int("rights", 0, 0, 0xFFFFFFFF));
        if (user.strName.size() + user.strPassword.size() > 253)
            table.Fail("name and password are too long together: no client could send them");
        table.Finish();
        m_project.users.push_back(std::move(user));
    }
}

/// Before any is made: a few lines can describe more tags than there is memory for.
void CLoader::CheckTagCount()
{
    const toml::node* pNode = m_root.Node("driver");
    const toml::array* pDrivers = pNode ? pNode->as_array() : nullptr;
    if (!pDrivers)
        return;
    constexpr auto MAX_COUNT = static_cast<int64_t>(SDriverDef::MAX_TAGS);
    size_t nTags = 0;
    for (const toml::node& driver : *pDrivers) {
        const toml::table* pDriver = driver.as_table();
        const toml::array* pTags = pDriver ? (*pDriver)["tag"].as_array() : nullptr;
        for (size_t i = 0; pTags && i < pTags->size(); ++i) {
            const toml::table* pTag = (*pTags)[i].as_table();
            const int64_t nCount = pTag ? (*pTag)["count"].value_or(int64_t{1}) : 1;
            nTags += static_cast<size_t>(std::clamp<int64_t>(nCount, 1, MAX_COUNT));
        }
    }
    if (nTags > SProject::MAX_TAGS)
        m_root.FailAt("driver", "the project has " + std::to_string(nTags) + " tags in " +
                                    std::to_string(pDrivers->size()) + " drivers, and " +
                                    std::to_string(SProject::MAX_TAGS) + " is the most that are served");
}

void CLoader::LoadDrivers()
{
    CheckTagCount();
    std::set<std::string> names;
    for (CTomlTable& table : m_root.Tables("driver", "driver")) {
        SDriverDef driver;
        driver.strName = table.NeedGb("name", 255);
        table.Rename("driver \"" + table.NeedText("name") + "\"");
        if (!names.insert(driver.strName).second)
            table.FailAt("name", "another driver has it already");
        if (m_project.drivers.size() == SDriverDef::MAX_TAGS)
            table.Fail("too many drivers");
        CTagLoader tags(driver, static_cast<UINT>(table.Int("period_ms", 1000, 1, 3600000)));
        for (CTomlTable& tag : table.Tables("tag", table.What() + ", tag"))
            tags.Load(tag);
        tags.ResolveFollowers();
        table.Finish();
        m_positions.push_back(tags.Positions());
        m_project.drivers.push_back(std::move(driver));
    }
}

STagRef CLoader::FindTag(CTomlTable& table) const
{
    const std::string strDriver = table.NeedGb("driver", 255);
    const std::string strTag = table.NeedGb("tag", 255);
    const auto& drivers = m_project.drivers;
    const auto driver = std::find_if(drivers.begin(), drivers.end(),
                                     [&](const SDriverDef& one) { return one.strName == strDriver; });
    if (driver == drivers.end())
        table.FailAt("driver", "there is no driver \"" + table.NeedText("driver") + "\"");
    const auto nDriver = static_cast<size_t>(driver - drivers.begin());
    const auto tag = m_positions[nDriver].find(strTag);
    if (tag == m_positions[nDriver].end())
        table.FailAt("tag", "its driver has no tag \"" + table.NeedText("tag") + "\"");
    const VARTYPE vt = driver->tags[tag->second].initial.vt;
    if (vt == VT_STR || vt == VT_EMPTY)
        table.FailAt("tag", "has no number that could be compared with a limit");
    return {static_cast<WORD>(nDriver), tag->second};
}

void CLoader::LoadAlarms()
{
    if (auto lists = m_root.Table("alarm_lists", "alarm_lists")) {
        m_project.textList = lists->GbList("texts", MAX_LINE).value_or(std::vector<std::string>());
        m_project.tagList = lists->GbList("tags", MAX_LINE).value_or(std::vector<std::string>());
        for (const std::string& strLine : m_project.textList)
            CheckLine(*lists, "texts", strLine);
        for (const std::string& strLine : m_project.tagList)
            CheckLine(*lists, "tags", strLine);
        lists->Finish();
    }
    for (CTomlTable& table : m_root.Tables("alarm", "alarm"))
        LoadAlarm(table);
}

void CLoader::LoadAlarm(CTomlTable& table)
{
    SAlarmRule rule;
    rule.tag = FindTag(table);
    rule.dHigh = table.Number("high");
    rule.dLow = table.Number("low");
    if (!rule.dHigh && !rule.dLow)
        table.Fail("needs a key high or low");
    if (rule.dHigh && rule.dLow && *rule.dHigh < *rule.dLow)
        table.FailAt("high", "must not be below low");
    rule.dDeadBand = table.Number("dead_band").value_or(0);
    if (rule.dDeadBand < 0)
        table.FailAt("dead_band", "must not be negative");
    const auto index = [&](std::string_view key, std::vector<std::string>& list) {
        const std::string strText = table.NeedGb(key, MAX_LINE);
        CheckLine(table, key, strText);
        return IndexOf(list, strText, table);
    };
    rule.nTagText = index(table.Has("name") ? "name" : "tag", m_project.tagList);
    rule.nType = index("type", m_project.textList);
    rule.nGroup = index("group", m_project.textList);
    rule.nLevel = static_cast<BYTE>(table.Int("level", 0, 0, 255));
    table.Finish();
    if (m_project.alarms.size() == 0xFFFF)
        table.Fail("too many alarms");
    m_project.alarms.push_back(rule);
}

Bytes CLoader::LoadContent(CTomlTable& table) const
{
    const auto text = table.Text("text");
    const auto gb = table.Gb("gb2312", std::string::npos);
    const auto hex = table.Text("hex");
    const auto path = table.Text("path");
    if (text.has_value() + gb.has_value() + hex.has_value() + path.has_value() > 1)
        table.Fail("has more than one of the keys text, gb2312, hex and path");
    if (text || gb) {
        const std::string& strText = text ? *text : *gb;
        return {strText.begin(), strText.end()};
    }
    Bytes bytes;
    if (hex) {
        std::string strDigits(*hex);
        std::erase_if(strDigits, [](char ch) { return ch == ' ' || ch == '\n' || ch == '\r' || ch == '\t'; });
        if (strDigits.size() % 2 || strDigits.find_first_not_of("0123456789abcdefABCDEF") != strDigits.npos)
            table.FailAt("hex", "must be pairs of hexadecimal digits");
        for (size_t i = 0; i < strDigits.size(); i += 2)
            bytes.push_back(static_cast<BYTE>(std::stoul(strDigits.substr(i, 2), nullptr, 16)));
    } else if (path) {
        const auto folder = std::filesystem::path(table.File()).parent_path();
        const auto content = ReadFile(folder / *path);
        if (!content)
            table.FailAt("path", "\"" + (folder / *path).string() + "\" cannot be read");
        bytes.assign(content->begin(), content->end());
    }
    return bytes;
}

void CLoader::LoadFiles()
{
    for (CTomlTable& table : m_root.Tables("file", "file")) {
        SFileDef file;
        file.strName = table.NeedGb("name", MAX_FILE_NAME);
        table.Rename("file \"" + table.NeedText("name") + "\"");
        file.content = LoadContent(table);
        const auto nRepeat = static_cast<size_t>(table.Int("repeat", 1, 1, 1 << 30));
        if (file.content.size() * nRepeat > 0x7FFFFFFF)
            table.FailAt("repeat", "makes the file too large");
        const Bytes once(file.content);
        file.content.reserve(once.size() * nRepeat);
        for (size_t i = 1; i < nRepeat; ++i)
            file.content.insert(file.content.end(), once.begin(), once.end());
        file.tTime = LoadTime(table, "time");
        file.bAbsent = table.Bool("absent", false);
        file.bGZ = table.Bool("gz", false);
        file.bAppend = table.Bool("append", false);
        file.bUseLast = table.Bool("use_last", true);
        if (table.Has("windows"))
            file.bWindows = table.Bool("windows", false);
        table.Finish();
        m_project.files.push_back(std::move(file));
    }
}

void CLoader::LoadRelays()
{
    for (CTomlTable& table : m_root.Tables("relay", "relay")) {
        SRelayDef relay;
        relay.strName = table.NeedGb("name", 249);
        const auto redirect = table.Text("redirect");
        const auto target = table.Text("target");
        if (redirect && target)
            table.Fail("has both a key target and a key redirect");
        relay.bRedirect = redirect.has_value();
        const std::string_view key = redirect ? "redirect" : "target";
        const std::string strWhere = redirect ? *redirect : target.value_or("self");
        if (strWhere != "self") {
            const size_t nColon = strWhere.rfind(':');
            const std::string strPort = nColon == strWhere.npos ? "" : strWhere.substr(nColon + 1);
            const bool bPort = !strPort.empty() && strPort.size() <= 5 &&
                               strPort.find_first_not_of("0123456789") == strPort.npos &&
                               std::stoul(strPort) <= 65535;
            relay.strHost = strWhere.substr(0, nColon);
            in_addr address{};
            const bool bHost = relay.bRedirect ? inet_pton(AF_INET, relay.strHost.c_str(), &address) == 1
                                               : !relay.strHost.empty();
            if (!bPort || !bHost)
                table.FailAt(key, "must be self or like 10.0.0.5:8000");
            relay.nPort = static_cast<WORD>(std::stoul(strPort));
        }
        table.Finish();
        m_project.relays.push_back(std::move(relay));
    }
}

toml::table Parse(std::string_view text, const std::string& strFile)
{
    try {
        return toml::parse(text, strFile);
    } catch (const toml::parse_error& error) {
        throw CProjectError(strFile + ":" + std::to_string(error.source().begin.line) + ": " +
                            std::string(error.description()));
    }
}

} // namespace

SProject LoadProject(const std::string& strPath)
{
    if (strPath.empty()) {
        // No file, so no file time: a client's copy of an earlier start might be of another version.
        const std::string strFile = "the built-in project";
        return CLoader(Parse(DEMO_PROJECT, strFile), strFile, static_cast<DWORD>(std::time(nullptr))).Load();
    }
    const auto text = ReadFile(strPath);
    struct stat info
    {
    };
    if (!text || stat(strPath.c_str(), &info) != 0)
        throw CProjectError(strPath + ": cannot be read");
    return CLoader(Parse(*text, strPath), strPath, static_cast<DWORD>(info.st_mtime)).Load();
}
