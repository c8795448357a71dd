// What is said of a value that does not fit its property, shared by every place that checks it:
// the panel file's loader, the panel tool in its own process, and egwd. An operator sees one text
// for one fault, whichever way the panel is reached.
#ifndef TOOLS_VALUE_RULES_H
#define TOOLS_VALUE_RULES_H

#include <cstdint>
#include <cstdio>
#include <string>

namespace egwvalues
{

inline std::string outOfRange(std::uint32_t propertyId, long long low, long long high,
                              long long value)
{
    char id[16];
    std::snprintf(id, sizeof id, "0x%X", static_cast<unsigned>(propertyId));
    return "property " + std::string(id) + " holds " + std::to_string(low) + " to " +
           std::to_string(high) + "; " + std::to_string(value) + " does not fit";
}

} // namespace egwvalues

#endif
