// The panel service's request side over arbitrary bytes: the generated PanelService processor with
// one session's PanelHandler on the sample panel reads the input as a sequence of calls (binary
// protocol, the server's string and list bounds, and no list longer than the input could hold) and
// answers each into memory. Whatever the bytes, no request may reach a precondition report of the
// library, and no handler may fail other than with a declared PanelError: either stops the run.
//
// Each input is a new session at access level 1 (a login in the input raises it). The tree is
// the sample panel loaded once, and its elements keep their uuids for the whole run: the session
// refuses to delete them (the simulator never hands a uuid out twice, so a panel loaded again
// would leave every later input's uuids naming nothing), and the elements an input adds are
// deleted after it. Property values, states and relations an input changes stay, so a finding
// may need the inputs before it (libFuzzer says so); the corpus replay in ctest, one process from
// the start, always runs the same way.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include <thrift/TProcessor.h>
#include <thrift/protocol/TBinaryProtocol.h>
#include <thrift/transport/TBufferTransports.h>

#include "PanelService.h"
#include "elementGateway.h"
#include "fuzzSupport.h"
#include "panelsim/panelsim.h"
#include "service/eventSource.h"
#include "service/hostPanel.h"
#include "service/panelHandler.h"

namespace
{

namespace rpc = ::egw::rpc;
using apache::thrift::TConfiguration;
using apache::thrift::protocol::TBinaryProtocol;
using apache::thrift::transport::TMemoryBuffer;

// The bounds the server gives its protocol (service/server.cpp).
constexpr int kLongestString = 16 * 1024 * 1024;
constexpr int kLongestList = 1000000;
// Calls taken from one input; each needs a few bytes, so this bounds nothing a real input holds.
constexpr int kMostCalls = 256;

// A precondition report means a request check is missing: stop here, so the fuzzer keeps the input.
void abortOnReport(const char* expression, const char* function, const char*, int)
{
    std::fprintf(stderr, "precondition report reached: %s in %s\n", expression, function);
    std::abort();
}

// The generated processor turns an exception that is not a PanelError into a reply of its own;
// for a remote caller that is an undeclared failure, so it stops the run too.
class UndeclaredFailures : public apache::thrift::TProcessorEventHandler
{
public:
    void handlerError(void*, const char* function) override
    {
        std::fprintf(stderr, "undeclared exception from %s\n", function);
        std::abort();
    }
};

// The service's session, except that the panel's own elements are not deleted.
class Session : public egwservice::PanelHandler
{
public:
    Session(egwservice::ServiceCore& core, const std::set<unsigned>& panel)
        : PanelHandler(core, "fuzz"), panel_(panel)
    {
    }

    void deleteElement(Uuid uuid) override
    {
        keep(uuid);
        PanelHandler::deleteElement(uuid);
    }

    std::int64_t deleteElementWaited(Uuid root, const std::vector<rpc::StateChange>& changes,
                                     std::int32_t mode) override
    {
        keep(root);
        return PanelHandler::deleteElementWaited(root, changes, mode);
    }

private:
    void keep(Uuid uuid) const
    {
        if (uuid > 0 && uuid <= 0xFFFFFFFFll && panel_.count(static_cast<unsigned>(uuid)) != 0)
        {
            rpc::PanelError error;
            error.code = rpc::ErrorCode::REFUSED;
            error.message = "the fuzz harness keeps the panel's own elements";
            throw error;
        }
    }

    const std::set<unsigned>& panel_;
};

std::set<unsigned> elementsOfTheTree()
{
    std::vector<unsigned> all;
    const UINT32 root = EGW_ELementServerGetTreeRoot(nullptr);
    if (root != 0)
    {
        EGW_BASIC_THRIFT_GetAllElementUuidByElementType(root, 0, all, nullptr);
    }
    return std::set<unsigned>(all.begin(), all.end());
}

class Service
{
public:
    Service() : events_(egwservice::makeEventSource())
    {
        EGW_SetAssertHandler(abortOnReport);
        load();
    }

    egwservice::ServiceCore& core() { return *core_; }
    const std::set<unsigned>& panel() const { return panel_; }

    // Deletes what the last input added (or, should the panel have lost an element of its own
    // after all, loads it again).
    void restore()
    {
        const std::set<unsigned> now = elementsOfTheTree();
        if (!std::includes(now.begin(), now.end(), panel_.begin(), panel_.end()))
        {
            load();
            return;
        }
        std::vector<unsigned> added;
        std::set_difference(now.begin(), now.end(), panel_.begin(), panel_.end(),
                            std::back_inserter(added));
        // Children first: the later uuid of two added elements is never the parent's.
        for (auto uuid = added.rbegin(); uuid != added.rend(); ++uuid)
        {
            EGW_ELementServerDeleteElementByUuid(*uuid, nullptr);
        }
    }

private:
    void load()
    {
        core_.reset();
        egwservice::ServiceSettings settings;
        egwservice::preparePanel({}, settings);
        panelsim::setLogSink([](int, const std::string&, const std::string&) {});
        // The records in memory: every input runs fast and leaves no file behind.
        settings.database = ":memory:";
        core_ = std::make_unique<egwservice::ServiceCore>(settings, *events_);
        // No pump: events would arrive on a thread of their own, in no fixed order. A stopped hub
        // also answers every long poll at once, so that no input can make the run wait.
        core_->events().stop();
        panel_ = elementsOfTheTree();
    }

    std::unique_ptr<egwservice::EventSource> events_;
    std::unique_ptr<egwservice::ServiceCore> core_;
    std::set<unsigned> panel_;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static Service service;
    {
        const auto handler = std::make_shared<Session>(service.core(), service.panel());
        rpc::PanelServiceProcessor processor(handler);
        processor.setEventHandler(std::make_shared<UndeclaredFailures>());
        // The message size is what the input holds, so a list's announced length is checked
        // against it before anything is allocated for it.
        const auto config = std::make_shared<TConfiguration>(static_cast<int>(size) + 1);
        const auto input = std::make_shared<TMemoryBuffer>(const_cast<uint8_t*>(data),
                                                           static_cast<uint32_t>(size),
                                                           TMemoryBuffer::OBSERVE, config);
        const auto output = std::make_shared<TMemoryBuffer>();
        const auto in =
            std::make_shared<TBinaryProtocol>(input, kLongestString, kLongestList, false, true);
        const auto out = std::make_shared<TBinaryProtocol>(output);
        try
        {
            for (int call = 0; call < kMostCalls && input->available_read() > 0; ++call)
            {
                if (!processor.process(in, out, nullptr))
                {
                    break;
                }
                output->resetBuffer();
            }
        }
        catch (const apache::thrift::TException&)
        {
            // Bytes that are no call: the server ends such a connection.
        }
    }
    service.restore();
    return 0;
}
