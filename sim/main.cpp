// rkdbsim: a server for clients that have none. Reads the command line and the project, then serves.
#include "Log.h"
#include "ProjectLoader.h"
#include "Server.h"

#include <sys/resource.h>

#include <cstdio>
#include <system_error>

namespace {

constexpr int STATUS_CANNOT_LISTEN = 1;
constexpr int STATUS_BAD_PROJECT = 2;

spdlog::level::level_enum LeastLogged(const SOptions& options)
{
    return options.bTrace ? spdlog::level::trace : spdlog::level::from_str(options.strLogLevel);
}

/// Two descriptors a client: the usual limit of 1024 is soon reached.
void AllowManyConnections()
{
    rlimit limit{};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0 && limit.rlim_cur < limit.rlim_max) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

void PrintAddresses(const CServer& server)
{
    std::printf("listening on %s\n", server.Address().c_str());
    if (const auto strRelay = server.RelayAddress())
        std::printf("relay centre on %s\n", strRelay->c_str());
    std::fflush(stdout);
}

int Serve(const SProject& project, const SOptions& options)
{
    size_t nTags = 0;
    for (const SDriverDef& driver : project.drivers)
        nTags += driver.tags.size();
    spdlog::info("project {}: {} drivers, {} tags, {} alarms, {} users", Show(project.strName),
                 project.drivers.size(), nTags, project.alarms.size(), project.users.size());
    if (options.bCheck)
        return 0;
    AllowManyConnections();
    try {
        CServer server(project, options);
        PrintAddresses(server);
        server.Run();
    } catch (const std::system_error& error) {
        spdlog::error("cannot listen: {}", error.what());
        return STATUS_CANNOT_LISTEN;
    }
    spdlog::info("ended");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    int nStatus = 0;
    const auto options = ParseOptions(argc, argv, nStatus);
    if (!options)
        return nStatus;
    const CLog log(LeastLogged(*options));
    try {
        return Serve(LoadProject(options->strProject), *options);
    } catch (const CProjectError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return STATUS_BAD_PROJECT;
    }
}
