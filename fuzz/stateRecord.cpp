// State-change records from raw bytes: unpacking and table matching over any data of any size,
// with pattern tables from the input too. Unpacking must accept exactly the 16-byte records whose
// words are set and of the right categories, and matching must agree with the rows, first match
// winning. The record words may name elements of a small panel built once per process.
#include <cstring>
#include <vector>

#include "elementGateway.h"
#include "fuzzSupport.h"
#include "host/idDefine.h"
#include "panelsim/panelsim.h"
#include "samplePanel.h"

namespace
{

bool rowMatches(const EGW_GROUP_STATE_STRUCT& row, const EGW_CONTROLPARA& record)
{
    const auto either = [](UINT32 pattern, UINT32 value) { return pattern == 0 || pattern == value; };
    return either(row.mGroupId, record.mGroupId) &&
           either(row.mFirstStateValue, record.mFirstStateValue) &&
           either(row.mSecondStateValue, record.mSecondStateValue) &&
           either(row.mElementType, EGW_ElementServerGetElementTypeByUuid(record.mUuid, nullptr));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const SamplePanel panel = [] {
        panelsim::reset();
        panelsim::setLogSink([](int, const std::string&, const std::string&) {});
        return buildSamplePanel();
    }();
    (void)panel;

    FuzzInput in(data, size);
    std::vector<EGW_GROUP_STATE_STRUCT> table(in.take<uint8_t>() % 5);
    for (auto& row : table)
    {
        row.mElementType = in.take<UINT32>();
        row.mGroupId = in.take<UINT32>();
        row.mFirstStateValue = in.take<UINT32>();
        row.mSecondStateValue = in.take<UINT32>();
    }
    const std::string bytes = in.rest();
    const void* record = bytes.empty() ? nullptr : bytes.data();

    EGW_CONTROLPARA unpacked;
    std::memset(&unpacked, 0xA5, sizeof unpacked);
    const EGW_CONTROLPARA untouched = unpacked;
    const BOOL ok = EGW_BASIC_UnpackStateChangeInforData(unpacked, record, bytes.size());
    if (bytes.size() != sizeof unpacked)
    {
        FUZZ_CHECK(ok == FALSE);
        FUZZ_CHECK(std::memcmp(&unpacked, &untouched, sizeof unpacked) == 0);
    }
    else
    {
        FUZZ_CHECK(std::memcmp(&unpacked, bytes.data(), sizeof unpacked) == 0);
        const bool valid = unpacked.mUuid != 0 && unpacked.mGroupId != 0 &&
                           unpacked.mFirstStateValue != 0 && unpacked.mSecondStateValue != 0 &&
                           CIDDefine::GetTypebyID(unpacked.mGroupId) == 8 &&
                           CIDDefine::GetTypebyID(unpacked.mFirstStateValue) == 6 &&
                           CIDDefine::GetTypebyID(unpacked.mSecondStateValue) == 6;
        FUZZ_CHECK(ok == (valid ? TRUE : FALSE));
    }

    bool anyRow = false;
    for (const auto& row : table)
        anyRow = anyRow || (ok && rowMatches(row, unpacked));
    const BOOL matched = EGW_BASIC_CompareTableData(record, bytes.size(), table.data(),
                                                    static_cast<UINT32>(table.size()));
    FUZZ_CHECK(matched == (anyRow ? TRUE : FALSE));

    // A valid record packs back into the same four words, its state values given crosswise.
    if (ok)
    {
        EGW_CONTROLPARA packed{};
        FUZZ_CHECK(EGW_BASIC_PackStateChangeInforData(packed, unpacked.mUuid, unpacked.mGroupId,
                                                      unpacked.mSecondStateValue,
                                                      unpacked.mFirstStateValue) == TRUE);
        FUZZ_CHECK(std::memcmp(&packed, &unpacked, sizeof packed) == 0);
    }
    return 0;
}
