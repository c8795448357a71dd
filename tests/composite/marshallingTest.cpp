// Copies between wire containers and plain buffers: capacity rules and the 16-bit size.
#include "compositeTest.h"

using Marshalling = CompositeTest;

TEST_F(Marshalling, VectorIntoBufferOnlyWhenItFits)
{
    // Elements, capacity, result, count.
    const std::tuple<std::size_t, UINT32, BOOL, UINT32> cases[] = {
        {5, 4, FALSE, 0}, {5, 5, TRUE, 5}, {0, 1, TRUE, 0}};
    for (const auto& [elements, capacity, result, count] : cases)
    {
        std::vector<INT32> buffer(capacity + 1, 77), expected(capacity + 1, 77);
        std::fill_n(expected.begin(), count, -3);
        UINT32 copied = 99;
        EXPECT_EQ(EGW_BASIC_ReadVectorContain(std::vector<int>(elements, -3), buffer.data(),
                                              capacity, copied),
                  result);
        EXPECT_EQ(copied, count);
        EXPECT_EQ(buffer, expected) << elements << " elements into " << capacity;
    }
}

TEST_F(Marshalling, StringsMoveRawBytesWithASixteenBitSize)
{
    const std::string ten("0123\0\0006789", 10);
    char buffer[11] = "xxxxxxxxxx";
    UINT16 size = 0;
    EXPECT_EQ(EGW_BASIC_ReadStringContain(ten, buffer, 9, size), FALSE);
    EXPECT_EQ(size, 10);
    EXPECT_EQ(std::string(buffer), "xxxxxxxxxx");
    EXPECT_EQ(EGW_BASIC_ReadStringContain(ten, buffer, 10, size), TRUE);
    EXPECT_EQ(std::string(buffer, 11), ten + '\0');
    // 70,000 bytes never fit; the size wraps to 70,000 - 65,536.
    std::vector<char> large(65535);
    EXPECT_EQ(EGW_BASIC_ReadStringContain(std::string(70000, 'a'), large.data(), 65535, size),
              FALSE);
    EXPECT_EQ(size, 4464);

    std::string str = "ABC";
    EXPECT_EQ(EGW_BASIC_WriteStringContain(str, "XY", 0, TRUE), FALSE);
    EXPECT_EQ(EGW_BASIC_WriteStringContain(str, "X\0Y", 3, FALSE), TRUE);
    EXPECT_EQ(str, std::string("ABCX\0Y", 6));
    EXPECT_EQ(EGW_BASIC_WriteStringContain(str, "XY", 2, TRUE), TRUE);
    EXPECT_EQ(str, "XY");
    // The data of a string: its bytes and size, or null for an empty one.
    UINT32 length = 9;
    EXPECT_EQ(EGW_BASIC_GetStringdata(str, length), str.data());
    EXPECT_EQ(length, 2u);
    EXPECT_EQ(EGW_BASIC_GetStringdata(std::string(), length), nullptr);
    EXPECT_EQ(length, 0u);
}

TEST_F(Marshalling, NullBuffersAndZeroCapacityAreReported)
{
    UINT32 count = 5;
    INT32 buffer[1] = {0};
    EXPECT_EQ(EGW_BASIC_ReadVectorContain({1}, nullptr, 1, count), FALSE);
    EXPECT_EQ(EGW_BASIC_ReadVectorContain({1}, buffer, 0, count), FALSE);
    EXPECT_EQ(count, 5u);
    EXPECT_EQ(reportedExpressions(),
              (std::vector<std::string>{"__null != pBuffer", "0 != mSizeBuffer"}));
    EXPECT_EQ(assertReports()[1].function,
              "BOOL EGW_BASIC_ReadVectorContain(const std::vector<int>&, INT32*, UINT32, UINT32&)");
}
