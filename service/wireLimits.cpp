#include "service/wireLimits.h"

#include <algorithm>
#include <limits>
#include <functional>
#include <string>
#include <type_traits>

#include <thrift/TConfiguration.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/protocol/TCompactProtocol.h>
#include <thrift/protocol/TJSONProtocol.h>
#include <thrift/protocol/TVirtualProtocol.h>

namespace egwservice
{
namespace
{

using apache::thrift::TConfiguration;
using apache::thrift::protocol::TProtocol;
using apache::thrift::protocol::TProtocolException;
using apache::thrift::protocol::TType;
using apache::thrift::transport::TTransport;
using BytesLeft = std::function<std::uint32_t()>;

// A connection keeps buffers up to this size between requests; a larger one (a big request, or
// the reply to a whole-panel snapshot) is given back once it has been used.
constexpr std::uint32_t kKeptBuffer = 64 * 1024;

// The framed transport, telling how much of the frame at hand is still unread. Thrift's own
// message-size checks (the compact protocol's strings) count from each frame's size: Thrift 0.17
// keeps counting across the frames of a connection otherwise.
class Frames : public apache::thrift::transport::TFramedTransport
{
public:
    Frames(std::shared_ptr<TTransport> connection, std::shared_ptr<TConfiguration> configuration)
        : TFramedTransport(std::move(connection), DEFAULT_BUFFER_SIZE, kKeptBuffer,
                           std::move(configuration))
    {
    }

    std::uint32_t left() const { return static_cast<std::uint32_t>(rBound_ - rBase_); }

    std::uint32_t readEnd() override
    {
        const std::uint32_t bytes = TFramedTransport::readEnd();
        resetConsumedMessageSize();
        return bytes;
    }

protected:
    bool readFrame() override
    {
        if (!TFramedTransport::readFrame())
        {
            return false;
        }
        resetConsumedMessageSize();
        resetConsumedMessageSize(left());
        return true;
    }
};

class FramesFactory : public apache::thrift::transport::TTransportFactory
{
public:
    explicit FramesFactory(int maxFrameSize)
        : configuration_(std::make_shared<TConfiguration>(maxFrameSize, maxFrameSize))
    {
    }
    std::shared_ptr<TTransport> getTransport(std::shared_ptr<TTransport> connection) override
    {
        return std::make_shared<Frames>(std::move(connection), configuration_);
    }

private:
    std::shared_ptr<TConfiguration> configuration_;
};

// A protocol whose containers and strings are held to the bytes left of the request.
template <class Base>
class Bounded : public apache::thrift::protocol::TVirtualProtocol<Bounded<Base>, Base>
{
    using Super = apache::thrift::protocol::TVirtualProtocol<Bounded<Base>, Base>;

public:
    Bounded(std::shared_ptr<TTransport> transport, BytesLeft left, WireLimits limits)
        : Super(std::move(transport)), left_(std::move(left)), limits_(limits)
    {
        if constexpr (std::is_same_v<Base, apache::thrift::protocol::TBinaryProtocol>)
        {
            this->setStringSizeLimit(limits.longestString);
            this->setContainerSizeLimit(limits.longestList);
        }
        else if constexpr (std::is_same_v<Base, apache::thrift::protocol::TCompactProtocol>)
        {
            this->string_limit_ = limits.longestString;
            this->container_limit_ = limits.longestList;
        }
    }

    void checkReadBytesAvailable(apache::thrift::protocol::TList& list) override
    {
        claim(list.size_, leastBytes(list.elemType_));
    }
    void checkReadBytesAvailable(apache::thrift::protocol::TSet& set) override
    {
        claim(set.size_, leastBytes(set.elemType_));
    }
    void checkReadBytesAvailable(apache::thrift::protocol::TMap& map) override
    {
        claim(map.size_, leastBytes(map.keyType_) + leastBytes(map.valueType_));
    }

    // A method name is echoed in the reply that refuses it: an unknown name is cut to 64 bytes (at
    // a character's start) so that a peer cannot have its megabyte sent back. No method's name
    // comes near that length, so the cut name still names none.
    std::uint32_t readMessageBegin(std::string& name, apache::thrift::protocol::TMessageType& type,
                                   std::int32_t& sequence)
    {
        const std::uint32_t read = Base::readMessageBegin(name, type, sequence);
        constexpr std::size_t kLongestName = 64;
        if (name.size() > kLongestName)
        {
            std::size_t cut = kLongestName;
            while (cut > 0 && (static_cast<unsigned char>(name[cut]) & 0xC0) == 0x80)
            {
                --cut;
            }
            name.resize(cut);
            name += "...";
        }
        return read;
    }

