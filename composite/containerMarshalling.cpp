// Copies between the wire side's containers (integer vectors, byte strings) and plain buffers.
// A std::string is a run of raw bytes here: zero bytes are carried like any other byte and no
// terminator is ever added or stripped.
#include <algorithm>
#include <cstring>

#include "api/callingFrame.h"
#include "composite/gatewayComposite.h"

UINT32 EGW_BASIC_GetVectorSize(const std::vector<int>& vec)
{
    return static_cast<UINT32>(vec.size());
}

BOOL EGW_BASIC_ReadVectorContain(const std::vector<int>& vec, INT32* pBuffer, UINT32 mSizeBuffer,
                                 UINT32& count)
{
    static constexpr char kFn[] =
        "BOOL EGW_BASIC_ReadVectorContain(const std::vector<int>&, INT32*, UINT32, UINT32&)";
    EGW_REQUIRE(__null != pBuffer, kFn, FALSE);
    EGW_REQUIRE(0 != mSizeBuffer, kFn, FALSE);

    count = 0;
    if (mSizeBuffer < vec.size())
    {
        return FALSE;
    }
    for (int element : vec)
    {
        pBuffer[count] = element;
        ++count;
    }
    return TRUE;
}

BOOL EGW_BASIC_WriteVectorContain(std::vector<int>& vec, const INT32* pBuffer, UINT32 count)
{
    static constexpr char kFn[] =
        "BOOL EGW_BASIC_WriteVectorContain(std::vector<int>&, const INT32*, UINT32)";
    EGW_REQUIRE(__null != pBuffer, kFn, FALSE);

    vec.clear();
    vec.insert(vec.end(), pBuffer, pBuffer + count);
    return TRUE;
}

UINT32 EGW_BASIC_GetStringSize(const std::string& str)
{
    return static_cast<UINT32>(str.size());
}

const char* EGW_BASIC_GetStringdata(const std::string& str, UINT32& size)
{
    size = static_cast<UINT32>(str.size());
    return str.empty() ? nullptr : str.data();
}

BOOL EGW_BASIC_ReadStringContain(const std::string& str, void* pBuffer, UINT16 bufferSize,
                                 UINT16& size)
{
    static constexpr char kFn[] =
        "BOOL EGW_BASIC_ReadStringContain(const std::string&, void*, UINT16, UINT16&)";
    EGW_REQUIRE(__null != pBuffer, kFn, FALSE);

    // The length goes out before the capacity check, so a caller with too small a buffer learns
    // what it needs; it is the wire's 16-bit size, so longer strings report it truncated.
    size = static_cast<UINT16>(str.size());
    if (bufferSize < str.size())
    {
        return FALSE;
    }
    std::memcpy(pBuffer, str.data(), str.size());
    return TRUE;
}

BOOL EGW_BASIC_WriteStringContain(std::string& str, const void* pBuffer, UINT16 length, BOOL bClear)
{
    static constexpr char kFn[] =
        "BOOL EGW_BASIC_WriteStringContain(std::string&, const void*, UINT16, BOOL)";
    EGW_REQUIRE(__null != pBuffer, kFn, FALSE);

    // A zero length is refused before bClear is looked at: it never empties the string.
    if (0 == length)
    {
        return FALSE;
    }
    if (bClear)
    {
        str.clear();
    }
    str.append(static_cast<const char*>(pBuffer), length);
    return TRUE;
}

BOOL CheckIsHavedInList(const std::vector<unsigned int>& list, UINT32 value)
{
    return std::find(list.begin(), list.end(), value) != list.end() ? TRUE : FALSE;
}
