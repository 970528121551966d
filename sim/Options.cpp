// See Options.h.
#include "Options.h"

#include <CLI/CLI.hpp>

namespace {

constexpr int STATUS_USAGE = 2;

constexpr const char* DESCRIPTION = "Stands in for a plant's real-time database server: serves the drivers, "
                                    "tags, users, alarms and files of a\n"
                                    "project file over TCP to any number of clients.";

constexpr const char* FOOTER =
    "The first line on standard output says where it listens, for example\n"
    "  listening on 127.0.0.1:8000\n"
    "The log goes to standard error. SIGTERM and SIGINT end it cleanly, with status 0. Status 1: it cannot\n"
    "listen; 2: a mistake in the command line or in the project file.\n"
    "\n"
    "Examples:\n"
    "  rkdbsim                          the built-in demonstration project on port 8000\n"
    "  rkdbsim --port 0 plant.toml      plant.toml on a port that the system chooses\n"
    "  rkdbsim --check plant.toml       only says what is wrong with plant.toml\n"
    "  rkdbsim --trace plant.toml       prints every message in hex, with its meaning\n"
    "  rkdbsim --relay plant.toml       is a relay centre on port 3968 as well\n"
    "\n"
    "A small project file:\n"
    "  [[driver]]\n"
    "  name = \"Boiler\"\n"
    "  [[driver.tag]]\n"
    "  name = \"Level\"\n"
    "  type = \"r8\"\n"
    "  motion = { kind = \"sine\", low = 20, high = 80, cycle_s = 30 }\n"
    "  [[driver.tag]]\n"
    "  name = \"SetPoint\"\n"
    "  type = \"r8\"\n"
    "docs/simulator.md describes every key.";

/// A flag of its own, bound to no variable: an optional number would be a counter to the library of Debian
/// 12, and set to 0 without having been given.
CLI::Option* AddRelay(CLI::App& app)
{
    const std::string strWhat =
        "Be a relay centre too, on port 3968 or, as --relay=PORT, on another (0: the system chooses)";
    return app.add_flag("--relay{3968}", strWhat)
        ->check(CLI::Range(0, 65535))
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

/// Returns the option of the relay centre.
CLI::Option* AddOptions(CLI::App& app, SOptions& options, bool& bQuiet)
{
    app.add_option("PROJECT", options.strProject,
                   "Project file (TOML). None: the built-in demonstration project")
        ->type_name("");
    app.add_option("--host", options.strHost, "IPv4 address to listen on, 0.0.0.0 for all")
        ->type_name("ADDRESS")
        ->check(CLI::ValidIPV4)
        ->capture_default_str();
    app.add_option("--port", options.nPort, "Port to listen on; 0 lets the system choose")
        ->type_name("PORT")
        ->capture_default_str();
    CLI::Option* pRelay = AddRelay(app);
    app.add_option("--relay-host", options.strRelayHost,
                   "IPv4 address of the relay centre (default: as --host)")
        ->type_name("ADDRESS")
        ->check(CLI::ValidIPV4);
    app.add_flag("--check", options.bCheck, "Only check the project file");
    app.add_flag("--trace", options.bTrace, "Print each message in hex, with its meaning, to the log");
    app.add_option("--trace-bytes", options.nTraceBytes, "Bytes shown of a traced message, 0 for all")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--seed", options.nSeed, "Seed of the random motions")
        ->type_name("N")
        ->capture_default_str();
    app.add_option("--log-level", options.strLogLevel, "Least severe messages logged")
        ->type_name("LEVEL")
        ->check(CLI::IsMember({"debug", "info", "warn", "error"}))
        ->capture_default_str();
    app.add_flag("--quiet", bQuiet, "Log warnings and errors only");
    return pRelay;
}

} // namespace

std::optional<SOptions> ParseOptions(int argc, char** argv, int& nStatus)
{
    SOptions options;
    bool bQuiet = false;
    CLI::App app(DESCRIPTION, "rkdbsim");
    app.set_version_flag("--version", "rkdbsim " RKDB_VERSION);
    app.footer(FOOTER);
    const CLI::Option* pRelay = AddOptions(app, options, bQuiet);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        nStatus = app.exit(error) == 0 ? 0 : STATUS_USAGE;
        return std::nullopt;
    }
    if (pRelay->count() > 0)
        options.nRelayPort = pRelay->as<WORD>();
    if (bQuiet)
        options.strLogLevel = "warn";
    if (options.strRelayHost.empty())
        options.strRelayHost = options.strHost;
    return options;
}
