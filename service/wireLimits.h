// What a request may make the service allocate before it is checked: the Thrift protocols as the
// service reads them, with every length a peer claims held to the bytes it actually sent.
//
// A list, set or map announces its item count before its items, and a string its length before
// its bytes; Thrift's generated code sizes the container (or string) from the claim and only then
// reads. So a frame of a few dozen bytes claiming a million items would cost tens of megabytes
// before the first item is found missing. Here a claim is refused (TProtocolException SIZE_LIMIT)
// unless every item, at one byte at least, fits in what is left of the request, and unless it is
// within the longest list or string the service takes. The Thrift port's framed transport holds
// the whole frame before a field is read, and the page's body is read whole before its call, so
// "what is left" is exact on both paths.
#ifndef SERVICE_WIRE_LIMITS_H
#define SERVICE_WIRE_LIMITS_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include <thrift/protocol/TProtocol.h>
#include <thrift/transport/TBufferTransports.h>

namespace egwservice
{

struct WireLimits
{
    std::int32_t longestList = 100000;    // items of one list, set or map in a request
    std::int32_t longestString = 1048576; // bytes of one string or binary in a request
};

// The longest list the protocol lets through to the operations, for a service whose longest batch
// is `batchLimit`: a list somewhat over the batch still reaches its operation, which refuses it by
// name (LIMIT, "at most N") with the connection kept; a claim ten times over is no request of a
// client that read the documentation, and is dropped before anything is allocated.
std::int32_t longestListFor(std::size_t batchLimit);

// The Thrift port's framed transport, each frame at most `maxFrameSize` bytes, and its protocol
// (binary or compact) over it with the limits.
std::shared_ptr<apache::thrift::transport::TTransportFactory> boundedFrames(int maxFrameSize);
std::shared_ptr<apache::thrift::protocol::TProtocolFactory> boundedProtocol(bool compact,
                                                                            WireLimits limits);

// The Thrift JSON protocol over one request body held in memory, with the limits.
std::shared_ptr<apache::thrift::protocol::TProtocol>
boundedJson(std::shared_ptr<apache::thrift::transport::TMemoryBuffer> body, WireLimits limits);

} // namespace egwservice

#endif
