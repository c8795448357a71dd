// The simulator's own lines of the debug log, written like DebugPrint lines but without counting
// as host calls.
#ifndef PANELSIM_DEBUG_LOG_H
#define PANELSIM_DEBUG_LOG_H

#include <string>

namespace panelsim::detail
{

constexpr const char* kSimulatorModule = "<PanelSim>";

void writeLog(int level, const char* module, const std::string& text);

} // namespace panelsim::detail

#endif