    // The binary protocol sizes a string from its claimed length before reading its bytes; the
    // compact protocol checks the frame itself, and the JSON protocol grows a string as it reads.
    std::uint32_t readString(std::string& text) { return readText(text, false); }
    std::uint32_t readBinary(std::string& bytes) { return readText(bytes, true); }

private:
    std::uint64_t leastBytes(TType type)
    {
        return static_cast<std::uint64_t>(std::max(1, this->getMinSerializedSize(type)));
    }

    // `count` is the claimed item count as Thrift's containers hold it (an int of 32 bits).
    void claim(int count, std::uint64_t eachAtLeast)
    {
        const std::uint64_t items = static_cast<std::uint32_t>(count);
        if (items > static_cast<std::uint64_t>(limits_.longestList))
        {
            throw TProtocolException(TProtocolException::SIZE_LIMIT,
                                     "a list of " + std::to_string(items) +
                                         " items; a request carries at most " +
                                         std::to_string(limits_.longestList));
        }
        if (items * eachAtLeast > left_())
        {
            throw TProtocolException(TProtocolException::SIZE_LIMIT,
                                     "a list claims " + std::to_string(items) +
                                         " items that the rest of the request cannot hold");
        }
    }

    std::uint32_t readText(std::string& text, bool binary)
    {
        if constexpr (std::is_same_v<Base, apache::thrift::protocol::TBinaryProtocol>)
        {
            (void)binary;
            std::int32_t size = 0;
            const std::uint32_t read = this->readI32(size);
            if (size > 0 && static_cast<std::uint32_t>(size) > left_())
            {
                throw TProtocolException(TProtocolException::SIZE_LIMIT,
                                         "a string claims " + std::to_string(size) +
                                             " bytes that the rest of the request does not hold");
            }
            return read + this->readStringBody(text, size);
        }
        else
        {
            return binary ? Base::readBinary(text) : Base::readString(text);
        }
    }

    BytesLeft left_;
    WireLimits limits_;
};

class BoundedFactory : public apache::thrift::protocol::TProtocolFactory
{
public:
    BoundedFactory(bool compact, WireLimits limits) : compact_(compact), limits_(limits) {}

    std::shared_ptr<TProtocol> getProtocol(std::shared_ptr<TTransport> transport) override
    {
        const auto frames = std::dynamic_pointer_cast<Frames>(transport);
        if (!frames)
        {
            throw apache::thrift::transport::TTransportException(
                "the service's protocol needs its framed transport");
        }
        const Frames* const raw = frames.get(); // the protocol keeps the transport alive
        BytesLeft left = [raw] { return raw->left(); };
        if (compact_)
        {
            return std::make_shared<Bounded<apache::thrift::protocol::TCompactProtocol>>(
                transport, std::move(left), limits_);
        }
        return std::make_shared<Bounded<apache::thrift::protocol::TBinaryProtocol>>(
            transport, std::move(left), limits_);
    }

private:
    bool compact_;
    WireLimits limits_;
};

} // namespace

std::shared_ptr<apache::thrift::transport::TTransportFactory> boundedFrames(int maxFrameSize)
{
    return std::make_shared<FramesFactory>(maxFrameSize);
}

std::shared_ptr<apache::thrift::protocol::TProtocolFactory> boundedProtocol(bool compact,
                                                                            WireLimits limits)
{
    return std::make_shared<BoundedFactory>(compact, limits);
}

std::shared_ptr<TProtocol>
boundedJson(std::shared_ptr<apache::thrift::transport::TMemoryBuffer> body, WireLimits limits)
{
    const apache::thrift::transport::TMemoryBuffer* const raw = body.get();
    return std::make_shared<Bounded<apache::thrift::protocol::TJSONProtocol>>(
        std::move(body), [raw] { return raw->available_read(); }, limits);
}

std::int32_t longestListFor(std::size_t batchLimit)
{
    constexpr std::size_t kMost = std::numeric_limits<std::int32_t>::max();
    return static_cast<std::int32_t>(batchLimit >= kMost / 10 ? kMost : batchLimit * 10);
}

} // namespace egwservice
