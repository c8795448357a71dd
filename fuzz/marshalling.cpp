// Container marshalling: integer vectors and byte strings to and from plain buffers of any
// capacity, null buffers included. Each call is checked against its capacity rules; a buffer is
// allocated to exactly its stated capacity so that any write past it is caught.
#include <algorithm>
#include <vector>

#include "elementGateway.h"
#include "fuzzSupport.h"

namespace
{

constexpr char kSentinel = '\x5A';

void readVector(FuzzInput& in)
{
    const auto count = in.take<uint8_t>();
    std::vector<int> vec;
    for (unsigned i = 0; i < count; ++i)
        vec.push_back(in.take<int32_t>());
    const UINT32 capacity = in.take<uint8_t>();
    const bool nullBuffer = in.take<uint8_t>() == 0;

    std::vector<INT32> buffer(capacity, 0x5A5A5A5A);
    UINT32 copied = 0xFFFFFFFFu;
    const unsigned long reportsBefore = AssertionCount::value();
    const BOOL ok = EGW_BASIC_ReadVectorContain(vec, nullBuffer ? nullptr : buffer.data(), capacity,
                                                copied);
    if (nullBuffer || capacity == 0)
    {
        FUZZ_CHECK(AssertionCount::value() == reportsBefore + 1 && ok == FALSE);
        return;
    }
    FUZZ_CHECK(AssertionCount::value() == reportsBefore);
    FUZZ_CHECK(ok == (vec.size() <= capacity ? TRUE : FALSE));
    FUZZ_CHECK(copied == (ok ? vec.size() : 0));
    for (UINT32 i = 0; i < capacity; ++i)
        FUZZ_CHECK(buffer[i] == (ok && i < vec.size() ? vec[i] : 0x5A5A5A5A));
}

void writeVector(FuzzInput& in)
{
    std::vector<int> vec(in.take<uint8_t>(), 7);
    const auto count = in.take<uint8_t>();
    std::vector<INT32> buffer(count + 1u); // never null, also for a count of 0
    for (unsigned i = 0; i < count; ++i)
        buffer[i] = in.take<int32_t>();
    FUZZ_CHECK(EGW_BASIC_WriteVectorContain(vec, buffer.data(), count) == TRUE);
    FUZZ_CHECK(vec == std::vector<int>(buffer.begin(), buffer.begin() + count));
    FUZZ_CHECK(EGW_BASIC_GetVectorSize(vec) == count);
}

void readString(FuzzInput& in)
{
    const auto capacity = in.take<UINT16>();
    std::string str = in.takeBytes(in.take<UINT16>());
    if (in.take<uint8_t>() == 0xFF) // a string longer than a 16-bit size can tell
        str.append(65536, 'x');
    std::string buffer(capacity + 1u, kSentinel); // one byte more, to see that none is added
    UINT16 size = 0;
    const BOOL ok = EGW_BASIC_ReadStringContain(str, &buffer[0], capacity, size);
    FUZZ_CHECK(size == static_cast<UINT16>(str.size()));
    FUZZ_CHECK(ok == (str.size() <= capacity ? TRUE : FALSE));
    const std::string expected =
        ok ? str + std::string(capacity + 1u - str.size(), kSentinel) : std::string(capacity + 1u, kSentinel);
    FUZZ_CHECK(buffer == expected);

    UINT32 wholeSize = 1;
    const char* first = EGW_BASIC_GetStringdata(str, wholeSize);
    FUZZ_CHECK(wholeSize == str.size() && EGW_BASIC_GetStringSize(str) == str.size());
    FUZZ_CHECK(first == (str.empty() ? nullptr : str.data()));
}

void writeString(FuzzInput& in)
{
    const std::string before = in.takeBytes(in.take<uint8_t>());
    const BOOL clear = in.take<uint8_t>() & 1;
    const std::string bytes = in.takeBytes(in.take<UINT16>());
    std::string str = before;
    const BOOL ok = EGW_BASIC_WriteStringContain(str, bytes.data(),
                                                 static_cast<UINT16>(bytes.size()), clear);
    FUZZ_CHECK(ok == (bytes.empty() ? FALSE : TRUE));
    FUZZ_CHECK(str == (bytes.empty() ? before : (clear ? bytes : before + bytes)));
}

void findInList(FuzzInput& in)
{
    std::vector<unsigned int> list(in.take<uint8_t>() % 32);
    for (auto& value : list)
        value = in.take<uint8_t>();
    const UINT32 value = in.take<uint8_t>();
    const bool present = std::find(list.begin(), list.end(), value) != list.end();
    FUZZ_CHECK(CheckIsHavedInList(list, value) == (present ? TRUE : FALSE));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const bool installed = (AssertionCount::install(), true);
    (void)installed;
    FuzzInput in(data, size);
    while (in.remaining() != 0)
    {
        switch (in.take<uint8_t>() % 5)
        {
        case 0: readVector(in); break;
        case 1: writeVector(in); break;
        case 2: readString(in); break;
        case 3: writeString(in); break;
        default: findInList(in); break;
        }
    }
    return 0;
}
