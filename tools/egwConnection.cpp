// The address of a panel service as egw's --connect names it.
#include <stdexcept>

#include "tools/panelGateway.h"

namespace egwtool
{

bool splitHostPort(const std::string& text, std::string& host, int& port)
{
    const std::size_t colon = text.rfind(':');
    std::size_t used = 0;
    try
    {
        port = colon == std::string::npos ? -1 : std::stoi(text.substr(colon + 1), &used);
    }
    catch (const std::logic_error&)
    {
        port = -1;
    }
    if (port <= 0 || port > 65535 || used != text.size() - colon - 1 || colon == 0)
    {
        return false;
    }
    host = text.substr(0, colon);
    if (host.size() > 2 && host.front() == '[' && host.back() == ']')
    {
        host = host.substr(1, host.size() - 2);
    }
    return true;
}

std::string hostPortRule(const std::string& text)
{
    return text + ": expected HOST:PORT, such as 127.0.0.1:9190";
}

} // namespace egwtool
