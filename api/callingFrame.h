// The calling frame shared by every operation of the gateway: narrowing of tagged ids, result
// conversion, the module tag of the debug log and the precondition checks. Internal to the library.
#ifndef ELEMENT_GATEWAY_CALLING_FRAME_H
#define ELEMENT_GATEWAY_CALLING_FRAME_H

#include "api/gatewayTypes.h"
#include "host/elementServer.h"

namespace egw
{

// The module tag of every line this library writes to the debug log.
constexpr const char* kModuleTag = "<GatewayApiLib>";

// The host's per-element calls take 16-bit numbers: the category tag in the upper half is dropped.
inline unsigned short low16(UINT32 id)
{
    return static_cast<unsigned short>(id & 0xFFFFu);
}

// A host status of 0 is success.
inline BOOL boolFromStatus(int status)
{
    return status == 0 ? TRUE : FALSE;
}

inline ElementServer& server()
{
    return *ElementServer::GetElementServer();
}

// One property of one element, read through a temporary element. The element is held before the
// property so that the property goes first when the reader is destroyed, also when the host throws.
class PropertyRead
{
public:
    PropertyRead(UINT32 uuid, UINT32 propertyId)
        : element_(uuid), property_(element_.GetPropertyByPropertyID(low16(propertyId)))
    {
    }

    bool empty() { return property_.IsEmpty(); }

    // The value's bytes, or null when there is none; `size` receives their count. The bytes live
    // as long as the reader.
    const unsigned char* data(unsigned short& size)
    {
        size = 0;
        return static_cast<const unsigned char*>(property_.GetData(&size));
    }

private:
    Element element_;
    Property property_;
};

// Hands a violated check to the installed handler.
void reportAssertion(const char* expression, const char* function, const char* file, int line);

} // namespace egw

// Checks a precondition on entry. On violation the report carries the expression exactly as written
// here and the operation's declaration text; the operation then returns `result` (left empty in a
// void operation) without reaching the element server.
#define EGW_REQUIRE(condition, function, result)                                                   \
    do                                                                                             \
    {                                                                                              \
        if (!(condition))                                                                          \
        {                                                                                          \
            ::egw::reportAssertion(#condition, function, __FILE__, __LINE__);                      \
            return result;                                                                         \
        }                                                                                          \
    } while (0)

// Reports a broken invariant as the negated message literal, then returns `result`.
#define EGW_FAIL(message, function, result)                                                        \
    do                                                                                             \
    {                                                                                              \
        ::egw::reportAssertion("!" #message, function, __FILE__, __LINE__);                        \
        return result;                                                                             \
    } while (0)

#endif
