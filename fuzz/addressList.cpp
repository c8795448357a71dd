// Address-list formatting: lists of address records with any values and storage type numbers.
// A list of accepted types must give the dotted text, last record first, and one zero byte; a
// record of another type must be reported, with only the text of the records before it written.
#include <cstdio>
#include <vector>

#include "elementGateway.h"
#include "fuzzSupport.h"
#include "panelsim/panelsim.h"

namespace
{

bool acceptedType(UINT32 type)
{
    return type <= 19 && ((0x980E0u >> type) & 1u) != 0;
}

std::string hex(UINT32 value)
{
    char text[16];
    std::snprintf(text, sizeof text, "%x", value);
    return text;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool installed = (AssertionCount::install(),
                                   panelsim::setLogSink([](int, const std::string&, const std::string&) {}),
                                   true);
    (void)installed;
    FuzzInput in(data, size);
    std::vector<S_EGW_THRIFT_ADDRESS_STRUCT> records(in.take<uint8_t>() % 64);
    for (auto& record : records)
    {
        record.mData = in.take<UINT32>();
        // Mostly small type numbers, so that most lists are valid; now and then any number.
        const auto type = in.take<uint8_t>();
        record.mDataType = type == 0xFF ? in.take<UINT32>() : type % 24;
    }

    // The text as far as the first record (walking from the last) of a refused type.
    std::string expected;
    bool refused = false;
    for (size_t i = records.size(); i-- > 0;)
    {
        if (!acceptedType(records[i].mDataType))
        {
            refused = true;
            break;
        }
        expected += hex(records[i].mData) + (i != 0 ? "." : "");
    }

    std::string text = "stale";
    const unsigned long reportsBefore = AssertionCount::value();
    const BOOL ok = EGW_BASIC_FormatAddressStructDataList(text, records);
    if (!refused)
    {
        FUZZ_CHECK(AssertionCount::value() == reportsBefore);
        FUZZ_CHECK(ok == TRUE);
        FUZZ_CHECK(text == expected + std::string(1, '\0'));
    }
    else
    {
        FUZZ_CHECK(AssertionCount::value() > reportsBefore);
        FUZZ_CHECK(text.compare(0, expected.size(), expected) == 0);
    }

    // One record appended on its own, with or without its dot.
    if (!records.empty() && acceptedType(records[0].mDataType))
    {
        std::string line = "x";
        EGW_BASIC_THRIFT_WriteDataInAddressString(records[0], line, records.size() & 1);
        FUZZ_CHECK(line == "x" + hex(records[0].mData) + ((records.size() & 1) ? "." : ""));
    }
    return 0;
}
