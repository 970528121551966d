// The log on standard error: standard output carries nothing but the lines that say where the simulator
// listens.
#pragma once

#include <spdlog/spdlog.h>
