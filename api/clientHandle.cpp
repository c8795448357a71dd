// Client handles of the wire side: identity tokens that the gateway hands out and never reads.
#include "api/gatewayApi.h"

namespace
{

// The shared handle: lives as long as the library is loaded, never freed.
ElementServerThriftClient staticClient;

} // namespace

ElementServerThriftClient* NewThriftClientInstance()
{
    return new ElementServerThriftClient;
}

ElementServerThriftClient* GetThriftClientInstance()
{
    return &staticClient;
}

void ThriftClient_Close(ElementServerThriftClient* client)
{
    if (client != &staticClient)
    {
        delete client;
    }
}
