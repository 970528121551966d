// The simulator's project files: any text either is a project whose every part is within what the wire can
// carry, or is refused with a line that names the file. What is accepted is then served: clients read from
// the driver directory what the file says, and the plant moves.
#include "DrvInfo.h"
#include "Files.h"
#include "Plant.h"
#include "ProjectLoader.h"
#include "Replies.h"
#include "TomlTable.h"
#include "memory_file.h"
#include "second_reading.h"

#include <algorithm>
#include <cmath>
#include <set>

namespace {

constexpr int64_t MAX_COUNT = 300; // of tags and of repeated contents: what a file asks for beyond is memory
constexpr int STEPS = 3;
constexpr double STEP_SECONDS = 0.37;

/// False for what asks for much memory or for other files; both are the right of who writes a project file.
bool IsModest(const toml::node& node, std::string_view key)
{
    if (key == "path")
        return false;
    if (const auto n = node.value_exact<int64_t>();
        n && *n > MAX_COUNT && (key == "count" || key == "repeat"))
        return false;
    if (const auto* pTable = node.as_table())
        return std::ranges::all_of(
            *pTable, [](const auto& entry) { return IsModest(entry.second, entry.first.str()); });
    if (const auto* pArray = node.as_array())
        return std::ranges::all_of(*pArray, [&](const auto& one) { return IsModest(one, key); });
    return true;
}

bool IsModest(std::string_view text)
{
    try {
        return IsModest(toml::parse(text), "");
    } catch (const toml::parse_error&) {
        return true;
    }
}

bool IsText(const std::string& strText, size_t nMax)
{
    return strText.size() <= nMax && strText.find('\0') == strText.npos;
}

void CheckMotion(const SDriverDef& driver, const STagDef& tag)
{
    const VARTYPE vt = tag.initial.vt;
    if (const auto* pFollow = std::get_if<SFollowMotion>(&tag.motion))
        FUZZ_CHECK(pFollow->nTag < driver.tags.size() && &driver.tags[pFollow->nTag] != &tag);
    if (const auto* pCycle = std::get_if<SCycleMotion>(&tag.motion)) {
        FUZZ_CHECK(!pCycle->values.empty());
        FUZZ_CHECK(
            std::ranges::all_of(pCycle->values, [&](const XVariant& value) { return value.vt == vt; }));
    }
    const auto range = [](const auto* pMotion) { return !pMotion || pMotion->dLow < pMotion->dHigh; };
    FUZZ_CHECK(range(std::get_if<SRampMotion>(&tag.motion)));
    FUZZ_CHECK(range(std::get_if<SSineMotion>(&tag.motion)));
    FUZZ_CHECK(range(std::get_if<SWalkMotion>(&tag.motion)));
}

/// A value that a client would take for the same one.
void CheckValue(const XVariant& value, VARTYPE vt)
{
    FUZZ_CHECK(value.vt == vt);
    const Encoded bytes = Encode(value);
    const auto again = DecodeTyped(bytes);
    FUZZ_CHECK(again && again->nUsed == bytes.size() && again->value == bytes);
}

void CheckDrivers(const SProject& project)
{
    std::set<std::string> drivers;
    FUZZ_CHECK(project.drivers.size() <= 65535);
    for (const SDriverDef& driver : project.drivers) {
        FUZZ_CHECK(drivers.insert(driver.strName).second && IsText(driver.strName, 255));
        FUZZ_CHECK(driver.tags.size() <= SDriverDef::MAX_TAGS);
        std::set<std::string> names;
        for (const STagDef& tag : driver.tags) {
            FUZZ_CHECK(names.insert(tag.strName).second && IsText(tag.strName, 253) && !tag.strName.empty());
            FUZZ_CHECK(tag.strName.find(',') == tag.strName.npos);
            FUZZ_CHECK(tag.nPeriodMs >= 1 && tag.nPeriodMs <= 3600000);
            CheckValue(tag.initial, tag.initial.vt);
            CheckMotion(driver, tag);
        }
    }
}

void CheckAlarms(const SProject& project)
{
    for (const SAlarmRule& rule : project.alarms) {
        FUZZ_CHECK(rule.tag.nDriver < project.drivers.size());
        FUZZ_CHECK(rule.tag.nTag < project.drivers[rule.tag.nDriver].tags.size());
        FUZZ_CHECK(rule.nTagText < project.tagList.size());
        FUZZ_CHECK(rule.nType < project.textList.size() && rule.nGroup < project.textList.size());
        FUZZ_CHECK(rule.dHigh || rule.dLow);
        FUZZ_CHECK(rule.dDeadBand >= 0);
    }
    for (const auto* pList : {&project.textList, &project.tagList})
        for (const std::string& strLine : *pList)
            FUZZ_CHECK(!strLine.empty() && strLine.size() <= 255 &&
                       strLine.find_first_of("\r\n") == strLine.npos);
}

void CheckRest(const SProject& project)
{
    FUZZ_CHECK(IsText(project.strName, 200) && IsText(project.strTitle, 100));
    SRegisterReply reply;
    reply.strProject = project.strName;
    reply.strTitle = project.strTitle;
    FUZZ_CHECK(EncodeRegistered(reply).size() <= MAX_REGISTER_REPLY);
    FUZZ_CHECK(project.server.nBlockSize >= 1 && project.server.nBlockSize <= 4096);
    for (const SUser& user : project.users)
        FUZZ_CHECK(IsText(user.strName, 253) && IsText(user.strPassword, 253 - user.strName.size()));
    for (const SRelayDef& relay : project.relays)
        FUZZ_CHECK(IsText(relay.strName, 249));
}

/// A client's reading of the files that follow from the project, unless the project replaces them.
void CheckFiles(const SProject& project)
{
    const CFileStore files(project);
    for (const SFileDef& file : project.files) {
        FUZZ_CHECK(IsText(file.strName, 255) && files.Find(file.strName));
        if (Lower(file.strName) == Lower(std::string(CFileStore::DIRECTORY)))
            return;
    }
    CWireReader reader(files.Directory().content);
    for (size_t i = 0; i < project.drivers.size(); ++i) {
        const auto record = ReadDrvInfo(reader);
        FUZZ_CHECK(record && record->first == project.drivers[i].strName);
        FUZZ_CHECK(record->second.id == i && record->second.tagNum == project.drivers[i].tags.size());
    }
    FUZZ_CHECK(reader.Left() == 0);
}

/// Each change that is told is of the tag's type, and is what is read afterwards.
class CListener : public IPlantListener
{
public:
    CListener(const SProject& project, const CPlant& plant) : m_project(project), m_plant(plant) {}
    void OnTagChanged(STagRef tag, const XVariant& value) override
    {
        CheckValue(value, m_project.drivers.at(tag.nDriver).tags.at(tag.nTag).initial.vt);
        FUZZ_CHECK(m_plant.Value(tag) == &value);
    }
    void OnAlarm(const SAlarmNews& news) override
    {
        FUZZ_CHECK(news.record.tid < m_project.tagList.size() &&
                   news.record.type < m_project.textList.size());
        FUZZ_CHECK((news.record.evttm != 0) == news.bEnded);
    }

private:
    const SProject& m_project;
    const CPlant& m_plant;
};

void Run(const SProject& project)
{
    CPlant plant(project, 1, {0, 1700000000});
    CListener listener(project, plant);
    plant.SetListener(&listener);
    for (int i = 1; i <= STEPS; ++i)
        for (const UINT nPeriod : plant.Periods())
            plant.Step(nPeriod, {i * STEP_SECONDS, 1700000000});
    for (size_t d = 0; d < project.drivers.size(); ++d) {
        const auto& tags = project.drivers[d].tags;
        for (size_t t = 0; t < tags.size(); ++t)
            FUZZ_CHECK(plant.FindTag(static_cast<WORD>(d), tags[t].strName) == static_cast<WORD>(t));
    }
    FUZZ_CHECK(plant.Alarms().Active().size() <= project.alarms.size());
}

} // namespace

int LLVMFuzzerTestOneInput(const BYTE* pData, size_t nSize)
{
    if (!IsModest({reinterpret_cast<const char*>(pData), nSize}))
        return 0;
    const CMemoryFile file({pData, nSize});
    SProject project;
    try {
        project = LoadProject(file.Path());
    } catch (const CProjectError& error) {
        const std::string_view what = error.what();
        FUZZ_CHECK(what.starts_with(file.Path() + ":") && what.size() > file.Path().size() + 2);
        return 0;
    }
    CheckDrivers(project);
    CheckAlarms(project);
    CheckRest(project);
    CheckFiles(project);
    Run(project);
    return 0;
}
