// The host's debug log: DebugPrint, by default one line per call on standard error, or handed to
// the sink that a test or tool set.
#include <cstdarg>
#include <cstdio>
#include <mutex>
#include <vector>

#include "host/debugPrint.h"
#include "panelsim/debugLog.h"
#include "panelsim/hostCall.h"
#include "panelsim/panelsim.h"

namespace panelsim::detail
{
namespace
{

struct Log
{
    // Recursive: a sink may itself write to the log.
    std::recursive_mutex mutex;
    LogSink sink;
};

Log& log()
{
    static Log instance;
    return instance;
}

} // namespace

void writeLog(int level, const char* module, const std::string& text)
{
    Log& l = log();
    const std::lock_guard<std::recursive_mutex> lock(l.mutex);
    const char* name = module ? module : "";
    if (l.sink)
    {
        l.sink(level, name, text);
        return;
    }
    // One line per call: a text that ends its own line does not get a second line end.
    const bool ended = !text.empty() && text.back() == '\n';
    std::fprintf(stderr, "[%d] %s %s%s", level, name, text.c_str(), ended ? "" : "\n");
}

} // namespace panelsim::detail

void DebugPrint(int level, const char* module, const char* format, ...)
{
    using namespace panelsim::detail;
    hostCall("DebugPrint", nullptr, [&] {
        return list({std::to_string(level), module ? module : "null"});
    });
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    char small[256];
    const int length = std::vsnprintf(small, sizeof small, format, arguments);
    va_end(arguments);
    std::string text;
    if (length >= static_cast<int>(sizeof small))
    {
        std::vector<char> large(static_cast<std::size_t>(length) + 1);
        std::vsnprintf(large.data(), large.size(), format, again);
        text.assign(large.data(), static_cast<std::size_t>(length));
    }
    else if (length > 0)
        text.assign(small, static_cast<std::size_t>(length));
    va_end(again);
    writeLog(level, module, text);
}

namespace panelsim
{

void setLogSink(LogSink sink)
{
    detail::Log& l = detail::log();
    const std::lock_guard<std::recursive_mutex> lock(l.mutex);
    l.sink = std::move(sink);
}

} // namespace panelsim
